// Trace handles and their level configuration.
//
// Every source module owns one Trace::Handle, looked up by name on first use
// and kept for the life of the process:
//
//    static Trace::Handle& th() {
//       static Trace::Handle& h = Trace::handle( "OrbEvpnModeSm" );
//       return h;
//    }
//
// A handle carries the set of enabled levels 0..9 as a bit mask. Trace
// statements test it on every call, so enabled() is one relaxed load and a
// bit test and never takes a lock.
//
// Threading: handle() may be called from any thread; the registry behind it
// is guarded by a mutex. levelsIs() and configure() may run concurrently with
// trace statements; a statement racing with a change sees either mask.
//
// Invariants: a handle is never destroyed or moved once created, so the
// reference handle() returns stays valid until the process exits; one name
// maps to exactly one handle.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Trace {

inline constexpr int minLevel = 0;
inline constexpr int maxLevel = 9;
// The bits of a mask that mean something: levels 0..9.
inline constexpr uint32_t allLevels = ( 1u << ( maxLevel + 1 ) ) - 1;

class Handle {
 public:
   Handle( const Handle& ) = delete;
   Handle& operator=( const Handle& ) = delete;

   const std::string& name() const noexcept { return name_; }

   // Precondition: minLevel <= level <= maxLevel.
   bool enabled( int level ) const noexcept {
      return ( levels_.load( std::memory_order_relaxed ) >> level ) & 1u;
   }
   // Bit n of the mask enables level n; bits above maxLevel are dropped.
   void levelsIs( uint32_t mask ) noexcept {
      levels_.store( mask & allLevels, std::memory_order_relaxed );
   }
   uint32_t levels() const noexcept {
      return levels_.load( std::memory_order_relaxed );
   }

 private:
   friend class Registry;
   Handle( std::string name, uint32_t mask )
      : name_( std::move( name ) ), levels_( mask & allLevels ) {}

   const std::string name_;
   // Written by levelsIs() (any thread); read racily by every statement.
   std::atomic< uint32_t > levels_;
};

// The handle called `name`, created on first use with the levels the current
// configuration gives that name.
Handle& handle( std::string_view name );

// Applies a level setting to existing handles and to handles created
// later. Grammar (blanks around tokens are ignored):
//
//    setting := "" | entry { "," entry }
//    entry   := name "/" levels
//    name    := "*" | one or more of [A-Za-z0-9_.:-]
//    levels  := item { "+" item }
//    item    := digit | digit "-" digit        (digit is 0..9, low <= high)
//
// for example "VxlanControllerEvpnTxSm/0-8,OrbEvpnModeSm/8" or "Foo/1+3+5-7".
// An entry sets its handle's mask to exactly the listed levels; "*" sets
// every handle, existing or future, and discards earlier per-name entries.
// Entries apply left to right, so "*/0-9,Foo/1" leaves Foo at level 1 only.
// Names the setting does not mention keep their levels.
//
// A malformed setting throws Mox::RangeException and changes nothing.
void configure( std::string_view setting );

// configure() with the value of ORBEVPN_TRACE; does nothing when it is unset.
void configureFromEnvironment();
inline constexpr const char* environmentVariable = "ORBEVPN_TRACE";

// Every handle back to no levels, and forgets all configured names.
void resetConfiguration();

}  // namespace Trace

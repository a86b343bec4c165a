// The process's named statistics counters.
//
// 64-bit counters handed out by name: the same name gives the same counter
// for the life of the process (references stay valid), so every table of a
// kind adds to one "hostIs". Increments are relaxed atomics, safe from any
// thread; the host program reads them all with counters().
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Mox {

class Counter {
 public:
   explicit Counter( std::string name ) : name_( std::move( name ) ) {}
   Counter( const Counter& ) = delete;
   Counter& operator=( const Counter& ) = delete;

   const std::string& name() const { return name_; }
   uint64_t value() const { return value_.load( std::memory_order_relaxed ); }
   void inc( uint64_t n = 1 ) { value_.fetch_add( n, std::memory_order_relaxed ); }

 private:
   std::string name_;
   std::atomic< uint64_t > value_{ 0 };
};

// The counter called `name`, created at zero on first use.
Counter& counter( std::string_view name );
// Every counter with its value, sorted by name.
std::vector< std::pair< std::string, uint64_t > > counters();

}  // namespace Mox

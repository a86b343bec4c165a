// RingLog: the in-memory trace ring.
//
// One process-wide ring of fixed byte size holds the most recent trace
// records of every handle, oldest first. A record keeps the statement's
// format string by pointer (it is a literal, so it lives as long as the
// program) and its arguments as raw bytes (see internal/ArgCodec.h for which
// arguments are copied and which are formatted at once). Text is built only
// when the ring is read, so a record costs a few copies, not a format.
//
// Records point at their handle and format literal, so a shared object that
// traced must stay loaded while its records are in the ring.
//
// When the ring is full the oldest records are overwritten. A record that
// cannot fit even in an empty ring is replaced by a marker record naming the
// statement and its size.
//
// Threading: append, read and resize are serialised by one mutex. Readers copy
// the ring under the mutex and format outside it, so a formatter that traces
// does not deadlock.
#pragma once

#include "platform/trace/Handle.h"
#include "platform/trace/Sink.h"
#include "platform/trace/internal/ArgCodec.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Trace {

class RingLog {
 public:
   static constexpr size_t defaultCapacity = 64 * 1024;
   // Room for a header and a marker record, with some to spare.
   static constexpr size_t minCapacity = 256;

   // Resizes the ring and empties it. Throws Mox::RangeException below
   // minCapacity.
   static void capacityIs( size_t bytes );
   static size_t capacity();
   static void clear();
   static size_t recordCount();

   // Calls `fn` for every record, oldest first.
   static void visit( const std::function< void( const Record& ) >& fn );
   // Every record as formatLine() renders it, oldest first.
   static std::vector< std::string > lines();
   // lines(), one per output line.
   static void dump( std::ostream& os );

   // Records one statement. `format` must outlive the ring: trace statements
   // pass string literals.
   template < typename... Args >
   static void append( const Handle& h, int level, int64_t timestamp,
                       std::string_view format, const Args&... args ) {
      using namespace internal;
      // Arguments that must be formatted now are formatted before any lock.
      auto prepared = std::tuple< decltype( Codec< Stored< Args > >::prepare(
         std::declval< const Stored< Args >& >() ) )... >{
         Codec< Stored< Args > >::prepare( args )... };
      EncodeBuffer bytes;
      std::apply(
         [ & ]( const auto&... p ) {
            ( Codec< Stored< Args > >::encode( bytes, p ), ... );
         },
         prepared );
      appendRecord( h, level, timestamp, format, &render< Stored< Args >... >,
                    bytes.data(), bytes.size() );
   }

 private:
   static void appendRecord( const Handle& h, int level, int64_t timestamp,
                             std::string_view format, internal::RenderFn render,
                             const char* args, size_t argBytes );
};

}  // namespace Trace

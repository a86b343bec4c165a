// DualLog: the trace front end every module uses.
//
//    TRACE( th(), 8, "Turning orbEvpnIntegrationMode {}", on ? "ON" : "OFF" );
//
// The statement tests the level on the handle first; a disabled statement is
// one load and one branch and evaluates none of its arguments. An enabled
// statement writes the formatted text to the text sink (unless none is
// installed) and a record of the format string and raw arguments to the ring.
//
// The format must be a string literal: the ring keeps a pointer to it, and fmt
// checks it against the argument types at compile time.
//
// Threading: statements may run on any thread; see Sink.h and RingLog.h.
#pragma once

#include "platform/trace/Handle.h"
#include "platform/trace/RingLog.h"
#include "platform/trace/Sink.h"
#include "platform/trace/internal/TextOutput.h"

#include <fmt/format.h>

#include <chrono>
#include <iterator>

namespace Trace {

class DualLog {
 public:
   // The enabled part of a TRACE statement; call through the macro so that
   // disabled levels cost nothing.
   template < typename... Args >
   static void write( const Handle& h, int level, fmt::format_string< Args... > format,
                      Args&&... args ) {
      int64_t now = std::chrono::duration_cast< std::chrono::nanoseconds >(
                       std::chrono::system_clock::now().time_since_epoch() )
                       .count();
      if ( internal::textSinkInstalled.load( std::memory_order_relaxed ) ) {
         fmt::memory_buffer text;
         fmt::vformat_to( std::back_inserter( text ), format,
                          fmt::make_format_args( internal::textArg( args )... ) );
         internal::writeText(
            Record{ now, h.name(), level, std::string_view( text.data(), text.size() ) } );
      }
      fmt::string_view literal = format;
      RingLog::append( h, level, now, std::string_view( literal.data(), literal.size() ),
                       args... );
   }
};

}  // namespace Trace

// TRACE( handle, level, "literal {}", args... )
#define TRACE( handle, level, format, ... )                                    \
   do {                                                                        \
      const ::Trace::Handle& traceHandle_ = ( handle );                        \
      const int traceLevel_ = ( level );                                       \
      if ( traceHandle_.enabled( traceLevel_ ) ) [[unlikely]] {                \
         ::Trace::DualLog::write( traceHandle_, traceLevel_,                   \
                                  "" format __VA_OPT__(, ) __VA_ARGS__ );      \
      }                                                                        \
   } while ( 0 )

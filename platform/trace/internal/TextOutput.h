// Text-sink plumbing used by the DualLog front end; not for direct use.
#pragma once

#include "platform/trace/Sink.h"

#include <atomic>
#include <string_view>
#include <type_traits>

namespace Trace::internal {

// Mirrors "a text sink is installed" so a statement can skip formatting the
// text when nobody would read it. Written by textSinkIs().
extern std::atomic< bool > textSinkInstalled;

// Hands `r` to the installed sink, serialised with every other write.
void writeText( const Record& r );

// An argument as the text trace formats it. fmt refuses a null char pointer
// by throwing; a trace statement must not throw for that, and the ring prints
// "(null)" for it, so the text does too.
template < typename T >
decltype( auto ) textArg( T& v ) {
   if constexpr ( std::is_same_v< std::remove_cv_t< T >, const char* > ||
                  std::is_same_v< std::remove_cv_t< T >, char* > ) {
      return v ? std::string_view( v ) : std::string_view( "(null)" );
   } else {
      return ( v );
   }
}

}  // namespace Trace::internal

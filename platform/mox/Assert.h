// Fatal assertions.
//
// A violated precondition is a programming error: the process prints the
// asserted expression, exactly as written, on stderr and aborts. Nothing is
// unwound and no handler runs, so no half-done state escapes.
#pragma once

namespace Mox {

[[noreturn]] void fatalAssertion( const char* expression ) noexcept;

}  // namespace Mox

#define MOX_ASSERT( expr )                                                     \
   do {                                                                        \
      if ( !static_cast< bool >( expr ) ) [[unlikely]] {                       \
         ::Mox::fatalAssertion( #expr );                                       \
      }                                                                        \
   } while ( 0 )

// For conditions whose text is fixed by its callers rather than by the code
// (for example an assertion that a state "can't happen").
#define MOX_ASSERT_MSG( expr, text )                                           \
   do {                                                                        \
      if ( !static_cast< bool >( expr ) ) [[unlikely]] {                       \
         ::Mox::fatalAssertion( text );                                        \
      }                                                                        \
   } while ( 0 )

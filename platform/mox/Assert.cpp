#include "platform/mox/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Mox {

void fatalAssertion( const char* expression ) noexcept {
   // write(2) rather than stdio: the process may be in any state.
   size_t len = std::strlen( expression );
   [[maybe_unused]] ssize_t r = ::write( STDERR_FILENO, expression, len );
   r = ::write( STDERR_FILENO, "\n", 1 );
   std::abort();
}

}  // namespace Mox

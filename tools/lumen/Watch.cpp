// lumen watch: one line per change of one table, as it happens, until
// SIGINT or SIGTERM.
#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"
#include "tools/lumen/Table.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace LumenTool {

namespace {

// A descriptor that becomes readable on SIGINT or SIGTERM. The signals are
// blocked first, in this thread before any other exists, so every thread
// the readers start inherits the mask and none of them takes the signal.
int stopSignals() {
   sigset_t set;
   sigemptyset( &set );
   sigaddset( &set, SIGINT );
   sigaddset( &set, SIGTERM );
   if ( ::pthread_sigmask( SIG_BLOCK, &set, nullptr ) != 0 ) {
      return -1;
   }
   return ::signalfd( -1, &set, SFD_CLOEXEC | SFD_NONBLOCK );
}

// The table does not exist yet: nobody announces its creation, so look
// for its control file now and then.
constexpr int appearPollMs = 50;

}  // namespace

int watchTable( const std::string& path, Form form ) {
   int stopFd = stopSignals();
   if ( stopFd < 0 ) {
      complain( fmt::format( "cannot catch SIGINT and SIGTERM: {}", std::strerror( errno ) ) );
      return exitFailed;
   }
   WatchPrinter out( form );
   Found found = Found::atStart;
   for ( ;; ) {
      FoundTable table = findTable( path );
      if ( table.info ) {
         const RecordKind* kind = kindOrComplain( *table.info );
         if ( !kind ) {
            return exitNoTable;
         }
         return kind->watch( path, out, stopFd, found );
      }
      if ( table.exitCode != exitNoTable || !isTablePath( path ) ) {
         complain( table.error );
         return table.exitCode;
      }
      if ( found == Found::atStart ) {
         out.status( Lumen::MountStatus::waitingForWriter, 0 );
         found = Found::afterWaiting;
      }
      struct pollfd stop = { stopFd, POLLIN, 0 };
      if ( ::poll( &stop, 1, appearPollMs ) > 0 ) {
         return exitOk;
      }
   }
}

}  // namespace LumenTool

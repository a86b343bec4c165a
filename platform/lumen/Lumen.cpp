// Process-wide Lumen settings: the root folder, the default maximum
// capacity and the atomics check.
#include "platform/lumen/Options.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>

namespace Lumen {

namespace {

std::mutex rootMutex;
std::optional< std::string > rootOverride;

}  // namespace

void rootIs( std::string path ) {
   std::lock_guard lock( rootMutex );
   rootOverride = std::move( path );
}

std::string root() {
   std::lock_guard lock( rootMutex );
   if ( rootOverride ) {
      return *rootOverride;
   }
   if ( const char* env = std::getenv( "ORBEVPN_LUMEN_ROOT" ); env && *env ) {
      return env;
   }
   return "/dev/shm";
}

namespace {
std::atomic< uint32_t > maxCapacityDefaultValue{ 1u << 24 };
}

void maxCapacityDefaultIs( uint32_t entries ) {
   maxCapacityDefaultValue.store( std::max( entries, 1u ), std::memory_order_relaxed );
}

uint32_t maxCapacityDefault() {
   return maxCapacityDefaultValue.load( std::memory_order_relaxed );
}

bool hardwareSupportsAtomics() {
   return std::atomic< uint64_t >::is_always_lock_free &&
          std::atomic< uint32_t >::is_always_lock_free &&
          std::atomic< uint8_t >::is_always_lock_free;
}

const char* mountStatusName( MountStatus s ) {
   switch ( s ) {
    case MountStatus::unmounted: return "unmounted";
    case MountStatus::waitingForWriter: return "waitingForWriter";
    case MountStatus::mounted: return "mounted";
    case MountStatus::writerGone: return "writerGone";
   }
   return "invalid";
}

}  // namespace Lumen

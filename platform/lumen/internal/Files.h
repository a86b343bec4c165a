// File and mapping helpers shared by the parts of the segment protocol:
// creating a segment complete under its final name, sizing it with its pages
// reserved, and mapping a descriptor. Internal to Lumen.
#pragma once

#include "platform/lumen/internal/Segment.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

namespace Lumen::internal {

constexpr mode_t fileMode = 0644;
constexpr uint32_t minSlots = 8;
constexpr uint32_t maxSlots = 1u << 31;
constexpr uint32_t maxFeedCapacity = 1u << 24;

std::string errnoText();
// Sizes a new segment and reserves its pages. Returns 0 or an errno value.
int reserve( int fd, size_t size );
// Maps fd and closes it, whether or not the mapping succeeds.
Mapping mapClosing( int fd, size_t size, bool writable );
size_t fileSize( int fd );
// Bytes of storage a file has (st_blocks), and the problem when they fall
// short of `needed` bytes: the file is sparse (empty: no problem).
uint64_t allocatedSize( int fd );
std::string checkAllocated( uint64_t allocated, uint64_t needed );

// Creates `name` holding `size` bytes prepared by `init`, published under its
// final name only once complete, so a reader never maps a half-built header.
// Returns false if the name already exists.
template< class Init >
bool createComplete( const std::string& name, size_t size, Init init ) {
   // Per thread: two threads creating one table must not share a scratch file.
   std::string tmp = fmt::format( "{}@new.{}.{}", name, ::getpid(), thisThreadId() );
   ::unlink( tmp.c_str() );
   int fd = ::open( tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode );
   if ( fd < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", tmp, errnoText() );
   }
   if ( int err = reserve( fd, size ) ) {
      ::close( fd );
      ::unlink( tmp.c_str() );
      MOX_THROW( Mox::Exception, "Lumen cannot size {}: {}", tmp, std::strerror( err ) );
   }
   try {
      Mapping map = mapClosing( fd, size, true );
      init( map.data() );
   } catch ( ... ) {
      ::unlink( tmp.c_str() );
      throw;
   }
   bool created = ::link( tmp.c_str(), name.c_str() ) == 0;
   int linkErrno = errno;
   ::unlink( tmp.c_str() );
   if ( !created && linkErrno != EEXIST ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", name, std::strerror( linkErrno ) );
   }
   return created;
}

}  // namespace Lumen::internal

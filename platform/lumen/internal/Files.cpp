// Table names, files and mappings.
#include "platform/lumen/internal/Files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Lumen::internal {

namespace {

// "/a/b/c" -> "a.b.c". Components are restricted so that a flattened name can
// never contain '@', which separates a table's name from its suffixes.
std::string flatName( const std::string& path ) {
   bool ok = path.size() > 1 && path[ 0 ] == '/' && path.back() != '/';
   std::string flat;
   size_t start = 1;
   while ( ok && start <= path.size() ) {
      size_t end = path.find( '/', start );
      if ( end == std::string::npos ) {
         end = path.size();
      }
      std::string part = path.substr( start, end - start );
      ok = !part.empty() && part != "." && part != "..";
      for ( char c : part ) {
         ok = ok && ( std::isalnum( static_cast< unsigned char >( c ) ) || c == '_' || c == '-' ||
                      c == '.' );
      }
      flat += ( flat.empty() ? "" : "." ) + part;
      start = end + 1;
   }
   if ( !ok ) {
      MOX_THROW( Mox::Exception, "Lumen table path '{}' is not valid", path );
   }
   return flat;
}

}  // namespace

std::string errnoText() {
   return std::strerror( errno );
}

// Sizes a new segment and reserves its pages. A merely truncated file on a
// full tmpfs would map fine and then kill the writer with SIGBUS at its first
// store to a page that cannot be had; reserving up front turns that into an
// error at creation. Returns 0 or an errno value.
int reserve( int fd, size_t size ) {
   if ( ::ftruncate( fd, off_t( size ) ) != 0 ) {
      return errno;
   }
   return ::posix_fallocate( fd, 0, off_t( size ) );
}

// A mapping needs no descriptor, so no path out of a caller leaks it.
Mapping mapClosing( int fd, size_t size, bool writable ) {
   int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
   void* addr = ::mmap( nullptr, size, prot, MAP_SHARED, fd, 0 );
   int err = errno;
   ::close( fd );
   if ( addr == MAP_FAILED ) {
      MOX_THROW( Mox::Exception, "Lumen mmap of {} bytes failed: {}", size, std::strerror( err ) );
   }
   Mapping map( addr, size );
   if ( !writable ) {
      map.guard();   // a reader must survive the file's truncation
   }
   return map;
}

size_t fileSize( int fd ) {
   struct stat st {};
   return ::fstat( fd, &st ) == 0 ? size_t( st.st_size ) : 0;
}

// Bytes the file has storage for. Every segment is created with its pages
// reserved, so one whose size outruns its storage is sparse: not ours, and
// reading its holes would fill the file system with zero pages.
uint64_t allocatedSize( int fd ) {
   struct stat st {};
   return ::fstat( fd, &st ) == 0 ? uint64_t( st.st_blocks ) * 512 : 0;
}

std::string checkAllocated( uint64_t allocated, uint64_t needed ) {
   // Storage comes in blocks: a partial last block is no sign of a hole.
   if ( allocated + 4096 < needed ) {
      return fmt::format( "segment of {} bytes has storage for only {} (a sparse file)", needed,
                          allocated );
   }
   return {};
}

std::string controlFileName( const std::string& root, const std::string& path ) {
   return fmt::format( "{}/{}", root, flatName( path ) );
}

std::string dataFileName( const std::string& root, const std::string& path, uint64_t generation ) {
   return fmt::format( "{}/{}@{}", root, flatName( path ), generation );
}

std::string wakeFileName( const std::string& root, const std::string& path ) {
   return fmt::format( "{}/{}@wake", root, flatName( path ) );
}

std::string readerSocketName( const std::string& root, uint32_t pid, uint32_t nonce ) {
   return fmt::format( "{}/@reader.{}.{}", root, pid, nonce );
}

namespace {

thread_local uint32_t cachedTid = 0;

// A forked child's only thread inherits the forking thread's cache.
const int forgetTidInChild = ::pthread_atfork( nullptr, nullptr, [] { cachedTid = 0; } );

}  // namespace

uint32_t thisThreadId() {
   if ( cachedTid == 0 ) [[unlikely]] {
      cachedTid = uint32_t( ::gettid() );
   }
   return cachedTid;
}

FileIdentity identityOf( int fd ) {
   struct stat st {};
   if ( ::fstat( fd, &st ) != 0 ) {
      return {};
   }
   return { uint64_t( st.st_dev ), uint64_t( st.st_ino ) };
}

bool fileReplaced( const std::string& name, const FileIdentity& mapped ) {
   struct stat st {};
   if ( ::stat( name.c_str(), &st ) != 0 ) {
      return errno == ENOENT;
   }
   return uint64_t( st.st_dev ) != mapped.device || uint64_t( st.st_ino ) != mapped.inode;
}

// Unguarded first: the fault handler must never map over a range that is
// no longer ours.
void Mapping::release() {
   unguardMapping( guard_ );
   if ( addr_ ) {
      ::munmap( addr_, size_ );
   }
}

Mapping::~Mapping() {
   release();
}

Mapping::Mapping( Mapping&& o ) noexcept
   : addr_( o.addr_ ), size_( o.size_ ), guard_( o.guard_ ), damaged_( o.damaged_ ) {
   o.addr_ = nullptr;
   o.size_ = 0;
   o.guard_ = -1;
   o.damaged_ = unguardedFlag();
}

Mapping& Mapping::operator=( Mapping&& o ) noexcept {
   if ( this != &o ) {
      release();
      addr_ = o.addr_;
      size_ = o.size_;
      guard_ = o.guard_;
      damaged_ = o.damaged_;
      o.addr_ = nullptr;
      o.size_ = 0;
      o.guard_ = -1;
      o.damaged_ = unguardedFlag();
   }
   return *this;
}

}  // namespace Lumen::internal

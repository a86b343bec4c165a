// Table names, files and mappings.
#include "platform/lumen/internal/Files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Lumen::internal {

namespace {

// The longest suffix a table's file name takes: a scratch control file's
// "@new.<pid>.<tid>" (a data file's "@<generation>" is at most 21).
constexpr size_t longestSuffix = sizeof( "@new.4294967295.4294967295" ) - 1;
constexpr size_t maxFileName = NAME_MAX;
constexpr size_t maxFilePath = PATH_MAX - 1;   // without its NUL


// Bytes a file name carries as they are; every other byte of a component
// is escaped as %XX, '.' included, which separates components, and '@',
// which starts a file's suffix.
bool plainByte( unsigned char c ) {
   return ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || ( c >= '0' && c <= '9' ) ||
          c == '_' || c == '-';
}

constexpr char hexDigits[] = "0123456789ABCDEF";

int hexValue( char c ) {
   const char* p = std::strchr( hexDigits, c );
   return c != 0 && p ? int( p - hexDigits ) : -1;
}

// "/a/b.c" -> "a.b%2Ec": components joined by '.', each escaped, so that
// distinct paths never share a name and tablePathOfFile() can map back.
// A path is '/' followed by components separated by '/': non-empty, not
// "." or "..", without NUL bytes.
std::string tableFileStem( const std::string& path ) {
   bool ok = path.size() > 1 && path[ 0 ] == '/' && path.back() != '/' &&
             path.find( '\0' ) == std::string::npos;
   std::string stem;
   size_t start = 1;
   while ( ok && start <= path.size() ) {
      size_t end = std::min( path.find( '/', start ), path.size() );
      std::string_view part( path.data() + start, end - start );
      ok = !part.empty() && part != "." && part != "..";
      if ( !stem.empty() ) {
         stem += '.';
      }
      for ( unsigned char c : part ) {
         if ( plainByte( c ) ) {
            stem += char( c );
         } else {
            stem += '%';
            stem += hexDigits[ c >> 4 ];
            stem += hexDigits[ c & 15 ];
         }
      }
      start = end + 1;
   }
   if ( !ok ) {
      MOX_THROW( Mox::Exception, "Lumen table path '{}' is not valid", path );
   }
   return stem;
}

// The stem, checked to leave room for every file of the table: a path the
// writer could not create must not leave its readers waiting for ever.
std::string checkedStem( const std::string& root, const std::string& path ) {
   std::string stem = tableFileStem( path );
   size_t nameBytes = stem.size() + longestSuffix;
   if ( nameBytes > maxFileName ) {
      MOX_THROW( Mox::Exception,
                 "Lumen table path '{}' is too long: its file names would need up to {} bytes, a "
                 "file name may have {}",
                 path, nameBytes, maxFileName );
   }
   size_t pathBytes = root.size() + 1 + nameBytes;
   if ( pathBytes > maxFilePath ) {
      MOX_THROW( Mox::Exception,
                 "Lumen table path '{}' is too long under root {}: its files' paths would need up "
                 "to {} bytes, a path may have {}",
                 path, root, pathBytes, maxFilePath );
   }
   return stem;
}

std::string modeText( mode_t mode ) {
   return fmt::format( "{:04o}", unsigned( mode & 07777 ) );
}

std::string describe( const struct stat& st ) {
   return fmt::format( "owner {}, group {}, mode {}", userText( st.st_uid ), groupText( st.st_gid ),
                       modeText( st.st_mode ) );
}

// How a file that cannot be opened looks, for the message; empty if it
// cannot be seen either.
std::string describeName( const std::string& name ) {
   struct stat st {};
   if ( ::lstat( name.c_str(), &st ) != 0 ) {
      return {};
   }
   return " (" + describe( st ) + ")";
}

const char* typeText( mode_t mode ) {
   switch ( mode & S_IFMT ) {
    case S_IFDIR: return "a directory";
    case S_IFIFO: return "a FIFO";
    case S_IFSOCK: return "a socket";
    case S_IFCHR: return "a character device";
    case S_IFBLK: return "a block device";
    case S_IFLNK: return "a symbolic link";
   }
   return "not a regular file";
}

}  // namespace

FileAccess FileAccess::of( const Options& options ) {
   // Write access for anyone but the writer would let them truncate a file
   // the writer has mapped, which kills it with SIGBUS at its next store.
   // The wake file is the exception readers need: they register in it.
   auto check = [ & ]( const char* what, mode_t mode, mode_t allowed ) {
      if ( ( mode & ~allowed ) != 0 || ( mode & 0600 ) != 0600 ) {
         MOX_THROW( Mox::Exception,
                    "Lumen {} {} is not supported: it must give the owner read and write and "
                    "may give no more than {}",
                    what, modeText( mode ), modeText( allowed ) );
      }
   };
   check( "tableMode", options.tableMode, 0644 );
   check( "wakeMode", options.wakeMode, 0664 );
   return { options.tableMode, options.wakeMode, options.group.value_or( ::getegid() ) };
}

std::string userText( uid_t uid ) {
   struct passwd pw {};
   struct passwd* found = nullptr;
   char buf[ 1024 ];
   if ( ::getpwuid_r( uid, &pw, buf, sizeof( buf ), &found ) == 0 && found ) {
      return fmt::format( "uid {} ({})", uid, found->pw_name );
   }
   return fmt::format( "uid {}", uid );
}

std::string groupText( gid_t gid ) {
   struct group gr {};
   struct group* found = nullptr;
   char buf[ 1024 ];
   if ( ::getgrgid_r( gid, &gr, buf, sizeof( buf ), &found ) == 0 && found ) {
      return fmt::format( "gid {} ({})", gid, found->gr_name );
   }
   return fmt::format( "gid {}", gid );
}

TableFile TableFile::open( const std::string& name, int access, uid_t owner ) {
   TableFile f;
   f.name_ = name;
   // O_NONBLOCK: an open() of a FIFO planted under the name would wait for
   // a peer for ever. It means nothing to a regular file.
   f.fd_ = ::open( name.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC );
   if ( f.fd_ < 0 ) {
      f.error_ = errno;
      if ( f.error_ == ELOOP ) {
         f.problem_ = fmt::format( "Lumen file {} is a symbolic link{}: refusing to follow it, a "
                                   "table's file never is one",
                                   name, describeName( name ) );
      } else if ( f.error_ == EACCES ) {
         f.problem_ = fmt::format( "Lumen cannot open {}{}: permission denied (uid {}, gid {}); "
                                   "a table may be read by its writer's user and members of its "
                                   "group only",
                                   name, describeName( name ), ::geteuid(), ::getegid() );
      } else {
         f.problem_ = fmt::format( "Lumen cannot open {}: {}", name, std::strerror( f.error_ ) );
      }
      return f;
   }
   ::fstat( f.fd_, &f.stat_ );
   if ( !S_ISREG( f.stat_.st_mode ) ) {
      f.problem_ = fmt::format( "Lumen file {} is {} ({}): refusing it", name,
                                typeText( f.stat_.st_mode ), describe( f.stat_ ) );
      f.error_ = EINVAL;
   } else if ( owner != anyOwner && f.stat_.st_uid != owner ) {
      f.problem_ = fmt::format( "Lumen file {} belongs to {}, not to {} who writes the table: "
                                "refusing a table file another user made",
                                name, userText( f.stat_.st_uid ), userText( owner ) );
      f.error_ = EPERM;
   }
   if ( f.error_ != 0 ) {
      ::close( f.fd_ );
      f.fd_ = -1;
      return f;
   }
   ::fcntl( f.fd_, F_SETFL, ::fcntl( f.fd_, F_GETFL ) & ~O_NONBLOCK );
   return f;
}

TableFile TableFile::create( const std::string& name, mode_t mode, gid_t group ) {
   TableFile f;
   f.name_ = name;
   // O_EXCL fails on any existing name, a dangling symbolic link included.
   f.fd_ = ::open( name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC,
                   mode );
   if ( f.fd_ < 0 ) {
      f.error_ = errno;
      std::string why = fmt::format( "Lumen cannot create {}: {}", name, std::strerror( f.error_ ) );
      if ( f.error_ == EEXIST ) {
         f.problem_ = why + describeName( name );
         return f;
      }
      if ( f.error_ == EACCES || f.error_ == EPERM ) {
         MOX_THROW( TableAccessException, "{}", why );
      }
      MOX_THROW( Mox::Exception, "{}", why );
   }
   ::fstat( f.fd_, &f.stat_ );
   try {
      f.conform( mode, group );   // the umask narrowed the mode
   } catch ( ... ) {
      ::unlink( name.c_str() );
      throw;
   }
   return f;
}

void TableFile::conform( mode_t mode, gid_t group ) {
   if ( ( stat_.st_mode & 07777 ) != mode ) {
      if ( ::fchmod( fd_, mode ) != 0 ) {
         MOX_THROW( TableAccessException, "Lumen cannot give {} mode {}: {}", name_,
                    modeText( mode ), errnoText() );
      }
      stat_.st_mode = ( stat_.st_mode & ~mode_t( 07777 ) ) | mode;
   }
   if ( stat_.st_gid != group ) {
      if ( ::fchown( fd_, uid_t( -1 ), group ) != 0 ) {
         MOX_THROW( TableAccessException,
                    "Lumen cannot give {} to group {}: {} (the writer must be a member of the "
                    "table's group)",
                    name_, groupText( group ), errnoText() );
      }
      stat_.st_gid = group;
   }
}

void TableFile::require() const {
   if ( fd_ < 0 ) {
      MOX_THROW( TableAccessException, "{}", problem_ );
   }
}

int TableFile::release() {
   int fd = fd_;
   fd_ = -1;
   return fd;
}

TableFile::~TableFile() {
   if ( fd_ >= 0 ) {
      ::close( fd_ );
   }
}

TableFile::TableFile( TableFile&& o ) noexcept
   : fd_( o.release() ), error_( o.error_ ), name_( std::move( o.name_ ) ),
     problem_( std::move( o.problem_ ) ), stat_( o.stat_ ) {}

TableFile& TableFile::operator=( TableFile&& o ) noexcept {
   if ( this != &o ) {
      if ( fd_ >= 0 ) {
         ::close( fd_ );
      }
      fd_ = o.release();
      error_ = o.error_;
      name_ = std::move( o.name_ );
      problem_ = std::move( o.problem_ );
      stat_ = o.stat_;
   }
   return *this;
}

void removeDeadScratchFiles( const std::string& root, const std::string& path ) {
   std::string prefix = checkedStem( root, path ) + "@new.";
   DIR* dir = ::opendir( root.c_str() );
   if ( !dir ) {
      return;
   }
   uid_t self = ::geteuid();
   while ( const dirent* e = ::readdir( dir ) ) {
      std::string_view name( e->d_name );
      if ( !name.starts_with( prefix ) ) {
         continue;
      }
      // "<pid>.<tid>": the process that built it, and its thread.
      unsigned long pid = std::strtoul( e->d_name + prefix.size(), nullptr, 10 );
      if ( pid == 0 || pid == unsigned( ::getpid() ) || processAlive( uint32_t( pid ) ) ) {
         continue;
      }
      std::string file = root + "/" + e->d_name;
      struct stat st {};
      if ( ::fstatat( ::dirfd( dir ), e->d_name, &st, AT_SYMLINK_NOFOLLOW ) == 0 &&
           S_ISREG( st.st_mode ) && st.st_uid == self ) {
         ::unlink( file.c_str() );
      }
   }
   ::closedir( dir );
}

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

namespace {

bool outOfSpace( int err ) {
   return err == ENOSPC || err == EDQUOT || err == EFBIG || err == ENOMEM;
}

}  // namespace

void raiseSizeError( const std::string& name, int err ) {
   if ( outOfSpace( err ) ) {
      MOX_THROW( OutOfSpaceException, "Lumen cannot size {}: {}", name, std::strerror( err ) );
   }
   MOX_THROW( Mox::Exception, "Lumen cannot size {}: {}", name, std::strerror( err ) );
}

// A mapping needs no descriptor, so no path out of a caller leaks it.
Mapping mapClosing( int fd, size_t size, bool writable ) {
   int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
   void* addr = ::mmap( nullptr, size, prot, MAP_SHARED, fd, 0 );
   int err = errno;
   ::close( fd );
   if ( addr == MAP_FAILED ) {
      if ( err == ENOMEM ) {
         MOX_THROW( OutOfSpaceException, "Lumen mmap of {} bytes failed: {}", size,
                    std::strerror( err ) );
      }
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
   return fmt::format( "{}/{}", root, checkedStem( root, path ) );
}

std::string dataFileName( const std::string& root, const std::string& path, uint64_t generation ) {
   return fmt::format( "{}/{}@{}", root, checkedStem( root, path ), generation );
}

std::string wakeFileName( const std::string& root, const std::string& path ) {
   return fmt::format( "{}/{}@wake", root, checkedStem( root, path ) );
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

namespace Lumen {

std::optional< std::string > tablePathOfFile( const std::string& fileName ) {
   // The inverse of tableFileStem(), accepting only what it produces: a
   // plain byte is never escaped, an escape is upper-case, so each path has
   // exactly one name.
   std::string path;
   std::string part;
   auto endPart = [ & ] {
      if ( part.empty() || part == "." || part == ".." ) {
         return false;
      }
      path += '/';
      path += part;
      part.clear();
      return true;
   };
   for ( size_t i = 0; i < fileName.size(); ++i ) {
      unsigned char c = fileName[ i ];
      if ( c == '.' ) {
         if ( !endPart() ) {
            return std::nullopt;
         }
      } else if ( c == '%' ) {
         int high = i + 2 < fileName.size() ? internal::hexValue( fileName[ i + 1 ] ) : -1;
         int low = high >= 0 ? internal::hexValue( fileName[ i + 2 ] ) : -1;
         auto decoded = static_cast< unsigned char >( high * 16 + low );
         if ( low < 0 || decoded == 0 || decoded == '/' || internal::plainByte( decoded ) ) {
            return std::nullopt;
         }
         part += char( decoded );
         i += 2;
      } else if ( internal::plainByte( c ) ) {
         part += char( c );
      } else {
         return std::nullopt;   // '@' starts a suffix: not a control file
      }
   }
   if ( !endPart() ) {
      return std::nullopt;
   }
   return path;
}

}  // namespace Lumen

// A table's files: opening them safely, creating them complete under their
// final name, sizing them with their pages reserved, and mapping them.
// Internal to Lumen.
//
// The root is usually a folder every local user may write (/dev/shm), so
// any name in it may have been planted by someone else: a symbolic link to
// a file of ours, a FIFO that blocks an open(), a table made by another
// user that we would map and that user could truncate under us. Every
// table file is therefore opened through TableFile, never with a bare
// open(): no symbolic link is followed, anything but a regular file is
// refused, and so is a file whose owner is not the one expected.
#pragma once

#include "platform/lumen/internal/Segment.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace Lumen::internal {

constexpr uint32_t minSlots = 8;
constexpr uint32_t maxSlots = 1u << 31;
constexpr uint32_t maxFeedCapacity = 1u << 24;
constexpr uid_t anyOwner = uid_t( -1 );

// An open table file, or why there is none. Move-only; closes its
// descriptor unless released.
class TableFile {
 public:
   // Opens existing `name` for `access` (O_RDONLY or O_RDWR). Never follows
   // a symbolic link nor blocks on a FIFO; refuses anything but a regular
   // file owned by `owner` (anyOwner: any). Never throws: see absent() and
   // problem().
   static TableFile open( const std::string& name, int access, uid_t owner );
   // Creates `name`, read-write, which must not exist (not even as a
   // dangling link), with exactly `mode` (not masked by the umask) and
   // `group`. Throws TableAccessException, or Mox::Exception when the
   // system fails. An existing name is reported by absent() false and a
   // problem, not thrown, so that a creation race can be lost gracefully.
   static TableFile create( const std::string& name, mode_t mode, gid_t group );

   TableFile() = default;
   ~TableFile();
   TableFile( TableFile&& o ) noexcept;
   TableFile& operator=( TableFile&& o ) noexcept;

   explicit operator bool() const { return fd_ >= 0; }
   int fd() const { return fd_; }
   int release();   // the caller closes it from now on
   const std::string& name() const { return name_; }
   // Failed because nothing bears the name.
   bool absent() const { return fd_ < 0 && error_ == ENOENT; }
   bool exists() const { return fd_ < 0 && error_ == EEXIST; }
   bool denied() const { return fd_ < 0 && error_ == EACCES; }
   // Why the file may not be used, naming it (and its owner, group and mode
   // when known); empty when open.
   const std::string& problem() const { return problem_; }
   // Throws TableAccessException with problem() unless open.
   void require() const;
   uid_t owner() const { return stat_.st_uid; }
   size_t size() const { return size_t( stat_.st_size ); }
   FileIdentity identity() const { return { uint64_t( stat_.st_dev ), uint64_t( stat_.st_ino ) }; }
   // Gives the file `mode` and `group` if it has others: an existing table
   // takes the writer's present options. Throws TableAccessException.
   void conform( mode_t mode, gid_t group );

 private:
   int fd_ = -1;
   int error_ = 0;
   std::string name_;
   std::string problem_;
   struct stat stat_ {};
};

// "uid 65534 (nobody)".
std::string userText( uid_t uid );
std::string groupText( gid_t gid );

std::string errnoText();
// Sizes a new segment and reserves its pages. Returns 0 or an errno value.
int reserve( int fd, size_t size );
// Throws for reserve()'s failure `err` on file `name`: OutOfSpaceException
// when the root or the process has no room, else Mox::Exception.
[[noreturn]] void raiseSizeError( const std::string& name, int err );
// Maps fd and closes it, whether or not the mapping succeeds.
Mapping mapClosing( int fd, size_t size, bool writable );
size_t fileSize( int fd );
// Bytes of storage a file has (st_blocks), and the problem when they fall
// short of `needed` bytes: the file is sparse (empty: no problem).
uint64_t allocatedSize( int fd );
std::string checkAllocated( uint64_t allocated, uint64_t needed );


// Removes what writers of table `path` that died while creating its
// control file left behind (their scratch files), if this user's.
void removeDeadScratchFiles( const std::string& root, const std::string& path );

// Creates `name` holding `size` bytes prepared by `init`, published under its
// final name only once complete, so a reader never maps a half-built header.
// Returns false if the name already exists.
template< class Init >
bool createComplete( const std::string& name, size_t size, const FileAccess& access, Init init ) {
   // Per thread: two threads creating one table must not share a scratch file.
   std::string tmp = fmt::format( "{}@new.{}.{}", name, ::getpid(), thisThreadId() );
   ::unlink( tmp.c_str() );
   TableFile file = TableFile::create( tmp, access.tableMode, access.group );
   file.require();
   if ( int err = reserve( file.fd(), size ) ) {
      ::unlink( tmp.c_str() );
      raiseSizeError( tmp, err );
   }
   try {
      Mapping map = mapClosing( file.release(), size, true );
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

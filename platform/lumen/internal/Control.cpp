// The control segment: the table's header, the writer lock and the change
// feed.
#include "platform/lumen/internal/Files.h"
#include "platform/lumen/internal/Wake.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <pthread.h>
#include <sys/file.h>

namespace Lumen::internal {

namespace {

std::string checkControl( const ControlHeader& h, size_t size, const RecordLayout& layout ) {
   if ( h.magic != controlMagic ) {
      return fmt::format( "bad control magic {:#x}", h.magic );
   }
   if ( h.formatVersion != formatVersion ) {
      return fmt::format( "format version {} (expected {})", h.formatVersion, formatVersion );
   }
   if ( h.headerSize != sizeof( ControlHeader ) ) {
      return fmt::format( "control header size {}", h.headerSize );
   }
   std::string name( h.typeName, strnlen( h.typeName, sizeof( h.typeName ) ) );
   if ( h.recordSize != layout.recordSize || h.recordAlign != layout.recordAlign ||
        h.keySize != layout.keySize || name != layout.typeName ||
        h.layoutSignature != layout.signature() ) {
      return fmt::format( "record layout {} ({} bytes, key {} bytes) does not match {} ({} bytes, "
                          "key {} bytes)",
                          name, h.recordSize, h.keySize, layout.typeName, layout.recordSize,
                          layout.keySize );
   }
   if ( h.feedEntrySize != layout.feedEntrySize() || h.feedCapacity == 0 ||
        h.feedCapacity > maxFeedCapacity ||
        controlUndoOffset( h.feedCapacity, h.feedEntrySize ) +
              controlUndoSize( layout.recordSize, layout.recordAlign ) > size ) {
      return fmt::format( "feed of {} entries of {} bytes does not fit a {} byte segment",
                          h.feedCapacity, h.feedEntrySize, size );
   }
   return {};
}

// Writer locks are open-file-description locks, which belong to a description that a
// fork() shares with the child: a child that outlived its writer parent would
// keep the table locked with nobody writing. The child therefore swaps each
// lock descriptor for /dev/null right after fork (an exec closes them anyway:
// they are close-on-exec). Plain atomics: the child handler must be
// async-signal-safe, and may not take a lock another thread held at fork.
constexpr size_t maxLockFds = 256;
std::atomic< int > lockFds[ maxLockFds ];

void releaseLocksInChild() {
   int null = ::open( "/dev/null", O_RDONLY | O_CLOEXEC );
   for ( auto& slot : lockFds ) {
      int fd = slot.load( std::memory_order_relaxed );
      if ( fd > 0 && null >= 0 ) {
         ::dup3( null, fd, O_CLOEXEC );
      }
      slot.store( 0, std::memory_order_relaxed );
   }
   if ( null >= 0 ) {
      ::close( null );
   }
}

void registerLockFd( int fd ) {
   static const int registered = ::pthread_atfork( nullptr, nullptr, releaseLocksInChild );
   (void)registered;
   for ( auto& slot : lockFds ) {
      int free = 0;
      if ( slot.compare_exchange_strong( free, fd ) ) {
         return;
      }
   }
   // More writers than slots: those beyond keep the old behaviour.
}

void unregisterLockFd( int fd ) {
   for ( auto& slot : lockFds ) {
      int mine = fd;
      if ( slot.compare_exchange_strong( mine, 0 ) ) {
         return;
      }
   }
}

// The control file, this user's, created if missing. The scratch file
// createComplete() needs is only built when there is no table yet: one per
// attach would pile up, for good, behind writers killed while attaching.
TableFile openOrCreateControl( const std::string& root, const std::string& path,
                               const std::string& name, const RecordLayout& layout,
                               uint32_t feedCapacity, const FileAccess& access ) {
   removeDeadScratchFiles( root, path );
   for ( int attempt = 0; attempt < 3; ++attempt ) {
      TableFile file = TableFile::open( name, O_RDWR, ::geteuid() );
      if ( !file.absent() ) {
         file.require();
         return file;
      }
      size_t size = controlUndoOffset( feedCapacity, layout.feedEntrySize() ) +
                    controlUndoSize( layout.recordSize, layout.recordAlign );
      createComplete( name, size, access, [ & ]( uint8_t* base ) {
         auto* h = new ( base ) ControlHeader{};
         h->magic = controlMagic;
         h->formatVersion = formatVersion;
         h->headerSize = sizeof( ControlHeader );
         h->layoutSignature = layout.signature();
         h->recordSize = layout.recordSize;
         h->recordAlign = layout.recordAlign;
         h->keySize = layout.keySize;
         h->feedCapacity = feedCapacity;
         h->feedEntrySize = layout.feedEntrySize();
         std::strncpy( h->typeName, layout.typeName.c_str(), sizeof( h->typeName ) - 1 );
      } );
      // Ours, or another writer's that won the race: open whichever it is.
   }
   MOX_THROW( Mox::Exception, "Lumen cannot create {}: it keeps vanishing", name );
}

}  // namespace

std::unique_ptr< Control > Control::openForWriter( const std::string& root, const std::string& path,
                                                   const RecordLayout& layout,
                                                   uint32_t feedCapacity,
                                                   const FileAccess& access,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( root, path );
   if ( feedCapacity == 0 || feedCapacity > maxFeedCapacity ) {
      MOX_THROW( Mox::Exception, "Lumen feed capacity {} out of range", feedCapacity );
   }
   TableFile lockFile = openOrCreateControl( root, path, name, layout, feedCapacity, access );

   std::unique_ptr< Control > c( new Control );
   c->path_ = path;
   c->controlName_ = name;
   c->identity_ = lockFile.identity();
   c->owner_ = lockFile.owner();
   size_t actual = lockFile.size();
   if ( actual < sizeof( ControlHeader ) ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: control segment of {} bytes is too "
                                             "short", path, actual ) );
   }
   if ( !takeWriterLock( lockFile.fd() ) ) {
      if ( errno != EAGAIN && errno != EACCES ) {
         MOX_THROW( Mox::Exception, "Lumen cannot lock {}: {}", name, errnoText() );
      }
      uint32_t pid = 0;
      if ( ::pread( lockFile.fd(), &pid, sizeof( pid ), offsetof( ControlHeader, writerPid ) ) !=
           ssize_t( sizeof( pid ) ) ) {
         pid = 0;
      }
      MOX_THROW( WriterConflictException, "Lumen table {} already has a live writer (pid {})", path,
                 pid );
   }
   c->fd_ = lockFile.release();
   registerLockFd( c->fd_ );
   // Mapped through a second open file description: a mapping holds its
   // description, and one that shares the locked description would keep the
   // lock alive in a forked child. Checked to be the file locked: the name
   // may have been replaced meanwhile.
   TableFile mapped = TableFile::open( name, O_RDWR, ::geteuid() );
   mapped.require();
   FileIdentity same = mapped.identity();
   if ( same.device != c->identity_.device || same.inode != c->identity_.inode ) {
      MOX_THROW( Mox::Exception, "Lumen table {}: {} was replaced while attaching", path, name );
   }
   mapped.conform( access.tableMode, access.group );
   c->map_ = mapClosing( mapped.release(), actual, true );
   std::string problem = checkControl( c->header(), actual, layout );
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   c->feedCapacity_ = c->header().feedCapacity;
   c->feedEntrySize_ = c->header().feedEntrySize;
   c->keySize_ = layout.keySize;
   c->undo_ = c->map_.data() + controlUndoOffset( c->feedCapacity_, c->feedEntrySize_ );
   c->undoRecordOffset_ = undoRecordOffset( layout.recordAlign );
   c->root_ = root;
   c->head_ = c->header().feedHead.load( std::memory_order_relaxed );
   FileIdentity wakeIdentity;
   c->wake_ = openWakeForWriter( wakeFileName( root, path ), access, &wakeIdentity );
   c->peers_.resize( wakeReaderSlots );
   c->fenceFree_ = registerFenceFreeWriter();
   wakeHeader( c->wake_ ).writerFenceFree.store( c->fenceFree_ ? 1 : 0, std::memory_order_relaxed );
   // A sleeper that still reads the old flag has counted itself first:
   // this fence makes our later sleepers checks see it.
   std::atomic_thread_fence( std::memory_order_seq_cst );
   // What dead readers and sleepers of earlier writers left behind.
   c->sweepWake();
   return c;
}

std::unique_ptr< Control > Control::openForReader( const std::string& root, const std::string& path,
                                                   const RecordLayout& layout,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( root, path );
   // Whoever owns the control file writes the table; the other files must
   // be theirs too.
   TableFile file = TableFile::open( name, O_RDONLY, anyOwner );
   if ( file.absent() ) {
      return nullptr;
   }
   file.require();   // a reader outside the table's group learns it here
   size_t size = file.size();
   if ( size < sizeof( ControlHeader ) ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: control segment of {} bytes is too "
                                             "short", path, size ) );
   }
   std::unique_ptr< Control > c( new Control );
   c->path_ = path;
   c->controlName_ = name;
   c->identity_ = file.identity();
   c->owner_ = file.owner();
   c->probeFd_ = ::fcntl( file.fd(), F_DUPFD_CLOEXEC, 0 );
   uint64_t allocated = allocatedSize( file.fd() );
   c->map_ = mapClosing( file.release(), size, false );
   std::string problem = checkControl( c->header(), size, layout );
   if ( problem.empty() ) {
      problem = checkAllocated( allocated, size );
      problem = problem.empty() ? problem : "control " + problem;
   }
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   c->feedCapacity_ = c->header().feedCapacity;
   c->feedEntrySize_ = c->header().feedEntrySize;
   c->keySize_ = layout.keySize;
   return c;
}

Control::~Control() {
   if ( wake_ ) {
      stopFlusher();
   }
   for ( Peer& p : peers_ ) {
      if ( p.fd >= 0 ) {
         ::close( p.fd );
      }
   }
   if ( fd_ >= 0 ) {
      unregisterLockFd( fd_ );   // first: a fork meanwhile must not touch a reused number
      ::close( fd_ );            // releases the writer lock
   }
   if ( probeFd_ >= 0 ) {
      ::close( probeFd_ );
   }
}

MountStatus Control::status() const {
   return statusOf( header(), probeFd_ );
}

bool Control::writerAlive() const {
   return internal::writerAlive( header(), probeFd_ );
}

void Control::publish( const void* key ) {
   ControlHeader& h = header();
   uint64_t seq = head_++;
   uint8_t* entry = map_.data() + sizeof( ControlHeader ) + ( seq % feedCapacity_ ) * feedEntrySize_;
   auto& entrySeq = *reinterpret_cast< std::atomic< uint64_t >* >( entry );
   entrySeq.store( 2 * seq + 1, std::memory_order_relaxed );
   std::atomic_thread_fence( std::memory_order_release );
   std::memcpy( entry + feedKeyOffset, key, keySize_ );
   entrySeq.store( 2 * seq + 2, std::memory_order_release );
   h.feedHead.store( head_, std::memory_order_release );
   wake();
}

void Control::forceResync() {
   head_ += feedCapacity_ + 1;
   header().feedHead.store( head_, std::memory_order_release );
}

void Control::markAttached() {
   ControlHeader& h = header();
   struct timespec ts {};
   ::clock_gettime( CLOCK_REALTIME, &ts );
   h.writerPid.store( uint32_t( ::getpid() ), std::memory_order_relaxed );
   h.writerStartNs.store( uint64_t( ts.tv_sec ) * 1000000000ULL + uint64_t( ts.tv_nsec ),
                          std::memory_order_relaxed );
   h.writerEpoch.fetch_add( 1, std::memory_order_relaxed );
   h.writerState.store( uint32_t( WriterState::attached ), std::memory_order_release );
}

void Control::markDetached() {
   header().writerState.store( uint32_t( WriterState::detached ), std::memory_order_release );
}

const uint8_t* Control::undoFor( uint64_t generation, uint32_t slot, uint32_t word ) const {
   const UndoHeader& u = undo();
   if ( ( word & 3 ) != slotBusy || u.change.load( std::memory_order_relaxed ) != undoChange( slot, word ) ||
        u.generation.load( std::memory_order_relaxed ) != generation ) {
      return nullptr;
   }
   return undoRecord();
}

bool Control::readFeed( uint64_t seq, void* keyOut ) const {
   const uint8_t* entry =
      map_.data() + sizeof( ControlHeader ) + ( seq % feedCapacity_ ) * feedEntrySize_;
   const auto& entrySeq = *reinterpret_cast< const std::atomic< uint64_t >* >( entry );
   uint64_t before = entrySeq.load( std::memory_order_acquire );
   if ( before != 2 * seq + 2 ) {
      return false;
   }
   std::memcpy( keyOut, entry + feedKeyOffset, keySize_ );
   std::atomic_thread_fence( std::memory_order_acquire );
   return entrySeq.load( std::memory_order_relaxed ) == before;
}

}  // namespace Lumen::internal

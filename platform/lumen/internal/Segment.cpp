// Files, mappings, the control segment and the reader's wake-up path.
#include "platform/lumen/internal/Segment.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Lumen::internal {

namespace {

constexpr mode_t fileMode = 0644;
constexpr uint32_t minSlots = 8;
constexpr uint32_t maxSlots = 1u << 31;
constexpr uint32_t maxFeedCapacity = 1u << 24;

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

// Maps fd and closes it, whether or not the mapping succeeds (a mapping needs
// no descriptor), so no path out of a caller leaks it.
Mapping mapClosing( int fd, size_t size, bool writable ) {
   int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
   void* addr = ::mmap( nullptr, size, prot, MAP_SHARED, fd, 0 );
   int err = errno;
   ::close( fd );
   if ( addr == MAP_FAILED ) {
      MOX_THROW( Mox::Exception, "Lumen mmap of {} bytes failed: {}", size, std::strerror( err ) );
   }
   return Mapping( addr, size );
}

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

size_t fileSize( int fd ) {
   struct stat st {};
   return ::fstat( fd, &st ) == 0 ? size_t( st.st_size ) : 0;
}

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
        sizeof( ControlHeader ) + uint64_t( h.feedCapacity ) * h.feedEntrySize > size ) {
      return fmt::format( "feed of {} entries of {} bytes does not fit a {} byte segment",
                          h.feedCapacity, h.feedEntrySize, size );
   }
   return {};
}

std::string checkData( const DataHeader& h, size_t size, const RecordLayout& layout,
                       uint64_t generation ) {
   if ( h.magic != dataMagic ) {
      return fmt::format( "bad data magic {:#x} in generation {}", h.magic, generation );
   }
   if ( h.formatVersion != formatVersion || h.headerSize != sizeof( DataHeader ) ) {
      return fmt::format( "data format version {} header size {}", h.formatVersion, h.headerSize );
   }
   if ( h.generation != generation ) {
      return fmt::format( "data segment says generation {}, expected {}", h.generation, generation );
   }
   if ( h.layoutSignature != layout.signature() || h.recordSize != layout.recordSize ||
        h.slotSize != layout.slotSize() || h.recordOffset != layout.recordOffset() ) {
      return fmt::format( "data record layout (record {} slot {} offset {}) does not match",
                          h.recordSize, h.slotSize, h.recordOffset );
   }
   if ( h.slotCount < minSlots || h.slotCount > maxSlots ) {
      return fmt::format( "slot count {} out of range", h.slotCount );
   }
   uint64_t slots = h.slotCount;
   if ( sizeof( DataHeader ) + slots * h.slotSize > size ) {
      return fmt::format( "{} slots of {} bytes do not fit a {} byte segment", slots, h.slotSize,
                          size );
   }
   if ( h.capacity == 0 || h.capacity > slots - slots / 8 ) {
      return fmt::format( "capacity {} out of range for {} slots", h.capacity, slots );
   }
   return {};
}

}  // namespace

uint32_t RecordLayout::slotSize() const {
   uint32_t raw = recordOffset() + recordSize;
   if ( raw > 64 ) {
      return ( raw + 63 ) / 64 * 64;
   }
   uint32_t size = 8;
   while ( size < raw ) {
      size *= 2;
   }
   return size;
}

uint64_t RecordLayout::signature() const {
   // FNV-1a over everything that decides how bytes are read.
   uint64_t h = 0xcbf29ce484222325ULL;
   auto mix = [ &h ]( const void* p, size_t n ) {
      for ( size_t i = 0; i < n; ++i ) {
         h = ( h ^ static_cast< const uint8_t* >( p )[ i ] ) * 0x100000001b3ULL;
      }
   };
   uint32_t fields[] = { formatVersion, recordSize, recordAlign, keySize };
   mix( fields, sizeof( fields ) );
   mix( typeName.data(), typeName.size() );
   return h;
}

void raiseCorruption( const CorruptionHandler& handler, std::string message ) {
   if ( handler ) {
      handler( message );
   }
   MOX_THROW( Fable::CorruptionDetectedException, "{}", message );
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

bool processAlive( uint32_t pid ) {
   if ( pid == 0 || pid > uint32_t( INT_MAX ) ) {
      return false;
   }
   return ::kill( pid_t( pid ), 0 ) == 0 || errno == EPERM;
}

int futexWakeAll( std::atomic< uint32_t >* word ) {
   return int( ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAKE, INT_MAX,
                          nullptr, nullptr, 0 ) );
}

void futexWait( std::atomic< uint32_t >* word, uint32_t expected, int timeoutMs ) {
   struct timespec ts { timeoutMs / 1000, long( timeoutMs % 1000 ) * 1000000L };
   ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAIT, expected, &ts, nullptr,
              0 );
}

bool registerFenceFreeWriter() {
   static const bool registered =
      ::syscall( SYS_membarrier, MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED, 0, 0 ) == 0;
   return registered;
}

void readerBarrier() {
   ::syscall( SYS_membarrier, MEMBARRIER_CMD_GLOBAL_EXPEDITED, 0, 0 );
}

// --- Mapping ---

Mapping::~Mapping() {
   if ( addr_ ) {
      ::munmap( addr_, size_ );
   }
}

Mapping::Mapping( Mapping&& o ) noexcept : addr_( o.addr_ ), size_( o.size_ ) {
   o.addr_ = nullptr;
   o.size_ = 0;
}

Mapping& Mapping::operator=( Mapping&& o ) noexcept {
   if ( this != &o ) {
      if ( addr_ ) {
         ::munmap( addr_, size_ );
      }
      addr_ = o.addr_;
      size_ = o.size_;
      o.addr_ = nullptr;
      o.size_ = 0;
   }
   return *this;
}

// --- SlotArray ---

uint32_t SlotArray::slotCountFor( uint32_t capacity ) {
   // A full table fills 4/7 of its slots: short probes (about 0.7 slots of
   // displacement on average) at under 64 bytes per 24-byte record.
   uint64_t slots = uint64_t( capacity ) + uint64_t( capacity ) * 3 / 4 + 1;
   slots = std::max< uint64_t >( ( slots + 7 ) / 8 * 8, minSlots );
   if ( slots > maxSlots ) {
      MOX_THROW( Mox::Exception, "Lumen capacity {} is too large", capacity );
   }
   return uint32_t( slots );
}

namespace {

size_t dataSize( const RecordLayout& layout, uint32_t slots ) {
   return sizeof( DataHeader ) + size_t( slots ) * layout.slotSize();
}

void initData( uint8_t* base, const RecordLayout& layout, uint32_t capacity, uint32_t slots,
               uint64_t generation ) {
   auto* h = new ( base ) DataHeader{};
   h->magic = dataMagic;
   h->formatVersion = formatVersion;
   h->headerSize = sizeof( DataHeader );
   h->layoutSignature = layout.signature();
   h->generation = generation;
   h->recordSize = layout.recordSize;
   h->slotSize = layout.slotSize();
   h->recordOffset = layout.recordOffset();
   h->slotCount = slots;
   h->capacity = capacity;
}

}  // namespace

SlotArray SlotArray::fromMapping( Mapping map, const RecordLayout& layout, std::string file ) {
   SlotArray t;
   const DataHeader& h = *reinterpret_cast< const DataHeader* >( map.data() );
   t.generation_ = h.generation;
   t.slotCount_ = h.slotCount;
   t.reciprocal_ = ~uint64_t( 0 ) / t.slotCount_;
   t.capacity_ = h.capacity;
   t.slotSize_ = layout.slotSize();
   t.recordOffset_ = layout.recordOffset();
   t.slots_ = map.data() + sizeof( DataHeader );
   t.map_ = std::move( map );
   t.file_ = std::move( file );
   return t;
}

SlotArray SlotArray::createAnonymous( const RecordLayout& layout, uint32_t capacity,
                                      uint64_t generation ) {
   uint32_t slots = slotCountFor( capacity );
   size_t size = dataSize( layout, slots );
   void* addr = ::mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0 );
   if ( addr == MAP_FAILED ) {
      MOX_THROW( Mox::Exception, "Lumen cannot allocate {} bytes: {}", size, errnoText() );
   }
   Mapping map( addr, size );
   initData( map.data(), layout, capacity, slots, generation );
   return fromMapping( std::move( map ), layout, {} );
}

SlotArray SlotArray::createFile( const std::string& root, const std::string& path,
                                 const RecordLayout& layout,
                                 uint32_t capacity, uint64_t generation ) {
   uint32_t slots = slotCountFor( capacity );
   size_t size = dataSize( layout, slots );
   std::string name = dataFileName( root, path, generation );
   // A leftover of a writer that died before publishing this generation.
   ::unlink( name.c_str() );
   int fd = ::open( name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode );
   if ( fd < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", name, errnoText() );
   }
   if ( int err = reserve( fd, size ) ) {
      ::close( fd );
      ::unlink( name.c_str() );
      MOX_THROW( Mox::Exception, "Lumen cannot size {}: {}", name, std::strerror( err ) );
   }
   Mapping map;
   try {
      map = mapClosing( fd, size, true );
   } catch ( ... ) {
      ::unlink( name.c_str() );
      throw;
   }
   initData( map.data(), layout, capacity, slots, generation );
   return fromMapping( std::move( map ), layout, name );
}

SlotArray SlotArray::openFile( const std::string& root, const std::string& path,
                               const RecordLayout& layout,
                               uint64_t generation, const CorruptionHandler& handler ) {
   std::string name = dataFileName( root, path, generation );
   int fd = ::open( name.c_str(), O_RDONLY | O_CLOEXEC );
   if ( fd < 0 ) {
      return {};
   }
   size_t size = fileSize( fd );
   if ( size < sizeof( DataHeader ) ) {
      ::close( fd );
      raiseCorruption( handler, fmt::format( "Lumen table {}: data segment of {} bytes is too short",
                                             path, size ) );
   }
   Mapping map = mapClosing( fd, size, false );
   std::string problem =
      checkData( *reinterpret_cast< const DataHeader* >( map.data() ), size, layout, generation );
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   return fromMapping( std::move( map ), layout, name );
}

void SlotArray::unlinkFile() {
   if ( !file_.empty() ) {
      ::unlink( file_.c_str() );
      file_.clear();
   }
}

// --- Control ---

namespace {

Mapping openWakeWord( const std::string& name ) {
   int fd = ::open( name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, fileMode );
   if ( fd < 0 ) {
      return {};
   }
   // Whoever comes first sizes it; sizing twice to the same length is
   // harmless, and a segment of an older, shorter layout grows zero-filled.
   if ( fileSize( fd ) < wakeSegmentSize && ::ftruncate( fd, wakeSegmentSize ) != 0 ) {
      ::close( fd );
      return {};
   }
   Mapping map;
   try {
      map = mapClosing( fd, wakeSegmentSize, true );
   } catch ( const Mox::Exception& ) {
      return {};   // also called on a reader's thread, which must not throw
   }
   auto* h = reinterpret_cast< WakeHeader* >( map.data() );
   h->magic = wakeMagic;
   return map;
}

WakeHeader& wakeHeader( const Mapping& m ) {
   return *reinterpret_cast< WakeHeader* >( m.data() );
}

ReaderSlot& readerSlot( const Mapping& m, uint32_t i ) {
   return reinterpret_cast< ReaderSlot* >( m.data() + sizeof( WakeHeader ) )[ i ];
}

// Clears a reader's armed flag, keeping armedCount in step; true when it
// was armed (so exactly one of several racing callers sees true).
bool disarm( WakeHeader& w, ReaderSlot& slot ) {
   if ( slot.armed.exchange( 0, std::memory_order_acq_rel ) != 1 ) {
      return false;
   }
   w.armedCount.fetch_sub( 1, std::memory_order_relaxed );
   return true;
}

// A non-blocking datagram socket connected to `name`, or -1.
int connectTo( const std::string& name ) {
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   if ( name.size() >= sizeof( addr.sun_path ) ) {
      return -1;
   }
   std::memcpy( addr.sun_path, name.c_str(), name.size() + 1 );
   int fd = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
   if ( fd >= 0 && ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof( addr ) ) != 0 ) {
      ::close( fd );
      fd = -1;
   }
   return fd;
}

// False when the peer is gone; a full queue is success: the socket is
// readable already.
bool sendPoke( int fd ) {
   char byte = 1;
   return ::send( fd, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL ) == 1 || errno == EAGAIN ||
          errno == EWOULDBLOCK;
}

MountStatus statusOf( const ControlHeader& h ) {
   switch ( WriterState( h.writerState.load( std::memory_order_acquire ) ) ) {
    case WriterState::attached:
      return processAlive( h.writerPid.load( std::memory_order_relaxed ) ) ? MountStatus::mounted
                                                                            : MountStatus::writerGone;
    case WriterState::detached:
      return MountStatus::writerGone;
    case WriterState::none:
      break;
   }
   return MountStatus::waitingForWriter;
}

}  // namespace

namespace {

// Writer locks are flocks, which belong to an open file description that a
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

}  // namespace

std::unique_ptr< Control > Control::openForWriter( const std::string& root, const std::string& path,
                                                   const RecordLayout& layout,
                                                   uint32_t feedCapacity,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( root, path );
   if ( feedCapacity == 0 || feedCapacity > maxFeedCapacity ) {
      MOX_THROW( Mox::Exception, "Lumen feed capacity {} out of range", feedCapacity );
   }
   size_t size = sizeof( ControlHeader ) + size_t( feedCapacity ) * layout.feedEntrySize();
   createComplete( name, size, [ & ]( uint8_t* base ) {
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

   std::unique_ptr< Control > c( new Control );
   c->path_ = path;
   c->controlName_ = name;
   c->fd_ = ::open( name.c_str(), O_RDWR | O_CLOEXEC );
   if ( c->fd_ < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot open {}: {}", name, errnoText() );
   }
   c->identity_ = identityOf( c->fd_ );
   size_t actual = fileSize( c->fd_ );
   if ( actual < sizeof( ControlHeader ) ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: control segment of {} bytes is too "
                                             "short", path, actual ) );
   }
   if ( ::flock( c->fd_, LOCK_EX | LOCK_NB ) != 0 ) {
      uint32_t pid = 0;
      if ( ::pread( c->fd_, &pid, sizeof( pid ), offsetof( ControlHeader, writerPid ) ) !=
           ssize_t( sizeof( pid ) ) ) {
         pid = 0;
      }
      MOX_THROW( WriterConflictException, "Lumen table {} already has a live writer (pid {})", path,
                 pid );
   }
   registerLockFd( c->fd_ );
   // Mapped through a second open file description: a mapping holds its
   // description, and one that shares the locked description would keep the
   // lock alive in a forked child.
   int mapFdesc = ::open( name.c_str(), O_RDWR | O_CLOEXEC );
   if ( mapFdesc < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot open {}: {}", name, errnoText() );
   }
   c->map_ = mapClosing( mapFdesc, actual, true );
   std::string problem = checkControl( c->header(), actual, layout );
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   c->feedCapacity_ = c->header().feedCapacity;
   c->feedEntrySize_ = c->header().feedEntrySize;
   c->keySize_ = layout.keySize;
   c->root_ = root;
   c->wake_ = openWakeWord( wakeFileName( root, path ) );
   if ( c->wake_ ) {
      c->fenceFree_ = registerFenceFreeWriter();
      wakeHeader( c->wake_ ).writerFenceFree.store( c->fenceFree_ ? 1 : 0, std::memory_order_relaxed );
      // A sleeper that still reads the old flag has counted itself first:
      // this fence makes our later sleepers checks see it.
      std::atomic_thread_fence( std::memory_order_seq_cst );
   }
   return c;
}

std::unique_ptr< Control > Control::openForReader( const std::string& root, const std::string& path,
                                                   const RecordLayout& layout,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( root, path );
   int fd = ::open( name.c_str(), O_RDONLY | O_CLOEXEC );
   if ( fd < 0 ) {
      return nullptr;
   }
   size_t size = fileSize( fd );
   if ( size < sizeof( ControlHeader ) ) {
      ::close( fd );
      raiseCorruption( handler, fmt::format( "Lumen table {}: control segment of {} bytes is too "
                                             "short", path, size ) );
   }
   std::unique_ptr< Control > c( new Control );
   c->path_ = path;
   c->controlName_ = name;
   c->identity_ = identityOf( fd );
   c->map_ = mapClosing( fd, size, false );
   std::string problem = checkControl( c->header(), size, layout );
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   c->feedCapacity_ = c->header().feedCapacity;
   c->feedEntrySize_ = c->header().feedEntrySize;
   c->keySize_ = layout.keySize;
   return c;
}

Control::~Control() {
   for ( Peer& p : peers_ ) {
      if ( p.fd >= 0 ) {
         ::close( p.fd );
      }
   }
   if ( fd_ >= 0 ) {
      unregisterLockFd( fd_ );   // first: a fork meanwhile must not touch a reused number
      ::close( fd_ );            // releases the writer lock
   }
}

MountStatus Control::status() const {
   return statusOf( header() );
}

void Control::publish( const void* key ) {
   ControlHeader& h = header();
   uint64_t seq = h.feedHead.load( std::memory_order_relaxed );
   uint8_t* entry = map_.data() + sizeof( ControlHeader ) + ( seq % feedCapacity_ ) * feedEntrySize_;
   auto& entrySeq = *reinterpret_cast< std::atomic< uint64_t >* >( entry );
   entrySeq.store( 2 * seq + 1, std::memory_order_relaxed );
   std::atomic_thread_fence( std::memory_order_release );
   std::memcpy( entry + feedKeyOffset, key, keySize_ );
   entrySeq.store( 2 * seq + 2, std::memory_order_release );
   h.feedHead.store( seq + 1, std::memory_order_release );
   wake();
}

void Control::forceResync() {
   ControlHeader& h = header();
   h.feedHead.store( h.feedHead.load( std::memory_order_relaxed ) + feedCapacity_ + 1,
                     std::memory_order_release );
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

void Control::wake() {
   if ( !wake_ ) {
      return;
   }
   // Dekker pairing with Notifier::arm() (and the fallback thread): we store
   // the feed head, then load the armed flags and sleepers; a reader sets its
   // flag, then loads the head. One side needs a store-load barrier. Paying
   // it here would stall every write on the write's own cache miss, so when
   // membarrier is available the reader pays it instead (readerBarrier())
   // and this is only a compiler barrier.
   if ( fenceFree_ ) {
      std::atomic_signal_fence( std::memory_order_seq_cst );
   } else {
      std::atomic_thread_fence( std::memory_order_seq_cst );
   }
   WakeHeader& w = wakeHeader( wake_ );
   if ( w.armedCount.load( std::memory_order_relaxed ) != 0 ) {
      pokeArmedReaders();
   }
   uint32_t sleepers = w.sleepers.load( std::memory_order_relaxed );
   if ( sleepers != 0 && sleepers != deadSleepers_ ) {
      w.seq.fetch_add( 1, std::memory_order_seq_cst );
      // A live sleeper is caught by some wake within a second of changes; a
      // count that none catches belongs to a reader killed mid-sleep. Not
      // waking it costs a live one nothing it cannot see itself: its wait is
      // bounded, and it re-checks the feed after it.
      if ( futexWakeAll( &w.seq ) > 0 ) {
         missedSince_ = {};
      } else if ( missedSince_ == std::chrono::steady_clock::time_point{} ) {
         missedSince_ = std::chrono::steady_clock::now();
      } else if ( std::chrono::steady_clock::now() - missedSince_ > std::chrono::seconds( 1 ) ) {
         deadSleepers_ = sleepers;
         missedSince_ = {};
      }
   }
}

void Control::pokeArmedReaders() {
   WakeHeader& w = wakeHeader( wake_ );
   uint32_t used = std::min( w.slotsUsed.load( std::memory_order_acquire ), wakeReaderSlots );
   for ( uint32_t i = 0; i < used; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      if ( slot.armed.load( std::memory_order_relaxed ) == 1 && disarm( w, slot ) ) {
         poke( i, slot );
      }
   }
}

void Control::poke( uint32_t i, ReaderSlot& slot ) {
   uint32_t pid = slot.pid.load( std::memory_order_acquire );
   uint32_t nonce = slot.nonce.load( std::memory_order_acquire );
   if ( pid == 0 ) {
      return;
   }
   Peer& peer = peers_[ i ];
   if ( peer.fd < 0 || peer.pid != pid || peer.nonce != nonce ) {
      if ( peer.fd >= 0 ) {
         ::close( peer.fd );
      }
      peer = { pid, nonce, connectTo( readerSocketName( root_, pid, nonce ) ) };
   }
   if ( peer.fd >= 0 && sendPoke( peer.fd ) ) {
      return;
   }
   if ( peer.fd >= 0 ) {
      ::close( peer.fd );
      peer.fd = -1;
   }
   // A live reader's socket exists before it registers, so a failure means
   // it died: free its slot (unless another reader took it meanwhile).
   if ( !processAlive( pid ) && slot.pid.compare_exchange_strong( pid, 0 ) ) {
      ::unlink( readerSocketName( root_, pid, nonce ).c_str() );
   }
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

namespace {

// Up to size - 1 bytes of a /proc file, NUL-terminated; false if unreadable.
bool readProc( const std::string& name, char* buf, size_t size ) {
   int fd = ::open( name.c_str(), O_RDONLY | O_CLOEXEC );
   ssize_t n = fd >= 0 ? ::read( fd, buf, size - 1 ) : -1;
   if ( fd >= 0 ) {
      ::close( fd );
   }
   if ( n <= 0 ) {
      return false;
   }
   buf[ n ] = 0;
   return true;
}

// The writer's changing thread as a /proc directory: its own when the header
// names it, else the process (whose figures then mix in every thread).
std::string writerTask( uint32_t pid, uint32_t tid ) {
   return tid ? fmt::format( "/proc/{}/task/{}", pid, tid ) : fmt::format( "/proc/{}", pid );
}

// CPU time the writer's thread has used so far, or -1 when it cannot be read.
int64_t cpuTimeNs( uint32_t pid, uint32_t tid ) {
   char buf[ 128 ];
   if ( readProc( writerTask( pid, tid ) + "/schedstat", buf, sizeof( buf ) ) ) {
      return int64_t( std::strtoull( buf, nullptr, 10 ) );
   }
   clockid_t clock;
   struct timespec ts {};
   if ( tid || ::clock_getcpuclockid( pid_t( pid ), &clock ) != 0 ||
        ::clock_gettime( clock, &ts ) != 0 ) {
      return -1;
   }
   return int64_t( ts.tv_sec ) * 1000000000 + ts.tv_nsec;
}

// True unless the writer's thread is runnable (or running): the scheduler
// state letter of its stat file. A thread that is gone while its process
// lives will never finish the copy, so it counts as idle.
bool writerIdle( uint32_t pid, uint32_t tid ) {
   char buf[ 512 ];
   if ( !readProc( writerTask( pid, tid ) + "/stat", buf, sizeof( buf ) ) ) {
      return tid != 0;
   }
   const char* paren = std::strrchr( buf, ')' );
   return paren && paren[ 1 ] == ' ' && paren[ 2 ] != 'R';
}

}  // namespace

uint32_t readBusySlot( const StuckContext& ctx, const std::atomic< uint32_t >& word, uint32_t slot,
                       void* out, const void* record, size_t size ) {
   auto since = std::chrono::steady_clock::now();
   uint32_t lastSeen = word.load( std::memory_order_relaxed );
   int64_t writerCpuSince = -1;
   for ( uint32_t spins = 1;; ++spins ) {
      uint32_t before = word.load( std::memory_order_acquire );
      uint32_t state = before & 3;
      if ( state == slotEmpty || state == slotTombstone ) {
         return state;
      }
      if ( state == slotLive ) {
         std::memcpy( out, record, size );
         std::atomic_thread_fence( std::memory_order_acquire );
         if ( word.load( std::memory_order_relaxed ) == before ) {
            return slotLive;
         }
      }
      if ( spins % 64 == 0 ) {
         std::this_thread::yield();
      }
      if ( spins % 256 != 0 ) {
         continue;
      }
      // A word that moves belongs to a writer making progress.
      auto now = std::chrono::steady_clock::now();
      if ( before != lastSeen ) {
         lastSeen = before;
         since = now;
         writerCpuSince = -1;
      }
      const ControlHeader& h = ctx.control->header();
      uint32_t writer = h.writerPid.load( std::memory_order_relaxed );
      const char* why = nullptr;
      if ( h.writerState.load( std::memory_order_acquire ) != uint32_t( WriterState::attached ) ) {
         why = "no writer is attached";
      } else if ( !processAlive( writer ) ) {
         why = "its writer is gone";
      } else if ( now - since > slotStuckLimit ) {
         // A writer that merely lost its processor mid-copy is runnable and
         // has not run since; one that sleeps, or ran for a while, without
         // finishing a single record copy has abandoned the slot.
         uint32_t tid = h.writerTid.load( std::memory_order_relaxed );
         int64_t cpu = cpuTimeNs( writer, tid );
         writerCpuSince = writerCpuSince < 0 ? cpu : writerCpuSince;
         bool ran = cpu >= 0 && cpu - writerCpuSince >= 2000000;
         if ( ran || writerIdle( writer, tid ) || now - since > slotStuckHardLimit ) {
            why = "it stayed busy too long";
         }
      }
      // The verdict rests on facts gathered after `before` was loaded: a
      // copy that completed meanwhile clears the slot.
      if ( why && word.load( std::memory_order_acquire ) == before ) {
         raiseCorruption( *ctx.handler, fmt::format( "Lumen table {}: slot {} was left mid-update ({})",
                                                     *ctx.path, slot, why ) );
      }
   }
}

// --- Notifier ---

namespace {

constexpr mode_t socketMode = 0600;   // only our own user's writer may poke

std::atomic< uint32_t > nextSocketNonce{ 1 };

}  // namespace

Notifier::Notifier( const std::string& root, const std::string& path, uint64_t seenHead,
                    MountStatus seenStatus, FileIdentity followed )
   : wakeName_( wakeFileName( root, path ) ), controlName_( controlFileName( root, path ) ),
     root_( root ),
     followed_( followed ), lastHead_( seenHead ), lastStatus_( seenStatus ) {
   openSockets();
   if ( openWake() && !socketName_.empty() ) {
      claimSlot();
   }
   thread_ = std::thread( [ this ] { run(); } );
}

Notifier::~Notifier() {
   stopThread();
   releaseSlot();
   ::close( sendFd_ );
   ::close( recvFd_ );
   if ( !socketName_.empty() ) {
      ::unlink( socketName_.c_str() );
   }
}

void Notifier::stopThread() {
   {
      std::lock_guard lock( mutex_ );
      stop_ = true;
   }
   cv_.notify_all();
   if ( wake_ && !slot_ ) {
      // Changing the word makes a futex wait that is about to start return.
      wakeHeader( wake_ ).seq.fetch_add( 1, std::memory_order_seq_cst );
      futexWakeAll( &wakeHeader( wake_ ).seq );
   }
   thread_.join();
}

void Notifier::releaseSlot() {
   if ( slot_ ) {
      disarm( wakeHeader( wake_ ), *slot_ );
      slot_->pid.store( 0, std::memory_order_release );
      slot_ = nullptr;
   }
}

void Notifier::reopen() {
   stopThread();
   releaseSlot();
   wake_ = {};
   control_ = {};
   followed_ = {};
   lastHead_ = 0;
   lastStatus_ = MountStatus::unmounted;
   {
      std::lock_guard lock( mutex_ );
      stop_ = false;
      dispatched_ = false;
   }
   if ( openWake() && !socketName_.empty() ) {
      claimSlot();
   }
   thread_ = std::thread( [ this ] { run(); } );
}

// Whether the table the reader follows went away under it: only worth a
// stat() while no writer is at work.
bool Notifier::replacedWhileNotMounted( MountStatus status ) const {
   return status != MountStatus::mounted && followed_.inode != 0 &&
          fileReplaced( controlName_, followed_ );
}

void Notifier::openSockets() {
   nonce_ = nextSocketNonce.fetch_add( 1, std::memory_order_relaxed );
   std::string name = readerSocketName( root_, uint32_t( ::getpid() ), nonce_ );
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   if ( name.size() < sizeof( addr.sun_path ) ) {
      std::memcpy( addr.sun_path, name.c_str(), name.size() + 1 );
      recvFd_ = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      ::unlink( name.c_str() );   // a leftover of a dead process with our pid
      if ( recvFd_ >= 0 && ::bind( recvFd_, reinterpret_cast< sockaddr* >( &addr ),
                                   sizeof( addr ) ) == 0 &&
           ::chmod( name.c_str(), socketMode ) == 0 ) {
         sendFd_ = connectTo( name );
      }
      if ( sendFd_ >= 0 ) {
         socketName_ = name;
         return;
      }
      if ( recvFd_ >= 0 ) {
         ::close( recvFd_ );
         ::unlink( name.c_str() );
      }
   }
   // Unnamed: the writer cannot reach it, the fallback thread feeds it.
   int pair[ 2 ];
   if ( ::socketpair( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair ) != 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create a wake-up socket: {}", errnoText() );
   }
   recvFd_ = pair[ 0 ];
   sendFd_ = pair[ 1 ];
}

void Notifier::claimSlot() {
   uint32_t me = uint32_t( ::getpid() );
   WakeHeader& w = wakeHeader( wake_ );
   for ( uint32_t i = 0; i < wakeReaderSlots && !slot_; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      uint32_t owner = slot.pid.load( std::memory_order_acquire );
      if ( owner != 0 && processAlive( owner ) ) {
         continue;
      }
      uint32_t oldNonce = slot.nonce.load( std::memory_order_relaxed );
      if ( !slot.pid.compare_exchange_strong( owner, me, std::memory_order_acq_rel ) ) {
         continue;
      }
      if ( owner != 0 ) {
         ::unlink( readerSocketName( root_, owner, oldNonce ).c_str() );
      }
      // The dead owner may have left its flag set (and counted).
      disarm( w, slot );
      slot.nonce.store( nonce_, std::memory_order_release );
      uint32_t used = w.slotsUsed.load( std::memory_order_relaxed );
      while ( used < i + 1 &&
              !w.slotsUsed.compare_exchange_weak( used, i + 1, std::memory_order_acq_rel ) ) {
      }
      slot_ = &slot;
   }
}

void Notifier::drain() {
   char buf[ 64 ];
   while ( ::recv( recvFd_, buf, sizeof( buf ), MSG_DONTWAIT ) >= 0 ) {
   }
}

bool Notifier::arm() {
   if ( !slot_ || slot_->armed.load( std::memory_order_relaxed ) == 1 ) {
      // Still armed: no change since we last armed and re-checked, and the
      // next one pokes us.
      return false;
   }
   WakeHeader& w = wakeHeader( wake_ );
   // Counted before the flag is set, so the count never drops below the flags
   // a writer can see.
   w.armedCount.fetch_add( 1, std::memory_order_seq_cst );
   slot_->armed.store( 1, std::memory_order_seq_cst );
   if ( w.writerFenceFree.load( std::memory_order_seq_cst ) ) {
      readerBarrier();   // the writer's half is in Control::wake()
   }
   return true;
}

void Notifier::poke() {
   [[maybe_unused]] bool sent = sendPoke( sendFd_ );
}

void Notifier::dispatched() {
   if ( slot_ ) {
      return;
   }
   {
      std::lock_guard lock( mutex_ );
      dispatched_ = true;
   }
   cv_.notify_all();
}

bool Notifier::openWake() {
   if ( !wake_ ) {
      wake_ = openWakeWord( wakeName_ );
   }
   return bool( wake_ );
}

bool Notifier::openControl() {
   if ( control_ ) {
      return true;
   }
   int fd = ::open( controlName_.c_str(), O_RDONLY | O_CLOEXEC );
   if ( fd < 0 ) {
      return false;
   }
   if ( fileSize( fd ) < sizeof( ControlHeader ) ) {
      ::close( fd );
      return false;
   }
   FileIdentity identity = identityOf( fd );
   if ( followed_.inode != 0 && ( identity.device != followed_.device ||
                                  identity.inode != followed_.inode ) ) {
      ::close( fd );   // not the reader's table: watched for replacement only
      return false;
   }
   followed_ = identity;
   try {   // on the reader's thread, which must not throw
      Mapping m = mapClosing( fd, sizeof( ControlHeader ), false );
      if ( reinterpret_cast< const ControlHeader* >( m.data() )->magic == controlMagic ) {
         control_ = std::move( m );
      }
   } catch ( const Mox::Exception& ) {
   }
   return bool( control_ );
}

void Notifier::run() {
   for ( ;; ) {
      {
         std::lock_guard lock( mutex_ );
         if ( stop_ ) {
            return;
         }
      }
      openControl();
      if ( slot_ ) {
         watchStatus();
      } else {
         openWake();
         forwardChanges();
      }
   }
}

// Registered: the writer pokes us for every change it makes, attach and
// detach included; only its death goes unannounced.
void Notifier::watchStatus() {
   MountStatus status = control_ ? statusOf( *reinterpret_cast< const ControlHeader* >( control_.data() ) )
                                 : MountStatus::waitingForWriter;
   if ( ( control_ && status != lastStatus_ ) || replacedWhileNotMounted( status ) ) {
      lastStatus_ = status;
      poke();   // a replaced table: dispatch() reopens, which restarts us
   }
   std::unique_lock lock( mutex_ );
   cv_.wait_for( lock, std::chrono::milliseconds( statusPollMs ), [ this ] { return stop_; } );
}

void Notifier::forwardChanges() {
   auto changed = [ this ] {
      if ( !control_ ) {
         return replacedWhileNotMounted( MountStatus::waitingForWriter );
      }
      const auto& h = *reinterpret_cast< const ControlHeader* >( control_.data() );
      uint64_t head = h.feedHead.load( std::memory_order_acquire );
      MountStatus status = statusOf( h );
      if ( head == lastHead_ && status == lastStatus_ && !replacedWhileNotMounted( status ) ) {
         return false;
      }
      lastHead_ = head;
      lastStatus_ = status;
      return true;
   };
   auto signalAndWait = [ this ] {
      poke();
      std::unique_lock lock( mutex_ );
      cv_.wait( lock, [ this ] { return stop_ || dispatched_; } );
      dispatched_ = false;
   };
   if ( changed() ) {
      signalAndWait();
      return;
   }
   if ( !wake_ ) {
      std::unique_lock lock( mutex_ );
      cv_.wait_for( lock, std::chrono::milliseconds( 20 ), [ this ] { return stop_; } );
      return;
   }
   WakeHeader& w = wakeHeader( wake_ );
   w.sleepers.fetch_add( 1, std::memory_order_seq_cst );
   if ( w.writerFenceFree.load( std::memory_order_seq_cst ) ) {
      readerBarrier();   // the writer's half is in Control::wake()
   }
   uint32_t seen = w.seq.load( std::memory_order_seq_cst );
   bool moved = changed();
   if ( !moved ) {
      futexWait( &w.seq, seen, statusPollMs );
   }
   w.sleepers.fetch_sub( 1, std::memory_order_seq_cst );
   if ( moved ) {
      signalAndWait();
   }
}

}  // namespace Lumen::internal

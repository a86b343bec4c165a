// Files, mappings, the control segment and the reader's wake-up thread.
#include "platform/lumen/internal/Segment.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Lumen::internal {

namespace {

constexpr mode_t fileMode = 0644;
constexpr uint32_t minShift = 3;
constexpr uint32_t maxShift = 31;
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

Mapping mapFd( int fd, size_t size, bool writable ) {
   void* addr = ::mmap( nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0 );
   if ( addr == MAP_FAILED ) {
      MOX_THROW( Mox::Exception, "Lumen mmap of {} bytes failed: {}", size, errnoText() );
   }
   return Mapping( addr, size );
}

// Creates `name` holding `size` bytes prepared by `init`, published under its
// final name only once complete, so a reader never maps a half-built header.
// Returns false if the name already exists.
template< class Init >
bool createComplete( const std::string& name, size_t size, Init init ) {
   std::string tmp = fmt::format( "{}@new.{}", name, ::getpid() );
   ::unlink( tmp.c_str() );
   int fd = ::open( tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode );
   if ( fd < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", tmp, errnoText() );
   }
   if ( ::ftruncate( fd, off_t( size ) ) != 0 ) {
      std::string why = errnoText();
      ::close( fd );
      ::unlink( tmp.c_str() );
      MOX_THROW( Mox::Exception, "Lumen cannot size {}: {}", tmp, why );
   }
   {
      Mapping map = mapFd( fd, size, true );
      init( map.data() );
   }
   ::close( fd );
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
   if ( h.slotShift < minShift || h.slotShift > maxShift ) {
      return fmt::format( "slot shift {} out of range", h.slotShift );
   }
   uint64_t slots = uint64_t( 1 ) << h.slotShift;
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
   uint32_t align = recordAlign > 4 ? recordAlign : 4;
   return ( recordOffset() + recordSize + align - 1 ) / align * align;
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

std::string controlFileName( const std::string& path ) {
   return fmt::format( "{}/{}", root(), flatName( path ) );
}

std::string dataFileName( const std::string& path, uint64_t generation ) {
   return fmt::format( "{}/{}@{}", root(), flatName( path ), generation );
}

std::string wakeFileName( const std::string& path ) {
   return fmt::format( "{}/{}@wake", root(), flatName( path ) );
}

bool processAlive( uint32_t pid ) {
   if ( pid == 0 || pid > uint32_t( INT_MAX ) ) {
      return false;
   }
   return ::kill( pid_t( pid ), 0 ) == 0 || errno == EPERM;
}

void futexWakeAll( std::atomic< uint32_t >* word ) {
   ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAKE, INT_MAX, nullptr,
              nullptr, 0 );
}

void futexWait( std::atomic< uint32_t >* word, uint32_t expected, int timeoutMs ) {
   struct timespec ts { timeoutMs / 1000, long( timeoutMs % 1000 ) * 1000000L };
   ::syscall( SYS_futex, reinterpret_cast< uint32_t* >( word ), FUTEX_WAIT, expected, &ts, nullptr,
              0 );
}

uint32_t mixHash( uint32_t h ) {
   // Final mixer of MurmurHash3: homes use the top bits, so they must depend
   // on every bit of the key's own hash.
   h ^= h >> 16;
   h *= 0x85ebca6bU;
   h ^= h >> 13;
   h *= 0xc2b2ae35U;
   h ^= h >> 16;
   return h;
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
   uint64_t need = uint64_t( capacity ) + capacity / 3 + 1;
   uint64_t slots = uint64_t( 1 ) << minShift;
   while ( slots < need ) {
      slots <<= 1;
   }
   if ( slots > ( uint64_t( 1 ) << maxShift ) ) {
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
   h->slotShift = uint32_t( __builtin_ctz( slots ) );
   h->capacity = capacity;
}

}  // namespace

SlotArray SlotArray::fromMapping( Mapping map, const RecordLayout& layout, std::string file ) {
   SlotArray t;
   const DataHeader& h = *reinterpret_cast< const DataHeader* >( map.data() );
   t.generation_ = h.generation;
   t.shift_ = h.slotShift;
   t.slotCount_ = 1u << h.slotShift;
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

SlotArray SlotArray::createFile( const std::string& path, const RecordLayout& layout,
                                 uint32_t capacity, uint64_t generation ) {
   uint32_t slots = slotCountFor( capacity );
   size_t size = dataSize( layout, slots );
   std::string name = dataFileName( path, generation );
   // A leftover of a writer that died before publishing this generation.
   ::unlink( name.c_str() );
   int fd = ::open( name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode );
   if ( fd < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create {}: {}", name, errnoText() );
   }
   if ( ::ftruncate( fd, off_t( size ) ) != 0 ) {
      std::string why = errnoText();
      ::close( fd );
      ::unlink( name.c_str() );
      MOX_THROW( Mox::Exception, "Lumen cannot size {}: {}", name, why );
   }
   Mapping map = mapFd( fd, size, true );
   ::close( fd );
   initData( map.data(), layout, capacity, slots, generation );
   return fromMapping( std::move( map ), layout, name );
}

SlotArray SlotArray::openFile( const std::string& path, const RecordLayout& layout,
                               uint64_t generation, const CorruptionHandler& handler ) {
   std::string name = dataFileName( path, generation );
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
   Mapping map = mapFd( fd, size, false );
   ::close( fd );
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
   // Whoever comes first sizes it; sizing twice to the same length is harmless.
   if ( fileSize( fd ) < sizeof( WakeHeader ) && ::ftruncate( fd, sizeof( WakeHeader ) ) != 0 ) {
      ::close( fd );
      return {};
   }
   Mapping map = mapFd( fd, sizeof( WakeHeader ), true );
   ::close( fd );
   auto* h = reinterpret_cast< WakeHeader* >( map.data() );
   h->magic = wakeMagic;
   return map;
}

WakeHeader& wakeHeader( const Mapping& m ) {
   return *reinterpret_cast< WakeHeader* >( m.data() );
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

std::unique_ptr< Control > Control::openForWriter( const std::string& path,
                                                   const RecordLayout& layout,
                                                   uint32_t feedCapacity,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( path );
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
   c->fd_ = ::open( name.c_str(), O_RDWR | O_CLOEXEC );
   if ( c->fd_ < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot open {}: {}", name, errnoText() );
   }
   size_t actual = fileSize( c->fd_ );
   if ( actual < sizeof( ControlHeader ) ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: control segment of {} bytes is too "
                                             "short", path, actual ) );
   }
   if ( ::flock( c->fd_, LOCK_EX | LOCK_NB ) != 0 ) {
      Mapping peek = mapFd( c->fd_, sizeof( ControlHeader ), false );
      uint32_t pid = reinterpret_cast< const ControlHeader* >( peek.data() )->writerPid.load();
      MOX_THROW( WriterConflictException, "Lumen table {} already has a live writer (pid {})", path,
                 pid );
   }
   c->map_ = mapFd( c->fd_, actual, true );
   std::string problem = checkControl( c->header(), actual, layout );
   if ( !problem.empty() ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: {}", path, problem ) );
   }
   c->feedCapacity_ = c->header().feedCapacity;
   c->feedEntrySize_ = c->header().feedEntrySize;
   c->keySize_ = layout.keySize;
   c->wake_ = openWakeWord( wakeFileName( path ) );
   return c;
}

std::unique_ptr< Control > Control::openForReader( const std::string& path,
                                                   const RecordLayout& layout,
                                                   const CorruptionHandler& handler ) {
   std::string name = controlFileName( path );
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
   c->map_ = mapFd( fd, size, false );
   ::close( fd );
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
   if ( fd_ >= 0 ) {
      ::close( fd_ );   // releases the writer lock
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
   // Pairs with the sleeper's increment-then-check in Notifier::run(): either
   // it sees the new seq, or we see it counted and wake it.
   WakeHeader& w = wakeHeader( wake_ );
   w.seq.fetch_add( 1, std::memory_order_seq_cst );
   if ( w.sleepers.load( std::memory_order_seq_cst ) != 0 ) {
      futexWakeAll( &w.seq );
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

// --- Notifier ---

namespace {

constexpr int sleepTimeoutMs = 100;   // bounds how late a dead writer is noticed

}  // namespace

Notifier::Notifier( const std::string& path, uint64_t seenHead, MountStatus seenStatus )
   : wakeName_( wakeFileName( path ) ), controlName_( controlFileName( path ) ),
     lastHead_( seenHead ), lastStatus_( seenStatus ) {
   eventFd_ = ::eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC );
   if ( eventFd_ < 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create an eventfd: {}", errnoText() );
   }
   openWake();
   thread_ = std::thread( [ this ] { run(); } );
}

Notifier::~Notifier() {
   {
      std::lock_guard lock( mutex_ );
      stop_ = true;
   }
   cv_.notify_all();
   if ( wake_ ) {
      // Changing the word makes a futex wait that is about to start return.
      wakeHeader( wake_ ).seq.fetch_add( 1, std::memory_order_seq_cst );
      futexWakeAll( &wakeHeader( wake_ ).seq );
   }
   thread_.join();
   ::close( eventFd_ );
}

void Notifier::drain() {
   uint64_t value;
   while ( ::read( eventFd_, &value, sizeof( value ) ) == sizeof( value ) ) {
   }
}

void Notifier::dispatched() {
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
   if ( fileSize( fd ) >= sizeof( ControlHeader ) ) {
      Mapping m = mapFd( fd, sizeof( ControlHeader ), false );
      if ( reinterpret_cast< const ControlHeader* >( m.data() )->magic == controlMagic ) {
         control_ = std::move( m );
      }
   }
   ::close( fd );
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
      openWake();
      openControl();
      uint32_t seen = wake_ ? wakeHeader( wake_ ).seq.load( std::memory_order_seq_cst ) : 0;
      uint64_t head = 0;
      MountStatus status = MountStatus::waitingForWriter;
      if ( control_ ) {
         const auto& h = *reinterpret_cast< const ControlHeader* >( control_.data() );
         head = h.feedHead.load( std::memory_order_acquire );
         status = statusOf( h );
      }
      if ( head != lastHead_ || status != lastStatus_ ) {
         lastHead_ = head;
         lastStatus_ = status;
         uint64_t one = 1;
         [[maybe_unused]] ssize_t n = ::write( eventFd_, &one, sizeof( one ) );
         std::unique_lock lock( mutex_ );
         cv_.wait( lock, [ this ] { return stop_ || dispatched_; } );
         dispatched_ = false;
         continue;
      }
      if ( wake_ ) {
         WakeHeader& w = wakeHeader( wake_ );
         w.sleepers.fetch_add( 1, std::memory_order_seq_cst );
         if ( w.seq.load( std::memory_order_seq_cst ) == seen ) {
            futexWait( &w.seq, seen, sleepTimeoutMs );
         }
         w.sleepers.fetch_sub( 1, std::memory_order_seq_cst );
      } else {
         std::unique_lock lock( mutex_ );
         cv_.wait_for( lock, std::chrono::milliseconds( 20 ), [ this ] { return stop_; } );
      }
   }
}

}  // namespace Lumen::internal

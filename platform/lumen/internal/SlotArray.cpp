// Slot arrays: one generation of a table's records, in a data segment.
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

std::string checkData( const DataHeader& h, size_t size, uint64_t allocated,
                       const RecordLayout& layout, uint64_t generation ) {
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
   std::string sparse = checkAllocated( allocated, sizeof( DataHeader ) + slots * h.slotSize );
   if ( !sparse.empty() ) {
      return "data " + sparse;
   }
   // At every instant the writer keeps count <= capacity and count +
   // tombstones <= the used limit. Each count is checked alone: a writer
   // may change both between a reader's two loads, so their sum as loaded
   // proves nothing.
   uint32_t count = h.count.load( std::memory_order_relaxed );
   uint32_t tombstones = h.tombstones.load( std::memory_order_relaxed );
   if ( count > h.capacity ) {
      return fmt::format( "count {} exceeds capacity {}", count, h.capacity );
   }
   if ( tombstones > slots - slots / 8 ) {
      return fmt::format( "{} removed slots exceed the {} usable of {} slots", tombstones,
                          slots - slots / 8, slots );
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

uint32_t SlotArray::slotCountFor( uint32_t capacity ) {
   // A full table fills 16/21 of its slots (about 0.76). Capacity doubles as
   // a table grows, so a grown table sits between half full and full: at
   // 4/7 a 24-byte record cost 56 to 112 bytes of slots, more than a
   // node-based map costs, and this keeps it at 42 to 84. The price is
   // longer probes in a nearly full table (about 2.6 slots to find a key
   // and 9 to miss at 0.76, against 1.7 and 3.2 at 4/7), and less room for
   // tombstones before a same-size rebuild sweeps them (usedLimit is 7/8).
   uint64_t slots = uint64_t( capacity ) + uint64_t( capacity ) * 5 / 16 + 1;
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
      if ( errno == ENOMEM ) {
         MOX_THROW( OutOfSpaceException, "Lumen cannot allocate {} bytes: {}", size, errnoText() );
      }
      MOX_THROW( Mox::Exception, "Lumen cannot allocate {} bytes: {}", size, errnoText() );
   }
   Mapping map( addr, size );
   initData( map.data(), layout, capacity, slots, generation );
   return fromMapping( std::move( map ), layout, {} );
}

SlotArray SlotArray::createFile( const std::string& root, const std::string& path,
                                 const RecordLayout& layout, uint32_t capacity,
                                 uint64_t generation, const FileAccess& access ) {
   uint32_t slots = slotCountFor( capacity );
   size_t size = dataSize( layout, slots );
   std::string name = dataFileName( root, path, generation );
   // A leftover of a writer that died before publishing this generation.
   ::unlink( name.c_str() );
   TableFile file = TableFile::create( name, access.tableMode, access.group );
   file.require();
   if ( int err = reserve( file.fd(), size ) ) {
      ::unlink( name.c_str() );
      raiseSizeError( name, err );
   }
   FileIdentity identity = identityOf( file.fd() );
   Mapping map;
   try {
      map = mapClosing( file.release(), size, true );
   } catch ( ... ) {
      ::unlink( name.c_str() );
      throw;
   }
   initData( map.data(), layout, capacity, slots, generation );
   SlotArray t = fromMapping( std::move( map ), layout, name );
   t.identity_ = identity;
   return t;
}

SlotArray SlotArray::privateView( const RecordLayout& layout ) const {
   if ( file_.empty() || !map_ ) {
      return {};
   }
   int fd = ::open( file_.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC );
   if ( fd < 0 ) {
      return {};
   }
   FileIdentity now = identityOf( fd );
   if ( now.device != identity_.device || now.inode != identity_.inode ||
        fileSize( fd ) != map_.size() ) {
      ::close( fd );
      return {};
   }
   void* addr = ::mmap( nullptr, map_.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0 );
   ::close( fd );
   if ( addr == MAP_FAILED ) {
      return {};
   }
   return fromMapping( Mapping( addr, map_.size() ), layout, {} );
}

SlotArray SlotArray::openFile( const std::string& root, const std::string& path,
                               const RecordLayout& layout, uint64_t generation, uid_t owner,
                               const CorruptionHandler& handler ) {
   std::string name = dataFileName( root, path, generation );
   TableFile file = TableFile::open( name, O_RDONLY, owner );
   if ( file.absent() ) {
      return {};
   }
   file.require();
   size_t size = file.size();
   uint64_t allocated = allocatedSize( file.fd() );
   if ( size < sizeof( DataHeader ) ) {
      raiseCorruption( handler, fmt::format( "Lumen table {}: data segment of {} bytes is too short",
                                             path, size ) );
   }
   Mapping map = mapClosing( file.release(), size, false );
   std::string problem = checkData( *reinterpret_cast< const DataHeader* >( map.data() ), size,
                                    allocated, layout, generation );
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

}  // namespace Lumen::internal

// Lumen inspection: a table's header facts and slot census, read with the
// record layout its own control segment declares.
#include "platform/lumen/Inspect.h"

#include "platform/lumen/internal/Files.h"

#include <fmt/format.h>

#include <cstring>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace Lumen {

namespace {

using namespace internal;

[[noreturn]] void damaged( const std::string& path, const std::string& what ) {
   raiseCorruption( {}, fmt::format( "Lumen table {}: {}", path, what ) );
}

// The record layout the control segment declares, refused when it cannot be
// one a writer made: readers built for the type check these against their
// own, a tool that reads any type has only the header to go by.
RecordLayout declaredLayout( const std::string& path, const ControlHeader& h ) {
   RecordLayout layout;
   layout.recordSize = h.recordSize;
   layout.recordAlign = h.recordAlign;
   layout.keySize = h.keySize;
   layout.typeName.assign( h.typeName, strnlen( h.typeName, sizeof( h.typeName ) ) );
   if ( h.magic != controlMagic || h.formatVersion != formatVersion ) {
      return layout;   // openForReader() names what is wrong
   }
   constexpr uint32_t maxRecordSize = 1u << 20;
   bool alignOk = h.recordAlign != 0 && ( h.recordAlign & ( h.recordAlign - 1 ) ) == 0 &&
                  h.recordAlign <= 4096;
   if ( h.recordSize == 0 || h.recordSize > maxRecordSize || !alignOk || h.keySize == 0 ||
        h.keySize > h.recordSize || layout.typeName.empty() ) {
      damaged( path, fmt::format( "record layout '{}' ({} bytes, alignment {}, key {} bytes) is "
                                  "not one a writer makes",
                                  layout.typeName, h.recordSize, h.recordAlign, h.keySize ) );
   }
   if ( h.layoutSignature != layout.signature() ) {
      damaged( path, fmt::format( "layout signature {:#x} does not match record type {} ({} "
                                  "bytes, alignment {}, key {} bytes)",
                                  h.layoutSignature, layout.typeName, h.recordSize,
                                  h.recordAlign, h.keySize ) );
   }
   return layout;
}

uint64_t sizeOf( const std::string& name ) {
   struct stat st {};
   return ::lstat( name.c_str(), &st ) == 0 && S_ISREG( st.st_mode ) ? uint64_t( st.st_size ) : 0;
}

// A table mapped read-only as a reader maps it: the control segment, and
// the current generation when it has one.
struct Mounted {
   RecordLayout layout;
   std::unique_ptr< Control > control;
   SlotArray data;
   struct stat controlStat {};
};

std::optional< Mounted > mountReadOnly( const std::string& root, const std::string& path ) {
   std::string name = controlFileName( root, path );
   TableFile file = TableFile::open( name, O_RDONLY, anyOwner );
   if ( file.absent() ) {
      return std::nullopt;
   }
   file.require();
   ControlHeader raw {};
   ssize_t got = ::pread( file.fd(), &raw, sizeof( raw ), 0 );
   if ( got != ssize_t( sizeof( raw ) ) ) {
      damaged( path, fmt::format( "control segment of {} bytes is too short", file.size() ) );
   }
   Mounted m;
   if ( ::fstat( file.fd(), &m.controlStat ) != 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot stat {}: {}", name, errnoText() );
   }
   m.layout = declaredLayout( path, raw );
   m.control = Control::openForReader( root, path, m.layout, {} );
   if ( !m.control ) {
      return std::nullopt;   // removed meanwhile
   }
   // The writer flips generations and unlinks the old file: a generation
   // whose file is gone and that the header still names is missing.
   for ( int attempt = 0;; ++attempt ) {
      uint64_t generation = m.control->header().generation.load( std::memory_order_acquire );
      if ( generation == 0 ) {
         break;
      }
      m.data = SlotArray::openFile( root, path, m.layout, generation, m.control->owner(), {} );
      if ( m.data ) {
         break;
      }
      if ( attempt > 100 &&
           m.control->header().generation.load( std::memory_order_acquire ) == generation ) {
         damaged( path, fmt::format( "segment of generation {} is missing", generation ) );
      }
      std::this_thread::yield();
   }
   return m;
}

}  // namespace

std::optional< TableInfo > inspect( const std::string& path ) {
   std::string root = Lumen::root();
   std::optional< Mounted > m = mountReadOnly( root, path );
   if ( !m ) {
      return std::nullopt;
   }
   const ControlHeader& h = m->control->header();
   TableInfo info;
   info.path = path;
   info.typeName = m->layout.typeName;
   info.recordSize = m->layout.recordSize;
   info.recordAlign = m->layout.recordAlign;
   info.keySize = m->layout.keySize;
   info.status = m->control->status();
   info.writerPid = h.writerPid.load( std::memory_order_relaxed );
   info.writerAlive = info.status != MountStatus::waitingForWriter && m->control->writerAlive();
   info.writerEpoch = h.writerEpoch.load( std::memory_order_relaxed );
   info.writerStartNs = h.writerStartNs.load( std::memory_order_relaxed );
   info.feedHead = h.feedHead.load( std::memory_order_acquire );
   info.feedCapacity = h.feedCapacity;
   info.owner = m->controlStat.st_uid;
   info.group = m->controlStat.st_gid;
   info.mode = m->controlStat.st_mode & 07777;
   info.bytes = uint64_t( m->controlStat.st_size ) + sizeOf( wakeFileName( root, path ) );
   if ( const SlotArray& t = m->data ) {
      info.generation = t.generation();
      info.count = t.liveCount();
      info.tombstones = t.tombstoneCount();
      info.capacity = t.capacity();
      info.slotCount = t.slotCount();
      info.slotSize = m->layout.slotSize();
      info.bytes += sizeOf( dataFileName( root, path, t.generation() ) );
   }
   if ( m->control->damaged() || ( m->data && m->data.damaged() ) ) {
      damaged( path, "a segment was truncated while it was read" );
   }
   return info;
}

std::optional< SlotCensus > census( const std::string& path ) {
   std::string root = Lumen::root();
   // A live writer changes slots and counts one after the other: only a walk
   // during which neither the generation nor the feed head moved can be held
   // against the header, and even then a writer descheduled between a slot
   // and its count leaves the table still and inconsistent for a moment. So
   // the same disagreement must be seen on several such walks in a row,
   // with the head unmoved, before the table is called damaged.
   constexpr int attempts = 40;
   constexpr int sightings = 3;
   SlotCensus last;
   std::optional< SlotCensus > atRest;   // the disagreement seen last
   uint64_t restHead = 0;
   int seen = 0;
   for ( int attempt = 0; attempt < attempts; ++attempt ) {
      std::optional< Mounted > m = mountReadOnly( root, path );
      if ( !m ) {
         return std::nullopt;
      }
      const ControlHeader& h = m->control->header();
      SlotCensus c;
      const SlotArray& t = m->data;
      if ( !t ) {
         c.settled = true;
         return c;
      }
      uint64_t headBefore = h.feedHead.load( std::memory_order_acquire );
      c.generation = t.generation();
      c.slotCount = t.slotCount();
      c.headerCount = t.liveCount();
      c.headerTombstones = t.tombstoneCount();
      for ( uint32_t i = 0; i < t.slotCount(); ++i ) {
         switch ( t.word( i ).load( std::memory_order_acquire ) & 3 ) {
          case slotEmpty: ++c.empty; break;
          case slotLive: ++c.live; break;
          case slotTombstone: ++c.tombstones; break;
          default: ++c.busy; break;
         }
      }
      if ( t.damaged() || m->control->damaged() ) {
         damaged( path, fmt::format( "data segment of generation {} was truncated while it was "
                                     "read", c.generation ) );
      }
      bool still = h.feedHead.load( std::memory_order_acquire ) == headBefore &&
                   h.generation.load( std::memory_order_acquire ) == c.generation &&
                   t.liveCount() == c.headerCount && t.tombstoneCount() == c.headerTombstones;
      last = c;
      if ( !still ) {
         seen = 0;
         continue;
      }
      // A busy slot was live or a tombstone before the change, or becomes
      // one after: it may account for one of either count.
      bool countsAgree = c.live <= c.headerCount && c.headerCount <= c.live + c.busy &&
                         c.tombstones <= c.headerTombstones &&
                         c.headerTombstones <= c.tombstones + c.busy;
      uint32_t used = c.slotCount - c.empty;
      bool fits = used <= t.usedLimit();
      if ( countsAgree && fits ) {
         c.settled = true;
         return c;
      }
      bool same = atRest && restHead == headBefore && atRest->live == c.live &&
                  atRest->tombstones == c.tombstones && atRest->busy == c.busy &&
                  atRest->headerCount == c.headerCount &&
                  atRest->headerTombstones == c.headerTombstones;
      seen = same ? seen + 1 : 1;
      atRest = c;
      restHead = headBefore;
      if ( seen < sightings ) {
         std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
         continue;
      }
      if ( !countsAgree ) {
         damaged( path, fmt::format( "header counts {} live and {} removed slots, the slots of "
                                     "generation {} hold {} live, {} removed and {} busy",
                                     c.headerCount, c.headerTombstones, c.generation, c.live,
                                     c.tombstones, c.busy ) );
      }
      damaged( path, fmt::format( "{} of {} slots are in use, more than the {} a writer ever "
                                  "fills: a probe for a missing key may never end",
                                  used, c.slotCount, t.usedLimit() ) );
   }
   last.settled = false;
   return last;
}

}  // namespace Lumen

// The typed side of the lumen tool: one Lumen::Reader< Record > per command,
// instantiated for each record type of the catalog.
#include "tools/lumen/Catalog.h"

#include "platform/lumen/Inspect.h"
#include "platform/lumen/Table.h"
#include "tools/lumen/Output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>
#include <unordered_set>
#include <utility>

#include <poll.h>

namespace LumenTool {

namespace {

template< class Record >
struct KeyHash {
   using Key = typename Lumen::Reader< Record >::Key;
   size_t operator()( const Key& k ) const { return k.hash(); }
};

// The Reader's constructor keeps quiet about a damaged table (its first
// operation reports it); the tool wants it said at once.
template< class Record >
void requireReadable( const Lumen::Reader< Record >& reader ) {
   reader.countShared();
   if ( reader.mountStatus() == Lumen::MountStatus::unmounted ) {
      MOX_THROW( Fable::CorruptionDetectedException, "Lumen table {} cannot be mounted",
                 reader.path() );
   }
}

// The delivered state's records, sorted by text form.
template< class Record >
std::vector< Json > sortedRecords( const Lumen::Reader< Record >& reader ) {
   std::vector< std::pair< std::string, Json > > rows;
   for ( auto e = reader.next(); e; e = reader.next( e->second ) ) {
      rows.emplace_back( RecordForm< Record >::text( e->first ), RecordForm< Record >::json( e->first ) );
   }
   std::sort( rows.begin(), rows.end(),
              []( const auto& a, const auto& b ) { return a.first < b.first; } );
   std::vector< Json > records;
   records.reserve( rows.size() );
   for ( auto& r : rows ) {
      records.push_back( std::move( r.second ) );
   }
   return records;
}

template< class Record >
std::vector< Json > dumpOf( const std::string& path ) {
   Lumen::Reader< Record > reader( path );
   requireReadable( reader );
   return sortedRecords( reader );
}

template< class Record >
int watchOf( const std::string& path, WatchPrinter& out, int stopFd, Found found ) {
   using Key = typename Lumen::Reader< Record >::Key;
   Lumen::Reader< Record > reader( path );
   try {
      requireReadable( reader );
   } catch ( const Fable::CorruptionDetectedException& e ) {
      out.error( e.what() );
      return exitFailed;
   }
   reader.onKeyIs( [ & ]( const Key& k ) {
      if ( reader.contains( k ) ) {
         out.set( RecordForm< Record >::json( reader.lookup( k ) ) );
      } else {
         out.del( RecordForm< Record >::key( k ) );
      }
   } );
   reader.onMountStatusIs( [ & ]( Lumen::MountStatus s ) { out.status( s, reader.count() ); } );
   reader.onQuiescedIs( [ & ]( bool begin ) { out.resync( begin ); } );
   // A table found while waiting may not have its writer attached yet: the
   // waiting line already said so.
   Lumen::MountStatus status = reader.mountStatus();
   if ( found == Found::atStart || status != Lumen::MountStatus::waitingForWriter ) {
      out.status( status, reader.count() );
   }
   if ( found == Found::afterWaiting ) {
      for ( const Json& r : sortedRecords( reader ) ) {
         out.set( r );
      }
   }
   for ( ;; ) {
      struct pollfd fds[ 2 ] = { { reader.fd(), POLLIN, 0 }, { stopFd, POLLIN, 0 } };
      if ( ::poll( fds, 2, -1 ) < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         out.error( fmt::format( "poll failed: {}", std::strerror( errno ) ) );
         return exitFailed;
      }
      if ( fds[ 1 ].revents != 0 ) {
         return exitOk;
      }
      if ( fds[ 0 ].revents != 0 ) {
         try {
            reader.dispatch();
         } catch ( const Fable::CorruptionDetectedException& e ) {
            out.error( e.what() );
            return exitFailed;
         }
      }
   }
}

// What is wrong with record `r` found by walking the slots: its key seen
// before, not found by a probe, or found holding another record. Empty when
// nothing is.
template< class Record, class Keys >
std::string probeOne( const Lumen::Reader< Record >& reader, const Record& r, Keys& keys ) {
   const auto& k = r.key();
   if ( !keys.insert( k ).second ) {
      return fmt::format( "key {} is held twice", RecordForm< Record >::key( k ).dump() );
   }
   if ( !reader.containsShared( k ) ) {
      return fmt::format( "record {} is not found by a probe from its key's home slot",
                          RecordForm< Record >::json( r ).dump() );
   }
   Record found = reader.lookupShared( k );
   if ( std::memcmp( static_cast< const void* >( &found ), static_cast< const void* >( &r ),
                     sizeof( Record ) ) != 0 ) {
      return fmt::format( "a probe for key {} finds {}, the slots hold {}",
                          RecordForm< Record >::key( k ).dump(),
                          RecordForm< Record >::json( found ).dump(),
                          RecordForm< Record >::json( r ).dump() );
   }
   return {};
}

template< class Record >
KeyProbe probeKeysOf( const std::string& path ) {
   using Key = typename Lumen::Reader< Record >::Key;
   Lumen::Reader< Record > reader( path );
   requireReadable( reader );
   // As for the slot census: what a live writer is changing proves nothing,
   // so only a walk during which the table stood still is judged, and an
   // anomaly counts as damage only when the same one is seen on several
   // such walks in a row with the feed head unmoved: a writer descheduled
   // between storing a slot and its count leaves the table still, and
   // inconsistent, for a moment.
   constexpr int attempts = 40;
   constexpr int sightings = 3;
   KeyProbe probe;
   std::string lastAnomaly;
   uint64_t lastHead = 0;
   int seen = 0;
   for ( int attempt = 0; attempt < attempts; ++attempt ) {
      auto before = Lumen::inspect( path );
      if ( !before ) {
         MOX_THROW( Fable::CorruptionDetectedException, "Lumen table {} was removed while it was "
                    "checked", path );
      }
      std::unordered_set< Key, KeyHash< Record > > keys;
      std::string anomaly;
      uint32_t walked = 0;
      for ( auto e = reader.nextShared(); e; e = reader.nextShared( e->second ) ) {
         ++walked;
         if ( anomaly.empty() ) {
            anomaly = probeOne( reader, e->first, keys );
         }
      }
      auto after = Lumen::inspect( path );
      probe.records = walked;
      if ( !after || after->feedHead != before->feedHead ||
           after->generation != before->generation || after->count != before->count ) {
         seen = 0;
         std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
         continue;
      }
      if ( anomaly.empty() && walked != after->count ) {
         anomaly = fmt::format( "the header counts {} records, the slots hold {}", after->count,
                                walked );
      }
      if ( anomaly.empty() ) {
         probe.settled = true;
         return probe;
      }
      seen = anomaly == lastAnomaly && after->feedHead == lastHead ? seen + 1 : 1;
      lastAnomaly = anomaly;
      lastHead = after->feedHead;
      if ( seen >= sightings ) {
         MOX_THROW( Fable::CorruptionDetectedException, "Lumen table {}: {}", path, anomaly );
      }
      std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
   }
   return probe;
}

template< class Record >
RecordKind kindOf() {
   return { Lumen::RecordTraits< Record >::name, &dumpOf< Record >, &watchOf< Record >,
            &probeKeysOf< Record > };
}

const std::vector< RecordKind >& catalog() {
   static const std::vector< RecordKind > kinds = {
      kindOf< OrbEvpn::Host >(),
      kindOf< OrbEvpn::FloodEntry >(),
      kindOf< OrbEvpn::BrIdListRecord >(),
      kindOf< OrbEvpn::EvpnCapabilityRecord >(),
      kindOf< OrbEvpn::OrbEvpnConfigRecord >(),
   };
   return kinds;
}

std::string clockText() {
   struct timespec ts {};
   ::clock_gettime( CLOCK_REALTIME, &ts );
   struct tm local {};
   ::localtime_r( &ts.tv_sec, &local );
   return fmt::format( "{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                       ts.tv_nsec / 1000000 );
}

}  // namespace

const RecordKind* recordKind( std::string_view typeName ) {
   for ( const RecordKind& k : catalog() ) {
      if ( k.typeName == typeName ) {
         return &k;
      }
   }
   return nullptr;
}

std::vector< std::string_view > recordTypeNames() {
   std::vector< std::string_view > names;
   for ( const RecordKind& k : catalog() ) {
      names.push_back( k.typeName );
   }
   return names;
}

void WatchPrinter::emit( const char* op, const Json& line, const std::string& words ) {
   if ( form_ == Form::json ) {
      printLine( line.dump() );
   } else {
      printLine( fmt::format( "{} {:<6} {}", clockText(), op, words ) );
   }
}

void WatchPrinter::set( const Json& record ) {
   emit( "set", { { "op", "set" }, { "record", record } }, wordsOf( record ) );
}

void WatchPrinter::del( const Json& key ) {
   emit( "del", { { "op", "del" }, { "key", key } }, wordsOf( key ) );
}

void WatchPrinter::status( Lumen::MountStatus status, uint32_t count ) {
   std::string name = Lumen::mountStatusName( status );
   std::string words = name;
   if ( status == Lumen::MountStatus::mounted || status == Lumen::MountStatus::writerGone ) {
      words += fmt::format( " ({} records)", grouped( count ) );
   }
   emit( "status", { { "op", "status" }, { "status", name }, { "count", count } }, words );
}

void WatchPrinter::resync( bool begin ) {
   const char* phase = begin ? "begin" : "end";
   emit( "resync", { { "op", "resync" }, { "phase", phase } },
         begin ? "the table is compared in full (writer restarted, or the watch fell behind)"
               : "done" );
}

void WatchPrinter::error( const std::string& message ) {
   emit( "error", { { "op", "error" }, { "message", message } }, message );
}

}  // namespace LumenTool

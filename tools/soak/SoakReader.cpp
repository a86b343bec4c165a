// orbevpn-soak-reader: one of the readers of the system soak, or the EVPN
// side's capability switch it needs.
//
//   orbevpn-soak-reader read --root DIR [--prefix P] [--sample N]
//      mounts <prefix>/export/host and checks every record it is told of,
//      and N records of the shared table per round, against what the demo
//      controller can export; on SIGTERM it waits until nothing is pending,
//      compares what it was told with the table, and prints one JSON line:
//      {"notified","checked","inconsistent","mismatched","count","first"}.
//   orbevpn-soak-reader evpn-on --root DIR [--prefix P]
//      writes evpn/capability = enabled and holds it until SIGTERM.
//
// A record is consistent when its MAC is one the demo makes for its VNI
// (02:VV:VV:VV:ii:ii), its VTEP one the demo's churn uses (192.0.2.1-50),
// its preference 16 and its sequence number at least 1: a torn record, a
// record filed under another key or a stale generation fails one of them.
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/Table.h"
#include "tools/common/Boundary.h"
#include "tools/common/BoundaryRecords.h"

#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t stop = 0;
void onSignal( int ) { stop = 1; }

std::string consistencyProblem( const OrbEvpn::MacVniPair& key, const OrbEvpn::Host& h ) {
   const uint8_t* m = h.macAddr().bytes();
   const uint32_t vni = h.vni().value();
   const uint32_t vtep = h.vtepAddr().value();
   if ( !( h.key() == key ) ) {
      return "filed under another key";
   }
   if ( m[ 0 ] != 0x02 || ( uint32_t( m[ 1 ] ) << 16 | uint32_t( m[ 2 ] ) << 8 | m[ 3 ] ) != vni ) {
      return "MAC not of its VNI";
   }
   if ( vtep < 0xC0000201u || vtep > 0xC0000232u ) {
      return "VTEP out of the churn's range";
   }
   if ( h.preference() != 16 || h.seqNo().value() < 1 ) {
      return "preference or sequence number wrong";
   }
   return {};
}

int read( const std::string& prefix, uint32_t sample ) {
   const auto t0 = std::chrono::steady_clock::now();
   Lumen::Reader< OrbEvpn::Host > reader( OrbEvpn::Boundary::pathOf( prefix, OrbEvpn::Boundary::exportHost ) );
   std::fprintf( stderr, "orbevpn-soak-reader: mounted (%s) with %u records in %.1f s\n",
                 Lumen::mountStatusName( reader.mountStatus() ), reader.count(),
                 std::chrono::duration< double >( std::chrono::steady_clock::now() - t0 ).count() );
   uint64_t notified = 0, checked = 0, inconsistent = 0;
   std::string first;
   auto check = [ & ]( const OrbEvpn::MacVniPair& k, const OrbEvpn::Host& h ) {
      ++checked;
      if ( std::string why = consistencyProblem( k, h ); !why.empty() ) {
         if ( inconsistent++ == 0 ) {
            first = fmt::format( "{}: {}", h, why );
         }
      }
   };
   reader.onKeyIs( [ & ]( const OrbEvpn::MacVniPair& k ) {
      ++notified;
      if ( reader.contains( k ) ) {
         check( k, reader.lookup( k ) );
      }
   } );
   std::vector< OrbEvpn::MacVniPair > keys;
   Lumen::Hint at{};
   while ( !stop ) {
      pollfd p{ reader.fd(), POLLIN, 0 };
      ::poll( &p, 1, 100 );
      reader.dispatch();
      // Straight from shared memory, while the writer changes it: a walk
      // of `sample` records from where the last round stopped.
      for ( uint32_t i = 0; i < sample; ++i ) {
         auto e = reader.nextShared( at );
         if ( !e ) {
            at = {};
            break;
         }
         check( e->first.key(), e->first );
         at = e->second;
      }
   }
   // The end: once nothing is pending, what this reader was told must be
   // the table.
   for ( int i = 0; i < 600 && reader.dispatchPending(); ++i ) {
      pollfd p{ reader.fd(), POLLIN, 0 };
      ::poll( &p, 1, 100 );
      reader.dispatch();
   }
   uint64_t mismatched = 0;
   uint32_t shared = 0;
   for ( auto e = reader.nextShared(); e; e = reader.nextShared( e->second ) ) {
      ++shared;
      const OrbEvpn::MacVniPair& k = e->first.key();
      if ( !reader.contains( k ) || !( reader.lookup( k ) == e->first ) ) {
         ++mismatched;
      }
   }
   mismatched += reader.count() > shared ? reader.count() - shared : shared - reader.count();
   std::printf( "{\"notified\":%llu,\"checked\":%llu,\"inconsistent\":%llu,\"mismatched\":%llu,\"count\":%u,"
                "\"pending\":%s,\"first\":\"%s\"}\n",
                (unsigned long long)notified, (unsigned long long)checked, (unsigned long long)inconsistent,
                (unsigned long long)mismatched, shared, reader.dispatchPending() ? "true" : "false",
                first.c_str() );
   return inconsistent || mismatched ? 1 : 0;
}

int evpnOn( const std::string& prefix ) {
   Lumen::Writer< OrbEvpn::EvpnCapabilityRecord > w;
   w.attach( OrbEvpn::Boundary::pathOf( prefix, OrbEvpn::Boundary::evpnCapability ) );
   OrbEvpn::EvpnCapabilityRecord r;
   r.evpnEnabled = 1;
   w.write( r );
   std::printf( "ready\n" );
   std::fflush( stdout );
   while ( !stop ) {
      ::pause();
   }
   return 0;
}

}  // namespace

int main( int argc, char** argv ) {
   std::string mode = argc > 1 ? argv[ 1 ] : "", root, prefix = std::string( OrbEvpn::Boundary::defaultPrefix );
   uint32_t sample = 1000;
   for ( int i = 2; i + 1 < argc; i += 2 ) {
      const std::string opt = argv[ i ];
      if ( opt == "--root" ) {
         root = argv[ i + 1 ];
      } else if ( opt == "--prefix" ) {
         prefix = argv[ i + 1 ];
      } else if ( opt == "--sample" ) {
         sample = uint32_t( std::stoul( argv[ i + 1 ] ) );
      } else {
         mode.clear();
      }
   }
   if ( ( mode != "read" && mode != "evpn-on" ) || root.empty() || argc % 2 != 0 ) {
      std::fprintf( stderr, "usage: orbevpn-soak-reader read|evpn-on --root DIR [--prefix P] [--sample N]\n" );
      return 2;
   }
   struct sigaction sa {};
   sa.sa_handler = onSignal;
   ::sigaction( SIGTERM, &sa, nullptr );
   ::sigaction( SIGINT, &sa, nullptr );
   try {
      Lumen::rootIs( root );
      return mode == "read" ? read( prefix, sample ) : evpnOn( prefix );
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "orbevpn-soak-reader: %s\n", e.what() );
      return 2;
   }
}

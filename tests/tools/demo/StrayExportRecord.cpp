// Writes one host into the export host table, as a stray record that no
// controller event explains: for the test that the verifier catches it.
// The table's writer (the agent) must have exited; this program then takes
// the table over, keeping its content, and leaves it as it found it plus
// the one record.
//
//    demo_stray_record ROOT PREFIX MAC VNI VTEP
#include "orbevpn/exchange/Host.h"
#include "platform/lumen/Table.h"
#include "tools/common/Boundary.h"

#include <cstdio>
#include <exception>
#include <string>

int main( int argc, char** argv ) {
   if ( argc != 6 ) {
      std::fprintf( stderr, "usage: %s ROOT PREFIX MAC VNI VTEP\n", argv[ 0 ] );
      return 2;
   }
   unsigned m[ 6 ], ip[ 4 ];
   unsigned long vni = std::stoul( argv[ 4 ] );
   if ( std::sscanf( argv[ 3 ], "%x:%x:%x:%x:%x:%x", &m[ 0 ], &m[ 1 ], &m[ 2 ], &m[ 3 ], &m[ 4 ], &m[ 5 ] ) != 6 ||
        std::sscanf( argv[ 5 ], "%u.%u.%u.%u", &ip[ 0 ], &ip[ 1 ], &ip[ 2 ], &ip[ 3 ] ) != 4 ) {
      std::fprintf( stderr, "bad MAC or VTEP\n" );
      return 2;
   }
   try {
      Lumen::rootIs( argv[ 1 ] );
      const Wire::EthAddr mac{ uint8_t( m[ 0 ] ), uint8_t( m[ 1 ] ), uint8_t( m[ 2 ] ),
                               uint8_t( m[ 3 ] ), uint8_t( m[ 4 ] ), uint8_t( m[ 5 ] ) };
      OrbEvpn::Host h{ OrbEvpn::MacVniPair{ mac, Vxlan::Vni( uint32_t( vni ) ) } };
      h.vtepAddrIs( Wire::IpAddr::fromOctets( uint8_t( ip[ 0 ] ), uint8_t( ip[ 1 ] ), uint8_t( ip[ 2 ] ),
                                              uint8_t( ip[ 3 ] ) ) );
      h.seqNoIs( Keel::Seqno32( 1 ) );
      Lumen::Writer< OrbEvpn::Host > w;
      w.attach( OrbEvpn::Boundary::pathOf( argv[ 2 ], OrbEvpn::Boundary::exportHost ) );
      w.write( h );
   } catch ( const std::exception& e ) {
      std::fprintf( stderr, "demo_stray_record: %s\n", e.what() );
      return 1;
   }
   return 0;
}

#include "tools/peer/RemoteEntries.h"

#include <fmt/format.h>

namespace OrbEvpn::Peer {

uint64_t mix( uint64_t seed, uint64_t a, uint64_t b ) {
   uint64_t z = seed + 0x9e3779b97f4a7c15ull * ( a + 1 ) + 0xbf58476d1ce4e5b9ull * ( b + 1 );
   z = ( z ^ ( z >> 30 ) ) * 0xbf58476d1ce4e5b9ull;
   z = ( z ^ ( z >> 27 ) ) * 0x94d049bb133111ebull;
   return z ^ ( z >> 31 );
}

Wire::EthAddr remoteMac( uint32_t vni, uint32_t index ) {
   return Wire::EthAddr( remoteMacOctet0, uint8_t( vni >> 16 ), uint8_t( vni >> 8 ), uint8_t( vni ),
                         uint8_t( index >> 8 ), uint8_t( index ) );
}

bool isRemoteMac( const Wire::EthAddr& mac, uint32_t vni ) {
   const uint8_t* b = mac.bytes();
   return b[ 0 ] == remoteMacOctet0 && b[ 1 ] == uint8_t( vni >> 16 ) && b[ 2 ] == uint8_t( vni >> 8 ) &&
          b[ 3 ] == uint8_t( vni );
}

namespace {

// 198.51.100.1 .. 198.51.100.254
Wire::IpAddr documentationVtep( uint64_t h ) {
   return Wire::IpAddr::fromOctets( 198, 51, 100, uint8_t( 1 + h % 254 ) );
}

}  // namespace

Host remoteHost( uint64_t seed, uint32_t vni, uint32_t index ) {
   Host h( MacVniPair( remoteMac( vni, index ), Vxlan::Vni( vni ) ) );
   uint64_t r = mix( seed, vni, index );
   h.vtepAddrIs( documentationVtep( r ) );
   h.seqNoIs( Keel::Seqno32( uint32_t( 1 + ( r >> 32 ) % 100 ) ) );
   h.preferenceIs( Host::defaultPreference );
   return h;
}

Wire::IpAddr remoteFloodVtep( uint64_t seed, uint32_t vni ) {
   return documentationVtep( mix( seed, vni, 0xffffffffull ) );
}

std::string macText( const Wire::EthAddr& mac ) {
   const uint8_t* b = mac.bytes();
   return fmt::format( "{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[ 0 ], b[ 1 ], b[ 2 ], b[ 3 ], b[ 4 ],
                       b[ 5 ] );
}

std::string ipText( const Wire::IpAddr& ip ) {
   uint32_t v = ip.value();
   return fmt::format( "{}.{}.{}.{}", v >> 24, ( v >> 16 ) & 0xff, ( v >> 8 ) & 0xff, v & 0xff );
}

}  // namespace OrbEvpn::Peer

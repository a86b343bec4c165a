#include "orbevpn/tx/StaleVniSweep.h"

#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/SweepMode.h"
#include "orbevpn/tx/internal/TxTrace.h"

namespace OrbEvpn {

using internal::txTrace;

void cleanupStaleVniEntries( Mox::Ptr< OrbEvpnTxSm > txSm, const std::set< Vxlan::Vni >& vnis ) {
   internal::sweepStaleVnis( *txSm, vnis );
}

void internal::sweepStaleVnis( OrbEvpnTxSm& txSm, const std::set< Vxlan::Vni >& vnis ) {
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::cleanupStaleVniEntries()" );
   // Held for the whole sweep: a notification from a removal may drop the
   // root's own references.
   const Mox::Ptr< OrbBrIdList > brIds = txSm.orbBrIdList();
   const Mox::Ptr< HostTable > hosts = txSm.hostTableOut();
   const Mox::Ptr< FloodTable > floods = txSm.floodTableOut();

   for ( Vxlan::Vni v : vnis ) {
      TRACE( txTrace(), 3, "OrbEvpnTxSm()::cleanupStaleVniEntries() Deleting stale VNI {}", v );
      brIds->brIdListDel( Bridging::BridgeId::fromVni( v ) );
   }
   auto dropHost = [ & ]( const Host& host ) {
      const MacVniPair key = host.key();
      TRACE( txTrace(), 8,
             "OrbEvpnTxSm()::cleanupStaleVniEntries({}) Deleting stale host entry (macAddr: "
             "{}, ip: {})",
             key.vni(), key.macAddr(), host.vtepAddr() );
      hosts->hostDel( key );
   };
   auto dropFlood = [ & ]( const VniVtepPair& key ) {
      TRACE( txTrace(), 8,
             "OrbEvpnTxSm()::cleanupStaleVniEntries({}) Deleting stale flood list entry (ip: "
             "{})",
             key.vni(), key.vtepAddr() );
      floods->floodEntryDel( key );
   };
   if ( sweepMode() == SweepMode::walk ) {
      // The cursors stand on a copy of the entry, so removing it is harmless.
      for ( auto it = hosts->hostIterConst(); it; ++it ) {
         if ( vnis.contains( it.key().vni() ) ) {
            dropHost( it.value() );
         }
      }
      for ( auto it = floods->floodEntryIterConst(); it; ++it ) {
         if ( vnis.contains( it.key().vni() ) ) {
            dropFlood( it.key() );
         }
      }
   } else {
      // Every host of the VNIs before any flood entry, as the walk does.
      for ( Vxlan::Vni v : vnis ) {
         for ( const MacVniPair& k : hosts->hostKeysOfVni( v ) ) {
            if ( const std::optional< Host > host = hosts->hostFind( k ) ) {
               dropHost( *host );
            }
         }
      }
      for ( Vxlan::Vni v : vnis ) {
         for ( const VniVtepPair& k : floods->floodEntryKeysOfVni( v ) ) {
            if ( floods->floodEntryExists( k ) ) {
               dropFlood( k );
            }
         }
      }
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::cleanupStaleVniEntries() return" );
}

}  // namespace OrbEvpn

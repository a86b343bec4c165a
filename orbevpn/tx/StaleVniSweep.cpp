#include "orbevpn/tx/StaleVniSweep.h"

#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/runtime/FaultPoint.h"
#include "orbevpn/tx/internal/TxTrace.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <vector>

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
   if ( !vnis.empty() ) {
      // The bridge ids are gone, the records not yet: the next start must
      // still find these VNIs (by their records) and sweep them.
      faultPoint( "sweep-between-bridge-ids-and-records", [ &vnis ] {
         std::vector< uint32_t > list;
         for ( Vxlan::Vni v : vnis ) {
            list.push_back( v.value() );
         }
         return fmt::format( "VNI {}", fmt::join( list, "," ) );
      } );
   }
   // The cursors stand on a copy of the entry, so removing it is harmless.
   for ( auto it = hosts->hostIterConst(); it; ++it ) {
      const MacVniPair key = it.key();
      if ( vnis.contains( key.vni() ) ) {
         TRACE( txTrace(), 8,
                "OrbEvpnTxSm()::cleanupStaleVniEntries({}) Deleting stale host entry (macAddr: "
                "{}, ip: {})",
                key.vni(), key.macAddr(), it.value().vtepAddr() );
         hosts->hostDel( key );
      }
   }
   for ( auto it = floods->floodEntryIterConst(); it; ++it ) {
      const VniVtepPair key = it.key();
      if ( vnis.contains( key.vni() ) ) {
         TRACE( txTrace(), 8,
                "OrbEvpnTxSm()::cleanupStaleVniEntries({}) Deleting stale flood list entry (ip: "
                "{})",
                key.vni(), key.vtepAddr() );
         floods->floodEntryDel( key );
      }
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::cleanupStaleVniEntries() return" );
}

}  // namespace OrbEvpn

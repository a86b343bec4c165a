// VniFdbStatusSm, host half: the controller's MAC-to-VTEP entries of the
// VNI become Host records of the export host table, except entries the
// EVPN side provided itself; host records of the VNI without a controller
// entry are swept by each full pass. Multi-path entries only keep the
// bridge id published.
#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/SweepMode.h"
#include "orbevpn/tx/VniFdbStatusSm.h"
#include "orbevpn/tx/internal/TxTrace.h"
#include "platform/mox/Assert.h"

namespace OrbEvpn {

using internal::txTrace;

namespace {

// A controller entry equal to the default (all zero, preference 16) means
// that the controller has no entry for the MAC.
bool hasEntry( const VxlanController::MacVtepV2& entry ) {
   return !( entry == VxlanController::MacVtepV2() );
}

}  // namespace

bool VniFdbStatusSm::macEntryProvidedByEvpn( const Wire::EthAddr& macAddr ) const {
   MOX_ASSERT( initialized() );
   const Mox::Ptr< const EvpnStatus > evpn = vniStatusFromEvpn();
   if ( !evpn || !evpn->macVtepTableColl().contains( macAddr ) ) {
      return false;
   }
   // Only while the controller holds exactly what EVPN wrote: a newer
   // sequence number, another VTEP or preference is exported again.
   return vniFdbStatus()->macVtepTable( macAddr ) == evpn->macVtepTable( macAddr );
}

void VniFdbStatusSm::handleHost( const Wire::EthAddr& macAddr ) {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleHost({})", vni_, macAddr );
   // The bridge id goes out before the first host of the VNI does.
   updateBrIdList();
   const VxlanController::MacVtepV2 entry = vniFdbStatus()->macVtepTable( macAddr );
   const Mox::Ptr< HostTable > hosts = orbEvpnTxSm_->hostTableOut();
   if ( hasEntry( entry ) && !macEntryProvidedByEvpn( macAddr ) ) {
      Host host( MacVniPair( macAddr, vni_ ) );
      host.vtepAddrIs( entry.vtepAddr() );
      host.seqNoIs( entry.seqNo() );
      host.preferenceIs( entry.preference() );
      hosts->hostIs( host );
      TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleHost({}) return", vni_, macAddr );
      return;
   }
   // Issued whether or not the table holds the key; this path has no
   // "return" trace.
   hosts->hostDel( MacVniPair( macAddr, vni_ ) );
}

void VniFdbStatusSm::handleHost() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleHost()", vni_ );
   updateBrIdList();
   cleanupStaleHostEntries();
   const Mox::Ptr< const FdbStatus > status = vniFdbStatus();
   for ( auto it = status->macVtepTableColl().iterator(); !it.done(); ++it ) {
      handleHost( it.key() );
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleHost() return", vni_ );
}

void VniFdbStatusSm::cleanupStaleHostEntries() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::cleanupStaleHostEntries()", vni_ );
   const Mox::Ptr< const FdbStatus > status = vniFdbStatus();
   const Mox::Ptr< HostTable > hosts = orbEvpnTxSm_->hostTableOut();
   // A record whose MAC still has a controller entry stays, even if out of
   // date; the per-MAC pass that follows corrects it.
   auto judge = [ & ]( const Host& host ) {
      if ( !hasEntry( status->macVtepTable( host.key().macAddr() ) ) ) {
         TRACE( txTrace(), 8,
                "VniFdbStatusSm({})::cleanupStaleHostEntries() Deleting stale host entry "
                "(macAddr: {}, ip: {})",
                vni_, host.key().macAddr(), host.vtepAddr() );
         hosts->hostDel( host.key() );
      }
   };
   if ( sweepMode() == SweepMode::walk ) {
      for ( auto it = hosts->hostIterConst(); it; ++it ) {
         if ( it.value().key().vni() == vni_ ) {
            judge( it.value() );
         }
      }
   } else {
      // Looked up at the visit, as the walk reads each record when it
      // reaches it: an earlier removal's handlers may have changed it.
      for ( const MacVniPair& k : hosts->hostKeysOfVni( vni_ ) ) {
         if ( const std::optional< Host > host = hosts->hostFind( k ) ) {
            judge( *host );
         }
      }
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::cleanupStaleHostEntries() return", vni_ );
}

void VniFdbStatusSm::handleMultiPath( const Wire::EthAddr& macAddr ) {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleMultiPath({})", vni_, macAddr );
   if ( !macAddr.isZero() ) {
      TRACE( txTrace(), 3,
             "VniFdbStatusSm({})::handleMultiPath({}) ORB-EVPN only supports 'all BUM "
             "destination addresses' entries",
             vni_, macAddr );
      return;
   }
   // Never a host record: multi-path entries only keep the VNI published.
   updateBrIdList();
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleMultiPath({}) return", vni_, macAddr );
}

void VniFdbStatusSm::handleMultiPath() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleMultiPath()", vni_ );
   updateBrIdList();
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleMultiPath() return", vni_ );
}

}  // namespace OrbEvpn

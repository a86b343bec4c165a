// VniFdbStatusSm, flood-list half and bridge id: the "all BUM destination
// addresses" flood list of the VNI gets one MacVtepFloodListSm child,
// which writes the flood entries; flood entries of the VNI whose VTEP the
// controller's list lacks are swept by each full pass.
#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/SweepMode.h"
#include "orbevpn/tx/VniFdbStatusSm.h"
#include "orbevpn/tx/internal/TxTrace.h"
#include "platform/mox/Assert.h"

namespace OrbEvpn {

using internal::txTrace;

namespace {

// The key of the one flood list that is exported.
const Wire::EthAddr allBumDestinations{};

}  // namespace

void VniFdbStatusSm::updateBrIdList() {
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::updateBrIdList()", vni_ );
   MOX_ASSERT( initialized() );
   // The EVPN side's status is not consulted: the id says what the
   // controller exports.
   const Mox::Ptr< const FdbStatus > status = vniFdbStatus();
   if ( status->macVtepTableSize() != 0 || status->macVtepMultiPathTableSize() != 0 ||
        status->macVtepFloodListTableSize() != 0 ) {
      orbEvpnTxSm_->publishBrId( brId() );
   } else {
      orbEvpnTxSm_->unpublishBrId( brId() );
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::updateBrIdList() return", vni_ );
}

void VniFdbStatusSm::handleFloodList( const Wire::EthAddr& macAddr ) {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleFloodList({})", vni_, macAddr );
   if ( !macAddr.isZero() ) {
      // Neither exported nor withdrawn, and no child.
      TRACE( txTrace(), 3,
             "VniFdbStatusSm({})::handleFloodList({}) ORB-EVPN only supports 'all BUM "
             "destination addresses' entries",
             vni_, macAddr );
      return;
   }
   updateBrIdList();
   const Mox::Ptr< const VxlanController::MacVtepFloodListV2 > list =
      vniFdbStatus()->macVtepFloodListTable( macAddr );
   if ( list ) {
      const Mox::Ptr< MacVtepFloodListSm > child = macVtepFloodListSmIs( macAddr, list );
      const Mox::Ptr< const EvpnStatus > evpn = vniStatusFromEvpn();
      child->floodListFromEvpnIs( evpn ? evpn->macVtepFloodListTable( macAddr ) : nullptr );
      child->initializedIs( true );
   } else if ( const Mox::Ptr< MacVtepFloodListSm > child = macVtepFloodListSmDel( macAddr ) ) {
      child->cleanup();
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleFloodList({}) return", vni_, macAddr );
}

void VniFdbStatusSm::handleFloodList() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleFloodList()", vni_ );
   updateBrIdList();
   cleanupStaleFloodListEntries();
   const Mox::Ptr< const FdbStatus > status = vniFdbStatus();
   for ( auto it = status->macVtepFloodListTableColl().iterator(); !it.done(); ++it ) {
      handleFloodList( it.key() );
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleFloodList() return", vni_ );
}

void VniFdbStatusSm::cleanupStaleFloodListEntries() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::cleanupStaleFloodListEntries()", vni_ );
   const Mox::Ptr< const VxlanController::MacVtepFloodListV2 > bum =
      vniFdbStatus()->macVtepFloodListTable( allBumDestinations );
   const Mox::Ptr< FloodTable > floods = orbEvpnTxSm_->floodTableOut();
   auto judge = [ & ]( const VniVtepPair& key ) {
      // A VTEP the controller lists is kept whatever its flag: the child
      // decides about it.
      if ( bum && bum->vtepIpFloodListContains( key.vtepAddr() ) ) {
         return;
      }
      TRACE( txTrace(), 8,
             "VniFdbStatusSm({})::cleanupStaleFloodListEntries() Deleting stale flood list "
             "entry (ip: {})",
             vni_, key.vtepAddr() );
      floods->floodEntryDel( key );
   };
   if ( sweepMode() == SweepMode::walk ) {
      for ( auto it = floods->floodEntryIterConst(); it; ++it ) {
         if ( it.key().vni() == vni_ ) {
            judge( it.key() );
         }
      }
   } else {
      for ( const VniVtepPair& key : floods->floodEntryKeysOfVni( vni_ ) ) {
         if ( floods->floodEntryExists( key ) ) {
            judge( key );
         }
      }
   }
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::cleanupStaleFloodListEntries() return", vni_ );
}

}  // namespace OrbEvpn

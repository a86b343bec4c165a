// The export root's bridge-id list: publication by the per-VNI children and
// the start-up reconciliation with the VNI directory.
#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/StaleVniSweep.h"
#include "orbevpn/tx/internal/TxTrace.h"
#include "platform/mox/Assert.h"

namespace OrbEvpn {

using internal::txTrace;

void OrbEvpnTxSm::publishBrId( Bridging::BridgeId brId ) {
   // Deliberately fatal, unlike the silent handlers: a child publishing
   // through an uninitialised root is a broken lifecycle.
   MOX_ASSERT( initialized() );
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::publishBrId({})", brId.vni() );
   // Presence is checked first: brIdListIs notifies every reader on every
   // call, changed or not.
   if ( !orbBrIdList_->brIdListContains( brId ) ) {
      orbBrIdList_->brIdListIs( brId, true );
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::publishBrId({}) return", brId.vni() );
}

void OrbEvpnTxSm::unpublishBrId( Bridging::BridgeId brId ) {
   MOX_ASSERT( initialized() );
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::unpublishBrId({})", brId.vni() );
   if ( orbBrIdList_->brIdListContains( brId ) ) {
      orbBrIdList_->brIdListDel( brId );
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::unpublishBrId({}) return", brId.vni() );
}

void OrbEvpnTxSm::cleanupStaleBrIdEntries() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::cleanupStaleBrIdEntries()" );
   const Mox::Ptr< const Mox::Dir > dir = vniDir();
   std::set< Vxlan::Vni > stale;
   // Only read here; the sweep removes afterwards, so the walk never meets
   // its own removals.
   for ( auto it = orbBrIdList_->brIdListIterConst(); it; ++it ) {
      // Every listed id is of the VNI type (fatal otherwise).
      const Vxlan::Vni vni = it.key().vni();
      // The canonical name: an entry "007" does not keep VNI 7, while an
      // entry "7" of any type does.
      if ( !dir->entityPtr( Vxlan::valueToStrep( vni ) ) ) {
         stale.insert( vni );
      }
   }
   internal::sweepStaleVnis( *this, stale );
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::cleanupStaleBrIdEntries() return" );
}

}  // namespace OrbEvpn

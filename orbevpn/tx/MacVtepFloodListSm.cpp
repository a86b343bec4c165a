#include "orbevpn/tx/MacVtepFloodListSm.h"

#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/VniFdbStatusSm.h"
#include "orbevpn/tx/internal/TxTrace.h"
#include "platform/mox/Assert.h"

namespace OrbEvpn {

using internal::txTrace;

void MacVtepFloodListSm::moxDescribe( Mox::TypeBuilder< MacVtepFloodListSm >& b ) {
   using C = MacVtepFloodListSm;
   using Ip = const Wire::IpAddr&;
   b.scalar( "macAddr", &C::macAddr )
      .input( "macVtepFloodList", &C::macVtepFloodList )
      .input( "floodListFromEvpn", &C::floodListFromEvpn, &C::floodListFromEvpnIs )
      .handler< bool( Ip ) const >( "floodIpProvidedByEvpn", &C::floodIpProvidedByEvpn )
      .handlerPair( "handleVtepIp", static_cast< void ( C::* )( Ip ) >( &C::handleVtepIp ),
                    static_cast< void ( C::* )() >( &C::handleVtepIp ) )
      .handler< void() >( "cleanup", &C::cleanup )
      .scalar( "initialized", &C::initialized, &C::initializedIs )
      .handler< void() >( "handleInitialized", &C::handleInitialized )
      .output( "vniFdbStatusSm", &C::vniFdbStatusSm )
      .creator( &C::MacVtepFloodListSmIs );
}

MacVtepFloodListSm::MacVtepFloodListSm( const Wire::EthAddr& macAddr,
                                        const Mox::Ptr< const FloodList >& macVtepFloodList,
                                        VniFdbStatusSm* parent )
      : macAddr_( macAddr ),
        macVtepFloodList_( makeReactor< MoxMacVtepFloodList >( macVtepFloodList, this ) ),
        vniFdbStatusSm_( parent ) {
   handleInitialized();
}

MacVtepFloodListSm::~MacVtepFloodListSm() { moxRetire(); }

Mox::Ptr< MacVtepFloodListSm >
MacVtepFloodListSm::MacVtepFloodListSmIs( const Wire::EthAddr& macAddr,
                                          const Mox::Ptr< const FloodList >& macVtepFloodList,
                                          VniFdbStatusSm* parent ) {
   return moxCreate< MacVtepFloodListSm >( macAddr, macVtepFloodList, parent );
}

Mox::Ptr< const VxlanController::MacVtepFloodListV2 > MacVtepFloodListSm::macVtepFloodList() const {
   return macVtepFloodList_ ? macVtepFloodList_->notifier() : nullptr;
}

Mox::Ptr< const VxlanController::MacVtepFloodListV2 >
MacVtepFloodListSm::floodListFromEvpn() const {
   return floodListFromEvpn_ ? floodListFromEvpn_->notifier() : nullptr;
}

Vxlan::Vni MacVtepFloodListSm::vni() const { return vniFdbStatusSm_->vni(); }

bool MacVtepFloodListSm::floodIpProvidedByEvpn( const Wire::IpAddr& ip ) const {
   MOX_ASSERT( initialized() );
   // The key alone counts in the EVPN side's list, whatever its flag.
   const Mox::Ptr< const FloodList > evpn = floodListFromEvpn();
   return evpn && evpn->vtepIpFloodListContains( ip );
}

void MacVtepFloodListSm::handleVtepIp( const Wire::IpAddr& ip ) {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "MacVtepFloodListSm({})({})::handleVtepIp({})", macAddr_, vni(), ip );
   const VniVtepPair key( vni(), ip );
   const Mox::Ptr< FloodTable > floods = vniFdbStatusSm_->orbEvpnTxSm()->floodTableOut();
   // EVPN is asked only about addresses the controller lists as true: an
   // address both sides know is withheld, since EVPN already advertises
   // it, and written when it leaves the EVPN list.
   if ( macVtepFloodList()->vtepIpFloodList( ip ) && !floodIpProvidedByEvpn( ip ) ) {
      floods->floodEntryIs( FloodEntry( key ) );
   } else {
      floods->floodEntryDel( key );
   }
   TRACE( txTrace(), 4, "MacVtepFloodListSm({})({})::handleVtepIp({}) return", macAddr_, vni(),
          ip );
}

void MacVtepFloodListSm::handleVtepIp() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "MacVtepFloodListSm({})({})::handleVtepIp()", macAddr_, vni() );
   // Addresses known only to the EVPN list are not visited.
   const Mox::Ptr< const FloodList > list = macVtepFloodList();
   for ( auto it = list->vtepIpFloodListColl().iterator(); !it.done(); ++it ) {
      handleVtepIp( it.key() );
   }
   TRACE( txTrace(), 4, "MacVtepFloodListSm({})({})::handleVtepIp() return", macAddr_, vni() );
}

void MacVtepFloodListSm::handleInitialized() {
   TRACE( txTrace(), 3, "MacVtepFloodListSm({})({})::handleInitialized()", macAddr_, vni() );
   initialized_ = true;
   handleVtepIp();
   TRACE( txTrace(), 4, "MacVtepFloodListSm({})({})::handleInitialized() return", macAddr_,
          vni() );
}

void MacVtepFloodListSm::floodListFromEvpnIs( const Mox::Ptr< const FloodList >& list ) {
   Mox::Ptr< MoxFloodListFromEvpn > old = floodListFromEvpn_;
   if ( old ? old->notifier() == list : !list ) {
      return;
   }
   if ( !list ) {
      floodListFromEvpn_ = nullptr;
   } else if ( old ) {
      old->notifierIs( list );
   } else {
      floodListFromEvpn_ = makeReactor< MoxFloodListFromEvpn >( list, this );
      if ( isMarkedForDeletion() ) {
         floodListFromEvpn_->moxDoZombieReactors( true );
      }
   }
   if ( old && old != floodListFromEvpn_ ) {
      moxRetireReactor( old );
   }
   // Every address of the controller's list against the new EVPN list.
   handleInitialized();
}

Mox::Ptr< const VxlanController::MacVtepFloodListV2 > MacVtepFloodListSm::floodListFromEvpnDel() {
   Mox::Ptr< MoxFloodListFromEvpn > r = std::move( floodListFromEvpn_ );
   if ( !r ) {
      return nullptr;
   }
   r->moxDoZombieReactors( true );
   handleInitialized();
   r->owner = nullptr;
   r->hasNotificationActiveIs( false );
   return r->notifier();
}

void MacVtepFloodListSm::cleanup() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "MacVtepFloodListSm({})({})::cleanup()", macAddr_, vni() );
   const Mox::Ptr< FloodTable > floods = vniFdbStatusSm_->orbEvpnTxSm()->floodTableOut();
   // Every address, whatever its flag or EVPN's list: also the ones that
   // were withheld, which another list's machine may have written.
   const Mox::Ptr< const FloodList > list = macVtepFloodList();
   for ( auto it = list->vtepIpFloodListColl().iterator(); !it.done(); ++it ) {
      TRACE( txTrace(), 8, "MacVtepFloodListSm({})({})::cleanup() Deleting flood list entry (ip: {})",
             macAddr_, vni(), it.key() );
      floods->floodEntryDel( VniVtepPair( vni(), it.key() ) );
   }
   initialized_ = false;
   TRACE( txTrace(), 4, "MacVtepFloodListSm({})({})::cleanup() return", macAddr_, vni() );
}

Mox::Ptr< MacVtepFloodListSm >
macVtepFloodListSmFactory( const Wire::EthAddr& macAddr,
                           const Mox::Ptr< const VxlanController::MacVtepFloodListV2 >& macVtepFloodList,
                           VniFdbStatusSm* parent ) {
   return MacVtepFloodListSm::MacVtepFloodListSmIs( macAddr, macVtepFloodList, parent );
}

}  // namespace OrbEvpn

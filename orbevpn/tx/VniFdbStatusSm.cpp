// VniFdbStatusSm: construction, registration, the lifecycle (initialised
// by the parent, the EVPN side's status, cleanup) and the flood-list
// children. The two halves of the export are VniFdbStatusHosts.cpp and
// VniFdbStatusFlood.cpp.
#include "orbevpn/tx/VniFdbStatusSm.h"

#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/internal/TxTrace.h"

namespace OrbEvpn {

using internal::txTrace;

void VniFdbStatusSm::moxDescribe( Mox::TypeBuilder< VniFdbStatusSm >& b ) {
   using C = VniFdbStatusSm;
   using Mac = const Wire::EthAddr&;
   // The data attributes in declaration order, then the operations.
   b.scalar( "vni", &C::vni )
      .input( "vniFdbStatus", &C::vniFdbStatus )
      .input( "vniStatusFromEvpn", &C::vniStatusFromEvpn, &C::vniStatusFromEvpnIs );
   bindChildren( b, "macVtepFloodListSm", &C::macVtepFloodListSmColl, &C::macVtepFloodListSmIs,
                 &C::macVtepFloodListSmDel );
   b.scalar( "initialized", &C::initialized, &C::initializedIs )
      .output( "orbEvpnTxSm", &C::orbEvpnTxSm )
      .handlerPair( "handleHost", static_cast< void ( C::* )( Mac ) >( &C::handleHost ),
                    static_cast< void ( C::* )() >( &C::handleHost ) )
      .handlerPair( "handleMultiPath", static_cast< void ( C::* )( Mac ) >( &C::handleMultiPath ),
                    static_cast< void ( C::* )() >( &C::handleMultiPath ) )
      .handler< bool( Mac ) const >( "macEntryProvidedByEvpn", &C::macEntryProvidedByEvpn )
      .handler< void() >( "cleanupStaleHostEntries", &C::cleanupStaleHostEntries )
      .handler< void() >( "vniStatusFromEvpnDel", &C::vniStatusFromEvpnDel )
      .handler< void() >( "handleInitialized", &C::handleInitialized )
      .handlerPair( "handleFloodList", static_cast< void ( C::* )( Mac ) >( &C::handleFloodList ),
                    static_cast< void ( C::* )() >( &C::handleFloodList ) )
      .handler< void() >( "updateBrIdList", &C::updateBrIdList )
      .handler< void() >( "cleanupStaleFloodListEntries", &C::cleanupStaleFloodListEntries )
      .handler< void() >( "cleanup", &C::cleanup )
      .creator( &C::VniFdbStatusSmIs );
}

VniFdbStatusSm::VniFdbStatusSm( Vxlan::Vni vni, const Mox::Ptr< const FdbStatus >& vniFdbStatus,
                                OrbEvpnTxSm* parent )
      : vni_( vni ),
        vniFdbStatus_( makeReactor< MoxVniFdbStatus >( vniFdbStatus, this ) ),
        macVtepFloodListSm_( this, Mox::TypeImpl< VniFdbStatusSm >::instance().attributeId(
                                      "macVtepFloodListSm" ) ),
        orbEvpnTxSm_( parent ) {}

// The child goes with the collection, without its cleanup().
VniFdbStatusSm::~VniFdbStatusSm() { moxRetire(); }

Mox::Ptr< VniFdbStatusSm >
VniFdbStatusSm::VniFdbStatusSmIs( Vxlan::Vni vni, const Mox::Ptr< const FdbStatus >& vniFdbStatus,
                                  OrbEvpnTxSm* parent ) {
   return moxCreate< VniFdbStatusSm >( vni, vniFdbStatus, parent );
}

Mox::Ptr< const VxlanController::VniFdbStatusV2 > VniFdbStatusSm::vniFdbStatus() const {
   return vniFdbStatus_ ? vniFdbStatus_->notifier() : nullptr;
}

Mox::Ptr< const VxlanController::VniStatusV2 > VniFdbStatusSm::vniStatusFromEvpn() const {
   return vniStatusFromEvpn_ ? vniStatusFromEvpn_->notifier() : nullptr;
}

void VniFdbStatusSm::initializedIs( bool initialized ) {
   if ( initialized == initialized_ ) {
      return;
   }
   initialized_ = initialized;
   handleInitialized();
}

void VniFdbStatusSm::vniStatusFromEvpnIs( const Mox::Ptr< const EvpnStatus >& status ) {
   if ( status == vniStatusFromEvpn() ) {
      return;
   }
   if ( !status ) {
      moxRetireReactor( vniStatusFromEvpn_ );
   } else if ( vniStatusFromEvpn_ ) {
      vniStatusFromEvpn_->notifierIs( status );
   } else {
      vniStatusFromEvpn_ = makeReactor< MoxVniStatusFromEvpn >( status, this );
      if ( isMarkedForDeletion() ) {
         vniStatusFromEvpn_->moxDoZombieReactors( true );
      }
   }
   // Entries that start or stop being provided by EVPN change both passes.
   handleInitialized();
}

void VniFdbStatusSm::vniStatusFromEvpnDel() {
   moxRetireReactor( vniStatusFromEvpn_ );
   handleInitialized();
}

void VniFdbStatusSm::handleInitialized() {
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::handleInitialized()", vni_ );
   if ( !initialized_ ) {
      return;
   }
   handleHost();
   handleFloodList();
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::handleInitialized() return", vni_ );
}

void VniFdbStatusSm::cleanup() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "VniFdbStatusSm({})::cleanup()", vni_ );
   for ( auto it = macVtepFloodListSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< MacVtepFloodListSm > child = macVtepFloodListSmDel( it.key() ) ) {
         child->cleanup();
      }
   }
   // Hosts and the bridge id stay: the parent's sweep withdraws them.
   initializedIs( false );
   TRACE( txTrace(), 4, "VniFdbStatusSm({})::cleanup() return", vni_ );
}

Mox::Ptr< MacVtepFloodListSm > VniFdbStatusSm::macVtepFloodListSmIs(
   const Wire::EthAddr& macAddr,
   const Mox::Ptr< const VxlanController::MacVtepFloodListV2 >& list ) {
   return childIs( macVtepFloodListSm_, macAddr, list, "macVtepFloodListSm", [ & ] {
      return MacVtepFloodListSm::MacVtepFloodListSmIs( macAddr, list, this );
   } );
}

Mox::Ptr< MacVtepFloodListSm > VniFdbStatusSm::macVtepFloodListSmDel( const Wire::EthAddr& macAddr ) {
   return childDel( macVtepFloodListSm_, macAddr );
}

void VniFdbStatusSm::macVtepFloodListSmDelAll() { macVtepFloodListSm_.delAll(); }

void VniFdbStatusSm::moxChildrenActiveIs( bool active ) {
   for ( auto it = macVtepFloodListSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< MacVtepFloodListSm > child = it.value() ) {
         child->hasNotificationActiveIs( active );
      }
   }
}

void VniFdbStatusSm::moxChildrenZombieIs( bool zombie ) {
   for ( auto it = macVtepFloodListSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< MacVtepFloodListSm > child = it.value() ) {
         child->moxDoZombieReactors( zombie );
      }
   }
}

Mox::Ptr< VniFdbStatusSm >
vniFdbStatusSmFactory( Vxlan::Vni vni,
                       const Mox::Ptr< const VxlanController::VniFdbStatusV2 >& vniFdbStatus,
                       OrbEvpnTxSm* parent ) {
   return VniFdbStatusSm::VniFdbStatusSmIs( vni, vniFdbStatus, parent );
}

}  // namespace OrbEvpn

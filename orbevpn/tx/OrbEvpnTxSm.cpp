#include "orbevpn/tx/OrbEvpnTxSm.h"

#include "orbevpn/tx/StaleVniSweep.h"
#include "orbevpn/tx/internal/TxTrace.h"

namespace OrbEvpn {

using internal::txTrace;

void OrbEvpnTxSm::moxDescribe( Mox::TypeBuilder< OrbEvpnTxSm >& b ) {
   using C = OrbEvpnTxSm;
   b.input( "vniDir", &C::vniDir )
      .input( "vniStatusDirFromEvpn", &C::vniStatusDirFromEvpn )
      .output( "orbBrIdList", &C::orbBrIdList )
      .output( "hostTableOut", &C::hostTableOut )
      .output( "floodTableOut", &C::floodTableOut )
      .handler< void( Bridging::BridgeId ) >( "publishBrId", &C::publishBrId )
      .handler< void( Bridging::BridgeId ) >( "unpublishBrId", &C::unpublishBrId );
   bindChildren( b, "vniFdbStatusSm", &C::vniFdbStatusSmColl, &C::vniFdbStatusSmIs,
                 &C::vniFdbStatusSmDel );
   b.handler< void( Vxlan::Vni ) >( "handleVniStatusFromEvpn", &C::handleVniStatusFromEvpn )
      .handlerPair( "handleVniFdbStatus",
                    static_cast< void ( C::* )( const Mox::String& ) >( &C::handleVniFdbStatus ),
                    static_cast< void ( C::* )() >( &C::handleVniFdbStatus ) )
      .handler< void() >( "cleanupStaleBrIdEntries", &C::cleanupStaleBrIdEntries )
      .handler< void() >( "cleanup", &C::cleanup )
      .scalar( "initialized", &C::initialized, &C::initializedIs )
      .handler< void() >( "handleInitialized", &C::handleInitialized )
      .creator( &C::OrbEvpnTxSmIs );
}

OrbEvpnTxSm::OrbEvpnTxSm(
   const Mox::Ptr< const Mox::Dir >& vniDir,
   const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
   const Mox::Ptr< OrbBrIdList >& orbBrIdList, const Mox::Ptr< HostTable >& hostTableOut,
   const Mox::Ptr< FloodTable >& floodTableOut )
      : vniDir_( makeReactor< MoxVniDir >( vniDir, this ) ),
        vniStatusDirFromEvpn_(
           makeReactor< MoxVniStatusDirFromEvpn >( vniStatusDirFromEvpn, this ) ),
        orbBrIdList_( orbBrIdList ),
        hostTableOut_( hostTableOut ),
        floodTableOut_( floodTableOut ),
        vniFdbStatusSm_( this, Mox::TypeImpl< OrbEvpnTxSm >::instance().attributeId(
                                  "vniFdbStatusSm" ) ) {
   handleInitialized();
}

// Children go with the collection, without their cleanup(): what they
// exported stays for the next start-up to reconcile.
OrbEvpnTxSm::~OrbEvpnTxSm() { moxRetire(); }

Mox::Ptr< OrbEvpnTxSm > OrbEvpnTxSm::OrbEvpnTxSmIs(
   const Mox::Ptr< const Mox::Dir >& vniDir,
   const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
   const Mox::Ptr< OrbBrIdList >& orbBrIdList, const Mox::Ptr< HostTable >& hostTableOut,
   const Mox::Ptr< FloodTable >& floodTableOut ) {
   return moxCreate< OrbEvpnTxSm >( vniDir, vniStatusDirFromEvpn, orbBrIdList, hostTableOut,
                                    floodTableOut );
}

Mox::Ptr< const Mox::Dir > OrbEvpnTxSm::vniDir() const {
   return vniDir_ ? vniDir_->notifier() : nullptr;
}

Mox::Ptr< const VxlanController::VniStatusDirV2 > OrbEvpnTxSm::vniStatusDirFromEvpn() const {
   return vniStatusDirFromEvpn_ ? vniStatusDirFromEvpn_->notifier() : nullptr;
}

Mox::Ptr< const VxlanController::VniStatusV2 >
OrbEvpnTxSm::vniStatusFromEvpn( Vxlan::Vni vni ) const {
   // A root must be given the EVPN status directory: not checked.
   return vniStatusDirFromEvpn()->vniStatusV2( vni );
}

Mox::Ptr< VniFdbStatusSm > OrbEvpnTxSm::vniFdbStatusSmIs(
   Vxlan::Vni vni, const Mox::Ptr< const VxlanController::VniFdbStatusV2 >& status ) {
   return childIs( vniFdbStatusSm_, vni, status, "vniFdbStatusSm",
                   [ & ] { return VniFdbStatusSm::VniFdbStatusSmIs( vni, status, this ); } );
}

Mox::Ptr< VniFdbStatusSm > OrbEvpnTxSm::vniFdbStatusSmDel( Vxlan::Vni vni ) {
   return childDel( vniFdbStatusSm_, vni );
}

void OrbEvpnTxSm::vniFdbStatusSmDelAll() { vniFdbStatusSm_.delAll(); }

void OrbEvpnTxSm::handleInitialized() {
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::handleInitialized()" );
   initialized_ = true;
   handleVniFdbStatus();
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::handleInitialized() return" );
}

void OrbEvpnTxSm::handleVniFdbStatus() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::handleVniFdbStatus()" );
   cleanupStaleBrIdEntries();
   const Mox::Ptr< const Mox::Dir > dir = vniDir();
   // An entry whose name is out of the VNI range ends the walk with the
   // range exception, there.
   for ( auto it = dir->entityIterator(); !it.done(); ++it ) {
      handleVniFdbStatus( it.key() );
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::handleVniFdbStatus() return" );
}

void OrbEvpnTxSm::handleVniFdbStatus( const Mox::String& name ) {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::handleVniFdbStatus({})", name );
   // An entry of another type counts as missing.
   const auto status =
      Mox::ptrCast< const VxlanController::VniFdbStatusV2 >( vniDir()->entityPtr( name ) );
   const Vxlan::Vni vni = Vxlan::vniFromName( name );
   if ( !status ) {
      // The sweep first, then the child's own cleanup, although the sweep
      // has already withdrawn what the child exported.
      internal::sweepStaleVnis( *this, { vni } );
      if ( Mox::Ptr< VniFdbStatusSm > child = vniFdbStatusSmDel( vni ) ) {
         child->cleanup();
      }
   } else {
      const Mox::Ptr< VniFdbStatusSm > child = vniFdbStatusSmIs( vni, status );
      child->vniStatusFromEvpnIs( vniStatusFromEvpn( vni ) );
      // Initialised once, right after it first gets its EVPN status.
      if ( !child->initialized() ) {
         child->initializedIs( true );
      }
   }
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::handleVniFdbStatus({}) return", name );
}

void OrbEvpnTxSm::handleVniStatusFromEvpn( Vxlan::Vni vni ) {
   TRACE( txTrace(), 8,
          "void OrbEvpn::OrbEvpnTxSm::handleVniStatusFromEvpn(Vxlan::Vni) init {} vni {}",
          initialized_, vni );
   if ( !initialized_ ) {
      return;
   }
   // EVPN status of a VNI the controller does not export waits for the
   // VNI's directory entry, which picks it up.
   if ( const Mox::Ptr< VniFdbStatusSm > child = vniFdbStatusSm( vni ) ) {
      child->vniStatusFromEvpnIs( vniStatusFromEvpn( vni ) );
   }
}

void OrbEvpnTxSm::cleanup() {
   if ( !initialized_ ) {
      return;
   }
   TRACE( txTrace(), 3, "OrbEvpnTxSm()::cleanup()" );
   // Wholesale, so that entries no child owns go as well.
   orbBrIdList_->brIdListDelAll();
   hostTableOut_->hostDelAll();
   floodTableOut_->floodEntryDelAll();
   for ( auto it = vniFdbStatusSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< VniFdbStatusSm > child = vniFdbStatusSmDel( it.key() ) ) {
         child->cleanup();
      }
   }
   initialized_ = false;
   TRACE( txTrace(), 4, "OrbEvpnTxSm()::cleanup() return" );
}

void OrbEvpnTxSm::moxChildrenActiveIs( bool active ) {
   for ( auto it = vniFdbStatusSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< VniFdbStatusSm > child = it.value() ) {
         child->hasNotificationActiveIs( active );
      }
   }
}

void OrbEvpnTxSm::moxChildrenZombieIs( bool zombie ) {
   for ( auto it = vniFdbStatusSm_.iterator(); !it.done(); ++it ) {
      if ( const Mox::Ptr< VniFdbStatusSm > child = it.value() ) {
         child->moxDoZombieReactors( zombie );
      }
   }
}

Mox::Ptr< OrbEvpnTxSm >
orbEvpnTxSmFactory( const Mox::Ptr< const Mox::Dir >& vniDir,
                    const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
                    const Mox::Ptr< OrbBrIdList >& orbBrIdList,
                    const Mox::Ptr< HostTable >& hostTableOut,
                    const Mox::Ptr< FloodTable >& floodTableOut ) {
   return OrbEvpnTxSm::OrbEvpnTxSmIs( vniDir, vniStatusDirFromEvpn, orbBrIdList, hostTableOut,
                                      floodTableOut );
}

}  // namespace OrbEvpn

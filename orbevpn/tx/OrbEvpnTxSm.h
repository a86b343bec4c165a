// OrbEvpn::OrbEvpnTxSm: the root of the export (controller to EVPN).
//
// Watches the controller's VNI directory (a Mox::Dir whose entries are
// VniFdbStatusV2 entities, normally named by their VNI in decimal) and the
// EVPN-learnt VNI statuses (a VniStatusDirV2), and keeps exactly one
// VniFdbStatusSm child per VNI that has a VniFdbStatusV2 entry. It owns the
// three outputs, the host table, the flood table and the bridge-id list,
// which its children write through their parent pointer.
//
// Start-up: the constructor ends with handleInitialized(), whose full walk
// first reconciles the bridge-id list with the directory (ids of VNIs that
// are gone are swept with all their hosts and flood entries, see
// StaleVniSweep.h), then creates, feeds and initialises one child per
// entry. The outputs are therefore correct when the factory returns.
//
// Tear-down: cleanup() empties the three outputs wholesale and cleans up
// and drops every child. Destruction withdraws nothing: it retires the
// reactors and drops the children without their cleanup(), so the next
// start-up reconciles what is left.
//
// publishBrId/unpublishBrId on an uninitialised root are fatal
// ("initialized()"); every other handler is a no-op then.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"
#include "orbevpn/runtime/Children.h"
#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "orbevpn/tx/VniFdbStatusSm.h"
#include "platform/model/OrbBrIdList.h"
#include "platform/model/VniStatusDirV2.h"
#include "platform/mox/Dir.h"

namespace OrbEvpn {

class OrbEvpnTxSm : public StateMachine< OrbEvpnTxSm > {
   MOX_ALLOC_TRACKED( OrbEvpnTxSm )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "OrbEvpn::OrbEvpnTxSm";
   static void moxDescribe( Mox::TypeBuilder< OrbEvpnTxSm >& b );

   ORBEVPN_REACTOR( MoxVniDir, OrbEvpnTxSm, Mox::Dir, collection,
                    watch< &OrbEvpnTxSm::mox_handleVniDir_entityPtr >( "entityPtr" ) );
   ORBEVPN_REACTOR( MoxVniStatusDirFromEvpn, OrbEvpnTxSm, VxlanController::VniStatusDirV2,
                    collection,
                    watch< &OrbEvpnTxSm::mox_handleVniStatusDirFromEvpn_vniStatusV2 >(
                       "vniStatusV2" ) );

   using VniFdbStatusSms = Children< Vxlan::Vni, VniFdbStatusSm >;

   OrbEvpnTxSm( const Mox::Ptr< const Mox::Dir >& vniDir,
                const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
                const Mox::Ptr< OrbBrIdList >& orbBrIdList,
                const Mox::Ptr< HostTable >& hostTableOut,
                const Mox::Ptr< FloodTable >& floodTableOut );
   ~OrbEvpnTxSm() override;

   static Mox::Ptr< OrbEvpnTxSm >
   OrbEvpnTxSmIs( const Mox::Ptr< const Mox::Dir >& vniDir,
                  const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
                  const Mox::Ptr< OrbBrIdList >& orbBrIdList,
                  const Mox::Ptr< HostTable >& hostTableOut,
                  const Mox::Ptr< FloodTable >& floodTableOut );

   // Inputs yield the reactor's current notifier (null without a reactor).
   Mox::Ptr< const Mox::Dir > vniDir() const;
   Mox::Ptr< const VxlanController::VniStatusDirV2 > vniStatusDirFromEvpn() const;
   Mox::Ptr< OrbBrIdList > orbBrIdList() const { return orbBrIdList_; }
   Mox::Ptr< HostTable > hostTableOut() const { return hostTableOut_; }
   Mox::Ptr< FloodTable > floodTableOut() const { return floodTableOut_; }
   bool initialized() const { return initialized_; }
   // Only stores the flag.
   void initializedIs( bool i ) { initialized_ = i; }

   // ---- bridge ids (BrIdPublication.cpp)
   void publishBrId( Bridging::BridgeId brId );
   void unpublishBrId( Bridging::BridgeId brId );
   void cleanupStaleBrIdEntries();

   // ---- children
   // The child of `vni`, created on first sight; ReinstantiationException
   // when it exists on another VniFdbStatusV2.
   Mox::Ptr< VniFdbStatusSm >
   vniFdbStatusSmIs( Vxlan::Vni vni,
                     const Mox::Ptr< const VxlanController::VniFdbStatusV2 >& status );
   Mox::Ptr< VniFdbStatusSm > vniFdbStatusSm( Vxlan::Vni vni ) const {
      return vniFdbStatusSm_.get( vni );
   }
   size_t vniFdbStatusSms() const { return vniFdbStatusSm_.size(); }
   const VniFdbStatusSms& vniFdbStatusSmColl() const { return vniFdbStatusSm_; }
   // Removes the child and hands it back (null if none); no cleanup().
   Mox::Ptr< VniFdbStatusSm > vniFdbStatusSmDel( Vxlan::Vni vni );
   void vniFdbStatusSmDelAll();

   // ---- handlers
   void handleInitialized();
   void handleVniFdbStatus();
   void handleVniFdbStatus( const Mox::String& name );
   void handleVniStatusFromEvpn( Vxlan::Vni vni );
   void cleanup();

   ORBEVPN_FORWARD( VniDir, entityPtr, handleVniFdbStatus, const Mox::String& )
   ORBEVPN_FORWARD( VniStatusDirFromEvpn, vniStatusV2, handleVniStatusFromEvpn,
                    const Vxlan::Vni& )

   const Mox::Ptr< MoxVniDir >& vniDirReactor() const { return vniDir_; }
   const Mox::Ptr< MoxVniStatusDirFromEvpn >& vniStatusDirFromEvpnReactor() const {
      return vniStatusDirFromEvpn_;
   }
   auto moxReactors() { return std::tie( vniDir_, vniStatusDirFromEvpn_ ); }
   void moxChildrenActiveIs( bool active );
   void moxChildrenZombieIs( bool zombie );

 private:
   // The EVPN side's status of `vni`, null if it has none.
   Mox::Ptr< const VxlanController::VniStatusV2 > vniStatusFromEvpn( Vxlan::Vni vni ) const;

   Mox::Ptr< MoxVniDir > vniDir_;
   Mox::Ptr< MoxVniStatusDirFromEvpn > vniStatusDirFromEvpn_;
   Mox::Ptr< OrbBrIdList > orbBrIdList_;
   Mox::Ptr< HostTable > hostTableOut_;
   Mox::Ptr< FloodTable > floodTableOut_;
   VniFdbStatusSms vniFdbStatusSm_;
   bool initialized_ = false;
};

Mox::Ptr< OrbEvpnTxSm >
orbEvpnTxSmFactory( const Mox::Ptr< const Mox::Dir >& vniDir,
                    const Mox::Ptr< const VxlanController::VniStatusDirV2 >& vniStatusDirFromEvpn,
                    const Mox::Ptr< OrbBrIdList >& orbBrIdList,
                    const Mox::Ptr< HostTable >& hostTableOut,
                    const Mox::Ptr< FloodTable >& floodTableOut );

}  // namespace OrbEvpn

// OrbEvpn::VniFdbStatusSm: the export state machine of one VNI.
//
// Created by the export root (OrbEvpnTxSm, its parent and owner) for every
// VNI of the controller's directory, with the VNI and the controller's
// VniFdbStatusV2 of it. Two halves:
//  - hosts (VniFdbStatusHosts.cpp): every MAC-to-VTEP entry of the
//    controller becomes a Host of the root's host table, unless the EVPN
//    side provided exactly that entry (macEntryProvidedByEvpn); host
//    records of the VNI without a controller entry are swept by each full
//    pass. Multi-path entries only keep the bridge id published.
//  - flood lists (VniFdbStatusFlood.cpp): the "all BUM destination
//    addresses" flood list (MAC 00:00:00:00:00:00) gets one
//    MacVtepFloodListSm child, which writes its flood entries; flood
//    entries of the VNI whose VTEP the controller's list lacks are swept
//    by each full pass. Lists under any other MAC are traced and ignored.
// Every handler first publishes the VNI's bridge id while any of the
// controller's three tables holds an entry, and withdraws it otherwise
// (updateBrIdList).
//
// Lifecycle: constructed inert (every handler returns at once) until the
// parent hands it the EVPN side's status and sets `initialized`, which
// runs both full passes; a new EVPN status re-runs them. cleanup() cleans
// up and drops the flood-list child and makes the machine inert again; it
// withdraws no host and leaves the bridge id. Destruction withdraws
// nothing.
//
// The parent (uncounted pointer) gives the host and flood tables and the
// bridge-id operations; they are read at every use, never cached.
// Single-threaded: runs on the notification thread.
#pragma once

#include "orbevpn/runtime/Children.h"
#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "orbevpn/tx/MacVtepFloodListSm.h"
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusV2.h"
#include "platform/values/BridgeId.h"

namespace OrbEvpn {

class OrbEvpnTxSm;

class VniFdbStatusSm : public StateMachine< VniFdbStatusSm > {
   MOX_ALLOC_TRACKED( VniFdbStatusSm )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "OrbEvpn::VniFdbStatusSm";
   static void moxDescribe( Mox::TypeBuilder< VniFdbStatusSm >& b );

   using FdbStatus = VxlanController::VniFdbStatusV2;
   using EvpnStatus = VxlanController::VniStatusV2;

   ORBEVPN_REACTOR(
      MoxVniFdbStatus, VniFdbStatusSm, FdbStatus, collection,
      watch< &VniFdbStatusSm::mox_handleVniFdbStatus_macVtepTable >( "macVtepTable" ),
      watch< &VniFdbStatusSm::mox_handleVniFdbStatus_macVtepMultiPathTable >(
         "macVtepMultiPathTable" ),
      watch< &VniFdbStatusSm::mox_handleVniFdbStatus_macVtepFloodListTable >(
         "macVtepFloodListTable" ) );
   ORBEVPN_REACTOR(
      MoxVniStatusFromEvpn, VniFdbStatusSm, EvpnStatus, collection,
      watch< &VniFdbStatusSm::mox_handleVniStatusFromEvpn_macVtepTable >( "macVtepTable" ),
      watch< &VniFdbStatusSm::mox_handleVniStatusFromEvpn_macVtepMultiPathTable >(
         "macVtepMultiPathTable" ),
      watch< &VniFdbStatusSm::mox_handleVniStatusFromEvpn_macVtepFloodListTable >(
         "macVtepFloodListTable" ) );

   using MacVtepFloodListSms = Children< Wire::EthAddr, MacVtepFloodListSm >;

   // Inert until initialised: runs no handler.
   VniFdbStatusSm( Vxlan::Vni vni, const Mox::Ptr< const FdbStatus >& vniFdbStatus,
                   OrbEvpnTxSm* parent );
   ~VniFdbStatusSm() override;

   static Mox::Ptr< VniFdbStatusSm >
   VniFdbStatusSmIs( Vxlan::Vni vni, const Mox::Ptr< const FdbStatus >& vniFdbStatus,
                     OrbEvpnTxSm* parent );

   Vxlan::Vni vni() const { return vni_; }
   // The bridge id of the VNI, published while the VNI has entries.
   Bridging::BridgeId brId() const { return Bridging::BridgeId::fromVni( vni_ ); }
   Mox::Ptr< const FdbStatus > vniFdbStatus() const;
   Mox::Ptr< const EvpnStatus > vniStatusFromEvpn() const;
   OrbEvpnTxSm* orbEvpnTxSm() const { return orbEvpnTxSm_; }
   bool initialized() const { return initialized_; }
   // A change runs handleInitialized(); an equal value does nothing.
   void initializedIs( bool initialized );

   // The EVPN side's status of the VNI (null: none). A different one
   // re-targets the reactor (or retires it) and re-runs both full passes.
   void vniStatusFromEvpnIs( const Mox::Ptr< const EvpnStatus >& status );
   // Retires the EVPN reactor and re-runs both full passes.
   void vniStatusFromEvpnDel();

   // ---- hosts (VniFdbStatusHosts.cpp)
   void handleHost( const Wire::EthAddr& macAddr );
   void handleHost();
   void handleMultiPath( const Wire::EthAddr& macAddr );
   void handleMultiPath();
   // Asserts initialized(): the controller holds exactly the entry the
   // EVPN side provided for `macAddr`.
   bool macEntryProvidedByEvpn( const Wire::EthAddr& macAddr ) const;
   void cleanupStaleHostEntries();

   // ---- lifecycle and flood lists (VniFdbStatusFlood.cpp)
   void handleInitialized();
   void handleFloodList( const Wire::EthAddr& macAddr );
   void handleFloodList();
   // Asserts initialized().
   void updateBrIdList();
   void cleanupStaleFloodListEntries();
   void cleanup();

   // ---- the flood-list children
   // The child of `macAddr`, created when absent; ReinstantiationException
   // when it exists on another flood list.
   Mox::Ptr< MacVtepFloodListSm >
   macVtepFloodListSmIs( const Wire::EthAddr& macAddr,
                         const Mox::Ptr< const VxlanController::MacVtepFloodListV2 >& list );
   Mox::Ptr< MacVtepFloodListSm > macVtepFloodListSm( const Wire::EthAddr& macAddr ) const {
      return macVtepFloodListSm_.get( macAddr );
   }
   size_t macVtepFloodListSms() const { return macVtepFloodListSm_.size(); }
   const MacVtepFloodListSms& macVtepFloodListSmColl() const { return macVtepFloodListSm_; }
   // Removes the child and hands it back (null if none); no cleanup().
   Mox::Ptr< MacVtepFloodListSm > macVtepFloodListSmDel( const Wire::EthAddr& macAddr );
   void macVtepFloodListSmDelAll();

   // The generated forwarding members: both reactors reach one handler
   // per collection.
   ORBEVPN_FORWARD( VniFdbStatus, macVtepTable, handleHost, const Wire::EthAddr& )
   ORBEVPN_FORWARD( VniFdbStatus, macVtepMultiPathTable, handleMultiPath, const Wire::EthAddr& )
   ORBEVPN_FORWARD( VniFdbStatus, macVtepFloodListTable, handleFloodList, const Wire::EthAddr& )
   ORBEVPN_FORWARD( VniStatusFromEvpn, macVtepTable, handleHost, const Wire::EthAddr& )
   ORBEVPN_FORWARD( VniStatusFromEvpn, macVtepMultiPathTable, handleMultiPath,
                    const Wire::EthAddr& )
   ORBEVPN_FORWARD( VniStatusFromEvpn, macVtepFloodListTable, handleFloodList,
                    const Wire::EthAddr& )

   const Mox::Ptr< MoxVniFdbStatus >& vniFdbStatusReactor() const { return vniFdbStatus_; }
   const Mox::Ptr< MoxVniStatusFromEvpn >& vniStatusFromEvpnReactor() const {
      return vniStatusFromEvpn_;
   }
   auto moxReactors() { return std::tie( vniFdbStatus_, vniStatusFromEvpn_ ); }
   void moxChildrenActiveIs( bool active );
   void moxChildrenZombieIs( bool zombie );
   // What a parent compares when asked for this child again.
   Mox::Ptr< const FdbStatus > moxChildInput() const { return vniFdbStatus(); }

 private:
   Vxlan::Vni vni_;
   Mox::Ptr< MoxVniFdbStatus > vniFdbStatus_;
   Mox::Ptr< MoxVniStatusFromEvpn > vniStatusFromEvpn_;
   MacVtepFloodListSms macVtepFloodListSm_;
   bool initialized_ = false;
   OrbEvpnTxSm* orbEvpnTxSm_;   // uncounted: the parent owns us
};

Mox::Ptr< VniFdbStatusSm >
vniFdbStatusSmFactory( Vxlan::Vni vni,
                       const Mox::Ptr< const VxlanController::VniFdbStatusV2 >& vniFdbStatus,
                       OrbEvpnTxSm* parent );

}  // namespace OrbEvpn

// OrbEvpn::MacVtepFloodListSm: exports one flood list of the controller.
//
// Owned by its VniFdbStatusSm (one per flood-list MAC, in practice the
// all-zero "all BUM destination addresses" MAC). It writes one FloodEntry
// keyed by {the parent's VNI, address} into the export root's flood table
// for every address of the controller's list whose value is true, unless
// the EVPN side's list for the same MAC already holds the address; it
// deletes the entry when the address leaves the list, turns false, becomes
// EVPN-provided, or when the machine is cleaned up. Destruction withdraws
// nothing.
//
// The parent's VNI and flood table are read through the parent pointer at
// every use, never cached. Single-threaded: the notification thread.
#pragma once

#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "platform/model/MacVtepFloodListV2.h"
#include "platform/values/Vni.h"

namespace OrbEvpn {

class VniFdbStatusSm;

class MacVtepFloodListSm : public StateMachine< MacVtepFloodListSm > {
   MOX_ALLOC_TRACKED( MacVtepFloodListSm )

 public:
   using MoxBase = Mox::PtrInterface;
   using FloodList = VxlanController::MacVtepFloodListV2;
   static constexpr const char* moxTypeName = "OrbEvpn::MacVtepFloodListSm";
   static void moxDescribe( Mox::TypeBuilder< MacVtepFloodListSm >& b );

   ORBEVPN_REACTOR( MoxMacVtepFloodList, MacVtepFloodListSm, FloodList, collection,
                    watch< &MacVtepFloodListSm::mox_handleMacVtepFloodList_vtepIpFloodList >(
                       "vtepIpFloodList" ) );
   ORBEVPN_REACTOR( MoxFloodListFromEvpn, MacVtepFloodListSm, FloodList, collection,
                    watch< &MacVtepFloodListSm::mox_handleFloodListFromEvpn_vtepIpFloodList >(
                       "vtepIpFloodList" ) );

   // Exports the whole list before it returns.
   MacVtepFloodListSm( const Wire::EthAddr& macAddr,
                       const Mox::Ptr< const FloodList >& macVtepFloodList,
                       VniFdbStatusSm* parent );
   ~MacVtepFloodListSm() override;

   static Mox::Ptr< MacVtepFloodListSm >
   MacVtepFloodListSmIs( const Wire::EthAddr& macAddr,
                         const Mox::Ptr< const FloodList >& macVtepFloodList,
                         VniFdbStatusSm* parent );

   const Wire::EthAddr& macAddr() const { return macAddr_; }
   Mox::Ptr< const FloodList > macVtepFloodList() const;
   Mox::Ptr< const FloodList > floodListFromEvpn() const;
   VniFdbStatusSm* vniFdbStatusSm() const { return vniFdbStatusSm_; }
   bool initialized() const { return initialized_; }
   void initializedIs( bool v ) { initialized_ = v; }   // stores only

   // The EVPN side's list for the same MAC, or null; re-evaluates every
   // address of the controller's list when it changes.
   void floodListFromEvpnIs( const Mox::Ptr< const FloodList >& list );
   // Drops the EVPN list (re-evaluating) and returns it; null if none.
   Mox::Ptr< const FloodList > floodListFromEvpnDel();

   // Asserts initialized(): the EVPN list holds `ip` as a key.
   bool floodIpProvidedByEvpn( const Wire::IpAddr& ip ) const;
   void handleVtepIp( const Wire::IpAddr& ip );
   void handleVtepIp();   // every address of the controller's list
   void handleInitialized();
   // Withdraws the entry of every address of the controller's list.
   void cleanup();

   ORBEVPN_FORWARD( MacVtepFloodList, vtepIpFloodList, handleVtepIp, const Wire::IpAddr& )
   ORBEVPN_FORWARD( FloodListFromEvpn, vtepIpFloodList, handleVtepIp, const Wire::IpAddr& )

   const Mox::Ptr< MoxMacVtepFloodList >& macVtepFloodListReactor() const {
      return macVtepFloodList_;
   }
   const Mox::Ptr< MoxFloodListFromEvpn >& floodListFromEvpnReactor() const {
      return floodListFromEvpn_;
   }
   auto moxReactors() { return std::tie( macVtepFloodList_, floodListFromEvpn_ ); }
   // What a parent compares when asked for this child again.
   Mox::Ptr< const FloodList > moxChildInput() const { return macVtepFloodList(); }

 private:
   // The parent's VNI, read at every use.
   Vxlan::Vni vni() const;

   Wire::EthAddr macAddr_;
   Mox::Ptr< MoxMacVtepFloodList > macVtepFloodList_;
   Mox::Ptr< MoxFloodListFromEvpn > floodListFromEvpn_;
   bool initialized_ = false;
   VniFdbStatusSm* vniFdbStatusSm_;   // uncounted: the parent owns us
};

Mox::Ptr< MacVtepFloodListSm >
macVtepFloodListSmFactory( const Wire::EthAddr& macAddr,
                           const Mox::Ptr< const VxlanController::MacVtepFloodListV2 >& macVtepFloodList,
                           VniFdbStatusSm* parent );

}  // namespace OrbEvpn

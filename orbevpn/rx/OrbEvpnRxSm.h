// VxlanController::OrbEvpnRxSm: mirrors what the EVPN agent learnt into the
// controller's per-VNI status.
//
// Inputs are the host and flood tables the EVPN agent writes (reader-role
// tables, or writer-role ones in this process); the output is the
// controller's VniStatusDirV2. Every host becomes a MAC-to-VTEP entry of its
// VNI's VniStatusV2; every flood entry becomes a VTEP of the VNI's one flood
// list, kept under MAC 00:00:00:00:00:00. A VNI's status is created with its
// first record and deleted with its last. The machine keeps no state of its
// own: the controller model is a pure mirror of the two tables.
//
// A delete for a VNI or flood list that the import never created, or a
// status that another writer extended, is a fatal assertion. No trace
// records: the assertions are the diagnostics. With reader-role tables they
// hold because such a table reads and notifies one state, the one it has
// delivered (ExchangeTable.h): an entry is notified removed only after it
// was notified present, and iteration (construction, cleanup) sees exactly
// what the notifications built.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"
#include "orbevpn/runtime/Reactor.h"
#include "orbevpn/runtime/StateMachine.h"
#include "platform/model/VniStatusDirV2.h"

namespace VxlanController {

class OrbEvpnRxSm : public OrbEvpn::StateMachine< OrbEvpnRxSm > {
   MOX_ALLOC_TRACKED( OrbEvpnRxSm )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "VxlanController::OrbEvpnRxSm";
   static void moxDescribe( Mox::TypeBuilder< OrbEvpnRxSm >& b );

   ORBEVPN_REACTOR( MoxHostTable, OrbEvpnRxSm, OrbEvpn::HostTable, collection,
                    OrbEvpn::watch< &OrbEvpnRxSm::mox_handleHostTable_host >( "host" ) );
   ORBEVPN_REACTOR( MoxFloodTable, OrbEvpnRxSm, OrbEvpn::FloodTable, collection,
                    OrbEvpn::watch< &OrbEvpnRxSm::mox_handleFloodTable_floodEntry >(
                       "floodEntry" ) );

   OrbEvpnRxSm( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                const Mox::Ptr< VniStatusDirV2 >& vniStatusDir );
   ~OrbEvpnRxSm() override;

   static Mox::Ptr< OrbEvpnRxSm >
   OrbEvpnRxSmIs( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                  const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                  const Mox::Ptr< VniStatusDirV2 >& vniStatusDir );

   Mox::Ptr< const OrbEvpn::HostTable > hostTable() const;
   Mox::Ptr< const OrbEvpn::FloodTable > floodTable() const;
   Mox::Ptr< VniStatusDirV2 > vniStatusDir() const { return vniStatusDir_; }

   void maybeDeleteVniStatus( const Vxlan::Vni& vni );
   void deleteHostEntry( const OrbEvpn::MacVniPair& key );
   void handleHost( const OrbEvpn::MacVniPair& key );
   void handleHost();
   void deleteFloodEntry( const OrbEvpn::VniVtepPair& key );
   void handleFloodEntry( const OrbEvpn::VniVtepPair& key );
   void handleFloodEntry();
   void cleanup();
   void initSm();

   ORBEVPN_FORWARD( HostTable, host, handleHost, const OrbEvpn::MacVniPair& )
   ORBEVPN_FORWARD( FloodTable, floodEntry, handleFloodEntry, const OrbEvpn::VniVtepPair& )

   const Mox::Ptr< MoxHostTable >& hostTableReactor() const { return hostTable_; }
   const Mox::Ptr< MoxFloodTable >& floodTableReactor() const { return floodTable_; }
   auto moxReactors() { return std::tie( hostTable_, floodTable_ ); }

 private:
   Mox::Ptr< MoxHostTable > hostTable_;
   Mox::Ptr< MoxFloodTable > floodTable_;
   Mox::Ptr< VniStatusDirV2 > vniStatusDir_;
};

Mox::Ptr< OrbEvpnRxSm >
orbEvpnRxSmFactory( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                    const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                    const Mox::Ptr< VniStatusDirV2 >& vniStatusDir );

}  // namespace VxlanController

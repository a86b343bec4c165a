// VxlanController::VniStatusV2: what the EVPN side learnt for one VNI.
//
// Filed in a VniStatusDirV2 under its VNI (its name is the VNI in
// decimal; the VNI is fixed at construction). Holds the three per-MAC
// collections of MacVtepTables, which the import fills from the EVPN
// agent's tables and the export reads to keep EVPN-provided entries out of
// what it exports.
//
// Two further collections belong to other writers of the status:
// macVtepMultiPathTables (secondary multi-path sets, per MAC) and
// ipToMacTables (IP-to-MAC bindings). The import never writes them; it
// only checks that both are empty before it deletes a status it created,
// so their counts are exposed under the collections' own names.
//
// Attribute ids (entity range): vni 258, macVtepTable 259,
// macVtepMultiPathTable 260, macVtepFloodListTable 261,
// macVtepMultiPathTables 262, ipToMacTables 263.
// Threading: the notification thread only.
#pragma once

#include "platform/model/MacVtepTables.h"
#include "platform/values/Vni.h"

namespace VxlanController {

class VniStatusV2 : public MacVtepTables< VniStatusV2 > {
   MOX_ALLOC_TRACKED( VniStatusV2 )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "VxlanController::VniStatusV2";
   static void moxDescribe( Mox::TypeBuilder< VniStatusV2 >& b );

   using MultiPathsColl = Mox::Collection< Wire::EthAddr, Mox::Ptr< MacVtepMultiPathV2 > >;
   using IpToMacColl = Mox::Collection< Wire::IpAddr, Wire::EthAddr >;

   explicit VniStatusV2( Vxlan::Vni vni );
   ~VniStatusV2() override;
   // `name` must be a VNI in decimal (RangeException otherwise).
   static Mox::Ptr< VniStatusV2 > VniStatusV2Is( const Mox::String& name );
   static Mox::Ptr< VniStatusV2 > VniStatusV2Is( Vxlan::Vni vni );

   Vxlan::Vni vni() const { return vni_; }

   // ---- macVtepMultiPathTables
   size_t macVtepMultiPathTables() const { return macVtepMultiPathTables_.size(); }
   const MultiPathsColl& macVtepMultiPathTablesColl() const { return macVtepMultiPathTables_; }
   // Create-or-get; notifies only on creation.
   Mox::Ptr< MacVtepMultiPathV2 > macVtepMultiPathTablesIs( const Wire::EthAddr& mac );
   void macVtepMultiPathTablesDel( const Wire::EthAddr& mac );

   // ---- ipToMacTables
   size_t ipToMacTables() const { return ipToMacTables_.size(); }
   const IpToMacColl& ipToMacTablesColl() const { return ipToMacTables_; }
   // Binds `ip` to `mac`; notifies on every call.
   void ipToMacTablesIs( const Wire::IpAddr& ip, const Wire::EthAddr& mac );
   void ipToMacTablesDel( const Wire::IpAddr& ip );

   const Mox::Type* fwkType() const override;

 private:
   const Vxlan::Vni vni_;
   MultiPathsColl macVtepMultiPathTables_;
   IpToMacColl ipToMacTables_;
};

}  // namespace VxlanController

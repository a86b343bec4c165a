// VxlanController::VniFdbStatusV2: the controller's forwarding status of
// one VNI.
//
// Filed in the controller's VNI directory (a Mox::Dir), normally under its
// VNI in decimal. A controller may name an entry anything: a status made
// from a name reads its VNI from that name as Vxlan::vniFromName does
// ("007" is VNI 7, "abc" VNI 0, "16777216" is refused), and keeps the name.
// The VNI is fixed at construction. Holds the three per-MAC
// collections of MacVtepTables: what the controller learnt (MAC to VTEP),
// multi-path sets and flood lists. Written by the controller service; the
// export side reads it and reacts to its notifications.
//
// Attribute ids (entity range): macVtepTable 258, macVtepMultiPathTable
// 259, macVtepFloodListTable 260, vni 261. Readers compare against the ids
// the registry reports, never against these literals.
// Threading: the notification thread only.
#pragma once

#include "platform/model/MacVtepTables.h"
#include "platform/values/Vni.h"

namespace VxlanController {

class VniFdbStatusV2 : public MacVtepTables< VniFdbStatusV2 > {
   MOX_ALLOC_TRACKED( VniFdbStatusV2 )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "VxlanController::VniFdbStatusV2";
   static void moxDescribe( Mox::TypeBuilder< VniFdbStatusV2 >& b );

   explicit VniFdbStatusV2( Vxlan::Vni vni );
   // Named `name`, VNI Vxlan::vniFromName( name ) (RangeException above the
   // VNI range).
   explicit VniFdbStatusV2( const Mox::String& name );
   static Mox::Ptr< VniFdbStatusV2 > VniFdbStatusV2Is( const Mox::String& name );
   static Mox::Ptr< VniFdbStatusV2 > VniFdbStatusV2Is( Vxlan::Vni vni );

   Vxlan::Vni vni() const { return vni_; }

   const Mox::Type* fwkType() const override;

 private:
   const Vxlan::Vni vni_;
};

}  // namespace VxlanController

// VxlanController::VniStatusDirV2: the per-VNI statuses learnt from EVPN.
//
// One ordered collection, vniStatusV2 (id 258), keyed by Vxlan::Vni and
// owning a VniStatusV2 per VNI, each named by its VNI in decimal and
// parented to this entity while filed. Ordered so that iteration and the
// import's searches run in VNI order, the same on every run.
//
// Written by the import (create-or-get when the first record of a VNI
// arrives, delete when its last record goes); read and watched by the
// export. vniStatusV2Is notifies only when it creates; deleting an absent
// VNI notifies nothing. Threading: the notification thread only.
#pragma once

#include "platform/model/VniStatusV2.h"

namespace VxlanController {

class VniStatusDirV2 : public Mox::Entity {
   MOX_ALLOC_TRACKED( VniStatusDirV2 )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "VxlanController::VniStatusDirV2";
   static void moxDescribe( Mox::TypeBuilder< VniStatusDirV2 >& b );

   using VniStatusColl = Mox::Collection< Vxlan::Vni, Mox::Ptr< VniStatusV2 > >;

   explicit VniStatusDirV2( const Mox::String& name );
   ~VniStatusDirV2() override;
   static Mox::Ptr< VniStatusDirV2 > VniStatusDirV2Is( const Mox::String& name );

   // Null when absent.
   Mox::Ptr< VniStatusV2 > vniStatusV2( Vxlan::Vni vni ) const { return vniStatusV2_.get( vni ); }
   size_t vniStatusV2Size() const { return vniStatusV2_.size(); }
   const VniStatusColl& vniStatusV2Coll() const { return vniStatusV2_; }
   // Create-or-get the status of `vni`.
   Mox::Ptr< VniStatusV2 > vniStatusV2Is( Vxlan::Vni vni );
   void vniStatusV2Del( Vxlan::Vni vni );

   const Mox::Type* fwkType() const override;

 private:
   VniStatusColl vniStatusV2_;
};

}  // namespace VxlanController

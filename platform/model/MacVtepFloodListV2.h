// VxlanController::MacVtepFloodListV2: the flood list of one MAC of a VNI.
//
// The VTEPs that receive a VNI's broadcast, unknown-unicast and multicast
// traffic for one destination MAC (in practice the all-zero MAC, "every BUM
// destination"). Entity named by its MAC's text form; the MAC is fixed at
// construction. vtepIpFloodList maps a VTEP address to a flag: a key with
// the value false exists but is not switched on, which readers that
// distinguish the two (the controller's own lists) must see, so lookups of
// the value and tests of presence are separate.
//
// Owned by the status that files it (macVtepFloodListTable); written by
// the controller or by the import, read by the export. Every change of
// vtepIpFloodList notifies its attribute id with a pointer to the address.
// Threading: the notification thread only.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Entity.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"

namespace VxlanController {

class MacVtepFloodListV2 : public Mox::Entity {
   MOX_ALLOC_TRACKED( MacVtepFloodListV2 )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "VxlanController::MacVtepFloodListV2";
   static void moxDescribe( Mox::TypeBuilder< MacVtepFloodListV2 >& b );

   using VtepIpColl = Mox::Collection< Wire::IpAddr, bool >;

   explicit MacVtepFloodListV2( const Wire::EthAddr& macAddr );
   // `name` must be a MAC's text form (RangeException otherwise).
   static Mox::Ptr< MacVtepFloodListV2 > MacVtepFloodListV2Is( const Mox::String& name );
   static Mox::Ptr< MacVtepFloodListV2 > MacVtepFloodListV2Is( const Wire::EthAddr& macAddr );

   const Wire::EthAddr& macAddr() const { return macAddr_; }

   // The flag stored for `ip`; false when absent.
   bool vtepIpFloodList( const Wire::IpAddr& ip ) const { return vtepIpFloodList_.get( ip ); }
   bool vtepIpFloodListContains( const Wire::IpAddr& ip ) const {
      return vtepIpFloodList_.contains( ip );
   }
   size_t vtepIpFloodListSize() const { return vtepIpFloodList_.size(); }
   const VtepIpColl& vtepIpFloodListColl() const { return vtepIpFloodList_; }
   // Stores the flag and notifies, also when it was already stored.
   void vtepIpFloodListIs( const Wire::IpAddr& ip, bool on );
   // Notifies only when `ip` was present.
   void vtepIpFloodListDel( const Wire::IpAddr& ip );

   const Mox::Type* fwkType() const override;

 private:
   const Wire::EthAddr macAddr_;
   VtepIpColl vtepIpFloodList_;
};

}  // namespace VxlanController

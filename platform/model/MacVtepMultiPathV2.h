// VxlanController::MacVtepMultiPathV2: the multi-path set of one MAC of a
// VNI.
//
// The VTEPs among which traffic for one MAC is spread when the MAC sits
// behind more than one of them. Entity named by its MAC's text form; the
// MAC is fixed at construction. vtepIpList maps a VTEP address to a flag
// (a key with the value false exists but is not switched on).
//
// Owned by the status that files it (macVtepMultiPathTable). Every change
// of vtepIpList notifies its attribute id with a pointer to the address.
// Threading: the notification thread only.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Entity.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"

namespace VxlanController {

class MacVtepMultiPathV2 : public Mox::Entity {
   MOX_ALLOC_TRACKED( MacVtepMultiPathV2 )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "VxlanController::MacVtepMultiPathV2";
   static void moxDescribe( Mox::TypeBuilder< MacVtepMultiPathV2 >& b );

   using VtepIpColl = Mox::Collection< Wire::IpAddr, bool >;

   explicit MacVtepMultiPathV2( const Wire::EthAddr& macAddr );
   // `name` must be a MAC's text form (RangeException otherwise).
   static Mox::Ptr< MacVtepMultiPathV2 > MacVtepMultiPathV2Is( const Mox::String& name );
   static Mox::Ptr< MacVtepMultiPathV2 > MacVtepMultiPathV2Is( const Wire::EthAddr& macAddr );

   const Wire::EthAddr& macAddr() const { return macAddr_; }

   // The flag stored for `ip`; false when absent.
   bool vtepIpList( const Wire::IpAddr& ip ) const { return vtepIpList_.get( ip ); }
   bool vtepIpListContains( const Wire::IpAddr& ip ) const { return vtepIpList_.contains( ip ); }
   size_t vtepIpListSize() const { return vtepIpList_.size(); }
   const VtepIpColl& vtepIpListColl() const { return vtepIpList_; }
   // Stores the flag and notifies, also when it was already stored.
   void vtepIpListIs( const Wire::IpAddr& ip, bool on );
   // Notifies only when `ip` was present.
   void vtepIpListDel( const Wire::IpAddr& ip );

   const Mox::Type* fwkType() const override;

 private:
   const Wire::EthAddr macAddr_;
   VtepIpColl vtepIpList_;
};

}  // namespace VxlanController

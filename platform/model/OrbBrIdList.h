// OrbEvpn::OrbBrIdList: the bridge ids for which this system exports state.
//
// One ordered collection, brIdList (id 258), keyed by Bridging::BridgeId.
// Presence is the meaning; the value stored is always true by convention
// of its only writer (the export root), which also checks presence before
// it writes, because brIdListIs notifies on every call. Read by the EVPN
// agent. The list outlives the process that writes it and is reconciled at
// start-up, so iteration is in bridge-id order, the same on every run.
//
// brIdListDel of an absent id notifies nothing; brIdListDelAll removes one
// id at a time, in order, one notification each.
// Threading: the notification thread only.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Entity.h"
#include "platform/values/BridgeId.h"

namespace OrbEvpn {

class OrbBrIdList : public Mox::Entity {
   MOX_ALLOC_TRACKED( OrbBrIdList )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::OrbBrIdList";
   static void moxDescribe( Mox::TypeBuilder< OrbBrIdList >& b );

   using BrIdColl = Mox::Collection< Bridging::BridgeId, bool >;

   explicit OrbBrIdList( const Mox::String& name );
   static Mox::Ptr< OrbBrIdList > OrbBrIdListIs( const Mox::String& name );

   // The value stored for `brId`; false when absent.
   bool brIdList( Bridging::BridgeId brId ) const { return brIdList_.get( brId ); }
   bool brIdListContains( Bridging::BridgeId brId ) const { return brIdList_.contains( brId ); }
   size_t brIdListSize() const { return brIdList_.size(); }
   const BrIdColl& brIdListColl() const { return brIdList_; }
   void brIdListIs( Bridging::BridgeId brId, bool value );
   void brIdListDel( Bridging::BridgeId brId );
   void brIdListDelAll();

   const Mox::Type* fwkType() const override;

 private:
   BrIdColl brIdList_;
};

}  // namespace OrbEvpn

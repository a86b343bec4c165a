// Controllerdb::Status: the controller database's published status.
//
// Written by the controller database agent; read (and watched) by the
// integration-mode machine, which cares only for `enabled`. Every setter
// stores and then notifies its attribute id with no key, on every call:
// observers take a notification as "look again", never as "it changed".
//
// Attribute ids: version 258, connected 259, enabled 260.
// Threading: the notification thread only.
#pragma once

#include "platform/mox/Entity.h"

#include <cstdint>

namespace Controllerdb {

class Status : public Mox::Entity {
   MOX_ALLOC_TRACKED( Status )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "Controllerdb::Status";
   static void moxDescribe( Mox::TypeBuilder< Status >& b );

   explicit Status( const Mox::String& name ) : Mox::Entity( name ) {}
   static Mox::Ptr< Status > StatusIs( const Mox::String& name );

   // Schema version of the database the status describes.
   uint32_t version() const { return version_; }
   void versionIs( uint32_t v );
   // Whether the agent is connected to the database.
   bool connected() const { return connected_; }
   void connectedIs( bool c );
   // Whether the controller database is enabled at all.
   bool enabled() const { return enabled_; }
   void enabledIs( bool e );

   const Mox::Type* fwkType() const override;

 private:
   uint32_t version_ = 0;
   bool connected_ = false;
   bool enabled_ = false;
};

}  // namespace Controllerdb

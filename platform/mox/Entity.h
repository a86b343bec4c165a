// Mox::Entity: a named object of the entity tree.
//
// An entity has a fixed name and an uncounted pointer to the directory
// that holds it (the directory owns the entity, never the reverse). Its
// full name is the parent's full name, a slash and its own name; a root
// entity's full name is its name. handleParent runs when a directory takes
// the entity in (parent set) or lets it go (parent null).
#pragma once

#include "platform/mox/PtrInterface.h"
#include "platform/mox/String.h"
#include "platform/mox/Type.h"

namespace Mox {

class Entity : public PtrInterface {
   MOX_ALLOC_TRACKED( Entity )

 public:
   using MoxBase = PtrInterface;
   static constexpr const char* moxTypeName = "Mox::Entity";
   static void moxDescribe( TypeBuilder< Entity >& b );

   explicit Entity( const String& name ) : name_( name ) {}
   ~Entity() override;

   String name() const { return name_; }
   Entity* parent() const { return parent_; }
   String fullName() const;

   virtual void handleParent( const Ptr< Entity >& parent );
   const Type* fwkType() const override;

 private:
   String name_;
   Entity* parent_ = nullptr;   // uncounted: the parent owns us
};

}  // namespace Mox

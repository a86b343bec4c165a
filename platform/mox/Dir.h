// Mox::Dir: a directory of entities, keyed by name.
//
// The directory owns its entries through counted pointers in the ordered
// collection `entityPtr`, so iteration order is the names' order and the
// same on every run. Adding, replacing and removing an entry notify
// `entityPtr` with the entry's name; the entry's handleParent runs before
// the notification (with the directory when it comes in, with null when it
// goes). newEntity() creates an entry of a registered type through that
// type's newEntityForDir hook.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Entity.h"

#include <functional>
#include <map>
#include <vector>

namespace Mox {

class Dir : public Entity {
   MOX_ALLOC_TRACKED( Dir )

 public:
   using MoxBase = Entity;
   static constexpr const char* moxTypeName = "Mox::Dir";
   static void moxDescribe( TypeBuilder< Dir >& b );

   explicit Dir( const String& name );
   ~Dir() override;
   static Ptr< Dir > DirIs( const String& name );

   Ptr< Entity > entityPtr( const String& name ) const { return entities_.get( name ); }
   size_t entityPtrs() const { return entities_.size(); }
   // Files `e` under its name, replacing (and letting go of) any other entry.
   void entityPtrIs( const Ptr< Entity >& e );
   // Files `e` under `name`, which may differ from the entity's own name (a
   // controller's model files entries under names of its choosing). The
   // entity keeps its own name, so what it derives from it (a table's path)
   // does not change; only the directory's key is `name`.
   void entityPtrIs( const String& name, const Ptr< Entity >& e );
   // Removes the entry `name`; returns it (null if absent).
   Ptr< Entity > entityPtrDel( const String& name );
   void entityPtrDelAll();

   using EntityColl = Collection< String, Ptr< Entity > >;
   EntityColl::Iterator entityIterator() const { return entities_.iterator(); }

   // Creates an entity of the registered type `typeName` named `name` through
   // its newEntityForDir hook, passing `args`, and files it here.
   Ptr< Entity > newEntity( std::string_view typeName, const String& name,
                            const std::vector< GenericValue >& args = {} );

   const Type* fwkType() const override;

 private:
   EntityColl entities_;
};

// newEntityForDir hooks, by registered type name. A hook creates an entity
// from its name and extra arguments, refusing arguments it does not take
// with NewEntityArgumentsException.
using NewEntityForDirFn =
   std::function< Ptr< Entity >( const String& name, const std::vector< GenericValue >& args ) >;
void newEntityForDirIs( std::string_view typeName, NewEntityForDirFn fn );

}  // namespace Mox

// MoxLumen::CollectionControl: the framework-side face of one shared collection.
//
// A table entity keeps one control per collection attribute. Observers
// watch the control for the collection's state rather than its keys:
// `quiesced` (per-key notifications are paused while the table service
// resynchronises), `mountStatus` (waiting for a writer, mounted, writer
// gone) and `entity` (set when the table's last reference went, so a
// holder of the control keeps the table reachable). Setters notify on
// every call.
//
// Single-threaded: runs on the notification thread.
#pragma once

#include "platform/lumen/Options.h"
#include "platform/mox/Entity.h"
#include "platform/mox/Type.h"

namespace MoxLumen {

class CollectionControl : public Mox::PtrInterface {
   MOX_ALLOC_TRACKED( CollectionControl )

 public:
   using MoxBase = Mox::PtrInterface;
   static constexpr const char* moxTypeName = "MoxLumen::CollectionControl";
   static void moxDescribe( Mox::TypeBuilder< CollectionControl >& b );

   static Mox::Ptr< CollectionControl > CollectionControlIs();

   bool quiesced() const { return quiesced_; }
   void quiescedIs( bool q );
   Lumen::MountStatus mountStatus() const { return mountStatus_; }
   void mountStatusIs( Lumen::MountStatus s );
   Mox::Ptr< Mox::Entity > entity() const { return entity_; }
   void entityIs( const Mox::Ptr< Mox::Entity >& e );

   const Mox::Type* fwkType() const override;

 private:
   bool quiesced_ = false;
   Lumen::MountStatus mountStatus_ = Lumen::MountStatus::unmounted;
   Mox::Ptr< Mox::Entity > entity_;
};

}  // namespace MoxLumen

// NotifieeRecorder<K>: a notifiee that records what its notifier sends.
//
// Registered on its notifier and active from NotifieeRecorderIs on; every
// onAttribute(id, key) appends (id, *key) to events(), reading the key as a
// K (a key-less notification records K()), and then calls onEvent if set,
// so a test can act from inside a delivery. Use one recorder per key type:
// a key of another type would be misread. It holds its notifier counted,
// so release the recorder before checking that the notifier was freed.
//
//    auto rec = NotifieeRecorder< uint32_t >::NotifieeRecorderIs( holder );
//    holder->table.set( 5, 50 );
//    EXPECT_THAT( rec->events(), ElementsAre( Pair( tableId, 5u ) ) );
//
// Threading: the notification thread, like the notifier.
#pragma once

#include "platform/mox/AllocTrack.h"
#include "platform/mox/PtrInterface.h"

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

template< class K >
class NotifieeRecorder : public Mox::PtrInterface::NotifieeConst {
   MOX_ALLOC_TRACKED( NotifieeRecorder )

 public:
   using Event = std::pair< Mox::AttributeId, K >;

   // Not registered and not active: NotifieeRecorderIs does both.
   explicit NotifieeRecorder( const Mox::Ptr< const Mox::PtrInterface >& notifier )
         : NotifieeConst( notifier.ptr() ) {}

   static Mox::Ptr< NotifieeRecorder >
   NotifieeRecorderIs( const Mox::Ptr< const Mox::PtrInterface >& notifier ) {
      Mox::Ptr< NotifieeRecorder > r( new NotifieeRecorder( notifier ) );
      r->isRegisteredNotifieeIs( true );
      r->hasNotificationActiveIs( true );
      return r;
   }

   // Called after each recorded event.
   std::function< void( Mox::AttributeId, const void* ) > onEvent;

   const std::vector< Event >& events() const { return events_; }
   // The keys recorded for `id`, in order.
   std::vector< K > keys( Mox::AttributeId id ) const {
      std::vector< K > out;
      for ( const auto& [ i, k ] : events_ ) {
         if ( i == id ) {
            out.push_back( k );
         }
      }
      return out;
   }
   void clear() { events_.clear(); }

   void onAttribute( Mox::AttributeId id, const void* key ) override {
      events_.emplace_back( id, key ? *static_cast< const K* >( key ) : K() );
      if ( onEvent ) {
         // A copy: the handler may replace onEvent while it runs.
         auto handler = onEvent;
         handler( id, key );
      }
      // Touches the recorder after the handler, as real notifiees do: a
      // handler that drops the last reference to this recorder relies on
      // delivery holding it until here.
      ++completed_;
   }

   // Deliveries whose onEvent returned.
   size_t completed() const { return completed_; }

 private:
   std::vector< Event > events_;
   size_t completed_ = 0;
};

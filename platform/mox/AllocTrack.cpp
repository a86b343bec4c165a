#include "platform/mox/AllocTrack.h"

#include <cstdlib>
#include <mutex>
#include <new>

namespace Mox {

namespace {

std::mutex& registryMutex() {
   static std::mutex m;
   return m;
}

AllocTrackTypeInfo*& registryHead() {
   static AllocTrackTypeInfo* head = nullptr;
   return head;
}

}  // namespace

AllocTrackTypeInfo::AllocTrackTypeInfo( const char* name ) : name_( name ) {
   std::lock_guard lock( registryMutex() );
   // Append so that all() lists records in registration order.
   AllocTrackTypeInfo** p = &registryHead();
   while ( *p ) {
      p = &( *p )->next_;
   }
   *p = this;
}

void AllocTrackTypeInfo::track( size_t bytes ) {
   liveObjects_.fetch_add( 1, std::memory_order_relaxed );
   liveBytes_.fetch_add( static_cast< int64_t >( bytes ), std::memory_order_relaxed );
   total_.fetch_add( 1, std::memory_order_relaxed );
}

void AllocTrackTypeInfo::untrack( size_t bytes ) {
   liveObjects_.fetch_sub( 1, std::memory_order_relaxed );
   liveBytes_.fetch_sub( static_cast< int64_t >( bytes ), std::memory_order_relaxed );
}

std::vector< const AllocTrackTypeInfo* > AllocTrackTypeInfo::all() {
   std::lock_guard lock( registryMutex() );
   std::vector< const AllocTrackTypeInfo* > out;
   for ( auto* p = registryHead(); p; p = p->next_ ) {
      out.push_back( p );
   }
   return out;
}

int64_t AllocTrackTypeInfo::totalLiveObjects() {
   int64_t n = 0;
   for ( auto* r : all() ) {
      n += r->liveObjects();
   }
   return n;
}

void* moxMemAlloc( size_t bytes ) {
   void* p = std::malloc( bytes ? bytes : 1 );
   if ( !p ) {
      throw std::bad_alloc();
   }
   return p;
}

void moxMemFree( void* p, size_t ) noexcept {
   std::free( p );
}

}  // namespace Mox

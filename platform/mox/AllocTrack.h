// Per-class allocation tracking.
//
// Every framework object is allocated through its class's operator new,
// which records the allocation in the class's AllocTrackTypeInfo before the
// framework allocator runs; the class's operator delete (reached through the
// virtual deleting destructor, or when a constructor throws) unrecords it.
// Tests read the records to prove that nothing leaked. Counters are atomic:
// objects may be created on any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Mox {

class AllocTrackTypeInfo {
 public:
   explicit AllocTrackTypeInfo( const char* name );
   AllocTrackTypeInfo( const AllocTrackTypeInfo& ) = delete;
   AllocTrackTypeInfo& operator=( const AllocTrackTypeInfo& ) = delete;

   const char* name() const { return name_; }
   int64_t liveObjects() const { return liveObjects_.load( std::memory_order_relaxed ); }
   int64_t liveBytes() const { return liveBytes_.load( std::memory_order_relaxed ); }
   int64_t totalAllocations() const { return total_.load( std::memory_order_relaxed ); }

   void track( size_t bytes );
   void untrack( size_t bytes );

   // All records of the process, in registration order.
   static std::vector< const AllocTrackTypeInfo* > all();
   // Sum of live objects over every record.
   static int64_t totalLiveObjects();

 private:
   const char* name_;
   std::atomic< int64_t > liveObjects_{ 0 };
   std::atomic< int64_t > liveBytes_{ 0 };
   std::atomic< int64_t > total_{ 0 };
   AllocTrackTypeInfo* next_ = nullptr;
};

// The framework allocator.
void* moxMemAlloc( size_t bytes );
void moxMemFree( void* p, size_t bytes ) noexcept;

}  // namespace Mox

// Gives a class its own allocation record and tracked operator new/delete.
// Place it in the class body of every concrete framework class.
#define MOX_ALLOC_TRACKED( Class )                                             \
 public:                                                                       \
   static inline ::Mox::AllocTrackTypeInfo moxAllocTrackTypeInfo_{ #Class };   \
   static void* operator new( std::size_t bytes ) {                            \
      moxAllocTrackTypeInfo_.track( bytes );                                   \
      return ::Mox::moxMemAlloc( bytes );                                      \
   }                                                                           \
   static void operator delete( void* p, std::size_t bytes ) noexcept {        \
      moxAllocTrackTypeInfo_.untrack( bytes );                                 \
      ::Mox::moxMemFree( p, bytes );                                           \
   }                                                                           \
                                                                               \
 private:

// Baseline: a boost::unordered_map in a Boost.Interprocess managed segment,
// guarded by an interprocess_sharable_mutex. The writer takes it exclusively
// per write; readers take it sharably per lookup, which is how such a table
// has to be used when the writer runs concurrently. The map stores the key
// once: HostKey to the rest of the record (HostValue), as its users would.
// Readers may also look up without the lock (only sound while the writer is
// idle), which is measured as a row of its own.

#include "bench/lumen/HostRecord.h"
#include "bench/lumen/Systems.h"
#include "bench/lumen/Workload.h"

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_map.hpp>

#include <unistd.h>

#include <cmath>
#include <functional>
#include <memory>

namespace Bench {
namespace {

namespace bip = boost::interprocess;

struct KeyHasher {
   size_t operator()( const HostKey& k ) const noexcept { return k.hash(); }
};

using Segment = bip::managed_shared_memory;
template< class Value >
using MapOf = boost::unordered_map<
   HostKey, Value, KeyHasher, std::equal_to< HostKey >,
   bip::allocator< std::pair< const HostKey, Value >, Segment::segment_manager > >;
using Map = MapOf< HostValue >;
using Mutex = bip::interprocess_sharable_mutex;

class BoostSystem {
 public:
   static constexpr const char* name = "Boost.IPC";
   static constexpr bool hasBatch = false;
   static constexpr bool hasNotify = false;
   static constexpr bool hasUnlocked = true;
   static constexpr bool hasBatchWrites = false;

   explicit BoostSystem( const std::string& tag ) : name_( tag ) {}
   ~BoostSystem() { destroy(); }

   // The segment cannot grow while mapped, so it is sized up front; tmpfs
   // only charges for the pages the allocator touches. Sized: buckets
   // reserved for n. Grown: the map's default bucket count, rehashed as it
   // fills.
   void create( uint64_t n ) { make( n, n ); }
   void createGrown( uint64_t n ) { make( n, 0 ); }

   void make( uint64_t n, uint64_t buckets ) {
      bip::shared_memory_object::remove( name_.c_str() );
      seg_ = std::make_unique< Segment >( bip::create_only, name_.c_str(),
                                          n * 192 + ( 8u << 20 ) );
      mutex_ = seg_->construct< Mutex >( "mutex" )();
      map_ = buckets ? seg_->construct< Map >( "map" )( buckets, KeyHasher(), std::equal_to< HostKey >(),
                                                        seg_->get_allocator< Map::value_type >() )
                     : seg_->construct< Map >( "map" )( seg_->get_allocator< Map::value_type >() );
   }

   // Bytes per entry of a grown map of 40-byte records (28 bytes under the
   // key), in a segment of its own, removed again.
   double bytes40PerEntry( uint64_t n ) {
      using Map40 = MapOf< HostValue28 >;
      std::string name = name_ + ".40";
      bip::shared_memory_object::remove( name.c_str() );
      double perEntry = NAN;
      {
         Segment seg( bip::create_only, name.c_str(), n * 224 + ( 8u << 20 ) );
         Map40* m = seg.construct< Map40 >( "map" )( seg.get_allocator< Map40::value_type >() );
         for ( uint64_t i = 0; i < n; ++i ) {
            Host40 r = record40For( keyFor( i ), 0 );
            ( *m )[ r.k ] = value28Of( r );
         }
         perEntry = double( allocatedBytes( "/dev/shm/" + name ) ) / double( n );
      }
      bip::shared_memory_object::remove( name.c_str() );
      return perEntry;
   }

   void write( const Host24& r ) {
      bip::scoped_lock< Mutex > lock( *mutex_ );
      ( *map_ )[ r.k ] = valueOf( r );
   }

   // One lookup under a sharable lock, as every reader does it.
   static bool lockedLookup( Mutex& mutex, const Map& map, const HostKey& k, Host24& out ) {
      bip::sharable_lock< Mutex > lock( mutex );
      auto it = map.find( k );
      if ( it == map.end() ) {
         return false;
      }
      out = joined( k, it->second );
      return true;
   }

   bool lookup( const HostKey& k, Host24& out ) { return lockedLookup( *mutex_, *map_, k, out ); }

   uint64_t count() {
      bip::sharable_lock< Mutex > lock( *mutex_ );
      return map_->size();
   }

   void clear( uint64_t ) {
      bip::scoped_lock< Mutex > lock( *mutex_ );
      map_->clear();
   }

   uint64_t bytes() { return allocatedBytes( "/dev/shm/" + name_ ); }

   void destroy() {
      map_ = nullptr;
      mutex_ = nullptr;
      if ( seg_ ) {
         seg_.reset();
         bip::shared_memory_object::remove( name_.c_str() );
      }
   }

   class Reader {
    public:
      explicit Reader( const BoostSystem& sys )
         : seg_( bip::open_only, sys.name_.c_str() ),
           mutex_( seg_.find< Mutex >( "mutex" ).first ),
           map_( seg_.find< Map >( "map" ).first ) {
         if ( !mutex_ || !map_ ) {
            throw std::runtime_error( "Boost segment lacks its map" );
         }
      }
      bool ready( uint64_t n ) {
         bip::sharable_lock< Mutex > lock( *mutex_ );
         return map_->size() == n;
      }
      bool lookup( const HostKey& k, Host24& out ) {
         return lockedLookup( *mutex_, *map_, k, out );
      }
      // Without the lock: sound only while nobody writes.
      bool lookupUnlocked( const HostKey& k, Host24& out ) {
         auto it = map_->find( k );
         if ( it == map_->end() ) {
            return false;
         }
         out = joined( k, it->second );
         return true;
      }
      // One sharable lock for the whole pass: per-entry locking would be
      // slower still and would not give a consistent pass.
      uint64_t iterate( uint64_t& checksum ) {
         bip::sharable_lock< Mutex > lock( *mutex_ );
         uint64_t seen = 0;
         for ( const auto& [ k, r ] : *map_ ) {
            checksum += r.a;
            ++seen;
         }
         return seen;
      }

    private:
      Segment seg_;
      Mutex* mutex_;
      Map* map_;
   };

 private:
   std::string name_;
   std::unique_ptr< Segment > seg_;
   Mutex* mutex_ = nullptr;
   Map* map_ = nullptr;
};

}  // namespace

Metrics benchBoost( const Config& cfg, uint64_t n, const std::string& dir ) {
   ( void )dir;   // shm_open names live directly under /dev/shm
   BoostSystem sys( "lumenbench.boost." + std::to_string( getpid() ) );
   return runWorkload( sys, cfg, n );
}

}  // namespace Bench

// The system under test: a Lumen table of Host24 records. The writer is the
// parent process; helpers attach a Lumen::Reader by path, as any other
// process on the host would.

#include "bench/lumen/HostRecord.h"
#include "bench/lumen/Systems.h"
#include "bench/lumen/Workload.h"

#include "platform/lumen/Table.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>

namespace Bench {
namespace {

constexpr const char* kPath = "/lumenbench/host";

// Cross-process figures measure shared-memory reads: the reader's *Shared
// calls, not its private copy of the state it delivered.
template< class R >
constexpr bool kHasBatch = requires( const R& r, const HostKey* k, Host24* o, size_t n ) {
   r.lookupBatchShared( k, o, n );
};

class LumenSystem {
 public:
   static constexpr const char* name = "Lumen";
   static constexpr bool hasBatch = kHasBatch< Lumen::Reader< Host24 > >;
   static constexpr bool hasNotify = true;
   static constexpr bool hasUnlocked = false;
   static constexpr bool hasBatchWrites = false;

   explicit LumenSystem( const std::string& dir ) : dir_( dir ) { Lumen::rootIs( dir ); }

   void create( uint64_t n ) {
      Lumen::Options o;
      // Sized for n like the baselines (Boost reserves buckets, LMDB gets a
      // large map); whatever headroom Lumen keeps beyond that is its own.
      o.initialCapacity = uint32_t( std::max< uint64_t >( n, 1024 ) );
      o.maxCapacity = uint32_t( std::max< uint64_t >( 4 * n, 1u << 24 ) );
      writer_ = std::make_unique< Lumen::Writer< Host24 > >( Host24{}, o );
      writer_->attach( kPath );
   }

   // From the default initial capacity, grown by the writer as it fills.
   void createGrown( uint64_t n ) {
      Lumen::Options o;
      o.maxCapacity = uint32_t( std::max< uint64_t >( 4 * n, 1u << 24 ) );
      writer_ = std::make_unique< Lumen::Writer< Host24 > >( Host24{}, o );
      writer_->attach( kPath );
   }

   // Bytes per entry of a grown table of 40-byte records; called while no
   // other table is in the root, whose files it then removes.
   double bytes40PerEntry( uint64_t n ) {
      Lumen::Options o;
      o.maxCapacity = uint32_t( std::max< uint64_t >( 4 * n, 1u << 24 ) );
      double perEntry = NAN;
      {
         Lumen::Writer< Host40 > w( Host40{}, o );
         w.attach( "/lumenbench/forty" );
         for ( uint64_t i = 0; i < n; ++i ) {
            w.write( record40For( keyFor( i ), 0 ) );
         }
         perEntry = double( allocatedBytes( dir_ ) ) / double( n );
      }
      removeFiles();
      return perEntry;
   }

   void write( const Host24& r ) { writer_->write( r ); }

   bool lookup( const HostKey& k, Host24& out ) {
      out = writer_->lookup( k );
      return out.k == k;
   }

   uint64_t count() { return writer_->count(); }

   void clear( uint64_t n ) {
      for ( uint64_t i = 0; i < n; ++i ) {
         writer_->remove( keyFor( i ) );
      }
   }

   uint64_t bytes() { return allocatedBytes( dir_ ); }

   // Every trace, so that the next table is a fresh one.
   void destroy() {
      writer_.reset();
      removeFiles();
   }

   void removeFiles() {
      std::error_code ec;
      for ( const auto& e : std::filesystem::directory_iterator( dir_, ec ) ) {
         std::filesystem::remove_all( e.path(), ec );
      }
   }

   class Reader {
    public:
      explicit Reader( const LumenSystem& sys ) : r_( pathUnder( sys.dir_ ) ) {}

      bool ready( uint64_t n ) {
         if ( r_.mountStatus() != Lumen::MountStatus::mounted ) {
            r_.dispatch();
            return false;
         }
         return r_.countShared() == n;
      }
      bool lookup( const HostKey& k, Host24& out ) {
         out = r_.lookupShared( k );
         return out.k == k;
      }
      template< class R = Lumen::Reader< Host24 > >
      void lookupBatch( const HostKey* keys, Host24* out, size_t n ) const {
         if constexpr ( kHasBatch< R > ) {
            r_.lookupBatchShared( keys, out, n );
         }
      }
      uint64_t iterate( uint64_t& checksum ) {
         uint64_t seen = 0;
         Lumen::Hint h;
         while ( auto e = r_.nextShared( h ) ) {
            checksum += e->first.a;
            h = e->second;
            ++seen;
         }
         return seen;
      }
      int fd() const { return r_.fd(); }
      void dispatch() { r_.dispatch(); }
      template< class F >
      void onKey( F&& f ) {
         r_.onKeyIs( std::forward< F >( f ) );
      }
      template< class F >
      void onQuiesced( F&& f ) {
         r_.onQuiescedIs( std::forward< F >( f ) );
      }

    private:
      // The helper inherited the root through fork(); setting it again keeps
      // the reader correct however the root is stored.
      static std::string pathUnder( const std::string& dir ) {
         Lumen::rootIs( dir );
         return kPath;
      }
      Lumen::Reader< Host24 > r_;
   };

 private:
   std::string dir_;
   std::unique_ptr< Lumen::Writer< Host24 > > writer_;
};

}  // namespace

Metrics benchLumen( const Config& cfg, uint64_t n, const std::string& dir ) {
   LumenSystem sys( dir );
   return runWorkload( sys, cfg, n );
}

}  // namespace Bench

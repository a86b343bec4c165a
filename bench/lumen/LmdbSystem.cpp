// Baseline: LMDB with one write transaction per insert or replace. Readers
// use one read transaction per lookup, recycled with mdb_txn_reset/renew
// (LMDB's cheap path for short reads), so each lookup sees current data as a
// reader following a live writer must.
//
// The environment lives on tmpfs with MDB_NOSYNC: the shared table keeps
// nothing durable either, so LMDB is not charged for syncing. A second
// system adds MDB_WRITEMAP (writes go straight to the map, not through
// malloc'ed dirty pages), LMDB's fast documented setting. The key is stored
// once: HostKey to the rest of the record (HostValue). Both also time
// inserts in transactions of Config::batchWrites writes, as a row of its own.

#include "bench/lumen/HostRecord.h"
#include "bench/lumen/Systems.h"
#include "bench/lumen/Workload.h"

#include <lmdb.h>

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace Bench {
namespace {

void check( int rc, const char* what ) {
   if ( rc != MDB_SUCCESS ) {
      throw std::runtime_error( fmt::format( "{}: {}", what, mdb_strerror( rc ) ) );
   }
}

MDB_val valOf( const void* p, size_t size ) {
   return MDB_val{ size, const_cast< void* >( p ) };
}

// One environment handle; each process opens its own (LMDB handles must not
// cross fork()).
struct Env {
   MDB_env* env = nullptr;
   MDB_dbi dbi = 0;

   Env( const std::string& dir, uint64_t mapSize, unsigned flags ) {
      check( mdb_env_create( &env ), "mdb_env_create" );
      check( mdb_env_set_mapsize( env, mapSize ), "mdb_env_set_mapsize" );
      check( mdb_env_open( env, dir.c_str(), flags, 0644 ), "mdb_env_open" );
      MDB_txn* txn;
      check( mdb_txn_begin( env, nullptr, flags & MDB_RDONLY, &txn ), "mdb_txn_begin" );
      check( mdb_dbi_open( txn, nullptr, 0, &dbi ), "mdb_dbi_open" );
      check( mdb_txn_commit( txn ), "mdb_txn_commit" );
   }
   ~Env() { mdb_env_close( env ); }
   Env( const Env& ) = delete;
   Env& operator=( const Env& ) = delete;

   uint64_t entries() {
      MDB_txn* txn;
      check( mdb_txn_begin( env, nullptr, MDB_RDONLY, &txn ), "mdb_txn_begin" );
      MDB_stat st;
      mdb_stat( txn, dbi, &st );
      mdb_txn_abort( txn );
      return st.ms_entries;
   }
};

// Reads through one read transaction that is reset after every lookup.
class ReadPath {
 public:
   explicit ReadPath( Env& e ) : e_( e ) {
      check( mdb_txn_begin( e_.env, nullptr, MDB_RDONLY, &txn_ ), "mdb_txn_begin" );
      mdb_txn_reset( txn_ );
   }
   ~ReadPath() { mdb_txn_abort( txn_ ); }

   bool lookup( const HostKey& k, Host24& out ) {
      check( mdb_txn_renew( txn_ ), "mdb_txn_renew" );
      MDB_val key = valOf( &k, sizeof( k ) ), val;
      bool found = mdb_get( txn_, e_.dbi, &key, &val ) == MDB_SUCCESS &&
                   val.mv_size == sizeof( HostValue );
      if ( found ) {
         HostValue v;
         memcpy( &v, val.mv_data, sizeof( v ) );
         out = joined( k, v );
      }
      mdb_txn_reset( txn_ );
      return found;
   }

   uint64_t iterate( uint64_t& checksum ) {
      check( mdb_txn_renew( txn_ ), "mdb_txn_renew" );
      MDB_cursor* cur;
      check( mdb_cursor_open( txn_, e_.dbi, &cur ), "mdb_cursor_open" );
      MDB_val key, val;
      uint64_t seen = 0;
      for ( int rc = mdb_cursor_get( cur, &key, &val, MDB_FIRST ); rc == MDB_SUCCESS;
            rc = mdb_cursor_get( cur, &key, &val, MDB_NEXT ) ) {
         HostValue v;
         memcpy( &v, val.mv_data, sizeof( v ) );
         checksum += v.a;
         ++seen;
      }
      mdb_cursor_close( cur );
      mdb_txn_reset( txn_ );
      return seen;
   }

 private:
   Env& e_;
   MDB_txn* txn_ = nullptr;
};

void put( MDB_txn* txn, MDB_dbi dbi, const void* key, size_t keySize, const void* value,
          size_t valueSize ) {
   MDB_val k = valOf( key, keySize ), v = valOf( value, valueSize );
   int rc = mdb_put( txn, dbi, &k, &v, 0 );
   if ( rc != MDB_SUCCESS ) {
      mdb_txn_abort( txn );
      check( rc, "mdb_put" );
   }
}

void removeEnvFiles( const std::string& dir ) {
   std::error_code ec;
   std::filesystem::remove( dir + "/data.mdb", ec );
   std::filesystem::remove( dir + "/lock.mdb", ec );
}

template< bool writeMap >
class LmdbSystem {
 public:
   static constexpr const char* name = writeMap ? "LMDB WRITEMAP" : "LMDB";
   static constexpr bool hasBatch = false;
   static constexpr bool hasNotify = false;
   static constexpr bool hasUnlocked = false;
   static constexpr bool hasBatchWrites = true;
   static constexpr unsigned flags = MDB_NOSYNC | ( writeMap ? MDB_WRITEMAP : 0u );

   explicit LmdbSystem( const std::string& dir ) : dir_( dir ) {}

   void create( uint64_t n ) {
      // Copy-on-write needs room for old pages while readers hold them.
      mapSize_ = n * 512 + ( 256ull << 20 );
      env_ = std::make_unique< Env >( dir_, mapSize_, flags );
      read_ = std::make_unique< ReadPath >( *env_ );
   }
   // A B-tree has no size to choose: it always grows.
   void createGrown( uint64_t n ) { create( n ); }

   void write( const Host24& r ) {
      MDB_txn* txn;
      check( mdb_txn_begin( env_->env, nullptr, 0, &txn ), "mdb_txn_begin" );
      HostValue v = valueOf( r );
      put( txn, env_->dbi, &r.k, sizeof( r.k ), &v, sizeof( v ) );
      check( mdb_txn_commit( txn ), "mdb_txn_commit" );
   }

   // n writes in one transaction.
   void writeBatch( const Host24* rs, size_t n ) {
      MDB_txn* txn;
      check( mdb_txn_begin( env_->env, nullptr, 0, &txn ), "mdb_txn_begin" );
      for ( size_t i = 0; i < n; ++i ) {
         HostValue v = valueOf( rs[ i ] );
         put( txn, env_->dbi, &rs[ i ].k, sizeof( rs[ i ].k ), &v, sizeof( v ) );
      }
      check( mdb_txn_commit( txn ), "mdb_txn_commit" );
   }

   // Bytes per entry of 40-byte records (28 bytes under the key), in an
   // environment of its own, removed again. One write per transaction, as
   // in the 24-byte rows: batched transactions leave more freed pages behind.
   double bytes40PerEntry( uint64_t n ) {
      std::string dir = dir_ + "/forty";
      std::filesystem::create_directories( dir );
      double perEntry = NAN;
      {
         Env e( dir, n * 512 + ( 256ull << 20 ), flags );
         for ( uint64_t i = 0; i < n; ++i ) {
            MDB_txn* txn;
            check( mdb_txn_begin( e.env, nullptr, 0, &txn ), "mdb_txn_begin" );
            Host40 r = record40For( keyFor( i ), 0 );
            HostValue28 v = value28Of( r );
            put( txn, e.dbi, &r.k, sizeof( r.k ), &v, sizeof( v ) );
            check( mdb_txn_commit( txn ), "mdb_txn_commit" );
         }
         perEntry = double( allocatedBytes( dir ) ) / double( n );
      }
      std::error_code ec;
      std::filesystem::remove_all( dir, ec );
      return perEntry;
   }

   bool lookup( const HostKey& k, Host24& out ) { return read_->lookup( k, out ); }
   uint64_t count() { return env_->entries(); }

   void clear( uint64_t ) {
      MDB_txn* txn;
      check( mdb_txn_begin( env_->env, nullptr, 0, &txn ), "mdb_txn_begin" );
      check( mdb_drop( txn, env_->dbi, 0 ), "mdb_drop" );
      check( mdb_txn_commit( txn ), "mdb_txn_commit" );
   }

   uint64_t bytes() { return allocatedBytes( dir_ ); }

   void destroy() {
      read_.reset();
      env_.reset();
      removeEnvFiles( dir_ );
   }

   class Reader {
    public:
      explicit Reader( const LmdbSystem& sys )
         : env_( sys.dir_, sys.mapSize_, MDB_NOSYNC | MDB_RDONLY ), read_( env_ ) {}
      bool ready( uint64_t n ) { return env_.entries() == n; }
      bool lookup( const HostKey& k, Host24& out ) { return read_.lookup( k, out ); }
      uint64_t iterate( uint64_t& checksum ) { return read_.iterate( checksum ); }

    private:
      Env env_;
      ReadPath read_;
   };

 private:
   std::string dir_;
   uint64_t mapSize_ = 0;
   std::unique_ptr< Env > env_;
   std::unique_ptr< ReadPath > read_;
};

}  // namespace

Metrics benchLmdb( const Config& cfg, uint64_t n, const std::string& dir ) {
   LmdbSystem< false > sys( dir );
   return runWorkload( sys, cfg, n );
}

Metrics benchLmdbWriteMap( const Config& cfg, uint64_t n, const std::string& dir ) {
   LmdbSystem< true > sys( dir );
   return runWorkload( sys, cfg, n );
}

}  // namespace Bench

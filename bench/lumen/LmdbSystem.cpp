// Baseline: LMDB with one write transaction per insert or replace. Readers
// use one read transaction per lookup, recycled with mdb_txn_reset/renew
// (LMDB's cheap path for short reads), so each lookup sees current data as a
// reader following a live writer must.
//
// The environment lives on tmpfs with MDB_NOSYNC: the shared table keeps
// nothing durable either, so LMDB is not charged for syncing.

#include "bench/lumen/HostRecord.h"
#include "bench/lumen/Systems.h"
#include "bench/lumen/Workload.h"

#include <lmdb.h>

#include <fmt/format.h>

#include <cstring>
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
                   val.mv_size == sizeof( Host24 );
      if ( found ) {
         memcpy( &out, val.mv_data, sizeof( out ) );
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
         Host24 r;
         memcpy( &r, val.mv_data, sizeof( r ) );
         checksum += r.a;
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

class LmdbSystem {
 public:
   static constexpr const char* name = "LMDB";
   static constexpr bool hasBatch = false;
   static constexpr bool hasNotify = false;

   explicit LmdbSystem( const std::string& dir ) : dir_( dir ) {}

   void create( uint64_t n ) {
      // Copy-on-write needs room for old pages while readers hold them.
      mapSize_ = n * 512 + ( 256ull << 20 );
      env_ = std::make_unique< Env >( dir_, mapSize_, MDB_NOSYNC );
      read_ = std::make_unique< ReadPath >( *env_ );
   }

   void write( const Host24& r ) {
      MDB_txn* txn;
      check( mdb_txn_begin( env_->env, nullptr, 0, &txn ), "mdb_txn_begin" );
      MDB_val key = valOf( &r.k, sizeof( r.k ) ), val = valOf( &r, sizeof( r ) );
      int rc = mdb_put( txn, env_->dbi, &key, &val, 0 );
      if ( rc != MDB_SUCCESS ) {
         mdb_txn_abort( txn );
         check( rc, "mdb_put" );
      }
      check( mdb_txn_commit( txn ), "mdb_txn_commit" );
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
   LmdbSystem sys( dir );
   return runWorkload( sys, cfg, n );
}

}  // namespace Bench

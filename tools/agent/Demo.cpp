#include "tools/agent/Demo.h"

#include <charconv>

namespace Agent {

Demo::Demo( const DemoOptions& o ) : o_( o ), rng_( o.seed ) {
   for ( uint32_t v = 1; v <= o.vnis; ++v ) {
      if ( v != o.skipVni && ( o.vanishEvery == 0 || v % o.vanishEvery != 0 ) ) {
         vnis_.push_back( v );
      }
   }
   const size_t n = vnis_.size();
   // controllerdb, one "vni" per VNI, its MACs, two flood VTEPs, synced.
   snapshotSize_ = 1 + n + n * o.macs + n * 2 + 1;
}

Mac Demo::macOf( uint32_t vni, uint32_t i ) {
   return { 0x02, uint8_t( vni >> 16 ), uint8_t( vni >> 8 ), uint8_t( vni ), uint8_t( i >> 8 ),
            uint8_t( i ) };
}

uint32_t Demo::floodVtep( uint32_t vni, int which ) {
   return 0xC0000200u | uint32_t( 101 + ( vni % 50 ) * 2 + which );   // 192.0.2.101-200
}

bool Demo::snapshot( std::vector< Event >& out, size_t max ) {
   const size_t n = vnis_.size();
   for ( size_t k = 0; k < max && pos_ < snapshotSize_; ++k, ++pos_ ) {
      Event e;
      size_t p = pos_;
      if ( p == 0 ) {
         e.op = Event::Op::controllerdb;
         e.value = true;
      } else if ( ( p -= 1 ) < n ) {
         e.op = Event::Op::vni;
         e.vni = vniAt( uint32_t( p ) );
      } else if ( ( p -= n ) < n * o_.macs ) {
         e.op = Event::Op::mac;
         e.vni = vniAt( uint32_t( p / o_.macs ) );
         e.mac = macOf( e.vni, uint32_t( p % o_.macs ) );
         e.vtep = nextVtep();
         e.seqNo = 1;
      } else if ( ( p -= n * o_.macs ) < n * 2 ) {
         e.op = Event::Op::flood;
         e.vni = vniAt( uint32_t( p / 2 ) );
         e.vtep = floodVtep( e.vni, int( p % 2 ) );
         e.value = true;
      } else {
         e.op = Event::Op::synced;
      }
      out.push_back( std::move( e ) );
   }
   return pos_ < snapshotSize_;
}

void Demo::churn( std::vector< Event >& out, size_t n ) {
   if ( !churnStarted_ ) {
      // Only churn needs a number per MAC: a run without it (most runs,
      // --until-steady ones among them) does not pay for one.
      churnStarted_ = true;
      seq_.assign( vnis_.size() * o_.macs, 1 );
   }
   if ( seq_.empty() ) {
      return;
   }
   for ( size_t k = 0; k < n; ++k ) {
      ++churned_;
      if ( churned_ == 100 && vnis_.size() > 1 ) {
         removed_ = uint32_t( vnis_.size() - 1 );
         Event e;
         e.op = Event::Op::vniDel;
         e.vni = vniAt( *removed_ );
         out.push_back( e );
         continue;
      }
      const uint64_t r = rng_();
      Event e;
      e.vtep = 0;
      if ( r % 8 == 0 && !forgotten_.empty() ) {
         // Relearn the oldest forgotten MAC.
         const uint32_t idx = forgotten_.front();
         forgotten_.erase( forgotten_.begin() );
         if ( removed_ && idx / o_.macs == *removed_ ) {
            continue;   // its VNI is gone
         }
         seq_[ idx ] = 1;
         e.op = Event::Op::mac;
         e.vni = vniAt( idx / o_.macs );
         e.mac = macOf( e.vni, idx % o_.macs );
         e.vtep = nextVtep();
         e.seqNo = 1;
         out.push_back( e );
         continue;
      }
      uint32_t idx = uint32_t( ( r >> 8 ) % seq_.size() );
      if ( removed_ && idx / o_.macs == *removed_ ) {
         idx %= uint32_t( *removed_ * o_.macs );   // stay off the removed VNI
      }
      e.vni = vniAt( idx / o_.macs );
      e.mac = macOf( e.vni, idx % o_.macs );
      if ( seq_[ idx ] == 0 ) {
         continue;   // forgotten: waits for its relearn
      }
      if ( r % 8 == 1 ) {
         e.op = Event::Op::macDel;
         seq_[ idx ] = 0;
         forgotten_.push_back( idx );
      } else {
         e.op = Event::Op::mac;
         e.seqNo = ++seq_[ idx ];
         e.vtep = nextVtep();
      }
      out.push_back( e );
   }
}

bool Demo::parseSize( const std::string& text, DemoOptions& o ) {
   const auto colon = text.find( ':' );
   if ( colon == std::string::npos ) {
      return false;
   }
   uint32_t v = 0, m = 0;
   const char* b = text.data();
   const char* e = b + text.size();
   auto r1 = std::from_chars( b, b + colon, v );
   auto r2 = std::from_chars( b + colon + 1, e, m );
   if ( r1.ec != std::errc() || r1.ptr != b + colon || r2.ec != std::errc() || r2.ptr != e ) {
      return false;
   }
   if ( v < 1 || v > 0xFFFFFF || m < 1 || m > 65536 ) {
      return false;
   }
   o.vnis = v;
   o.macs = m;
   return true;
}

}  // namespace Agent

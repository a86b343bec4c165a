#include "tools/bgp/RdIndex.h"

#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace OrbEvpn::Bgp {

RdIndex::RdIndex( std::string file ) : file_( std::move( file ) ) {
   if ( file_.empty() ) {
      return;
   }
   std::ifstream in( file_ );
   std::string line;
   int lineNo = 0;
   while ( std::getline( in, line ) ) {
      ++lineNo;
      if ( line.empty() ) {
         continue;
      }
      std::istringstream ls( line );
      uint64_t vni = 0;
      uint64_t index = 0;
      std::string rest;
      if ( !( ls >> vni >> index ) || ( ls >> rest ) || vni > 0xFFFFFF || index > 0xFFFF ||
           byVni_.count( uint32_t( vni ) ) || byIndex_.count( uint16_t( index ) ) ) {
         throw std::runtime_error( fmt::format( "{}:{}: bad RD index line \"{}\"", file_, lineNo, line ) );
      }
      byVni_[ uint32_t( vni ) ] = uint16_t( index );
      byIndex_[ uint16_t( index ) ] = uint32_t( vni );
   }
}

std::optional< uint16_t > RdIndex::indexOf( uint32_t vni ) {
   if ( auto it = byVni_.find( vni ); it != byVni_.end() ) {
      return it->second;
   }
   uint16_t want = uint16_t( vni & 0xFFFF );
   if ( byIndex_.count( want ) ) {
      std::optional< uint16_t > free;
      for ( uint32_t i = 0; i <= 0xFFFF; ++i ) {
         if ( !byIndex_.count( uint16_t( i ) ) ) {
            free = uint16_t( i );
            break;
         }
      }
      if ( !free ) {
         return std::nullopt;
      }
      want = *free;
   }
   byVni_[ vni ] = want;
   byIndex_[ want ] = vni;
   dirty_ = true;
   return want;
}

void RdIndex::flush() {
   if ( file_.empty() || !dirty_ ) {
      return;
   }
   dirty_ = false;
   std::string tmp = file_ + ".tmp";
   {
      std::ofstream out( tmp, std::ios::trunc );
      for ( const auto& [ vni, index ] : byVni_ ) {
         out << vni << ' ' << index << '\n';
      }
      out.flush();
      if ( !out ) {
         throw std::runtime_error( fmt::format( "cannot write {}", tmp ) );
      }
   }
   if ( std::rename( tmp.c_str(), file_.c_str() ) != 0 ) {
      throw std::runtime_error( fmt::format( "cannot replace {}", file_ ) );
   }
}

}  // namespace OrbEvpn::Bgp

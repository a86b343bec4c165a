#include "tools/agent/Model.h"

#include <fmt/format.h>

#include <algorithm>

namespace Agent {

using Json = nlohmann::json;
using namespace VxlanController;

namespace {

Wire::EthAddr ethOf( const Mac& m ) { return Wire::EthAddr( m.data() ); }
Mac macOf( const Wire::EthAddr& a ) {
   Mac m;
   std::copy( a.bytes(), a.bytes() + 6, m.begin() );
   return m;
}

}  // namespace

Model::Model()
      : vniDir_( Mox::Dir::DirIs( "vniDir" ) ),
        evpnDir_( VniStatusDirV2::VniStatusDirV2Is( "vniStatusFromEvpn" ) ),
        controllerdb_( Controllerdb::Status::StatusIs( "controllerdbStatus" ) ),
        capability_( OrbEvpn::EvpnCapability::EvpnCapabilityIs( "evpnCapability" ) ),
        config_( OrbEvpn::OrbEvpnConfig::OrbEvpnConfigIs( "orbEvpnConfig" ) ) {}

Mox::Ptr< VniFdbStatusV2 > Model::status( uint32_t vni, bool create ) {
   // A status taken out of the directory (or replaced there) has lost its
   // parent, so the cached one is current only while its parent is ours.
   if ( last_ && lastVni_ == vni && last_->parent() == vniDir_.ptr() ) {
      return last_;
   }
   const Mox::String name( fmt::format( "{}", vni ) );
   auto s = Mox::ptrCast< VniFdbStatusV2 >( vniDir_->entityPtr( name ) );
   if ( !s && create ) {
      s = VniFdbStatusV2::VniFdbStatusV2Is( Vxlan::Vni( vni ) );
      vniDir_->entityPtrIs( s );
   }
   lastVni_ = vni;
   last_ = s;
   return s;
}

void Model::apply( const Event& e ) {
   switch ( e.op ) {
    case Event::Op::vni:
      status( e.vni, true );
      break;
    case Event::Op::vniDel:
      vniDir_->entityPtrDel( Mox::String( fmt::format( "{}", e.vni ) ) );
      break;
    case Event::Op::mac:
      status( e.vni, true )->macVtepTableIs( MacVtepV2( ethOf( e.mac ), Wire::IpAddr( e.vtep ),
                                                        Keel::Seqno32( e.seqNo ), e.preference ) );
      break;
    case Event::Op::macDel:
      if ( auto s = status( e.vni, false ) ) {
         s->macVtepTableDel( ethOf( e.mac ) );
      }
      break;
    case Event::Op::flood:
      status( e.vni, true )
         ->macVtepFloodListTableIs( ethOf( e.mac ) )
         ->vtepIpFloodListIs( Wire::IpAddr( e.vtep ), e.value );
      break;
    case Event::Op::floodDel:
      if ( auto s = status( e.vni, false ) ) {
         if ( auto list = s->macVtepFloodListTable( ethOf( e.mac ) ) ) {
            list->vtepIpFloodListDel( Wire::IpAddr( e.vtep ) );
            // A controller keeps no empty flood list.
            if ( list->vtepIpFloodListSize() == 0 ) {
               s->macVtepFloodListTableDel( ethOf( e.mac ) );
            }
         }
      }
      break;
    case Event::Op::multiPath: {
      auto set = status( e.vni, true )->macVtepMultiPathTableIs( ethOf( e.mac ) );
      std::vector< Wire::IpAddr > gone;
      for ( const auto& [ ip, on ] : set->vtepIpListColl().map() ) {
         if ( std::find( e.vteps.begin(), e.vteps.end(), ip.value() ) == e.vteps.end() ) {
            gone.push_back( ip );
         }
      }
      for ( const auto& ip : gone ) {
         set->vtepIpListDel( ip );
      }
      for ( uint32_t ip : e.vteps ) {
         if ( !set->vtepIpList( Wire::IpAddr( ip ) ) ) {
            set->vtepIpListIs( Wire::IpAddr( ip ), true );
         }
      }
      break;
    }
    case Event::Op::multiPathDel:
      if ( auto s = status( e.vni, false ) ) {
         s->macVtepMultiPathTableDel( ethOf( e.mac ) );
      }
      break;
    case Event::Op::controllerdb:
      controllerdb_->enabledIs( e.value );
      break;
    case Event::Op::synced:
    case Event::Op::capability:
    case Event::Op::evpnHost:
    case Event::Op::evpnFlood:
      break;
   }
}

size_t Model::importedHosts() const {
   size_t n = 0;
   for ( const auto& [ vni, s ] : evpnDir_->vniStatusV2Coll().map() ) {
      n += s->macVtepTableSize();
   }
   return n;
}

size_t Model::importedFlood() const {
   size_t n = 0;
   for ( const auto& [ vni, s ] : evpnDir_->vniStatusV2Coll().map() ) {
      for ( const auto& [ mac, list ] : s->macVtepFloodListTableColl().map() ) {
         n += list->vtepIpFloodListSize();
      }
   }
   return n;
}

namespace {

template< class Status >
Json macsJson( const Status& s ) {
   Json macs = Json::array();
   for ( const auto& [ mac, e ] : s.macVtepTableColl().map() ) {
      macs.push_back( { { "mac", macText( macOf( mac ) ) },
                        { "vtep", ipText( e.vtepAddr().value() ) },
                        { "seqNo", e.seqNo().value() },
                        { "preference", e.preference() } } );
   }
   return macs;
}

}  // namespace

Json Model::controllerJson() const {
   Json vnis = Json::array();
   for ( auto it = vniDir_->entityIterator(); it; ++it ) {
      auto s = Mox::ptrCast< VniFdbStatusV2 >( it.value() );
      if ( !s ) {
         continue;
      }
      Json lists = Json::array();
      for ( const auto& [ mac, list ] : s->macVtepFloodListTableColl().map() ) {
         Json vteps = Json::array();
         for ( const auto& [ ip, on ] : list->vtepIpFloodListColl().map() ) {
            vteps.push_back( { { "vtep", ipText( ip.value() ) }, { "value", on } } );
         }
         lists.push_back( { { "mac", macText( macOf( mac ) ) }, { "vteps", vteps } } );
      }
      Json multi = Json::array();
      for ( const auto& [ mac, set ] : s->macVtepMultiPathTableColl().map() ) {
         Json vteps = Json::array();
         for ( const auto& [ ip, on ] : set->vtepIpListColl().map() ) {
            vteps.push_back( ipText( ip.value() ) );
         }
         multi.push_back( { { "mac", macText( macOf( mac ) ) }, { "vteps", vteps } } );
      }
      vnis.push_back( { { "name", it.key().view() },
                        { "vni", s->vni().value() },
                        { "macs", macsJson( *s ) },
                        { "floodLists", lists },
                        { "multiPath", multi } } );
   }
   return { { "controllerdbEnabled", controllerdb_->enabled() }, { "vnis", vnis } };
}

Json Model::importJson() const {
   Json vnis = Json::array();
   for ( const auto& [ vni, s ] : evpnDir_->vniStatusV2Coll().map() ) {
      Json lists = Json::array();
      for ( const auto& [ mac, list ] : s->macVtepFloodListTableColl().map() ) {
         Json vteps = Json::array();
         for ( const auto& [ ip, on ] : list->vtepIpFloodListColl().map() ) {
            vteps.push_back( ipText( ip.value() ) );
         }
         lists.push_back( { { "mac", macText( macOf( mac ) ) }, { "vteps", vteps } } );
      }
      vnis.push_back(
         { { "vni", vni.value() }, { "macs", macsJson( *s ) }, { "floodLists", lists } } );
   }
   return { { "vnis", vnis } };
}

}  // namespace Agent

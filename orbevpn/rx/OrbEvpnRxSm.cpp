#include "orbevpn/rx/OrbEvpnRxSm.h"

#include "platform/mox/Assert.h"

namespace VxlanController {

namespace {

// The MAC under which a VNI's one imported flood list is kept.
const Wire::EthAddr allBumDestinations{};

// A host whose fields are those of the default Host (zero VTEP, zero
// sequence number, preference 16) stands for "no host", whatever its key;
// a lookup that misses yields one too. The table's reader role never
// delivers such a host, so a peer that writes one cannot get a delete
// reported for a VNI the import never saw.
bool hostAbsent( const OrbEvpn::Host& h ) { return OrbEvpn::HostTableTraits::vacant( h ); }

}  // namespace

void OrbEvpnRxSm::moxDescribe( Mox::TypeBuilder< OrbEvpnRxSm >& b ) {
   using C = OrbEvpnRxSm;
   b.input( "hostTable", &C::hostTable )
      .input( "floodTable", &C::floodTable )
      .output( "vniStatusDir", &C::vniStatusDir )
      .handler< void( const Vxlan::Vni& ) >( "maybeDeleteVniStatus", &C::maybeDeleteVniStatus )
      .handler< void( const OrbEvpn::MacVniPair& ) >( "deleteHostEntry", &C::deleteHostEntry )
      .handler< void( const OrbEvpn::MacVniPair& ) >( "handleHost", &C::handleHost )
      .handler< void( const OrbEvpn::VniVtepPair& ) >( "deleteFloodEntry", &C::deleteFloodEntry )
      .handler< void( const OrbEvpn::VniVtepPair& ) >( "handleFloodEntry", &C::handleFloodEntry )
      .handler< void() >( "cleanup", &C::cleanup )
      .handler< void() >( "initSm", &C::initSm )
      .creator( &C::OrbEvpnRxSmIs );
}

OrbEvpnRxSm::OrbEvpnRxSm( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                          const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                          const Mox::Ptr< VniStatusDirV2 >& vniStatusDir )
      : hostTable_( makeReactor< MoxHostTable >( hostTable, this ) ),
        floodTable_( makeReactor< MoxFloodTable >( floodTable, this ) ),
        vniStatusDir_( vniStatusDir ) {
   handleHost();
   handleFloodEntry();
}

OrbEvpnRxSm::~OrbEvpnRxSm() { moxRetire(); }

Mox::Ptr< OrbEvpnRxSm >
OrbEvpnRxSm::OrbEvpnRxSmIs( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                            const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                            const Mox::Ptr< VniStatusDirV2 >& vniStatusDir ) {
   return OrbEvpn::moxCreate< OrbEvpnRxSm >( hostTable, floodTable, vniStatusDir );
}

Mox::Ptr< const OrbEvpn::HostTable > OrbEvpnRxSm::hostTable() const {
   return hostTable_ ? hostTable_->notifier() : nullptr;
}

Mox::Ptr< const OrbEvpn::FloodTable > OrbEvpnRxSm::floodTable() const {
   return floodTable_ ? floodTable_->notifier() : nullptr;
}

void OrbEvpnRxSm::maybeDeleteVniStatus( const Vxlan::Vni& vni ) {
   Mox::Ptr< VniStatusV2 > vniStatus = vniStatusDir_->vniStatusV2( vni );
   MOX_ASSERT( vniStatus );
   MOX_ASSERT( !vniStatus->macVtepMultiPathTables() );
   MOX_ASSERT( !vniStatus->ipToMacTables() );
   if ( vniStatus->macVtepTableSize() == 0 && vniStatus->macVtepFloodListTableSize() == 0 ) {
      vniStatusDir_->vniStatusV2Del( vni );
   }
}

void OrbEvpnRxSm::deleteHostEntry( const OrbEvpn::MacVniPair& key ) {
   Mox::Ptr< VniStatusV2 > vniStatus = vniStatusDir_->vniStatusV2( key.vni() );
   MOX_ASSERT( vniStatus );
   vniStatus->macVtepTableDel( key.macAddr() );
   maybeDeleteVniStatus( key.vni() );
}

void OrbEvpnRxSm::handleHost( const OrbEvpn::MacVniPair& key ) {
   // Once per imported change: plain pointers rather than counted ones (a
   // pair of locked operations each), the reactor holding the table and the
   // directory the status.
   const auto* table = hostTable_ ? static_cast< const OrbEvpn::HostTable* >(
                                       hostTable_->NotifieeConst::notifier() )
                                  : nullptr;
   // A corrupt record reads as absent (the table reports the corruption).
   const OrbEvpn::Host host = table ? table->host( key ) : OrbEvpn::Host();
   if ( hostAbsent( host ) ) {
      deleteHostEntry( key );
      return;
   }
   VniStatusV2* vniStatus;
   if ( const Mox::Ptr< VniStatusV2 >* filed = vniStatusDir_->vniStatusV2Coll().find( key.vni() ) ) {
      vniStatus = filed->ptr();
   } else {
      vniStatus = vniStatusDir_->vniStatusV2Is( key.vni() ).ptr();
   }
   vniStatus->macVtepTableIs(
      MacVtepV2( key.macAddr(), host.vtepAddr(), host.seqNo(), host.preference() ) );
}

void OrbEvpnRxSm::handleHost() {
   Mox::Ptr< const OrbEvpn::HostTable > table = hostTable();
   if ( !table ) {
      return;
   }
   for ( auto it = table->hostIterConst(); it; ++it ) {
      handleHost( it.key() );
   }
}

void OrbEvpnRxSm::deleteFloodEntry( const OrbEvpn::VniVtepPair& key ) {
   Mox::Ptr< VniStatusV2 > vniStatus = vniStatusDir_->vniStatusV2( key.vni() );
   MOX_ASSERT( vniStatus );
   Mox::Ptr< MacVtepFloodListV2 > floodList =
      vniStatus->macVtepFloodListTable( allBumDestinations );
   MOX_ASSERT( floodList );
   floodList->vtepIpFloodListDel( key.vtepAddr() );
   if ( floodList->vtepIpFloodListSize() == 0 ) {
      vniStatus->macVtepFloodListTableDel( allBumDestinations );
   }
   maybeDeleteVniStatus( key.vni() );
}

void OrbEvpnRxSm::handleFloodEntry( const OrbEvpn::VniVtepPair& key ) {
   Mox::Ptr< const OrbEvpn::FloodTable > table = floodTable();
   const OrbEvpn::FloodEntry entry = table ? table->floodEntry( key ) : OrbEvpn::FloodEntry();
   if ( entry == OrbEvpn::FloodEntry() ) {
      deleteFloodEntry( key );
      return;
   }
   Mox::Ptr< VniStatusV2 > vniStatus = vniStatusDir_->vniStatusV2Is( key.vni() );
   Mox::Ptr< MacVtepFloodListV2 > floodList =
      vniStatus->macVtepFloodListTableIs( allBumDestinations );
   floodList->vtepIpFloodListIs( key.vtepAddr(), true );
}

void OrbEvpnRxSm::handleFloodEntry() {
   Mox::Ptr< const OrbEvpn::FloodTable > table = floodTable();
   if ( !table ) {
      return;
   }
   for ( auto it = table->floodEntryIterConst(); it; ++it ) {
      handleFloodEntry( it.key() );
   }
}

void OrbEvpnRxSm::cleanup() {
   if ( Mox::Ptr< const OrbEvpn::HostTable > table = hostTable() ) {
      for ( auto it = table->hostIterConst(); it; ++it ) {
         deleteHostEntry( it.key() );
      }
   }
   if ( Mox::Ptr< const OrbEvpn::FloodTable > table = floodTable() ) {
      for ( auto it = table->floodEntryIterConst(); it; ++it ) {
         deleteFloodEntry( it.key() );
      }
   }
}

void OrbEvpnRxSm::initSm() {
   handleHost();
   handleFloodEntry();
}

Mox::Ptr< OrbEvpnRxSm >
orbEvpnRxSmFactory( const Mox::Ptr< const OrbEvpn::HostTable >& hostTable,
                    const Mox::Ptr< const OrbEvpn::FloodTable >& floodTable,
                    const Mox::Ptr< VniStatusDirV2 >& vniStatusDir ) {
   return OrbEvpnRxSm::OrbEvpnRxSmIs( hostTable, floodTable, vniStatusDir );
}

namespace {

Mox::Module rxModule( "OrbEvpnRxSm", { &Mox::TypeImpl< OrbEvpnRxSm >::instance() } );
const bool registered = ( Mox::moxModuleIs( &rxModule ), true );

}  // namespace

}  // namespace VxlanController

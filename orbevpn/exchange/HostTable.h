// OrbEvpn::HostTable: the shared table of hosts (Host keyed by MacVniPair).
//
// The export side writes one (writer role, made by hostTableFactory and
// attached when placed in a directory); the import side reads the one the
// EVPN agent writes (reader role, made by HostTableReaderIs on that
// table's path, driven by the host program through fd() and dispatch()).
// See ExchangeTable.h for the shared contract.
//
// Attributes: host (258), hostControl (259), name. A missed lookup yields
// the default Host (zero key and fields, preference 16).
#pragma once

#include "orbevpn/exchange/ExchangeTable.h"
#include "orbevpn/exchange/Host.h"

#include <cstring>

namespace OrbEvpn {

class HostTable;

struct HostTableTraits {
   using Entry = Host;
   using Key = MacVniPair;
   static constexpr const char* typeName = "OrbEvpn::HostTable";
   static constexpr const char* collectionName = "host";
   static constexpr const char* controlName = "hostControl";
   static constexpr const char* isCounter = "hostIs";
   static constexpr const char* delCounter = "hostDel";
   static constexpr const char* notifyCounter = "hostNotify";
   static Host defaultEntry() { return Host(); }
   // A host with the default's VTEP, sequence number and preference stands
   // for "no host", whatever its key: readers never deliver one.
   static bool vacant( const Host& h ) {
      return h.vtepAddr() == Host().vtepAddr() && h.seqNo() == Host().seqNo() &&
             h.preference() == Host().preference();
   }
   // The per-VNI index keeps a key as its VNI and its MAC.
   using IndexRest = uint64_t;
   static uint32_t indexVni( const MacVniPair& k ) { return k.vni().value(); }
   static uint64_t indexRest( const MacVniPair& k ) {
      uint64_t r = 0;
      std::memcpy( &r, k.macAddr().bytes(), 6 );
      return r;
   }
   static MacVniPair indexKey( uint32_t vni, uint64_t rest ) {
      uint8_t mac[ 8 ];
      std::memcpy( mac, &rest, 8 );
      return MacVniPair( Wire::EthAddr( mac ), Vxlan::Vni( vni ) );
   }
   static Mox::AttributeId collectionId();
   static Mox::AttributeId controlId();
};

class HostTable : public internal::ExchangeTable< HostTable, HostTableTraits > {
   MOX_ALLOC_TRACKED( HostTable )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::HostTable";
   static void moxDescribe( Mox::TypeBuilder< HostTable >& b ) { describeTable( b ); }

   class HostTableZeroReferencesNotifiee
         : public internal::TableZeroReferencesNotifiee< ExchangeTable > {
      MOX_ALLOC_TRACKED( HostTableZeroReferencesNotifiee )

    public:
      using TableZeroReferencesNotifiee::TableZeroReferencesNotifiee;
   };
   using ZeroReferencesNotifiee = HostTableZeroReferencesNotifiee;

   explicit HostTable( const Mox::String& name, TableRole role = TableRole::writer )
         : ExchangeTable( name, role ) {}
   ~HostTable() override;

   // Writer role, activated.
   static Mox::Ptr< HostTable > HostTableIs( const Mox::String& name );
   // Reader role on the shared table at `path`, activated. A table that does
   // not exist yet is waited for (mount status waitingForWriter).
   static Mox::Ptr< HostTable > HostTableReaderIs( const Mox::String& name,
                                                   const std::string& path );

   Host host( const MacVniPair& k ) const { return entry( k ); }
   bool hostExists( const MacVniPair& k ) const { return entryExists( k ); }
   std::optional< Host > hostFind( const MacVniPair& k ) const { return entryFind( k ); }
   std::vector< MacVniPair > hostKeysOfVni( Vxlan::Vni vni ) { return entryKeysOfVni( vni ); }
   uint32_t hosts() const { return entryCount(); }
   void hostIs( const Host& v ) { entryIs( v ); }
   Host hostDel( const MacVniPair& k ) { return entryDel( k ); }
   void hostDelAll() { entryDelAll(); }
   Host* hostInPlace( const MacVniPair& k ) { return entryInPlace( k ); }
   void hostCommit( const Host* v ) { entryCommit( v ); }
   IteratorConst hostIterConst() const { return entryIterConst(); }

   void hostNotify( const MacVniPair& k ) { entryNotify( k ); }
   void hostNotifyQuiesced( bool q ) { entryNotifyQuiesced( q ); }
   void hostNotifyMountStatus() { entryNotifyMountStatus(); }
   Mox::Ptr< MoxLumen::CollectionControl > hostControl() const { return control(); }
   void hostControlIs( const Mox::Ptr< MoxLumen::CollectionControl >& c ) { controlIs( c ); }

   const Mox::Type* fwkType() const override;
};

Mox::Ptr< HostTable > hostTableFactory( const Mox::String& name );

}  // namespace OrbEvpn

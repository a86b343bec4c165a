// OrbEvpn::FloodTable: the shared table of flood entries (FloodEntry keyed
// by VniVtepPair).
//
// The export side writes one (writer role, made by floodTableFactory and
// attached when placed in a directory); the import side reads the one the
// EVPN agent writes (reader role, made by FloodTableReaderIs on that
// table's path, driven by the host program through fd() and dispatch()).
// See ExchangeTable.h for the shared contract.
//
// Attributes: floodEntry (258), floodEntryControl (259), name. A missed
// lookup yields the all-zero FloodEntry.
#pragma once

#include "orbevpn/exchange/ExchangeTable.h"
#include "orbevpn/exchange/FloodEntry.h"

namespace OrbEvpn {

class FloodTable;

struct FloodTableTraits {
   using Entry = FloodEntry;
   using Key = VniVtepPair;
   static constexpr const char* typeName = "OrbEvpn::FloodTable";
   static constexpr const char* collectionName = "floodEntry";
   static constexpr const char* controlName = "floodEntryControl";
   static constexpr const char* isCounter = "floodEntryIs";
   static constexpr const char* delCounter = "floodEntryDel";
   static constexpr const char* notifyCounter = "floodEntryNotify";
   static FloodEntry defaultEntry() { return FloodEntry(); }
   // Only the default entry itself (zero VNI and VTEP) stands for "none".
   static bool vacant( const FloodEntry& e ) { return e == FloodEntry(); }
   // The per-VNI index keeps a key as its VNI and its VTEP.
   using IndexRest = uint32_t;
   static uint32_t indexVni( const VniVtepPair& k ) { return k.vni().value(); }
   static uint32_t indexRest( const VniVtepPair& k ) { return k.vtepAddr().value(); }
   static VniVtepPair indexKey( uint32_t vni, uint32_t rest ) {
      return VniVtepPair( Vxlan::Vni( vni ), Wire::IpAddr( rest ) );
   }
   static Mox::AttributeId collectionId();
   static Mox::AttributeId controlId();
};

class FloodTable : public internal::ExchangeTable< FloodTable, FloodTableTraits > {
   MOX_ALLOC_TRACKED( FloodTable )

 public:
   using MoxBase = Mox::Entity;
   static constexpr const char* moxTypeName = "OrbEvpn::FloodTable";
   static void moxDescribe( Mox::TypeBuilder< FloodTable >& b ) { describeTable( b ); }

   class FloodTableZeroReferencesNotifiee
         : public internal::TableZeroReferencesNotifiee< ExchangeTable > {
      MOX_ALLOC_TRACKED( FloodTableZeroReferencesNotifiee )

    public:
      using TableZeroReferencesNotifiee::TableZeroReferencesNotifiee;
   };
   using ZeroReferencesNotifiee = FloodTableZeroReferencesNotifiee;

   explicit FloodTable( const Mox::String& name, TableRole role = TableRole::writer )
         : ExchangeTable( name, role ) {}
   ~FloodTable() override;

   // Writer role, activated.
   static Mox::Ptr< FloodTable > FloodTableIs( const Mox::String& name );
   // Reader role on the shared table at `path`, activated. A table that does
   // not exist yet is waited for (mount status waitingForWriter).
   static Mox::Ptr< FloodTable > FloodTableReaderIs( const Mox::String& name,
                                                   const std::string& path );

   FloodEntry floodEntry( const VniVtepPair& k ) const { return entry( k ); }
   bool floodEntryExists( const VniVtepPair& k ) const { return entryExists( k ); }
   std::optional< FloodEntry > floodEntryFind( const VniVtepPair& k ) const { return entryFind( k ); }
   std::vector< VniVtepPair > floodEntryKeysOfVni( Vxlan::Vni vni ) {
      return entryKeysOfVni( vni );
   }
   uint32_t floodEntries() const { return entryCount(); }
   void floodEntryIs( FloodEntry v ) { entryIs( v ); }
   FloodEntry floodEntryDel( const VniVtepPair& k ) { return entryDel( k ); }
   void floodEntryDelAll() { entryDelAll(); }
   FloodEntry* floodEntryInPlace( const VniVtepPair& k ) { return entryInPlace( k ); }
   void floodEntryCommit( const FloodEntry* v ) { entryCommit( v ); }
   IteratorConst floodEntryIterConst() const { return entryIterConst(); }

   void floodEntryNotify( const VniVtepPair& k ) { entryNotify( k ); }
   void floodEntryNotifyQuiesced( bool q ) { entryNotifyQuiesced( q ); }
   void floodEntryNotifyMountStatus() { entryNotifyMountStatus(); }
   Mox::Ptr< MoxLumen::CollectionControl > floodEntryControl() const { return control(); }
   void floodEntryControlIs( const Mox::Ptr< MoxLumen::CollectionControl >& c ) { controlIs( c ); }

   const Mox::Type* fwkType() const override;
};

Mox::Ptr< FloodTable > floodTableFactory( const Mox::String& name );

}  // namespace OrbEvpn

// HostTable and FloodTable: creators, factories, directory hooks, and the
// OrbEvpnLumen module that registers the exchange types.
#include "orbevpn/exchange/ExchangeTableDescribe.h"
#include "orbevpn/exchange/FloodTable.h"
#include "orbevpn/exchange/HostTable.h"

#include <cstdio>
#include <cstdlib>

namespace OrbEvpn {

namespace internal {

const Trace::Handle& tableTrace() {
   static const Trace::Handle& h = Trace::handle( "OrbEvpnLumen" );
   return h;
}

void defaultCorruptionHandler( const std::string& message ) {
   std::fprintf( stderr, "shared table corruption: %s\n", message.c_str() );
   std::abort();
}

void defaultReaderCorruptionHandler( const std::string& message ) {
   std::fprintf( stderr, "shared table corruption (record ignored): %s\n", message.c_str() );
}

namespace {

template< class Table >
Mox::Ptr< Table > makeTable( const Mox::String& name, TableRole role ) {
   Mox::Ptr< Table > t( new Table( name, role ) );
   t->hasNotificationActiveIs( true );
   return t;
}

template< class Table >
Mox::NewEntityForDirFn newEntityForDir() {
   return []( const Mox::String& name,
              const std::vector< Mox::GenericValue >& args ) -> Mox::Ptr< Mox::Entity > {
      if ( !args.empty() ) {
         MOX_THROW( Mox::NewEntityArgumentsException,
                    "{} {} takes no constructor arguments, got {}", Table::moxTypeName, name,
                    args.size() );
      }
      return makeTable< Table >( name, TableRole::writer );
   };
}

}  // namespace
}  // namespace internal

// ---- HostTable

Mox::AttributeId HostTableTraits::collectionId() {
   static const Mox::AttributeId id = Mox::TypeImpl< HostTable >::instance().attributeId( "host" );
   return id;
}

Mox::AttributeId HostTableTraits::controlId() {
   static const Mox::AttributeId id =
      Mox::TypeImpl< HostTable >::instance().attributeId( "hostControl" );
   return id;
}

HostTable::~HostTable() = default;

Mox::Ptr< HostTable > HostTable::HostTableIs( const Mox::String& name ) {
   return internal::makeTable< HostTable >( name, TableRole::writer );
}

Mox::Ptr< HostTable > HostTable::HostTableReaderIs( const Mox::String& name,
                                                    const std::string& path ) {
   auto t = internal::makeTable< HostTable >( name, TableRole::reader );
   t->mountReader( path );
   return t;
}

const Mox::Type* HostTable::fwkType() const { return &Mox::TypeImpl< HostTable >::instance(); }

Mox::Ptr< HostTable > hostTableFactory( const Mox::String& name ) {
   return HostTable::HostTableIs( name );
}

// ---- FloodTable

Mox::AttributeId FloodTableTraits::collectionId() {
   static const Mox::AttributeId id =
      Mox::TypeImpl< FloodTable >::instance().attributeId( "floodEntry" );
   return id;
}

Mox::AttributeId FloodTableTraits::controlId() {
   static const Mox::AttributeId id =
      Mox::TypeImpl< FloodTable >::instance().attributeId( "floodEntryControl" );
   return id;
}

FloodTable::~FloodTable() = default;

Mox::Ptr< FloodTable > FloodTable::FloodTableIs( const Mox::String& name ) {
   return internal::makeTable< FloodTable >( name, TableRole::writer );
}

Mox::Ptr< FloodTable > FloodTable::FloodTableReaderIs( const Mox::String& name,
                                                       const std::string& path ) {
   auto t = internal::makeTable< FloodTable >( name, TableRole::reader );
   t->mountReader( path );
   return t;
}

const Mox::Type* FloodTable::fwkType() const { return &Mox::TypeImpl< FloodTable >::instance(); }

Mox::Ptr< FloodTable > floodTableFactory( const Mox::String& name ) {
   return FloodTable::FloodTableIs( name );
}

// ---- the module

namespace {

Mox::Module lumenModule( "OrbEvpnLumen", { &Mox::TypeImpl< MacVniPair >::instance(),
                                           &Mox::TypeImpl< Host >::instance(),
                                           &Mox::TypeImpl< VniVtepPair >::instance(),
                                           &Mox::TypeImpl< FloodEntry >::instance(),
                                           &Mox::TypeImpl< HostTable >::instance(),
                                           &Mox::TypeImpl< FloodTable >::instance() } );
const bool registered = [] {
   Mox::moxModuleIs( &lumenModule );
   Mox::newEntityForDirIs( HostTable::moxTypeName, internal::newEntityForDir< HostTable >() );
   Mox::newEntityForDirIs( FloodTable::moxTypeName, internal::newEntityForDir< FloodTable >() );
   return true;
}();

}  // namespace

}  // namespace OrbEvpn

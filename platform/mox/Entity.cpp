#include "platform/mox/Dir.h"

#include "platform/mox/CollectionAttr.h"

#include <map>
#include <mutex>

namespace Mox {

void Entity::moxDescribe( TypeBuilder< Entity >& b ) {
   b.scalar( "name", &Entity::name )
      .scalar( "fullName", &Entity::fullName )
      // The rest of the entity range belongs to the host platform.
      .reserveThrough( 257 );
}

Entity::~Entity() = default;

String Entity::fullName() const {
   if ( !parent_ ) {
      return name_;
   }
   return String( fmt::format( "{}/{}", parent_->fullName(), name_ ) );
}

void Entity::handleParent( const Ptr< Entity >& parent ) { parent_ = parent.ptr(); }

const Type* Entity::fwkType() const { return &TypeImpl< Entity >::instance(); }

// ---- Dir

void Dir::moxDescribe( TypeBuilder< Dir >& b ) {
   // Mount and persistence attributes of the host platform's directories:
   // declared for their ids, not modelled here.
   b.reserve( "dirType" )
      .reserve( "readOnly" )
      .reserve( "persistent" )
      .reserve( "mountPath" )
      .reserve( "mountStatus" )
      .reserve( "creator" )
      .reserve( "maxEntities" )
      .reserve( "dirControl" );
   bindCollection(
      b, "entityPtr", []( const Dir& d ) -> const EntityColl& { return d.entities_; },
      []( Dir& d, const String& name, const Ptr< Entity >& e ) { d.entityPtrIs( name, e ); },
      []( Dir& d, const String& n ) { d.entityPtrDel( n ); } );
}

Dir::Dir( const String& name )
      : Entity( name ),
        entities_( this, TypeImpl< Dir >::instance().attributeId( "entityPtr" ) ) {}

Dir::~Dir() {
   // Entries outlive their directory only if someone else holds them.
   for ( auto it = entities_.iterator(); !it.done(); ++it ) {
      if ( auto e = it.value() ) {
         e->handleParent( nullptr );
      }
   }
}

Ptr< Dir > Dir::DirIs( const String& name ) {
   Ptr< Dir > d( new Dir( name ) );
   d->hasNotificationActiveIs( true );
   return d;
}

void Dir::entityPtrIs( const Ptr< Entity >& e ) {
   if ( e ) {
      entityPtrIs( e->name(), e );
   }
}

void Dir::entityPtrIs( const String& name, const Ptr< Entity >& e ) {
   if ( !e ) {
      return;
   }
   Ptr< Entity > old = entities_.get( name );
   if ( old == e ) {
      return;
   }
   if ( old ) {
      old->handleParent( nullptr );
   }
   e->handleParent( Ptr< Entity >( this ) );
   entities_.set( name, e );
}

Ptr< Entity > Dir::entityPtrDel( const String& name ) {
   Ptr< Entity > old = entities_.get( name );
   if ( !old ) {
      return nullptr;
   }
   old->handleParent( nullptr );
   entities_.del( name );
   return old;
}

void Dir::entityPtrDelAll() {
   while ( !entities_.empty() ) {
      entityPtrDel( entities_.iterator().key() );
   }
}

const Type* Dir::fwkType() const { return &TypeImpl< Dir >::instance(); }

namespace {

std::mutex hooksMutex;
std::map< std::string, NewEntityForDirFn, std::less<> >& hooks() {
   static std::map< std::string, NewEntityForDirFn, std::less<> > h;
   return h;
}

}  // namespace

void newEntityForDirIs( std::string_view typeName, NewEntityForDirFn fn ) {
   std::lock_guard lock( hooksMutex );
   hooks()[ std::string( typeName ) ] = std::move( fn );
}

Ptr< Entity > Dir::newEntity( std::string_view typeName, const String& name,
                              const std::vector< GenericValue >& args ) {
   NewEntityForDirFn fn;
   {
      std::lock_guard lock( hooksMutex );
      auto it = hooks().find( typeName );
      if ( it == hooks().end() ) {
         MOX_THROW( Exception, "no newEntityForDir for type {}", typeName );
      }
      fn = it->second;
   }
   Ptr< Entity > e = fn( name, args );
   entityPtrIs( name, e );
   return e;
}

}  // namespace Mox

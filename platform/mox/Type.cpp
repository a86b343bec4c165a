#include "platform/mox/Type.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace Mox {

Type::Type( std::string name, const Type* base, AttributeId firstOwnId, bool valueType )
      : name_( std::move( name ) ),
        base_( base ),
        firstOwnId_( firstOwnId ),
        nextId_( firstOwnId ),
        valueType_( valueType ) {}

void Type::finish() {
   byName_.clear();
   for ( const auto& a : attrs_ ) {
      byName_.push_back( &a );
   }
   std::sort( byName_.begin(), byName_.end(),
              []( auto* a, auto* b ) { return a->name < b->name; } );
}

const Attribute* Type::attribute( AttributeId id ) const {
   for ( const Type* t = this; t; t = t->base_ ) {
      if ( id >= t->firstOwnId_ && id < t->firstOwnId_ + t->attrs_.size() ) {
         return &t->attrs_[ id - t->firstOwnId_ ];
      }
   }
   return nullptr;
}

const Attribute* Type::attribute( std::string_view name ) const {
   for ( const Type* t = this; t; t = t->base_ ) {
      auto it = std::lower_bound( t->byName_.begin(), t->byName_.end(), name,
                                  []( auto* a, std::string_view n ) { return a->name < n; } );
      if ( it != t->byName_.end() && ( *it )->name == name ) {
         return *it;
      }
   }
   return nullptr;
}

AttributeId Type::attributeId( std::string_view name ) const {
   const Attribute* a = attribute( name );
   return a ? a->id : 0;
}

void* Type::castFrom( PtrInterface* object ) const {
   return cast_ && object ? cast_( object ) : nullptr;
}

namespace {

// The type in `t`'s chain that declares `id`.
const Type* declaringType( const Type* t, AttributeId id ) {
   for ( ; t; t = t->base() ) {
      if ( id >= t->firstOwnId() && id < t->firstOwnId() + t->attributes().size() ) {
         return t;
      }
   }
   return nullptr;
}

}  // namespace

int Type::genericIfAttributeOp( GenericValue& result, void* object, AttributeId attr,
                                int op, const void* arg, const void* arg2 ) const {
   if ( up_ ) {
      // A framework object: attributes of base types need their own subobject.
      return genericIfAttributeOp( result, up_( object ), attr, op, arg, arg2 );
   }
   if ( attr == 0 && defaultQuery_ ) {
      // The attribute-less query on a value: is it the default value?
      result.set( defaultQuery_( object ) );
      return genericDone;
   }
   const Attribute* a = attribute( attr );
   if ( !a ) {
      return genericNoSuchAttribute;
   }
   if ( !a->op ) {
      return genericNotAllowed;
   }
   return a->op( result, object, op, arg, arg2 );
}

int Type::genericIfAttributeOp( GenericValue& result, PtrInterface* object,
                                AttributeId attr, int op, const void* arg,
                                const void* arg2 ) const {
   const Type* owner = declaringType( this, attr );
   if ( !owner ) {
      return genericNoSuchAttribute;
   }
   const Attribute& a = owner->attrs_[ attr - owner->firstOwnId_ ];
   if ( !a.op ) {
      return genericNotAllowed;
   }
   void* self = owner->castFrom( object );
   if ( !self ) {
      return genericNoSuchAttribute;
   }
   return a.op( result, self, op, arg, arg2 );
}

std::unique_ptr< GenericIterator > Type::genericIfIterator( void* object,
                                                            AttributeId attr ) const {
   if ( up_ ) {
      return genericIfIterator( up_( object ), attr );
   }
   const Attribute* a = attribute( attr );
   if ( !a || !a->iterator ) {
      return nullptr;
   }
   return a->iterator( object );
}

std::unique_ptr< GenericIterator > Type::genericIfIterator( PtrInterface* object,
                                                            AttributeId attr ) const {
   const Type* owner = declaringType( this, attr );
   if ( !owner || !object ) {
      return nullptr;
   }
   const Attribute& a = owner->attrs_[ attr - owner->firstOwnId_ ];
   void* self = owner->castFrom( object );
   if ( !a.iterator || !self ) {
      return nullptr;
   }
   return a.iterator( self );
}

void Type::genericIfConstructFromCtorArgs( GenericValue& result,
                                           const void* const* args ) const {
   if ( !ctor_ ) {
      MOX_THROW( Exception, "type {} cannot be constructed generically", name_ );
   }
   ctor_( result, args );
}

uint32_t Type::genericIfHash( const void* value ) const {
   if ( !hash_ ) {
      MOX_THROW( UnhashableTypeException, "type {} is not hashable", name_ );
   }
   return hash_( value );
}

// ---- modules

Module::Module( std::string name, std::vector< const Type* > types )
      : name_( std::move( name ) ), types_( std::move( types ) ) {}

const Type* Module::type( std::string_view name ) const {
   for ( auto* t : types_ ) {
      if ( t->name() == name ) {
         return t;
      }
   }
   return nullptr;
}

namespace {

struct Registry {
   std::mutex mutex;
   std::map< std::string, Module*, std::less<> > modules;
   std::map< std::string, const Type*, std::less<> > types;
};

Registry& registry() {
   static Registry r;
   return r;
}

}  // namespace

void moxModuleIs( Module* module ) {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   r.modules[ module->name() ] = module;
   for ( auto* t : module->types() ) {
      t->module_ = module;
      r.types[ t->name() ] = t;
   }
}

const Module* moxModule( std::string_view name ) {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   auto it = r.modules.find( name );
   return it == r.modules.end() ? nullptr : it->second;
}

std::vector< const Module* > moxModules() {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   std::vector< const Module* > out;
   for ( auto& [ n, m ] : r.modules ) {
      out.push_back( m );
   }
   return out;
}

const Type* moxTypeByName( std::string_view name ) {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   auto it = r.types.find( name );
   return it == r.types.end() ? nullptr : it->second;
}

}  // namespace Mox

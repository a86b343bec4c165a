// Helpers shared by the model's entities: attribute ids by name, and the
// collections whose values are child entities owned by their collection.
//
// A child entity filed in a collection of its owner has that owner as its
// parent (an uncounted pointer, Mox::Entity's), so that its full name says
// where it lives. The owner sets the parent before the collection notifies
// and clears it when the child leaves the collection or the owner dies, so
// a child that someone else keeps alive never points at a dead owner.
//
// Threading: the notification thread, like the entities themselves.
#pragma once

#include "platform/mox/Collection.h"
#include "platform/mox/Entity.h"
#include "platform/mox/Exception.h"

#include <string_view>

namespace Model::internal {

// The registry's id of `name` on type T; the registry is built once, so
// callers cache the result in a function-local static.
template< class T >
Mox::AttributeId attrIdOf( std::string_view name ) {
   return Mox::TypeImpl< T >::instance().attributeId( name );
}

// Create-or-get: the child at `key`, made by make() and filed (parent set,
// then one notification) when absent. An existing child is returned
// without any notification.
template< class Coll, class Make >
typename Coll::Value childIs( Mox::Entity& owner, Coll& coll, const typename Coll::Key& key,
                              Make&& make ) {
   return coll.instantiate( key, [ & ] {
      typename Coll::Value child = make();
      child->handleParent( Mox::Ptr< Mox::Entity >( &owner ) );
      return child;
   } );
}

// Files a child made elsewhere (the generic interface's set). A child is
// named by its key's text form, so one named otherwise is refused. Filing
// the child already at `key` changes nothing; a different one is refused,
// as a create-or-get collection never replaces what it holds.
template< class Coll >
void childAdopt( Mox::Entity& owner, Coll& coll, const typename Coll::Key& key,
                 const typename Coll::Value& child, std::string_view attribute ) {
   if ( !child ) {
      MOX_THROW( Mox::Exception, "{}: no entity given for key {}", attribute, key );
   }
   if ( child->name().view() != fmt::format( "{}", key ) ) {
      MOX_THROW( Mox::Exception, "{}: entity {} filed under key {}", attribute, child->name(),
                 key );
   }
   if ( const auto* held = coll.find( key ) ) {
      if ( *held == child ) {
         return;
      }
      MOX_THROW( Mox::ReinstantiationException,
                 "{}: key {} already holds a different entity", attribute, key );
   }
   child->handleParent( Mox::Ptr< Mox::Entity >( &owner ) );
   coll.set( key, child );
}

// Removes the child at `key`, if any; it learns that it has no parent
// before the collection notifies.
template< class Coll >
void childDel( Coll& coll, const typename Coll::Key& key ) {
   const auto* held = coll.find( key );
   if ( !held ) {
      return;
   }
   ( *held )->handleParent( nullptr );
   coll.del( key );
}

// For the owner's destructor: children that outlive it lose their parent.
template< class Coll >
void childrenOrphan( const Coll& coll ) {
   for ( const auto& [ key, child ] : coll.map() ) {
      if ( child ) {
         child->handleParent( nullptr );
      }
   }
}

}  // namespace Model::internal

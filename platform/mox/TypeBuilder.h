// TypeBuilder<T> and TypeImpl<T>: declare a type's attribute table once.
//
// A registered class provides
//    using MoxBase = <base class, or void for a value type>;
//    static constexpr const char* moxTypeName = "Ns::Class";
//    static void moxDescribe( Mox::TypeBuilder< Class >& b );
// and moxDescribe declares its attributes in order, for example
//    b.input( "controllerdbStatus", &C::controllerdbStatus )
//     .output( "orbEvpnConfig", &C::orbEvpnConfig )
//     .handler< void() >( "setOrbEvpnIntegrationMode", &C::setOrbEvpnIntegrationMode )
//     .scalar( "initialized", &C::initialized, &C::initializedIs );
// Ids follow declaration order. The adapters below turn member pointers
// into generic operations, so no class writes reflection code by hand.
#pragma once

#include "platform/mox/Exception.h"

#include <tuple>
#include <type_traits>
#include <utility>

namespace Mox {

template< class T >
class TypeBuilder {
 public:
   explicit TypeBuilder( Type& t ) : t_( t ) {}

   // An input: get yields the watched entity (a new reference) or null.
   template< class R >
   TypeBuilder& input( std::string name, R ( T::*get )() const ) {
      return add( std::move( name ), AttrKind::input,
                  [ get ]( GenericValue& r, void* o, int op, const void*, const void* ) {
                     if ( op != genericOpGet ) {
                        return int( genericNotAllowed );
                     }
                     r.set( Ptr< const PtrInterface >( ( self( o ).*get )() ) );
                     return int( genericDone );
                  } );
   }

   // A writable input: get as above; set (1) hands the new entity (a
   // Ptr< const X >, possibly null) to the owner's setter, which re-targets
   // the reactor.
   template< class R, class S >
   TypeBuilder& input( std::string name, R ( T::*get )() const, void ( T::*set )( S ) ) {
      using V = std::decay_t< S >;
      return add( std::move( name ), AttrKind::input,
                  [ get, set ]( GenericValue& r, void* o, int op, const void* arg, const void* ) {
                     if ( op == genericOpGet ) {
                        r.set( Ptr< const PtrInterface >( ( self( o ).*get )() ) );
                        return int( genericDone );
                     }
                     if ( op == genericOpSet && arg ) {
                        ( self( o ).*set )( *static_cast< const V* >( arg ) );
                        return int( genericDone );
                     }
                     return int( genericNotAllowed );
                  } );
   }

   // An output: get yields the held pointer (a new reference).
   template< class R >
   TypeBuilder& output( std::string name, R ( T::*get )() const ) {
      return add( std::move( name ), AttrKind::output,
                  [ get ]( GenericValue& r, void* o, int op, const void*, const void* ) {
                     if ( op != genericOpGet ) {
                        return int( genericNotAllowed );
                     }
                     r.set( Ptr< PtrInterface >( ( self( o ).*get )() ) );
                     return int( genericDone );
                  } );
   }

   // An invocable operation; Sig disambiguates overloads, for example
   // b.handler< void( const Key& ) >( "handleHost", &C::handleHost ).
   template< class Sig >
   TypeBuilder& handler( std::string name, Sig T::*method ) {
      return add( std::move( name ), AttrKind::handler,
                  [ method ]( GenericValue& r, void* o, int op, const void* arg,
                              const void* ) {
                     if ( op != genericOpInvoke || ( Invoker< Sig >::arity && !arg ) ) {
                        return int( genericNotAllowed );
                     }
                     Invoker< Sig >::call( r, self( o ), method, arg );
                     return int( genericDone );
                  } );
   }

   // One operation with a per-key and a whole-pass form (handleHost( mac )
   // and handleHost()): invoked with an argument it runs the per-key form,
   // without one the whole pass.
   template< class A >
   TypeBuilder& handlerPair( std::string name, void ( T::*perKey )( A ), void ( T::*whole )() ) {
      using V = std::decay_t< A >;
      return add( std::move( name ), AttrKind::handler,
                  [ perKey, whole ]( GenericValue&, void* o, int op, const void* arg,
                                     const void* ) {
                     if ( op != genericOpInvoke ) {
                        return int( genericNotAllowed );
                     }
                     if ( arg ) {
                        ( self( o ).*perKey )( *static_cast< const V* >( arg ) );
                     } else {
                        ( self( o ).*whole )();
                     }
                     return int( genericDone );
                  } );
   }

   // A plain value attribute: get, and set when a setter is given.
   template< class G, class S = std::nullptr_t >
   TypeBuilder& scalar( std::string name, G get, S set = nullptr ) {
      using V = std::decay_t< std::invoke_result_t< G, const T& > >;
      return add( std::move( name ), AttrKind::scalar,
                  [ get, set ]( GenericValue& r, void* o, int op, const void* arg,
                                const void* ) {
                     if ( op == genericOpGet ) {
                        r.set( V( std::invoke( get, self( o ) ) ) );
                        return int( genericDone );
                     }
                     if constexpr ( !std::is_null_pointer_v< S > ) {
                        if ( op == genericOpSet && arg ) {
                           std::invoke( set, self( o ), *static_cast< const V* >( arg ) );
                           return int( genericDone );
                        }
                     } else {
                        (void)set;   // read-only: captured only to keep one lambda
                     }
                     return int( genericNotAllowed );
                  } );
   }

   // Escape hatch for an attribute whose operations need custom code.
   TypeBuilder& custom( std::string name, AttrKind kind,
                        std::function< int( GenericValue&, T&, int op, const void* arg,
                                            const void* arg2 ) > fn,
                        std::function< std::unique_ptr< GenericIterator >( T& ) > iter = {} ) {
      add( std::move( name ), kind,
           [ fn ]( GenericValue& r, void* o, int op, const void* a, const void* a2 ) {
              return fn( r, self( o ), op, a, a2 );
           } );
      if ( iter ) {
         t_.attrs_.back().iterator = [ iter ]( void* o ) { return iter( self( o ) ); };
      }
      return *this;
   }

   // A name that holds its id but supports no operation.
   TypeBuilder& reserve( std::string name ) {
      return add( std::move( name ), AttrKind::reserved, {} );
   }

   // Skips ids up to and including `last`, for derived types to start after.
   TypeBuilder& reserveThrough( AttributeId last ) {
      t_.nextId_ = last + 1;
      return *this;
   }

   TypeBuilder& hashable() {
      t_.hash_ = []( const void* v ) -> uint32_t {
         return static_cast< const T* >( v )->hash();
      };
      return *this;
   }

   // Generic construction through a creator function (`<Class>Is`).
   template< class R, class... A >
   TypeBuilder& creator( R ( *fn )( A... ) ) {
      t_.ctor_ = [ fn ]( GenericValue& r, const void* const* args ) {
         construct( r, fn, args, std::index_sequence_for< A... >{} );
      };
      return *this;
   }

   // Generic construction of a value type from its constructor arguments.
   template< class... A >
   TypeBuilder& valueConstructor() {
      t_.ctor_ = []( GenericValue& r, const void* const* args ) {
         [[maybe_unused]] auto build = [ & ]< size_t... I >( std::index_sequence< I... > ) {
            r.set( T( *static_cast< const std::decay_t< A >* >( args[ I ] )... ) );
         };
         build( std::index_sequence_for< A... >{} );
      };
      return *this;
   }

   Type& type() { return t_; }

 private:
   static T& self( void* o ) { return *static_cast< T* >( o ); }

   template< class R, class... A, size_t... I >
   static void construct( GenericValue& r, R ( *fn )( A... ), const void* const* args,
                          std::index_sequence< I... > ) {
      // Copies of the arguments (counted pointers take a reference each),
      // released when the call returns.
      std::tuple< std::decay_t< A >... > copies(
         *static_cast< const std::decay_t< A >* >( args[ I ] )... );
      r.set( Ptr< PtrInterface >( fn( std::get< I >( copies )... ) ) );
   }

   template< class Sig >
   struct Invoker;
   template< class R >
   struct Invoker< R() > {
      static constexpr int arity = 0;
      template< class M >
      static void call( GenericValue& r, T& obj, M method, const void* ) {
         if constexpr ( std::is_void_v< R > ) {
            ( obj.*method )();
         } else {
            r.set( ( obj.*method )() );
         }
      }
   };
   template< class R, class A >
   struct Invoker< R( A ) > {
      static constexpr int arity = 1;
      template< class M >
      static void call( GenericValue& r, T& obj, M method, const void* arg ) {
         const auto& a = *static_cast< const std::decay_t< A >* >( arg );
         if constexpr ( std::is_void_v< R > ) {
            ( obj.*method )( a );
         } else {
            r.set( ( obj.*method )( a ) );
         }
      }
   };
   template< class R >
   struct Invoker< R() const > : Invoker< R() > {};
   template< class R, class A >
   struct Invoker< R( A ) const > : Invoker< R( A ) > {};

   TypeBuilder& add( std::string name, AttrKind kind, Attribute::OpFn op ) {
      Attribute a;
      a.name = std::move( name );
      a.id = t_.nextId_++;
      a.kind = kind;
      a.op = std::move( op );
      t_.attrs_.push_back( std::move( a ) );
      return *this;
   }

   Type& t_;
};

template< class T >
const Type* moxBaseTypeOf();

template< class T >
class TypeImpl : public Type {
 public:
   static const TypeImpl& instance() {
      static const TypeImpl t;
      return t;
   }

 private:
   static constexpr bool isObject = std::is_base_of_v< PtrInterface, T >;

   static AttributeId firstId() {
      // The base decides first: moxFirstId is inherited by every derived
      // class, so consulting it before the base would restart each derived
      // type's ids at the root's.
      if ( const Type* b = moxBaseTypeOf< T >() ) {
         return b->nextId();
      }
      if constexpr ( requires { T::moxFirstId; } ) {
         return T::moxFirstId;
      } else {
         return 2;
      }
   }

   TypeImpl() : Type( T::moxTypeName, moxBaseTypeOf< T >(), firstId(), !isObject ) {
      TypeBuilder< T > b( *this );
      if constexpr ( isObject ) {
         this->cast_ = []( PtrInterface* p ) -> void* { return dynamic_cast< T* >( p ); };
         this->up_ = []( void* v ) -> PtrInterface* {
            return static_cast< PtrInterface* >( static_cast< T* >( v ) );
         };
      } else if constexpr ( std::is_default_constructible_v< T > &&
                            std::equality_comparable< T > ) {
         this->defaultQuery_ = []( const void* v ) {
            return *static_cast< const T* >( v ) == T();
         };
      }
      T::moxDescribe( b );
      finish();
   }
   friend class TypeBuilder< T >;
};

template< class T >
const Type* moxBaseTypeOf() {
   using B = typename T::MoxBase;
   if constexpr ( std::is_void_v< B > ) {
      return nullptr;
   } else {
      return &TypeImpl< B >::instance();
   }
}

}  // namespace Mox

// Mox::GenericValue: the result (and argument) holder of the generic
// attribute interface. It holds any one value; framework objects are held
// as counted pointers.
#pragma once

#include "platform/mox/PtrInterface.h"

#include <any>
#include <utility>

namespace Mox {

class GenericValue {
 public:
   GenericValue() = default;

   template< class T >
   void set( T v ) { value_ = std::move( v ); }
   void clear() { value_.reset(); }
   bool empty() const { return !value_.has_value(); }

   template< class T >
   bool is() const { return std::any_cast< T >( &value_ ) != nullptr; }
   // Throws std::bad_any_cast when the held value is not a T.
   template< class T >
   T get() const { return std::any_cast< T >( value_ ); }

   // A held framework object, whatever counted-pointer type holds it.
   Ptr< const PtrInterface > object() const;

   const std::any& any() const { return value_; }

 private:
   std::any value_;
};

inline Ptr< const PtrInterface > GenericValue::object() const {
   if ( auto* p = std::any_cast< Ptr< const PtrInterface > >( &value_ ) ) {
      return *p;
   }
   if ( auto* p = std::any_cast< Ptr< PtrInterface > >( &value_ ) ) {
      return *p;
   }
   return nullptr;
}

}  // namespace Mox

// Mox::Ptr<T>: the intrusive counted pointer of framework objects.
//
// T derives from Mox::PtrInterface, which holds the count. Copying a Ptr
// adds a reference, destroying one drops it; the last drop calls the
// object's zero-reference handling. Ptr<const T> observes without writing.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

namespace Mox {

template< class T >
class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr( std::nullptr_t ) noexcept {}
   Ptr( T* p ) noexcept : p_( p ) { ref(); }
   Ptr( const Ptr& o ) noexcept : p_( o.p_ ) { ref(); }
   Ptr( Ptr&& o ) noexcept : p_( std::exchange( o.p_, nullptr ) ) {}
   template< class U, class = std::enable_if_t< std::is_convertible_v< U*, T* > > >
   Ptr( const Ptr< U >& o ) noexcept : p_( o.ptr() ) { ref(); }
   template< class U, class = std::enable_if_t< std::is_convertible_v< U*, T* > > >
   Ptr( Ptr< U >&& o ) noexcept : p_( o.release() ) {}
   ~Ptr() { unref(); }

   Ptr& operator=( const Ptr& o ) noexcept {
      Ptr( o ).swap( *this );
      return *this;
   }
   Ptr& operator=( Ptr&& o ) noexcept {
      Ptr( std::move( o ) ).swap( *this );
      return *this;
   }
   Ptr& operator=( std::nullptr_t ) noexcept {
      Ptr().swap( *this );
      return *this;
   }

   T* ptr() const noexcept { return p_; }
   T* get() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   // Gives up the reference without dropping it.
   T* release() noexcept { return std::exchange( p_, nullptr ); }
   void swap( Ptr& o ) noexcept { std::swap( p_, o.p_ ); }

   template< class U >
   bool operator==( const Ptr< U >& o ) const noexcept { return p_ == o.ptr(); }
   bool operator==( std::nullptr_t ) const noexcept { return p_ == nullptr; }
   bool operator==( const T* o ) const noexcept { return p_ == o; }

 private:
   void ref() const noexcept {
      if ( p_ ) {
         p_->newRef();
      }
   }
   void unref() noexcept {
      if ( p_ ) {
         std::exchange( p_, nullptr )->delRef();
      }
   }
   T* p_ = nullptr;
};

// Checked downcast: null when `p` is not a U.
template< class U, class T >
Ptr< U > ptrCast( const Ptr< T >& p ) noexcept {
   return Ptr< U >( dynamic_cast< U* >( p.ptr() ) );
}

}  // namespace Mox

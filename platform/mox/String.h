// Mox::String: a counted, immutable string.
//
// Copies share one buffer (the count is atomic, so strings may cross
// threads). Nothing can change a string once made, so a copy is as good as
// the original. IteratorConst is a plain character cursor; the text parsers
// of the value types advance one over the text they consume.
#pragma once

#include <fmt/format.h>

#include <compare>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace Mox {

class String {
 public:
   class IteratorConst {
    public:
      IteratorConst() = default;
      explicit IteratorConst( const char* p ) : p_( p ) {}
      char operator*() const { return *p_; }
      IteratorConst& operator++() { ++p_; return *this; }
      IteratorConst operator++( int ) { auto t = *this; ++p_; return t; }
      IteratorConst& operator+=( std::ptrdiff_t n ) { p_ += n; return *this; }
      IteratorConst operator+( std::ptrdiff_t n ) const { return IteratorConst( p_ + n ); }
      std::ptrdiff_t operator-( const IteratorConst& o ) const { return p_ - o.p_; }
      bool operator==( const IteratorConst& o ) const = default;
      auto operator<=>( const IteratorConst& o ) const = default;
      const char* ptr() const { return p_; }

    private:
      const char* p_ = nullptr;
   };

   String() = default;
   String( const char* s ) : String( std::string_view( s ) ) {}
   String( std::string_view s );
   String( const std::string& s ) : String( std::string_view( s ) ) {}

   std::string_view view() const {
      return rep_ ? std::string_view( *rep_ ) : std::string_view();
   }
   operator std::string_view() const { return view(); }
   std::string str() const { return std::string( view() ); }
   const char* c_str() const { return rep_ ? rep_->c_str() : ""; }
   size_t size() const { return view().size(); }
   bool empty() const { return size() == 0; }

   IteratorConst begin() const { return IteratorConst( view().data() ? view().data() : "" ); }
   IteratorConst end() const { return begin() + static_cast< std::ptrdiff_t >( size() ); }

   // Number of String objects sharing this buffer (0 for the empty string).
   long useCount() const { return rep_.use_count(); }

   friend bool operator==( const String& a, const String& b ) { return a.view() == b.view(); }
   friend auto operator<=>( const String& a, const String& b ) { return a.view() <=> b.view(); }
   friend bool operator==( const String& a, std::string_view b ) { return a.view() == b; }
   // Without these a literal or a std::string converts equally well to
   // String and to string_view, and the comparison would not compile.
   friend bool operator==( const String& a, const char* b ) { return a.view() == b; }
   friend bool operator==( const String& a, const std::string& b ) { return a.view() == b; }

   // FNV-1a: the same in every process.
   uint32_t hash() const;

 private:
   std::shared_ptr< const std::string > rep_;
};

inline std::ostream& operator<<( std::ostream& os, const String& s ) {
   return os << s.view();
}

// Text parsing helpers shared by the value types' cursor constructors.

// Requires `literal` at `it`; advances past it or raises ParseException.
void requireText( String::IteratorConst& it, const String::IteratorConst& end,
                  std::string_view literal );

// Reads a decimal unsigned number of at most `maxValue`; raises RangeException
// on bad text or overflow. Leaves `it` after the digits.
uint64_t readUnsigned( String::IteratorConst& it, const String::IteratorConst& end,
                       uint64_t maxValue );

// Runs `read` (which parses one field) and re-raises a RangeException from
// it as a RangeException under `attribute`. Other exceptions pass unchanged.
template< class F >
auto readAttribute( const char* attribute, F&& read ) -> decltype( read() );

[[noreturn]] void rethrowUnderAttribute( const char* attribute );

template< class F >
auto readAttribute( const char* attribute, F&& read ) -> decltype( read() ) {
   try {
      return read();
   } catch ( ... ) {
      rethrowUnderAttribute( attribute );
   }
}

// Parses the whole of `s` as a T through T's cursor constructor; text left
// after the value is an error.
template< class T >
T strepToValue( const String& s );

[[noreturn]] void throwTrailingText( const String& s, String::IteratorConst at );

template< class T >
T strepToValue( const String& s ) {
   auto it = s.begin();
   const auto end = s.end();
   T value( it, end );
   if ( it != end ) {
      throwTrailingText( s, it );
   }
   return value;
}

}  // namespace Mox

template<>
struct std::hash< Mox::String > {
   size_t operator()( const Mox::String& s ) const { return s.hash(); }
};

template<>
struct fmt::formatter< Mox::String > : fmt::formatter< std::string_view > {
   auto format( const Mox::String& s, format_context& ctx ) const {
      return fmt::formatter< std::string_view >::format( s.view(), ctx );
   }
};

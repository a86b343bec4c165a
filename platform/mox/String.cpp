#include "platform/mox/String.h"

#include "platform/mox/Exception.h"

namespace Mox {

String::String( std::string_view s ) {
   if ( !s.empty() ) {
      rep_ = std::make_shared< const std::string >( s );
   }
}

uint32_t String::hash() const {
   uint32_t h = 2166136261u;
   for ( unsigned char c : view() ) {
      h = ( h ^ c ) * 16777619u;
   }
   return h;
}

void requireText( String::IteratorConst& it, const String::IteratorConst& end,
                  std::string_view literal ) {
   auto p = it;
   for ( char c : literal ) {
      if ( p == end || *p != c ) {
         std::string_view rest( it.ptr(), static_cast< size_t >( end - it ) );
         MOX_THROW( ParseException, "expected \"{}\" at \"{}\"", literal,
                    rest.substr( 0, 40 ) );
      }
      ++p;
   }
   it = p;
}

uint64_t readUnsigned( String::IteratorConst& it, const String::IteratorConst& end,
                       uint64_t maxValue ) {
   auto p = it;
   uint64_t v = 0;
   while ( p != end && *p >= '0' && *p <= '9' ) {
      const auto digit = static_cast< uint64_t >( *p - '0' );
      // Checked before the step: near the top of uint64_t the step itself
      // would wrap and slip under the limit.
      if ( digit > maxValue || v > ( maxValue - digit ) / 10 ) {
         MOX_THROW( RangeException, "number exceeds {}", maxValue );
      }
      v = v * 10 + digit;
      ++p;
   }
   if ( p == it ) {
      std::string_view rest( it.ptr(), static_cast< size_t >( end - it ) );
      MOX_THROW( RangeException, "expected a number at \"{}\"", rest.substr( 0, 40 ) );
   }
   it = p;
   return v;
}

void rethrowUnderAttribute( const char* attribute ) {
   try {
      throw;
   } catch ( const RangeException& e ) {
      // The outermost reader names the error; inner names stay in the text.
      throw RangeException( e.where(), fmt::format( "{}: {}", attribute, e.what() ),
                            attribute );
   }
}

void throwTrailingText( const String& s, String::IteratorConst at ) {
   MOX_THROW( ParseException, "unexpected text after value at offset {} of \"{}\"",
              at - s.begin(), s.view() );
}

}  // namespace Mox

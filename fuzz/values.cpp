// The text parsers of the platform's value types: Wire::EthAddr,
// Wire::IpAddr, Vxlan::Vni (its text form and its directory name),
// Keel::Seqno32 and Bridging::BridgeId. Every input goes to every parser.
// Bad text must raise the framework's own exceptions and nothing else; text
// that parses must print back to a form that parses to the same value and
// prints the same again.
#include "fuzz/Check.h"
#include "platform/mox/Exception.h"
#include "platform/mox/String.h"
#include "platform/values/BridgeId.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"
#include "platform/values/Vni.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {

template< class T >
void roundTrip( const Mox::String& text ) {
   T value;
   try {
      value = Mox::strepToValue< T >( text );
   } catch ( const Mox::Exception& ) {
      return;   // RangeException or ParseException: refused, as it should be
   }
   const Mox::String printed = valueToStrep( value );
   T again;
   try {
      again = Mox::strepToValue< T >( printed );
   } catch ( const Mox::Exception& e ) {
      Fuzz::inconsistent( "printed form does not parse:", e.what() );
   }
   Fuzz::check( again == value, "printed form parses to another value:", printed.view() );
   Fuzz::check( valueToStrep( again ) == printed, "printed form is not stable:", printed.view() );
}

// The cursor constructor on its own: it either throws or stops inside the text.
template< class T >
void cursor( const Mox::String& text ) {
   auto it = text.begin();
   try {
      T value( it, text.end() );
      (void)value;
   } catch ( const Mox::Exception& ) {
      Fuzz::check( it == text.begin(), "a refused parse moved the cursor" );
      return;
   }
   Fuzz::check( text.begin() < it && it <= text.end(), "the cursor left the text" );
}

template< class T >
void parse( const Mox::String& text ) {
   roundTrip< T >( text );
   cursor< T >( text );
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   const Mox::String text( std::string_view( reinterpret_cast< const char* >( data ), size ) );
   parse< Wire::EthAddr >( text );
   parse< Wire::IpAddr >( text );
   parse< Vxlan::Vni >( text );
   parse< Keel::Seqno32 >( text );
   parse< Bridging::BridgeId >( text );
   try {
      const Vxlan::Vni v = Vxlan::vniFromName( text );
      Fuzz::check( v.value() <= Vxlan::Vni::max, "a directory name gave a VNI out of range" );
   } catch ( const Mox::Exception& ) {
   }
   // A BridgeId of a VNI gives that VNI back (and asserts it is one).
   try {
      const auto id = Mox::strepToValue< Bridging::BridgeId >( text );
      if ( id.isVni() ) {
         Fuzz::check( Bridging::BridgeId( id.vni() ) == id, "a VNI bridge id does not hold its VNI" );
      }
   } catch ( const Mox::Exception& ) {
   }
   return 0;
}

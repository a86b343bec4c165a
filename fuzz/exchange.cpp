// The text parsers of the exchange's keys and entries: OrbEvpn::MacVniPair,
// VniVtepPair, Host and FloodEntry (each entry nests its key's form). Every
// input goes to every parser. Bad text must raise the framework's own
// exceptions and nothing else; text that parses must print back to a form
// that parses to the same value and prints the same again.
#include "fuzz/Check.h"
#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"
#include "orbevpn/exchange/MacVniPair.h"
#include "orbevpn/exchange/VniVtepPair.h"
#include "platform/mox/Exception.h"
#include "platform/mox/String.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace {

template< class T >
void parse( const Mox::String& text ) {
   std::optional< T > value;
   try {
      value.emplace( Mox::strepToValue< T >( text ) );
   } catch ( const Mox::Exception& ) {
      return;   // RangeException or ParseException: refused, as it should be
   }
   const Mox::String printed = OrbEvpn::valueToStrep( *value );
   std::optional< T > again;
   try {
      again.emplace( Mox::strepToValue< T >( printed ) );
   } catch ( const Mox::Exception& e ) {
      Fuzz::inconsistent( "printed form does not parse:", e.what() );
   }
   Fuzz::check( *again == *value, "printed form parses to another value:", printed.view() );
   Fuzz::check( OrbEvpn::valueToStrep( *again ) == printed, "printed form is not stable:",
                printed.view() );
   // The cursor constructor stops inside the text.
   auto it = text.begin();
   T prefix( it, text.end() );
   Fuzz::check( text.begin() < it && it <= text.end(), "the cursor left the text" );
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   const Mox::String text( std::string_view( reinterpret_cast< const char* >( data ), size ) );
   parse< OrbEvpn::MacVniPair >( text );
   parse< OrbEvpn::VniVtepPair >( text );
   parse< OrbEvpn::Host >( text );
   parse< OrbEvpn::FloodEntry >( text );
   return 0;
}

#include "platform/mox/Exception.h"
#include "platform/values/EthAddr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace {

using Wire::EthAddr;

static_assert( sizeof( EthAddr ) == 6 && alignof( EthAddr ) == 2 );
static_assert( std::is_trivially_copyable_v< EthAddr > );
// A shared-table key: MAC, 2 bytes of padding, 32-bit VNI at offset 8.
struct MacKey {
   EthAddr mac;
   uint32_t vni;
};
static_assert( sizeof( MacKey ) == 12 && offsetof( MacKey, vni ) == 8 );

TEST( EthAddr, TextIsLowercaseAndUppercaseParses ) {
   const EthAddr a( 0xde, 0xad, 0xBE, 0xef, 0x00, 0x0F );
   EXPECT_EQ( valueToStrep( a ).str(), "de:ad:be:ef:00:0f" );
   EXPECT_EQ( Mox::strepToValue< EthAddr >( "DE:AD:bE:Ef:00:0F" ), a );
   EXPECT_TRUE( EthAddr().isZero() );
   EXPECT_FALSE( EthAddr( 0, 0, 0, 0, 0, 1 ).isZero() );
}

TEST( EthAddr, BadTextIsARangeErrorNamingTheProblem ) {
   for ( const char* bad : { "00:1a:2b:3c:4d", "00:1a:2b:3c:4d:5", "00:1g:2b:3c:4d:5e",
                             "00:1a-2b:3c:4d:5e", "001a:2b:3c:4d:5e", "0:1a:2b:3c:4d:5e",
                             "00:1a:2b:3c:4d:5e0" } ) {
      EXPECT_THROW( Mox::strepToValue< EthAddr >( bad ), Mox::RangeException ) << bad;
   }
   EXPECT_THAT( [] { Mox::strepToValue< EthAddr >( "00:1a:2b:3c:4d:zz" ); },
                ::testing::ThrowsMessage< Mox::RangeException >(
                   ::testing::StrEq( "bad MAC address \"00:1a:2b:3c:4d:zz\": "
                                     "expected two hex digits for byte 6" ) ) );
   EXPECT_THROW( Mox::strepToValue< EthAddr >( "00:1a:2b:3c:4d:5e:6f" ), Mox::ParseException );
}

TEST( EthAddr, ConstructorsAgreeAndOrderIsLexicographicOnTheBytes ) {
   const uint8_t raw[] = { 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e };
   EXPECT_EQ( EthAddr( raw ), EthAddr( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e ) );
   EXPECT_EQ( EthAddr( raw ),
              EthAddr( uint16_t( 0x001a ), uint16_t( 0x2b3c ), uint16_t( 0x4d5e ) ) );
   // The first differing byte decides, whatever the later ones are.
   EXPECT_LT( EthAddr( 0x01, 0xff, 0xff, 0xff, 0xff, 0xff ), EthAddr( 0x02, 0, 0, 0, 0, 0 ) );
   EXPECT_LT( EthAddr( 0, 0, 0, 0, 0, 0xfe ), EthAddr( 0, 0, 0, 0, 0, 0xff ) );
   EXPECT_FALSE( EthAddr( raw ) < EthAddr( raw ) );
}

// From the published definition of FNV-1a, not from the library.
uint32_t referenceFnv1a( std::initializer_list< uint8_t > bytes ) {
   uint32_t h = 0x811c9dc5;
   for ( uint8_t b : bytes ) {
      h = ( h ^ b ) * 0x01000193;
   }
   return h;
}

TEST( EthAddr, HashIsFnv1aOverTheBytesInWireOrder ) {
   EXPECT_EQ( EthAddr().hash(), 0x7f77879du );
   for ( uint8_t b = 1; b < 250; b += 7 ) {
      EXPECT_EQ( EthAddr( b, 0, 1, 2, 3, 4 ).hash(), referenceFnv1a( { b, 0, 1, 2, 3, 4 } ) );
   }
}

}  // namespace

#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/Vni.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Vxlan::Vni;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

static_assert( sizeof( Vni ) == 4 && std::is_trivially_copyable_v< Vni > );

const auto outOfRange = ThrowsMessage< Mox::RangeException >(
   StrEq( "Vxlan::Vni::value < Vxlan::Vni::min or > Vxlan::Vni::max not allowed" ) );

TEST( Vni, RangeEndsAt24BitsWhicheverWayItIsBuilt ) {
   EXPECT_EQ( Vni( 16777215 ).value(), 16777215u );
   EXPECT_THAT( [] { Vni( 16777216 ); }, outOfRange );
   EXPECT_THAT( [] { Mox::strepToValue< Vni >( "16777216" ); }, outOfRange );
   // 2^64 + 5: must not wrap round to the valid VNI 5.
   EXPECT_THAT( [] { Mox::strepToValue< Vni >( "18446744073709551621" ); }, outOfRange );
   uint32_t arg = 0x1000000;
   const void* args[] = { &arg };
   Mox::GenericValue r;
   const Mox::Type& type = Mox::TypeImpl< Vni >::instance();
   EXPECT_THAT( [ & ] { type.genericIfConstructFromCtorArgs( r, args ); }, outOfRange );
}

TEST( Vni, TextWithoutDigitsIsARangeErrorAndTheCursorStays ) {
   for ( const char* bad : { "-1", " 1", "x1" } ) {
      const Mox::String s( bad );
      auto it = s.begin();
      EXPECT_THROW( Vni( it, s.end() ), Mox::RangeException ) << bad;
      EXPECT_EQ( it, s.begin() );
   }
   EXPECT_LT( Vni( 9 ), Vni( 10 ) );
}

}  // namespace

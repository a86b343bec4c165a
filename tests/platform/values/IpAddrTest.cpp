#include "platform/mox/Exception.h"
#include "platform/values/IpAddr.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Wire::IpAddr;

static_assert( sizeof( IpAddr ) == 4 && std::is_trivially_copyable_v< IpAddr > );

TEST( IpAddr, HeldInHostOrderAndReadAsFourOctets ) {
   EXPECT_EQ( IpAddr::fromOctets( 10, 0, 0, 1 ).value(), 0x0a000001u );
   EXPECT_EQ( Mox::strepToValue< IpAddr >( "255.0.255.1" ), IpAddr( 0xff00ff01 ) );
   for ( const char* bad : { "10.0.0", "10.0.0.", "10.0.0.256", "10..0.1", "10.0.0.0001",
                             "10,0,0,1", ".1.2.3" } ) {
      EXPECT_THROW( Mox::strepToValue< IpAddr >( bad ), Mox::RangeException ) << bad;
   }
   EXPECT_THROW( Mox::strepToValue< IpAddr >( "10.0.0.1.5" ), Mox::ParseException );
}

TEST( IpAddr, OrderIsNumericNotTextual ) {
   // As text "10.0.0.9" sorts after "10.0.0.10".
   EXPECT_LT( IpAddr::fromOctets( 10, 0, 0, 9 ), IpAddr::fromOctets( 10, 0, 0, 10 ) );
   EXPECT_LT( IpAddr::fromOctets( 9, 255, 255, 255 ), IpAddr::fromOctets( 10, 0, 0, 0 ) );
}

}  // namespace

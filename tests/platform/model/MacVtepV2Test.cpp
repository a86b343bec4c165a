// MacVtepV2: the default entry, equality on every field and the text form.
#include "platform/model/MacVtepV2.h"
#include "platform/mox/Type.h"

#include <gtest/gtest.h>

namespace {

using VxlanController::MacVtepV2;

const Wire::EthAddr mac( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e );
const Wire::IpAddr vtep = Wire::IpAddr::fromOctets( 10, 0, 0, 1 );

TEST( MacVtepV2, DefaultIsAllZeroWithPreference16 ) {
   EXPECT_EQ( MacVtepV2(), MacVtepV2( Wire::EthAddr(), Wire::IpAddr(), Keel::Seqno32(), 16 ) );
   EXPECT_NE( MacVtepV2(), MacVtepV2( Wire::EthAddr(), Wire::IpAddr(), Keel::Seqno32(), 0 ) );
   // The generic whole-value query answers "is this the default?".
   const Mox::Type* t = Mox::moxTypeByName( "VxlanController::MacVtepV2" );
   Mox::GenericValue r;
   MacVtepV2 v;
   t->genericIfAttributeOp( r, static_cast< void* >( &v ), 0, Mox::genericOpGet );
   EXPECT_TRUE( r.get< bool >() );
   v.seqNoIs( Keel::Seqno32( 1 ) );
   t->genericIfAttributeOp( r, static_cast< void* >( &v ), 0, Mox::genericOpGet );
   EXPECT_FALSE( r.get< bool >() );
}

TEST( MacVtepV2, EqualityComparesEachField ) {
   const MacVtepV2 base( mac, vtep, Keel::Seqno32( 7 ), 20 );
   const MacVtepV2 oneFieldOff[] = {
      { Wire::EthAddr( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5f ), vtep, Keel::Seqno32( 7 ), 20 },
      { mac, Wire::IpAddr::fromOctets( 10, 0, 0, 2 ), Keel::Seqno32( 7 ), 20 },
      { mac, vtep, Keel::Seqno32( 8 ), 20 },
      { mac, vtep, Keel::Seqno32( 7 ), 21 },
   };
   EXPECT_EQ( base, MacVtepV2( mac, vtep, Keel::Seqno32( 7 ), 20 ) );
   for ( const auto& other : oneFieldOff ) {
      EXPECT_FALSE( base == other ) << other;
   }
}

TEST( MacVtepV2, TextFormPrintsAndParsesBack ) {
   const MacVtepV2 v( mac, vtep, Keel::Seqno32( 4000000000u ), 255 );
   const std::string text = "Value('VxlanController::MacVtepV2', ** {'macAddr': 00:1a:2b:3c:4d:5e, "
                            "'vtepAddr': 10.0.0.1, 'seqNo': 4000000000, 'preference': 255})";
   EXPECT_EQ( VxlanController::valueToStrep( v ), Mox::String( text ) );
   EXPECT_EQ( fmt::format( "{}", v ), text );
   EXPECT_EQ( Mox::strepToValue< MacVtepV2 >( text ), v );

   // A bad field is reported under its name; trailing text is refused.
   const std::string bad = text.substr( 0, text.find( "255" ) ) + "256})";
   try {
      Mox::strepToValue< MacVtepV2 >( bad );
      ADD_FAILURE() << "preference 256 accepted";
   } catch ( const Mox::RangeException& e ) {
      EXPECT_EQ( e.attribute(), "preference" );
   }
   EXPECT_THROW( Mox::strepToValue< MacVtepV2 >( text + " " ), Mox::ParseException );
}

}  // namespace

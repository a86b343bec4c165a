// What every value type shares: its printers agree with its parser, and the
// generic interface hashes it and knows its default. Also the module
// registration and hashes that agree across processes.
#include "platform/mox/Exception.h"
#include "platform/mox/Type.h"
#include "platform/values/BridgeId.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// One non-default value of each type, with its exact text.
template< class T >
std::pair< T, std::string > sample();
template<> std::pair< Vxlan::Vni, std::string > sample() {
   return { Vxlan::Vni( 16777215 ), "16777215" };
}
template<> std::pair< Wire::EthAddr, std::string > sample() {
   return { Wire::EthAddr( 0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e ), "00:1a:2b:3c:4d:5e" };
}
template<> std::pair< Wire::IpAddr, std::string > sample() {
   return { Wire::IpAddr::fromOctets( 192, 168, 0, 255 ), "192.168.0.255" };
}
template<> std::pair< Keel::Seqno32, std::string > sample() {
   return { Keel::Seqno32( 4294967295u ), "4294967295" };
}
template<> std::pair< Bridging::BridgeId, std::string > sample() {
   return { Bridging::BridgeId( Vxlan::Vni( 100 ) ), "vni:100" };
}

template< class T >
class ValueTypeTest : public ::testing::Test {};
using ValueTypes = ::testing::Types< Vxlan::Vni, Wire::EthAddr, Wire::IpAddr, Keel::Seqno32,
                                     Bridging::BridgeId >;
TYPED_TEST_SUITE( ValueTypeTest, ValueTypes );

TYPED_TEST( ValueTypeTest, PrintersAgreeAndTheTextParsesBack ) {
   using T = TypeParam;
   const auto [ v, text ] = sample< T >();
   EXPECT_EQ( valueToStrep( v ).str(), text );
   EXPECT_EQ( fmt::format( "[{}]", v ), "[" + text + "]" );
   std::ostringstream os;
   os << v;
   EXPECT_EQ( os.str(), text );
   EXPECT_EQ( Mox::strepToValue< T >( Mox::String( text ) ), v );
   EXPECT_EQ( Mox::strepToValue< T >( valueToStrep( T() ) ), T() );

   // Nested in a larger text form, the cursor stops right after the value.
   const Mox::String s( text + ", next" );
   auto it = s.begin();
   EXPECT_EQ( T( it, s.end() ), v );
   EXPECT_EQ( std::string_view( it.ptr(), s.end() - it ), ", next" );
   EXPECT_THROW( Mox::strepToValue< T >( s ), Mox::ParseException );
   EXPECT_THROW( Mox::strepToValue< T >( Mox::String( "" ) ), Mox::RangeException );
}

TYPED_TEST( ValueTypeTest, GenericInterfaceHashesAndKnowsTheDefault ) {
   using T = TypeParam;
   const Mox::Type& type = Mox::TypeImpl< T >::instance();
   T v = sample< T >().first, zero;
   EXPECT_EQ( type.genericIfHash( &v ), v.hash() );
   EXPECT_EQ( std::hash< T >()( v ), v.hash() );
   Mox::GenericValue r;
   ASSERT_EQ( type.genericIfAttributeOp( r, &zero, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_TRUE( r.get< bool >() );
   ASSERT_EQ( type.genericIfAttributeOp( r, &v, 0, Mox::genericOpGet ), Mox::genericDone );
   EXPECT_FALSE( r.get< bool >() );
   EXPECT_EQ( type.genericIfAttributeOp( r, &v, 2, Mox::genericOpSet, &zero ),
              Mox::genericNotAllowed );
}

TEST( ValuesModule, RegistersAllFiveTypesByName ) {
   const Mox::Module* m = Mox::moxModule( "Values" );
   ASSERT_NE( m, nullptr );
   EXPECT_EQ( m->types().size(), 5u );
   for ( const char* name : { "Vxlan::Vni", "Wire::EthAddr", "Wire::IpAddr", "Keel::Seqno32",
                              "Bridging::BridgeId" } ) {
      const Mox::Type* t = Mox::moxTypeByName( name );
      ASSERT_NE( t, nullptr ) << name;
      EXPECT_EQ( t->module(), m ) << name;
      EXPECT_EQ( t->attributes().at( 0 ).id, 2u ) << name;
   }
   EXPECT_EQ( Mox::moxTypeByName( "Wire::EthAddr" )->attributeId( "word2" ), 4u );
   EXPECT_EQ( Mox::moxTypeByName( "Bridging::BridgeId" )->attributeId( "brType" ), 3u );
}

TEST( Seqno32, ParsesExactly32Bits ) {
   EXPECT_THROW( Mox::strepToValue< Keel::Seqno32 >( "4294967296" ), Mox::RangeException );
   EXPECT_LT( Keel::Seqno32( 1 ), Keel::Seqno32( 0x80000000 ) );
}

// A shared table is hashed by one process and probed by another, so a hash
// may depend on nothing but the value. Expected numbers: FNV-1a, by hand.
TEST( ValuesHash, PinnedAndTheSameInAForkedChild ) {
   auto hashes = [] {
      return std::vector< uint32_t >{
         Vxlan::Vni( 100 ).hash(), sample< Wire::EthAddr >().first.hash(),
         Wire::IpAddr::fromOctets( 10, 0, 0, 1 ).hash(), Keel::Seqno32( 7 ).hash(),
         Bridging::BridgeId( Vxlan::Vni( 100 ) ).hash() };
   };
   const std::vector< uint32_t > expected = { 0x67962129, 0x013759ab, 0x6c506a2c, 0x4495ea10,
                                              0xc7ee3a8b };
   EXPECT_EQ( hashes(), expected );

   int fds[ 2 ];
   ASSERT_EQ( pipe( fds ), 0 );
   const size_t bytes = expected.size() * sizeof( uint32_t );
   const pid_t pid = fork();
   ASSERT_GE( pid, 0 );
   if ( pid == 0 ) {
      _exit( write( fds[ 1 ], hashes().data(), bytes ) == ssize_t( bytes ) ? 0 : 1 );
   }
   close( fds[ 1 ] );
   std::vector< uint32_t > fromChild( expected.size() );
   EXPECT_EQ( read( fds[ 0 ], fromChild.data(), bytes ), ssize_t( bytes ) );
   close( fds[ 0 ] );
   int status = 0;
   ASSERT_EQ( waitpid( pid, &status, 0 ), pid );
   EXPECT_EQ( status, 0 );
   EXPECT_EQ( fromChild, expected );
}

}  // namespace

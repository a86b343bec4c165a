// The control server against clients that misbehave: one that never reads
// its reply, one that never ends its line, one whose line has no end. The
// loop runs on its own thread, as in the agent; the clients are this test.
#include "tools/agent/Control.h"
#include "tools/agent/EventLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Agent;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class ControlServerTest : public ::testing::Test {
 protected:
   void SetUp() override {
      char tmpl[] = "/tmp/agent-control-XXXXXX";
      ASSERT_NE( ::mkdtemp( tmpl ), nullptr );
      dir_ = tmpl;
      path_ = dir_ + "/ctl";
      ASSERT_EQ( ::pipe( stopPipe_ ), 0 );
   }
   void TearDown() override {
      if ( thread_.joinable() ) {
         stopLoop();
      }
      server_.reset();
      ::close( stopPipe_[ 0 ] );
      ::close( stopPipe_[ 1 ] );
      ::rmdir( dir_.c_str() );
   }

   // "big" answers with `bigBytes` bytes, anything else with "ok <line>".
   void start( ControlLimits limits, size_t bigBytes ) {
      server_ = std::make_unique< ControlServer >(
         loop_, path_,
         [ bigBytes ]( const std::string& line ) {
            return line == "big" ? std::string( bigBytes, 'b' ) : "ok " + line + "\n";
         },
         limits );
      loop_.add( stopPipe_[ 0 ], [ this ]( uint32_t ) { loop_.stop(); } );
      thread_ = std::thread( [ this ] { loop_.run(); } );
   }
   // Stops the loop and waits for it: the server's state may be read after.
   void stopLoop() {
      ASSERT_EQ( ::write( stopPipe_[ 1 ], "x", 1 ), 1 );
      thread_.join();
   }

   int connectClient() {
      const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::snprintf( addr.sun_path, sizeof addr.sun_path, "%s", path_.c_str() );
      EXPECT_EQ( ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ), 0 );
      // A server that blocks fails the test instead of hanging it.
      timeval tv{ 20, 0 };
      ::setsockopt( fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv );
      return fd;
   }
   static void send( int fd, const std::string& s ) {
      ASSERT_EQ( ::send( fd, s.data(), s.size(), MSG_NOSIGNAL ), ssize_t( s.size() ) );
   }
   // Everything until the server closes (or the receive timeout).
   static std::string readAll( int fd ) {
      std::string out;
      char buf[ 65536 ];
      for ( ssize_t n; ( n = ::read( fd, buf, sizeof buf ) ) > 0; ) out.append( buf, size_t( n ) );
      return out;
   }
   std::string ask( const std::string& line ) {
      const int fd = connectClient();
      send( fd, line + "\n" );
      std::string r = readAll( fd );
      ::close( fd );
      return r;
   }

   std::string dir_, path_;
   int stopPipe_[ 2 ] = { -1, -1 };
   EventLoop loop_;
   std::unique_ptr< ControlServer > server_;
   std::thread thread_;
};

}  // namespace

// The socket is owner-only when it appears; a client that never reads a
// reply far larger than the socket's buffer holds up no one, and is dropped
// once it has taken nothing for the stall time.
TEST_F( ControlServerTest, AClientThatNeverReadsHoldsUpNoOneAndIsDropped ) {
   start( { 4096, size_t( 1 ) << 30, 300, 64 }, 32 << 20 );
   struct stat st{};
   ASSERT_EQ( ::stat( path_.c_str(), &st ), 0 );
   EXPECT_EQ( st.st_mode & 0777, 0600u );

   ::testing::internal::CaptureStderr();
   const int sleeper = connectClient();
   send( sleeper, "big\n" );
   const int halfLine = connectClient();
   send( halfLine, "stat" );
   for ( int i = 0; i < 20; ++i ) EXPECT_EQ( ask( "status " + std::to_string( i ) ), "ok status " + std::to_string( i ) + "\n" );

   // Both stalled clients are let go: each sees its connection end.
   EXPECT_EQ( readAll( halfLine ), "" );
   char buf[ 65536 ];
   size_t got = 0;
   for ( ssize_t n; ( n = ::read( sleeper, buf, sizeof buf ) ) > 0; ) got += size_t( n );
   EXPECT_LT( got, size_t( 32 << 20 ) ) << "the stalled reply was sent whole";
   ::close( sleeper );
   ::close( halfLine );
   stopLoop();
   const std::string err = ::testing::internal::GetCapturedStderr();
   EXPECT_EQ( server_->dropped(), 2u );
   EXPECT_EQ( server_->clients(), 0u );
   EXPECT_THAT( err, HasSubstr( "control client #1: took no byte of its reply in " ) );
   EXPECT_THAT( err, HasSubstr( "of 33554432 bytes taken); dropped\n" ) );
   EXPECT_THAT( err, HasSubstr( "control client #2: no whole command line in " ) );
   EXPECT_THAT( err, HasSubstr( "(4 bytes of it came); dropped\n" ) );
}

// A line with no end within the limit is refused as soon as the limit is
// passed, without waiting for more; a reply over its bound is refused.
TEST_F( ControlServerTest, OverlongLinesAndRepliesAreRefusedWithWhy ) {
   start( { 64, 1000, 10000, 2 }, 1001 );
   ::testing::internal::CaptureStderr();
   int fd = connectClient();
   send( fd, std::string( 200, 's' ) );
   EXPECT_EQ( readAll( fd ), "error: command line longer than 64 bytes (no newline by byte 64)\n" );
   ::close( fd );
   EXPECT_EQ( ask( std::string( 64, 'l' ) ), "ok " + std::string( 64, 'l' ) + "\n" ) << "exactly the limit";
   EXPECT_EQ( ask( "big" ), "error: the reply of 1001 bytes is over the limit of 1000 bytes\n" );

   // Two clients at most: a third is closed at once, then served once one leaves.
   const int a = connectClient(), b = connectClient();
   fd = connectClient();
   EXPECT_EQ( readAll( fd ), "" );
   ::close( fd );
   ::close( a );
   ::close( b );
   std::string r;
   for ( int i = 0; i < 100 && r.empty(); ++i ) r = ask( "again" );
   EXPECT_EQ( r, "ok again\n" );
   stopLoop();
   const std::string err = ::testing::internal::GetCapturedStderr();
   EXPECT_THAT( err, HasSubstr( "control client #1: command line longer than 64 bytes (no newline by byte 64); refused\n" ) );
   EXPECT_THAT( err, HasSubstr( "control client #3: reply of 1001 bytes is over the limit of 1000; refused\n" ) );
   EXPECT_THAT( err, HasSubstr( "control client #6: 2 clients are connected already; closed\n" ) );
}

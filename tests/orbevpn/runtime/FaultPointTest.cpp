// Fault points: the one the environment names stops the process with
// SIGKILL after its line; any other, or none named, does nothing.
#include "orbevpn/runtime/FaultPoint.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

TEST( FaultPoint, StopsOnlyAtThePointNamed ) {
#ifndef ORBEVPN_FAULT_HOOKS
   GTEST_SKIP() << "built without ORBEVPN_FAULT_HOOKS: fault points compile to nothing";
#else
   bool described = false;
   auto detail = [ &described ] {
      described = true;
      return std::string( "VNI 7" );
   };
   ::unsetenv( "ORBEVPN_FAULT_STOP" );
   OrbEvpn::faultPoint( "sweep", detail );
   ::setenv( "ORBEVPN_FAULT_STOP", "elsewhere", 1 );
   OrbEvpn::faultPoint( "sweep", detail );
   EXPECT_FALSE( described );   // no cost beyond the name test when not stopping

   ::setenv( "ORBEVPN_FAULT_STOP", "sweep", 1 );
   EXPECT_EXIT( OrbEvpn::faultPoint( "sweep", detail ), ::testing::KilledBySignal( SIGKILL ),
                "fault point sweep reached \\(VNI 7\\): stopping" );
   ::unsetenv( "ORBEVPN_FAULT_STOP" );
#endif
}

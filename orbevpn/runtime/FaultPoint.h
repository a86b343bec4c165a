// Fault points: places where a fault-injection run may stop the process on
// purpose, to prove that the next start repairs what was left half done.
//
// Compiled in only when the build defines ORBEVPN_FAULT_HOOKS (the CMake
// option of that name; on by default in Debug builds with tests, off in
// release builds). The point named by the environment variable
// ORBEVPN_FAULT_STOP stops the process with SIGKILL, after one line on
// stderr: "fault point <name> reached (<detail>): stopping". Elsewhere,
// and in builds without the hooks, faultPoint() does nothing.
//
// Threading: any thread; reads the environment on each call that reaches
// a point (points sit on rare paths).
#pragma once

#ifdef ORBEVPN_FAULT_HOOKS
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#endif

namespace OrbEvpn {

template< class Detail >
inline void faultPoint( const char* name, Detail&& detail ) {
#ifdef ORBEVPN_FAULT_HOOKS
   const char* stop = std::getenv( "ORBEVPN_FAULT_STOP" );
   if ( stop && std::strcmp( stop, name ) == 0 ) {
      std::fprintf( stderr, "fault point %s reached (%s): stopping\n", name, detail().c_str() );
      std::raise( SIGKILL );
   }
#else
   (void)name;
   (void)detail;
#endif
}

}  // namespace OrbEvpn

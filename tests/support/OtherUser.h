// OtherUser: runs part of a test as another local user, in a forked child
// that switches its groups, group and user before running the body. The
// tests run as root; a test that needs this calls skipReason() first and
// skips with it when switching is impossible (not root, no CAP_SETUID).
//
//    if ( auto why = OtherUser::skipReason(); !why.empty() ) GTEST_SKIP() << why;
//    int rc = OtherUser::nobody().run( [] { ...; return 0; } );
//
// The child leaves with _exit (see LumenRoot), its exit code is run()'s
// result, 128 + signal when it was killed, and 97 when the switch failed. A
// child that must run alongside the test (started with the test's own fork
// helper) calls become() first.
// gtest assertions do not cross the fork: the body reports by exit code.
//
// A LumenRoot is a private 0700 folder; shareRoot() opens it to every user
// the way /dev/shm is (sticky, world-writable), so that the other user can
// plant files in it or create tables of their own.
#pragma once

#include "tests/support/ChildProcess.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <grp.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

class OtherUser {
 public:
   static constexpr uid_t nobodyUid = 65534;
   static constexpr gid_t nogroupGid = 65534;
   static constexpr int switchFailed = 97;

   // The unprivileged user; `groups` are its supplementary groups.
   static OtherUser nobody( std::vector< gid_t > groups = {} ) {
      return OtherUser( nobodyUid, nogroupGid, std::move( groups ) );
   }

   OtherUser( uid_t uid, gid_t gid, std::vector< gid_t > groups )
      : uid_( uid ), gid_( gid ), groups_( std::move( groups ) ) {}

   static std::string skipReason() {
      if ( ::geteuid() != 0 ) {
         return "needs root, to play another user with setuid() in a child";
      }
      if ( nobody().run( [] { return 0; } ) != 0 ) {
         return "this process may not switch to uid 65534";
      }
      return {};
   }

   // Becomes this user, for good: only in a forked child. False if refused.
   bool become() const {
      return ::setgroups( groups_.size(), groups_.data() ) == 0 && ::setgid( gid_ ) == 0 &&
             ::setuid( uid_ ) == 0;
   }

   // Runs `body` as this user in a forked child and waits for it.
   int run( const std::function< int () >& body ) const {
      return waitChild( startChild( [ & ] { return become() ? body() : switchFailed; } ) );
   }

   uid_t uid() const { return uid_; }

   // Opens a test's root folder to every user, like /dev/shm.
   static void shareRoot( const std::string& dir ) {
      ASSERT_EQ( ::chmod( dir.c_str(), 01777 ), 0 ) << dir;
   }

 private:
   uid_t uid_;
   gid_t gid_;
   std::vector< gid_t > groups_;
};

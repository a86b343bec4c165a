// LumenRoot: a private shared-memory folder for one test.
//
// RAII: the constructor makes a fresh folder under /dev/shm (mkdtemp) and
// makes it the Lumen root, so tables of concurrent test processes never
// meet; the destructor removes the folder with everything in it and puts
// the previous root back. Tables opened while it lives must be gone before
// it is destroyed (declare it first).
//
//    class MyTest : public ::testing::Test {
//       LumenRoot root;   // first member
//    };
//
// A forked child inherits the root; it must leave with _exit so that it does
// not remove the folder under its parent.
//
// Threading: construct and destroy on the test's main thread.
#pragma once

#include "platform/lumen/Options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

class LumenRoot {
 public:
   LumenRoot() : previous_( Lumen::root() ) {
      std::string tmpl = "/dev/shm/orbevpn-test-XXXXXX";
      if ( ::mkdtemp( tmpl.data() ) == nullptr ) {
         ADD_FAILURE() << "mkdtemp under /dev/shm failed";
         return;
      }
      dir_ = tmpl;
      Lumen::rootIs( dir_ );
   }
   ~LumenRoot() {
      Lumen::rootIs( previous_ );
      if ( !dir_.empty() ) {
         std::error_code ec;
         std::filesystem::remove_all( dir_, ec );
      }
   }
   LumenRoot( const LumenRoot& ) = delete;
   LumenRoot& operator=( const LumenRoot& ) = delete;

   const std::string& dir() const { return dir_; }
   // A file of the root folder by its flattened name ("lumen.hosts@1").
   std::string file( const std::string& name ) const { return dir_ + "/" + name; }

 private:
   std::string previous_;
   std::string dir_;
};

// Runs the lumen program as a child with deadlines: a hanging tool fails the test, never hangs it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace LumenToolTest {

struct Finished {
   int code = -1;   // exit code, 128 + signal, or -1 when killed at the deadline
   std::string out, err;
};

// A running child with stdout and stderr on pipes.
class ToolProcess {
 public:
   explicit ToolProcess( const std::vector< std::string >& args ) {
      int out[ 2 ], err[ 2 ];
      EXPECT_EQ( ::pipe2( out, O_CLOEXEC ), 0 );
      EXPECT_EQ( ::pipe2( err, O_CLOEXEC ), 0 );
      pid_ = ::fork();
      if ( pid_ == 0 ) {
         ::dup2( out[ 1 ], 1 );
         ::dup2( err[ 1 ], 2 );
         std::vector< char* > argv;
         for ( const auto& a : args ) argv.push_back( const_cast< char* >( a.c_str() ) );
         argv.push_back( nullptr );
         ::execv( argv[ 0 ], argv.data() );
         ::_exit( 127 );
      }
      ::close( out[ 1 ] );
      ::close( err[ 1 ] );
      out_ = out[ 0 ];
      err_ = err[ 0 ];
   }
   ~ToolProcess() {
      if ( pid_ > 0 ) {
         ::kill( pid_, SIGKILL );
         ::waitpid( pid_, nullptr, 0 );
      }
      ::close( out_ );
      ::close( err_ );
   }
   ToolProcess( const ToolProcess& ) = delete;
   ToolProcess& operator=( const ToolProcess& ) = delete;

   // The next line of stdout (without its newline); empty with `ok` false
   // when none came within `ms`.
   std::string line( int ms, bool* ok = nullptr ) {
      auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds( ms );
      for ( ;; ) {
         size_t nl = pending_.find( '\n' );
         if ( nl != std::string::npos ) {
            std::string l = pending_.substr( 0, nl );
            pending_.erase( 0, nl + 1 );
            if ( ok ) *ok = true;
            return l;
         }
         int left = int( std::chrono::duration_cast< std::chrono::milliseconds >(
                            deadline - std::chrono::steady_clock::now() ).count() );
         if ( left <= 0 || !readSome( out_, pending_, left ) ) {
            if ( ok ) *ok = false;
            return {};
         }
      }
   }

   // Sends `sig` (none: 0) and waits up to `ms` for the end; kills it after.
   Finished finish( int ms, int sig = 0 ) {
      if ( sig != 0 ) ::kill( pid_, sig );
      Finished f;
      f.out = pending_;
      pending_.clear();
      auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds( ms );
      bool outOpen = true, errOpen = true;
      while ( outOpen || errOpen ) {
         int left = int( std::chrono::duration_cast< std::chrono::milliseconds >(
                            deadline - std::chrono::steady_clock::now() ).count() );
         if ( left <= 0 ) break;
         struct pollfd fds[ 2 ] = { { outOpen ? out_ : -1, POLLIN, 0 }, { errOpen ? err_ : -1, POLLIN, 0 } };
         if ( ::poll( fds, 2, left ) <= 0 ) continue;
         if ( fds[ 0 ].revents ) outOpen = readSome( out_, f.out, 0 );
         if ( fds[ 1 ].revents ) errOpen = readSome( err_, f.err, 0 );
      }
      int status = 0;
      for ( ;; ) {
         pid_t done = ::waitpid( pid_, &status, WNOHANG );
         if ( done == pid_ ) {
            f.code = WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
            break;
         }
         if ( std::chrono::steady_clock::now() >= deadline ) {
            ADD_FAILURE() << "lumen did not end in time; killed";
            ::kill( pid_, SIGKILL );
            ::waitpid( pid_, nullptr, 0 );
            break;
         }
         ::usleep( 2000 );
      }
      pid_ = -1;
      return f;
   }

 private:
   // Appends what is readable within `ms`; false at end of file.
   static bool readSome( int fd, std::string& to, int ms ) {
      struct pollfd p = { fd, POLLIN, 0 };
      if ( ::poll( &p, 1, ms ) <= 0 ) return true;
      char buf[ 4096 ];
      ssize_t n = ::read( fd, buf, sizeof( buf ) );
      if ( n <= 0 ) return false;
      to.append( buf, size_t( n ) );
      return true;
   }

   pid_t pid_ = -1;
   int out_ = -1, err_ = -1;
   std::string pending_;
};

// Runs lumen to its end (at most 20 s).
inline Finished runTool( const std::vector< std::string >& args ) {
   ToolProcess p( args );
   return p.finish( 20000 );
}

}  // namespace LumenToolTest

// Forked children, a pipe to signal them by, and bounded waits on an fd.
//
// startChild() runs `body` in a forked child, which leaves with _exit (see
// LumenRoot) and the body's result, or 98 when it throws; waitChild() gives
// that exit code, or 128 + the signal that killed the child. gtest
// assertions do not cross the fork: a child reports by exit code.
#pragma once

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>

inline pid_t startChild( const std::function< int () >& body ) {
   pid_t pid = ::fork();
   if ( pid == 0 ) {
      try {
         ::_exit( body() );
      } catch ( ... ) {
         ::_exit( 98 );
      }
   }
   return pid;
}

inline int waitChild( pid_t pid ) {
   int status = 0;
   ::waitpid( pid, &status, 0 );
   return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

inline bool readable( int fd, int timeoutMs ) {
   pollfd p{ fd, POLLIN, 0 };
   return ::poll( &p, 1, timeoutMs ) == 1;
}

// A one-way signal to or from forked children; wait() gives up after 30 s.
struct Pipe {
   int fds[ 2 ];
   Pipe() { EXPECT_EQ( ::pipe( fds ), 0 ); }
   ~Pipe() { ::close( fds[ 0 ] ), ::close( fds[ 1 ] ); }
   Pipe( const Pipe& ) = delete;
   Pipe& operator=( const Pipe& ) = delete;
   void signal() { EXPECT_EQ( ::write( fds[ 1 ], "x", 1 ), 1 ); }
   bool wait() {
      char c;
      return readable( fds[ 0 ], 30000 ) && ::read( fds[ 0 ], &c, 1 ) == 1;
   }
};

// Polls `done` every millisecond for up to `ms`.
template< class Done >
bool waitFor( Done done, int ms = 5000 ) {
   for ( int i = 0; i < ms && !done(); ++i ) {
      ::usleep( 1000 );
   }
   return done();
}

// Polls the fd() of a reader (a Lumen reader or a table of the reader role)
// and dispatches until `done`, at most ms / 10 times.
template< class T, class Done >
bool dispatchUntil( T& reader, Done done, int ms = 5000 ) {
   for ( int waited = 0; !done() && waited < ms; waited += 10 ) {
      readable( reader.fd(), 10 );
      reader.dispatch();
   }
   return done();
}

// Running, not merely unreaped: a zombie, which an orphan stays until
// whoever adopted it reaps it, counts as gone.
inline bool isRunning( pid_t pid ) {
   std::ifstream in( "/proc/" + std::to_string( pid ) + "/stat" );
   std::string text;
   std::getline( in, text );
   auto close = text.rfind( ')' );
   return close != std::string::npos && close + 2 < text.size() && text[ close + 2 ] != 'Z';
}

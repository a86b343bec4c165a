// The agent's one event loop: epoll over file descriptors, each with its
// handler, plus "work" callbacks that run between rounds while they report
// that more is left (input read from a regular file, the demo's batches),
// so that no source starves the others.
//
// Threading: every handler and work callback runs on the thread that
// called run(). Not re-entrant.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace Agent {

class EventLoop {
 public:
   using Handler = std::function< void( uint32_t events ) >;
   // Runs one slice of work; returns true while work is left.
   using Work = std::function< bool() >;

   EventLoop();
   ~EventLoop();
   EventLoop( const EventLoop& ) = delete;
   EventLoop& operator=( const EventLoop& ) = delete;

   void add( int fd, Handler h, uint32_t events = 0x001 /* EPOLLIN */ );
   void remove( int fd );
   // Changes what an added fd is waited for (EPOLLIN, EPOLLOUT, ...).
   void eventsIs( int fd, uint32_t events );
   // `w` runs between rounds until it returns false (then it is dropped).
   void workIs( Work w );
   void run();    // until stop()
   void stop() { stopped_ = true; }
   bool stopped() const { return stopped_; }

   // A periodic timer fd (CLOCK_MONOTONIC); the handler must call drainTimer.
   static int periodicTimer( uint32_t periodMs );
   static void drainTimer( int fd );
   // A one-shot timer fd, disarmed; armOnce(fd, ms) sets it off once.
   static int oneShotTimer();
   static void armOnce( int fd, uint32_t ms );

 private:
   int epoll_ = -1;
   bool stopped_ = false;
   std::map< int, Handler > handlers_;
   std::vector< Work > work_;
};

}  // namespace Agent

#include "tools/agent/EventLoop.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace Agent {

namespace {
[[noreturn]] void fail( const char* what ) {
   throw std::runtime_error( fmt::format( "{}: {}", what, std::strerror( errno ) ) );
}
}  // namespace

EventLoop::EventLoop() : epoll_( ::epoll_create1( EPOLL_CLOEXEC ) ) {
   if ( epoll_ < 0 ) {
      fail( "epoll_create1" );
   }
}

EventLoop::~EventLoop() { ::close( epoll_ ); }

void EventLoop::add( int fd, Handler h, uint32_t events ) {
   epoll_event ev{};
   ev.events = events;
   ev.data.fd = fd;
   if ( ::epoll_ctl( epoll_, EPOLL_CTL_ADD, fd, &ev ) != 0 ) {
      fail( "epoll_ctl add" );
   }
   handlers_[ fd ] = std::move( h );
}

void EventLoop::remove( int fd ) {
   ::epoll_ctl( epoll_, EPOLL_CTL_DEL, fd, nullptr );
   handlers_.erase( fd );
}

void EventLoop::eventsIs( int fd, uint32_t events ) {
   epoll_event ev{};
   ev.events = events;
   ev.data.fd = fd;
   if ( ::epoll_ctl( epoll_, EPOLL_CTL_MOD, fd, &ev ) != 0 ) {
      fail( "epoll_ctl mod" );
   }
}

void EventLoop::workIs( Work w ) { work_.push_back( std::move( w ) ); }

void EventLoop::run() {
   epoll_event events[ 64 ];
   while ( !stopped_ ) {
      const int n = ::epoll_wait( epoll_, events, 64, work_.empty() ? -1 : 0 );
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         fail( "epoll_wait" );
      }
      for ( int i = 0; i < n && !stopped_; ++i ) {
         auto it = handlers_.find( events[ i ].data.fd );
         if ( it != handlers_.end() ) {
            Handler h = it->second;   // a handler may remove itself
            h( events[ i ].events );
         }
      }
      // Work added while a slice runs waits for the next round.
      std::vector< Work > work;
      work.swap( work_ );
      for ( auto& w : work ) {
         if ( !stopped_ && w() ) {
            work_.push_back( std::move( w ) );
         }
      }
   }
}

int EventLoop::periodicTimer( uint32_t periodMs ) {
   int fd = ::timerfd_create( CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC );
   if ( fd < 0 ) {
      fail( "timerfd_create" );
   }
   itimerspec period{};
   period.it_interval.tv_sec = periodMs / 1000;
   period.it_interval.tv_nsec = long( periodMs % 1000 ) * 1000000L;
   period.it_value = period.it_interval;
   if ( ::timerfd_settime( fd, 0, &period, nullptr ) != 0 ) {
      fail( "timerfd_settime" );
   }
   return fd;
}

int EventLoop::oneShotTimer() {
   int fd = ::timerfd_create( CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC );
   if ( fd < 0 ) {
      fail( "timerfd_create" );
   }
   return fd;
}

void EventLoop::armOnce( int fd, uint32_t ms ) {
   itimerspec period{};
   period.it_value.tv_sec = ms / 1000;
   period.it_value.tv_nsec = long( ms % 1000 ) * 1000000L;
   if ( period.it_value.tv_sec == 0 && period.it_value.tv_nsec == 0 ) {
      period.it_value.tv_nsec = 1;   // zero would disarm it
   }
   if ( ::timerfd_settime( fd, 0, &period, nullptr ) != 0 ) {
      fail( "timerfd_settime" );
   }
}

void EventLoop::drainTimer( int fd ) {
   uint64_t expirations;
   while ( ::read( fd, &expirations, sizeof expirations ) == sizeof expirations ) {
   }
}

}  // namespace Agent

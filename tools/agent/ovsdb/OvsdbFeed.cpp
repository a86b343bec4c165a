#include "tools/agent/ovsdb/OvsdbFeed.h"

#include <fmt/format.h>

#include <sys/timerfd.h>
#include <unistd.h>

namespace Agent::Ovsdb {

OvsdbFeed::OvsdbFeed( EventLoop& loop, std::string address, double graceSeconds, Hooks hooks )
      : loop_( loop ),
        address_( std::move( address ) ),
        grace_( graceSeconds ),
        hooks_( std::move( hooks ) ),
        mapping_( hooks_.emit, hooks_.report, hooks_.mirrorSeqNo ) {
   graceTimer_ = EventLoop::oneShotTimer();
   loop_.add( graceTimer_, [ this ]( uint32_t ) {
      EventLoop::drainTimer( graceTimer_ );
      if ( !up() && enabled_ ) {
         enabled_ = false;
         hooks_.log( fmt::format( "{}: no session for {} s: the controller database is disabled", address_, grace_ ) );
         hooks_.emit( feedEvent( Event::Op::controllerdb, 0, Mac{}, 0, 0, false ) );
      }
   } );
}

OvsdbFeed::~OvsdbFeed() {
   client_.reset();
   loop_.remove( graceTimer_ );
   ::close( graceTimer_ );
}

void OvsdbFeed::start() {
   client_ = std::make_unique< OvsdbClient >(
      loop_, address_,
      OvsdbClient::Callbacks{ [ this ]( const Json& u, bool snapshot ) { onRows( u, snapshot ); },
                              [ this ] { onUp(); }, [ this ] { onDown(); }, hooks_.log } );
}

void OvsdbFeed::onRows( const Json& updates, bool snapshot ) {
   try {
      mapping_.apply( updates, snapshot );
   } catch ( const std::exception& e ) {
      hooks_.log( fmt::format( "{}: an update the feed cannot read: {}", address_, e.what() ) );
   }
}

void OvsdbFeed::onUp() {
   // Disarm: a session is back before the grace ran out.
   itimerspec none{};
   ::timerfd_settime( graceTimer_, 0, &none, nullptr );
   EventLoop::drainTimer( graceTimer_ );
   if ( !enabled_ ) {
      enabled_ = true;
      hooks_.emit( feedEvent( Event::Op::controllerdb, 0, Mac{}, 0, 0, true ) );
   }
   if ( !synced_ ) {
      synced_ = true;
      hooks_.emit( feedEvent( Event::Op::synced ) );
      if ( hooks_.snapshotDone ) {
         hooks_.snapshotDone();
      }
   }
}

void OvsdbFeed::onDown() {
   EventLoop::armOnce( graceTimer_, uint32_t( grace_ * 1000 ) );
}

}  // namespace Agent::Ovsdb

// The wake-up path under damage, crashes and many readers.
#include "tests/platform/lumen/LumenTestSupport.h"

#include <gtest/gtest.h>
#include <grp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <random>
#include <set>

using namespace LumenTest;
namespace li = Lumen::internal;

namespace {

// Dispatches only once fd() is readable, so an unwoken reader fails here.
template< class Done >
bool wokenUntil( Lumen::Reader< HostRec >& reader, Done done ) {
   for ( int n = 0; n < 100 && !done(); ++n ) {
      if ( !readable( reader.fd(), 3000 ) ) {
         break;
      }
      reader.dispatch();
   }
   return done();
}

// Readers of one table, each noting the keys it was told of.
struct WokenReaders {
   std::vector< std::unique_ptr< Lumen::Reader< HostRec > > > readers;
   std::vector< std::set< uint32_t > > seen;
   WokenReaders( const std::string& path, size_t n ) : seen( n ) {
      for ( size_t r = 0; r < n; ++r ) {
         readers.push_back( std::make_unique< Lumen::Reader< HostRec > >( path ) );
         readers[ r ]->onKeyIs( [ this, r ]( const MacKey& k ) { seen[ r ].insert( k.number() ); } );
         readers[ r ]->dispatch();
      }
   }
   void allSee( const std::vector< uint32_t >& keys ) {
      for ( size_t r = 0; r < readers.size(); ++r ) {
         EXPECT_TRUE( wokenUntil( *readers[ r ], [ & ] {
            return std::all_of( keys.begin(), keys.end(), [ & ]( uint32_t n ) { return seen[ r ].count( n ) > 0; } );
         } ) ) << "reader " << r << " was not woken for every change";
      }
   }
};

// A pid that no process has: a child's, once reaped.
uint32_t deadPid() {
   pid_t child = startChild( [] { return 0; } );
   waitChild( child );
   return uint32_t( child );
}

std::set< std::string > filesIn( const std::string& dir ) {
   std::set< std::string > names;
   for ( const auto& e : std::filesystem::directory_iterator( dir ) ) {
      names.insert( e.path().filename() );
   }
   return names;
}

bool anyFileOfPid( const std::string& dir, pid_t pid ) {
   std::string prefix = fmt::format( "@reader.{}.", pid );
   for ( const auto& name : filesIn( dir ) ) {
      if ( name.rfind( prefix, 0 ) == 0 ) {
         return true;
      }
   }
   return false;
}

size_t openFds() {
   return size_t( std::distance( std::filesystem::directory_iterator( "/proc/self/fd" ),
                                 std::filesystem::directory_iterator() ) );
}

}  // namespace

// Damage landing while three readers are registered and idle: later changes
// must still wake them (their status thread repairs or re-registers).
TEST( LumenWake, DamageToTheWakeSegmentOrFeedHeadDoesNotSilenceMappedReaders ) {
   enum Damage { zeroedPage, armedBitsCleared, pidOfADeadProcess, pidOfALiveProcess, headZeroed,
                 headMovedBack };
   for ( Damage damage : { zeroedPage, armedBitsCleared, pidOfADeadProcess, pidOfALiveProcess,
                           headZeroed, headMovedBack } ) {
      SCOPED_TRACE( damage );
      LumenRoot root;
      Lumen::Writer< HostRec > writer;
      writer.attach( "/lumen/damage" );
      fill( writer, 20, 1 );
      WokenReaders readers( "/lumen/damage", 3 );
      writer.write( HostRec::of( 100, 1 ) );
      readers.allSee( { 100 } );

      WakeMap wake( root.file( "lumen.damage@wake" ) );
      ASSERT_EQ( wake.registrationsOf( ::getpid() ), 3u );
      std::vector< uint32_t > after = { 101 };
      switch ( damage ) {
       case zeroedPage:
         std::memset( static_cast< void* >( wake.header ), 0, 4096 );
         break;
       case armedBitsCleared:
         for ( auto& word : wake.header->armed ) {
            word = 0;
         }
         break;
       case pidOfADeadProcess:
       case pidOfALiveProcess: {
         uint32_t other = damage == pidOfADeadProcess ? deadPid() : 1;
         for ( uint32_t i = 0; i < li::wakeReaderSlots; ++i ) {
            if ( wake.slots()[ i ].pid == uint32_t( ::getpid() ) ) {
               wake.slots()[ i ].pid = other;
            }
         }
         break;
       }
       case headZeroed:
       case headMovedBack:
         editFile( root.file( "lumen.damage" ), [ & ]( uint8_t* bytes, size_t ) {
            auto& head = *reinterpret_cast< std::atomic< uint64_t >* >(
               bytes + offsetof( li::ControlHeader, feedHead ) );
            head = damage == headZeroed ? 0 : head - 10;
         } );
         // The changes below must not be taken for ones already passed.
         after = { 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, 113 };
         break;
      }
      for ( uint32_t n : after ) {
         writer.write( HostRec::of( n, 1 ) );
      }
      readers.allSee( after );
      writer.write( HostRec::of( 200, 1 ) );
      readers.allSee( { 200 } );
      EXPECT_EQ( wake.registrationsOf( ::getpid() ), 3u );
      EXPECT_TRUE( li::wakeHeaderValid( *wake.header ) );
   }
}

// A reader of another user started before the table creates nothing, and
// registers in the wake segment (the writer's, mode 0660) once it appears.
TEST( LumenWake, AReaderOfAnotherUserBeforeTheWriterCreatesNothingAndRegisters ) {
   LumenRoot root;
   ASSERT_EQ( ::chmod( root.dir().c_str(), 01777 ), 0 );
   Pipe ready;
   pid_t child = startChild( [ & ] {
      // Nobody, also in the table owner's group: a supported reader.
      gid_t groups[] = { 0 };
      if ( ::setgroups( 1, groups ) != 0 || ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
         return 3;
      }
      Lumen::Reader< HostRec > reader( "/lumen/early" );
      uint32_t seen = 0;
      reader.onKeyIs( [ & ]( const MacKey& k ) { seen = std::max( seen, k.number() ); } );
      reader.dispatch();
      ready.signal();
      while ( seen < 50 ) {
         if ( !readable( reader.fd(), 20000 ) ) {
            return 1;
         }
         reader.dispatch();
      }
      return 0;
   } );
   ASSERT_TRUE( ready.wait() );
   ::usleep( 300000 );   // a few periods of the reader's thread
   EXPECT_EQ( filesIn( root.dir() ), std::set< std::string >{} ) << "the reader created files";

   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/early" );
   struct stat st {};
   ASSERT_EQ( ::lstat( root.file( "lumen.early@wake" ).c_str(), &st ), 0 );
   EXPECT_EQ( st.st_uid, ::geteuid() );
   EXPECT_EQ( st.st_mode & 07777, 0660u );
   WakeMap wake( root.file( "lumen.early@wake" ) );
   for ( int i = 0; i < 500 && wake.registrationsOf( child ) == 0; ++i ) {
      writer.write( HostRec::of( 1, 1 ) );   // pokes or forwards: the reader dispatches
      ::usleep( 10000 );
   }
   EXPECT_EQ( wake.registrationsOf( child ), 1u ) << "the reader never registered";
   for ( uint32_t n = 2; n <= 50; ++n ) {
      writer.write( HostRec::of( n, 1 ) );
   }
   EXPECT_EQ( waitChild( child ), 0 ) << "1: not woken; 3: could not change user";
}

// A reader killed poked-but-undispatched leaves a registration, socket file
// and writer descriptor; one killed asleep on the fallback leaves a sleeper
// count. The writer's next sweep, or the next reader, clears them.
TEST( LumenWake, WhatKilledReadersLeaveBehindIsCleared ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/dead" );
   WakeMap wake( root.file( "lumen.dead@wake" ) );
   Pipe ready;
   pid_t child = startChild( [ & ] {
      Lumen::Reader< HostRec > reader( "/lumen/dead" );
      reader.dispatch();
      ready.signal();
      while ( ::pause() != 0 ) {   // poked, never dispatches
      }
      return 0;
   } );
   ASSERT_TRUE( ready.wait() ) << "the reader died before registering";
   ASSERT_EQ( wake.registrationsOf( child ), 1u );
   ASSERT_TRUE( anyFileOfPid( root.dir(), child ) );
   size_t fdsBefore = openFds();
   writer.write( HostRec::of( 1, 1 ) );   // the poke connects the writer to it
   EXPECT_EQ( openFds(), fdsBefore + 1 );
   ::kill( child, SIGKILL );
   EXPECT_EQ( waitChild( child ), 128 + SIGKILL );
   for ( uint32_t n = 0; n < 150; ++n ) {   // 1.5 s of changes
      writer.write( HostRec::of( n, n ) );
      ::usleep( 10000 );
   }
   EXPECT_EQ( wake.registrationsOf( child ), 0u );
   EXPECT_FALSE( anyFileOfPid( root.dir(), child ) );
   EXPECT_EQ( openFds(), fdsBefore );

   // Fallback: every registration held by a live process (this one).
   for ( uint32_t i = 0; i < li::wakeReaderSlots; ++i ) {
      wake.slots()[ i ].pid = uint32_t( ::getpid() );
   }
   child = startChild( [] {
      Lumen::Reader< HostRec > reader( "/lumen/dead" );
      for ( ;; ) {
         readable( reader.fd(), 1000 );
         reader.dispatch();
      }
      return 0;
   } );
   auto sleeping = [ & ]( pid_t pid ) {
      return std::any_of( std::begin( wake.header->sleeperPids ), std::end( wake.header->sleeperPids ),
                          [ & ]( auto& e ) { return e.load() == uint32_t( pid ); } );
   };
   ASSERT_TRUE( waitFor( [ & ] { return sleeping( child ); } ) ) << "the reader never fell back to its thread";
   EXPECT_EQ( wake.header->sleepers.load(), 1u );
   ::kill( child, SIGKILL );
   EXPECT_EQ( waitChild( child ), 128 + SIGKILL );
   EXPECT_FALSE( anyFileOfPid( root.dir(), child ) ) << "a fallback reader's socket was left behind";
   {
      // The next reader, also on the fallback path, takes the dead one off.
      Lumen::Reader< HostRec > reader( "/lumen/dead" );
      waitFor( [ & ] { return !sleeping( child ) && wake.header->sleepers.load() <= 1; } );
      EXPECT_FALSE( sleeping( child ) );
      EXPECT_LE( wake.header->sleepers.load(), 1u );
   }
   EXPECT_EQ( wake.header->sleepers.load(), 0u );
}

// 150 readers all register (none on the futex), and a poked reader that has
// not dispatched costs the writer nothing more: one datagram, whatever follows.
TEST( LumenWake, ManyIdleReadersRegisterAndArePokedOncePerDispatch ) {
   LumenRoot root;
   Lumen::Writer< HostRec > writer;
   writer.attach( "/lumen/many" );
   std::vector< std::unique_ptr< Lumen::Reader< HostRec > > > readers;
   for ( int r = 0; r < 150; ++r ) {
      readers.push_back( std::make_unique< Lumen::Reader< HostRec > >( "/lumen/many" ) );
      readers.back()->dispatch();
   }
   WakeMap wake( root.file( "lumen.many@wake" ) );
   EXPECT_EQ( wake.registrationsOf( ::getpid() ), 150u );
   uint32_t seq = wake.header->seq.load();
   for ( uint32_t n = 0; n < 1000; ++n ) {
      writer.write( HostRec::of( n % 10, n ) );
   }
   EXPECT_EQ( wake.header->seq.load(), seq ) << "futex wakes with no sleeper";
   EXPECT_EQ( wake.header->sleepers.load(), 0u );
   for ( auto& reader : readers ) {
      char buf[ 16 ];
      EXPECT_EQ( ::recv( reader->fd(), buf, sizeof( buf ), MSG_DONTWAIT ), 1 );
      EXPECT_LT( ::recv( reader->fd(), buf, sizeof( buf ), MSG_DONTWAIT ), 0 ) << "poked twice";
   }
}

// Pokes the writer defers to its flusher (the last of a burst, one just
// before it goes away) must still wake every reader.
TEST( LumenWake, ChangesWhosePokesAreDeferredStillWakeEveryReader ) {
   LumenRoot root;
   auto writer = std::make_unique< Lumen::Writer< HostRec > >();
   writer->attach( "/lumen/deferred" );
   WokenReaders readers( "/lumen/deferred", 40 );
   auto allWokenFor = [ & ]( uint32_t n ) { readers.allSee( { n } ); };
   for ( uint32_t round = 0; round < 20; ++round ) {
      // The second change falls within the hold-off of the first's pokes.
      writer->write( HostRec::of( 2 * round, 1 ) );
      allWokenFor( 2 * round );
      writer->write( HostRec::of( 2 * round + 1, 1 ) );
      allWokenFor( 2 * round + 1 );
   }
   writer->write( HostRec::of( 100, 1 ) );
   allWokenFor( 100 );
   writer->write( HostRec::of( 101, 1 ) );
   writer.reset();   // owes the scan for 101
   allWokenFor( 101 );
}

// A reader made before or while its writer creates the table, its fd() added
// once to an epoll set: every change reaches it, never a dispatch owed with
// fd() quiet.
TEST( LumenWake, AReaderBornBeforeItsWriterIsWokenForEveryChange ) {
   std::mt19937 rng( 11 );
   for ( int round = 0; round < 60; ++round ) {
      LumenRoot root;
      Pipe go;
      uint32_t startUs = round % 2 == 0 ? rng() % 4000 : 0;
      pid_t child = startChild( [ & ] {
         Lumen::Writer< HostRec > writer;
         if ( startUs == 0 ) {
            go.wait();   // the reader is made while attach() runs
         } else {
            ::usleep( startUs );
         }
         writer.attach( "/lumen/late" );
         for ( uint32_t n = 0; n < 20; ++n ) {
            writer.write( HostRec::of( n, n ) );
            ::usleep( 500 );
         }
         ::pause();
         return 0;
      } );
      if ( startUs == 0 ) {
         go.signal();
      }
      Lumen::Reader< HostRec > reader( "/lumen/late" );
      reader.onKeyIs( []( const MacKey& ) {} );
      int ep = ::epoll_create1( EPOLL_CLOEXEC );
      epoll_event ev{};
      ev.events = EPOLLIN;
      ASSERT_EQ( ::epoll_ctl( ep, EPOLL_CTL_ADD, reader.fd(), &ev ), 0 );
      bool quiet = false;
      while ( reader.count() < 20 ) {
         if ( ::epoll_wait( ep, &ev, 1, 2000 ) != 1 ) {
            quiet = true;
            break;
         }
         reader.dispatch();
      }
      ::close( ep );
      bool owed = reader.dispatchPending();
      ::kill( child, SIGKILL );
      waitChild( child );
      ASSERT_FALSE( quiet ) << "round " << round << " (writer after " << startUs
                            << " us): fd() stayed quiet with " << reader.count()
                            << " of 20 delivered, dispatch owed: " << owed;
   }
}

// The reader's notifier: its wake-up socket, its registration in the wake
// segment, and the thread that notices what the writer cannot announce.
#include "platform/lumen/internal/Files.h"
#include "platform/lumen/internal/Wake.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace Lumen::internal {

namespace {

constexpr mode_t socketMode = 0600;   // only our own user's writer may poke
constexpr mode_t groupSocketMode = 0660;   // and a writer of the table's group

std::atomic< uint32_t > nextSocketNonce{ 1 };

}  // namespace

Notifier::Notifier( const std::string& root, const std::string& path, uint64_t seenHead,
                    MountStatus seenStatus, FileIdentity followed )
   : wakeName_( wakeFileName( root, path ) ), controlName_( controlFileName( root, path ) ),
     root_( root ),
     followed_( followed ), lastHead_( seenHead ), lastStatus_( seenStatus ) {
   openSockets();
   if ( openWake() && !socketName_.empty() ) {
      claimSlot();
   }
   thread_ = std::thread( [ this ] { run(); } );
}

Notifier::~Notifier() {
   stopThread();
   releaseSlot();
   closeControlFd();
   ::close( sendFd_ );
   ::close( recvFd_ );
   if ( !socketName_.empty() ) {
      ::unlink( socketName_.c_str() );
   }
}

void Notifier::stopThread() {
   {
      std::lock_guard lock( mutex_ );
      stop_ = true;
   }
   cv_.notify_all();
   if ( wake_ && !slot_ ) {
      // Changing the word makes a futex wait that is about to start return.
      wakeHeader( wake_ ).seq.fetch_add( 1, std::memory_order_seq_cst );
      futexWakeAll( &wakeHeader( wake_ ).seq );
   }
   thread_.join();
}

void Notifier::releaseSlot() {
   if ( slot_ ) {
      disarm( wakeHeader( wake_ ), *slot_ );
      slot_->pid.store( 0, std::memory_order_release );
      slot_ = nullptr;
   }
}

void Notifier::reopen() {
   stopThread();
   releaseSlot();
   wake_ = {};
   control_ = {};
   closeControlFd();
   followed_ = {};
   lastHead_ = 0;
   lastStatus_ = MountStatus::unmounted;
   {
      std::lock_guard lock( mutex_ );
      stop_ = false;
      dispatched_ = false;
   }
   if ( openWake() && !socketName_.empty() ) {
      claimSlot();
   }
   thread_ = std::thread( [ this ] { run(); } );
}

// Whether the table the reader follows went away under it: only worth a
// stat() while no writer is at work.
bool Notifier::replacedWhileNotMounted( MountStatus status ) const {
   return status != MountStatus::mounted && followed_.inode != 0 &&
          fileReplaced( controlName_, followed_ );
}

void Notifier::openSockets() {
   nonce_ = nextSocketNonce.fetch_add( 1, std::memory_order_relaxed );
   std::string name = readerSocketName( root_, uint32_t( ::getpid() ), nonce_ );
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   if ( name.size() < sizeof( addr.sun_path ) ) {
      std::memcpy( addr.sun_path, name.c_str(), name.size() + 1 );
      recvFd_ = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      ::unlink( name.c_str() );   // a leftover of a dead process with our pid
      if ( recvFd_ >= 0 && ::bind( recvFd_, reinterpret_cast< sockaddr* >( &addr ),
                                   sizeof( addr ) ) == 0 &&
           ::chmod( name.c_str(), socketMode ) == 0 ) {
         sendFd_ = connectTo( name );
      }
      if ( sendFd_ >= 0 ) {
         socketName_ = name;
         return;
      }
      if ( recvFd_ >= 0 ) {
         ::close( recvFd_ );
         ::unlink( name.c_str() );
      }
   }
   // Unnamed: the writer cannot reach it, the fallback thread feeds it.
   int pair[ 2 ];
   if ( ::socketpair( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair ) != 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create a wake-up socket: {}", errnoText() );
   }
   recvFd_ = pair[ 0 ];
   sendFd_ = pair[ 1 ];
}

// The writer pokes us through our socket, so it must be allowed to connect:
// as our own user, or as a member of the table's group (the wake file's),
// to which the socket is then opened. Failing that, it stays our user's,
// and only a writer of our own user (or root) can wake us.
void Notifier::shareSocketWithWriter() {
   struct stat st {};
   if ( ::stat( wakeName_.c_str(), &st ) != 0 || st.st_uid == ::geteuid() ) {
      return;
   }
   // Never through a link someone put in the socket's place.
   if ( ::fchownat( AT_FDCWD, socketName_.c_str(), uid_t( -1 ), st.st_gid, AT_SYMLINK_NOFOLLOW ) ==
        0 ) {
      ::fchmodat( AT_FDCWD, socketName_.c_str(), groupSocketMode, AT_SYMLINK_NOFOLLOW );
   }
}

void Notifier::claimSlot() {
   shareSocketWithWriter();
   uint32_t me = uint32_t( ::getpid() );
   WakeHeader& w = wakeHeader( wake_ );
   for ( uint32_t i = 0; i < wakeReaderSlots && !slot_; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      uint32_t owner = slot.pid.load( std::memory_order_acquire );
      if ( owner != 0 && processAlive( owner ) ) {
         continue;
      }
      uint32_t oldNonce = slot.nonce.load( std::memory_order_relaxed );
      if ( !slot.pid.compare_exchange_strong( owner, me, std::memory_order_acq_rel ) ) {
         continue;
      }
      if ( owner != 0 ) {
         ::unlink( readerSocketName( root_, owner, oldNonce ).c_str() );
      }
      // The dead owner may have left its flag set (and counted).
      disarm( w, slot );
      slot.nonce.store( nonce_, std::memory_order_release );
      uint32_t used = w.slotsUsed.load( std::memory_order_relaxed );
      while ( used < i + 1 &&
              !w.slotsUsed.compare_exchange_weak( used, i + 1, std::memory_order_acq_rel ) ) {
      }
      slot_ = &slot;
   }
}

void Notifier::drain() {
   char buf[ 64 ];
   while ( ::recv( recvFd_, buf, sizeof( buf ), MSG_DONTWAIT ) >= 0 ) {
   }
}

bool Notifier::arm() {
   if ( !slot_ || slot_->armed.load( std::memory_order_relaxed ) == 1 ) {
      // Still armed: no change since we last armed and re-checked, and the
      // next one pokes us.
      return false;
   }
   WakeHeader& w = wakeHeader( wake_ );
   // Counted before the flag is set, so the count never drops below the flags
   // a writer can see.
   w.armedCount.fetch_add( 1, std::memory_order_seq_cst );
   slot_->armed.store( 1, std::memory_order_seq_cst );
   if ( w.writerFenceFree.load( std::memory_order_seq_cst ) ) {
      readerBarrier();   // the writer's half is in Control::wake()
   }
   return true;
}

void Notifier::poke() {
   [[maybe_unused]] bool sent = sendPoke( sendFd_ );
}

void Notifier::dispatched() {
   if ( slot_ ) {
      return;
   }
   {
      std::lock_guard lock( mutex_ );
      dispatched_ = true;
   }
   cv_.notify_all();
}

bool Notifier::openWake() {
   if ( !wake_ ) {
      wake_ = openWakeWord( wakeName_ );
   }
   return bool( wake_ );
}

void Notifier::closeControlFd() {
   if ( controlFd_ >= 0 ) {
      ::close( controlFd_ );
      controlFd_ = -1;
   }
}

bool Notifier::openControl() {
   if ( control_ ) {
      return true;
   }
   int fd = TableFile::open( controlName_, O_RDONLY, anyOwner ).release();
   if ( fd < 0 ) {
      return false;
   }
   if ( fileSize( fd ) < sizeof( ControlHeader ) ) {
      ::close( fd );
      return false;
   }
   FileIdentity identity = identityOf( fd );
   if ( followed_.inode != 0 && ( identity.device != followed_.device ||
                                  identity.inode != followed_.inode ) ) {
      ::close( fd );   // not the reader's table: watched for replacement only
      return false;
   }
   followed_ = identity;
   int probe = ::fcntl( fd, F_DUPFD_CLOEXEC, 0 );   // tests the writer lock
   try {   // on the reader's thread, which must not throw
      Mapping m = mapClosing( fd, sizeof( ControlHeader ), false );
      if ( reinterpret_cast< const ControlHeader* >( m.data() )->magic == controlMagic ) {
         control_ = std::move( m );
         std::swap( probe, controlFd_ );
      }
   } catch ( const Mox::Exception& ) {
   }
   if ( probe >= 0 ) {
      ::close( probe );
   }
   return bool( control_ );
}

void Notifier::run() {
   for ( ;; ) {
      {
         std::lock_guard lock( mutex_ );
         if ( stop_ ) {
            return;
         }
      }
      openControl();
      if ( slot_ ) {
         watchStatus();
      } else {
         openWake();
         forwardChanges();
      }
   }
}

// Registered: the writer pokes us for every change it makes, attach and
// detach included; only its death goes unannounced.
void Notifier::watchStatus() {
   MountStatus status = control_ ? statusOf( *reinterpret_cast< const ControlHeader* >( control_.data() ), controlFd_ )
                                 : MountStatus::waitingForWriter;
   if ( ( control_ && status != lastStatus_ ) || replacedWhileNotMounted( status ) ) {
      lastStatus_ = status;
      poke();   // a replaced table: dispatch() reopens, which restarts us
   }
   std::unique_lock lock( mutex_ );
   cv_.wait_for( lock, std::chrono::milliseconds( statusPollMs ), [ this ] { return stop_; } );
}

void Notifier::forwardChanges() {
   auto changed = [ this ] {
      if ( !control_ ) {
         return replacedWhileNotMounted( MountStatus::waitingForWriter );
      }
      const auto& h = *reinterpret_cast< const ControlHeader* >( control_.data() );
      uint64_t head = h.feedHead.load( std::memory_order_acquire );
      MountStatus status = statusOf( h, controlFd_ );
      if ( head == lastHead_ && status == lastStatus_ && !replacedWhileNotMounted( status ) ) {
         return false;
      }
      lastHead_ = head;
      lastStatus_ = status;
      return true;
   };
   auto signalAndWait = [ this ] {
      poke();
      std::unique_lock lock( mutex_ );
      cv_.wait( lock, [ this ] { return stop_ || dispatched_; } );
      dispatched_ = false;
   };
   if ( changed() ) {
      signalAndWait();
      return;
   }
   if ( !wake_ ) {
      std::unique_lock lock( mutex_ );
      cv_.wait_for( lock, std::chrono::milliseconds( 20 ), [ this ] { return stop_; } );
      return;
   }
   WakeHeader& w = wakeHeader( wake_ );
   w.sleepers.fetch_add( 1, std::memory_order_seq_cst );
   if ( w.writerFenceFree.load( std::memory_order_seq_cst ) ) {
      readerBarrier();   // the writer's half is in Control::wake()
   }
   uint32_t seen = w.seq.load( std::memory_order_seq_cst );
   bool moved = changed();
   if ( !moved ) {
      futexWait( &w.seq, seen, statusPollMs );
   }
   w.sleepers.fetch_sub( 1, std::memory_order_seq_cst );
   if ( moved ) {
      signalAndWait();
   }
}

}  // namespace Lumen::internal

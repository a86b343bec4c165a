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
#include <poll.h>
#include <unistd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace Lumen::internal {

namespace {

// Only the writer's user may poke a socket of the same user; a reader of
// another user (one of the table's group) lets the group write to it.
constexpr mode_t socketMode = 0600;
constexpr mode_t groupSocketMode = 0620;
// How often a reader that could not register tries again.
constexpr auto registrationRetry = std::chrono::seconds( 1 );

std::atomic< uint32_t > nextSocketNonce{ 1 };

bool readableNow( int fd ) {
   pollfd p{ fd, POLLIN, 0 };
   return ::poll( &p, 1, 0 ) == 1;
}

}  // namespace

Notifier::Notifier( const std::string& root, const std::string& path, uint64_t seenHead,
                    MountStatus seenStatus, FileIdentity followed )
   : wakeName_( wakeFileName( root, path ) ), controlName_( controlFileName( root, path ) ),
     root_( root ), followed_( followed ), threadFollowed_( followed ), lastHead_( seenHead ),
     lastStatus_( seenStatus ) {
   nonce_ = nextSocketNonce.fetch_add( 1, std::memory_order_relaxed );
   // Unnamed until the reader registers: a reader creates no file in the
   // root before the table's writer has created the table's.
   int pair[ 2 ];
   if ( ::socketpair( AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair ) != 0 ) {
      MOX_THROW( Mox::Exception, "Lumen cannot create a wake-up socket: {}", errnoText() );
   }
   recvFd_ = pair[ 0 ];
   sendFd_ = pair[ 1 ];
   maintain( true );
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

void Notifier::startThread() {
   {
      std::lock_guard lock( mutex_ );
      stop_ = false;
      dispatched_ = false;
   }
   askedToRegister_ = false;
   pokeLost_ = false;
   thread_ = std::thread( [ this ] { run(); } );
}

void Notifier::stopThread() {
   if ( !thread_.joinable() ) {
      return;
   }
   {
      std::lock_guard lock( mutex_ );
      stop_ = true;
   }
   cv_.notify_all();
   if ( wake_ && slot_ < 0 ) {
      // Changing the word makes a futex wait that is about to start return.
      wakeHeader( wake_ ).seq.fetch_add( 1, std::memory_order_seq_cst );
      futexWakeAll( &wakeHeader( wake_ ).seq );
   }
   thread_.join();
}

void Notifier::releaseSlot() {
   if ( slot_ < 0 ) {
      return;
   }
   WakeHeader& w = wakeHeader( wake_ );
   armedWord( w, uint32_t( slot_ ) ).fetch_and( ~armedBit( uint32_t( slot_ ) ),
                                                std::memory_order_acq_rel );
   uint32_t me = uint32_t( ::getpid() );
   readerSlot( wake_, uint32_t( slot_ ) ).pid.compare_exchange_strong( me, 0 );
   armed_.store( false, std::memory_order_relaxed );
   slot_ = -1;
}

void Notifier::reopen() {
   stopThread();
   releaseSlot();
   wake_ = {};
   control_ = {};
   closeControlFd();
   followed_ = {};
   threadFollowed_ = {};
   lastHead_ = 0;
   lastStatus_ = MountStatus::unmounted;
   maintain( true );
}

// Whether the table the reader follows went away under it: only worth a
// stat() while no writer is at work.
bool Notifier::replacedWhileNotMounted( MountStatus status ) const {
   return status != MountStatus::mounted && threadFollowed_.inode != 0 &&
          fileReplaced( controlName_, threadFollowed_ );
}

// On the caller's thread: checks the registration when the thread asked for
// it (or now and then while unregistered) and registers again as needed.
void Notifier::maintain( bool force ) {
   bool due = needsMaintenance_.exchange( false, std::memory_order_acq_rel ) ||
              ( slot_ < 0 && !unbindable_ && std::chrono::steady_clock::now() >= retryAt_ );
   if ( !force && !due ) {
      return;
   }
   stopThread();
   if ( wake_ && !wakeStillUsable() ) {
      releaseSlot();
      wake_ = {};
   }
   if ( slot_ >= 0 && !ownSlotIntact() ) {
      slot_ = -1;   // taken by a live process: not ours to clear
      armed_.store( false, std::memory_order_relaxed );
   }
   if ( !wake_ ) {
      openWake();
   }
   if ( wake_ && slot_ < 0 && !unbindable_ ) {
      claimSlot();
   }
   if ( slot_ < 0 ) {
      retryAt_ = std::chrono::steady_clock::now() + registrationRetry;
      wakeWasMissing_ = !wake_ && ::access( wakeName_.c_str(), F_OK ) != 0;
   }
   startThread();
}

bool Notifier::wakeStillUsable() {
   return restoreWakeHeader( wakeHeader( wake_ ) ) && !fileReplaced( wakeName_, wakeIdentity_ );
}

// Our registration as we left it; one freed or damaged meanwhile is taken
// back unless a live process holds it.
bool Notifier::ownSlotIntact() {
   ReaderSlot& slot = readerSlot( wake_, uint32_t( slot_ ) );
   uint32_t me = uint32_t( ::getpid() );
   uint32_t pid = slot.pid.load( std::memory_order_acquire );
   if ( pid != me && ( ( pid != 0 && processAlive( pid ) ) ||
                       !slot.pid.compare_exchange_strong( pid, me ) ) ) {
      return false;
   }
   slot.nonce.store( nonce_, std::memory_order_release );
   return true;
}

void Notifier::openWake() {
   // The wake file is the writer's: only one owned by the control file's
   // owner, for the control file this reader follows, is joined.
   int fd = ::open( controlName_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC );
   if ( fd < 0 ) {
      return;
   }
   struct stat st {};
   bool ok = ::fstat( fd, &st ) == 0 && S_ISREG( st.st_mode );
   ::close( fd );
   FileIdentity control{ uint64_t( st.st_dev ), uint64_t( st.st_ino ) };
   if ( !ok || ( followed_.inode != 0 && ( followed_.device != control.device ||
                                          followed_.inode != control.inode ) ) ) {
      return;
   }
   followed_ = control;
   wake_ = openWakeForReader( wakeName_, st.st_uid, &wakeIdentity_ );
}

void Notifier::claimSlot() {
   uint32_t me = uint32_t( ::getpid() );
   // Every registration is looked at: the dead ones are freed on the way,
   // their sockets removed.
   for ( uint32_t i = 0; i < wakeReaderSlots; ++i ) {
      ReaderSlot& slot = readerSlot( wake_, i );
      reclaimIfDead( wake_, root_, i );
      uint32_t free = 0;
      if ( slot_ < 0 && slot.pid.compare_exchange_strong( free, me, std::memory_order_acq_rel ) ) {
         slot.nonce.store( nonce_, std::memory_order_release );
         slot_ = int32_t( i );
      }
   }
   if ( slot_ >= 0 && !bindSocket() ) {
      releaseSlot();
   }
}

// Binds fd() under its name, once: a new socket bound and put in place of
// the unnamed one, under the same descriptor numbers (the caller may poll
// fd()). A poke sent to the unnamed one meanwhile is lost; arm() returns
// true after this, so the caller looks for changes itself.
// The socket fd() has returned from the start is the one named here: a
// socket swapped in under the same descriptor number would drop out of the
// epoll set of a caller that had added fd() to one. It leaves the pair it
// was made in (a connected datagram socket takes datagrams from its peer
// only), and the pair's other end goes on sending our own pokes to it.
bool Notifier::bindSocket() {
   if ( !socketName_.empty() ) {
      return true;
   }
   std::string name = readerSocketName( root_, uint32_t( ::getpid() ), nonce_ );
   sockaddr_un addr {};
   addr.sun_family = AF_UNIX;
   if ( name.size() >= sizeof( addr.sun_path ) ) {
      unbindable_ = true;
      return false;
   }
   std::memcpy( addr.sun_path, name.c_str(), name.size() + 1 );
   ::unlink( name.c_str() );   // a leftover of a dead process with our pid
   // Leaving the pair drops what is queued (and flags the other end): a
   // queued poke is sent again once named.
   bool queued = readableNow( recvFd_ );
   sockaddr unspec {};
   unspec.sa_family = AF_UNSPEC;
   if ( ::connect( recvFd_, &unspec, sizeof( unspec ) ) != 0 ||
        ::bind( recvFd_, reinterpret_cast< sockaddr* >( &addr ), sizeof( addr ) ) != 0 ) {
      return false;
   }
   int error = 0;
   socklen_t length = sizeof( error );
   ::getsockopt( sendFd_, SOL_SOCKET, SO_ERROR, &error, &length );
   if ( queued ) {
      poke();
   }
   struct stat st {};
   // The writer is the wake file's owner; when that is not us, the file's
   // group (ours, for a supported reader) lets it write to the socket.
   bool sameUser = ::stat( wakeName_.c_str(), &st ) == 0 && st.st_uid == ::geteuid();
   bool ok = sameUser ? ::chmod( name.c_str(), socketMode ) == 0
                      : ::lchown( name.c_str(), uid_t( -1 ), st.st_gid ) == 0 &&
                           ::chmod( name.c_str(), groupSocketMode ) == 0;
   if ( !ok ) {
      // The socket keeps the name (a socket is bound once), which nobody
      // may now write to: wait on the wake word instead, for good.
      ::unlink( name.c_str() );
      unbindable_ = true;
      return false;
   }
   socketName_ = name;
   return true;
}

void Notifier::drain() {
   armed_.store( false, std::memory_order_relaxed );
   char buf[ 64 ];
   while ( ::recv( recvFd_, buf, sizeof( buf ), MSG_DONTWAIT ) >= 0 ) {
   }
}

bool Notifier::arm() {
   maintain( false );
   if ( slot_ < 0 ) {
      return false;
   }
   WakeHeader& w = wakeHeader( wake_ );
   auto& word = armedWord( w, uint32_t( slot_ ) );
   uint64_t bit = armedBit( uint32_t( slot_ ) );
   if ( word.load( std::memory_order_relaxed ) & bit ) {
      // Still armed: no change since we last armed and re-checked, and the
      // next one pokes us.
      armed_.store( true, std::memory_order_relaxed );
      return false;
   }
   word.fetch_or( bit, std::memory_order_seq_cst );
   armed_.store( true, std::memory_order_relaxed );
   return true;
}

bool Notifier::barrierAfterArm() {
   if ( slot_ < 0 || !wakeHeader( wake_ ).writerFenceFree.load( std::memory_order_seq_cst ) ) {
      return false;
   }
   readerBarrier();   // the writer's half is in Control::wake()
   return true;
}

void Notifier::poke() {
   [[maybe_unused]] bool sent = sendPoke( sendFd_ );
}

void Notifier::dispatched() {
   if ( slot_ >= 0 ) {
      return;
   }
   {
      std::lock_guard lock( mutex_ );
      dispatched_ = true;
   }
   cv_.notify_all();
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
   if ( threadFollowed_.inode != 0 && ( identity.device != threadFollowed_.device ||
                                        identity.inode != threadFollowed_.inode ) ) {
      ::close( fd );   // not the reader's table: watched for replacement only
      return false;
   }
   threadFollowed_ = identity;
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
      if ( slot_ >= 0 ) {
         watchRegistration();
      } else {
         forwardChanges();
      }
   }
}

// Registered: the writer pokes us for every change it makes, attach and
// detach included; only its death goes unannounced, and damage to the wake
// segment or the feed head, which this looks for.
void Notifier::watchRegistration() {
   const auto* h = control_ ? reinterpret_cast< const ControlHeader* >( control_.data() ) : nullptr;
   MountStatus status = h ? statusOf( *h, controlFd_ ) : MountStatus::waitingForWriter;
   bool wakeUp = ( h && status != lastStatus_ ) || replacedWhileNotMounted( status );
   if ( h && status != lastStatus_ ) {
      lastStatus_ = status;
   }
   if ( h ) {
      uint64_t head = h->feedHead.load( std::memory_order_acquire );
      if ( head < lastHead_ ) {
         rewound_.store( true, std::memory_order_release );
         wakeUp = true;
      }
      lastHead_ = head;
   }
   WakeHeader& w = wakeHeader( wake_ );
   const ReaderSlot& slot = readerSlot( wake_, uint32_t( slot_ ) );
   if ( !wakeHeaderValid( w ) || slot.pid.load( std::memory_order_relaxed ) != uint32_t( ::getpid() ) ||
        slot.nonce.load( std::memory_order_relaxed ) != nonce_ ||
        fileReplaced( wakeName_, wakeIdentity_ ) ) {
      needsMaintenance_.store( true, std::memory_order_release );
      wakeUp = true;
   } else {
      // Our bit is gone but no poke came: cleared by damage. Only when seen
      // twice in a row: the writer takes 64 bits at once and then pokes
      // their readers one by one. The dispatch re-arms.
      bool lost = armed_.load( std::memory_order_relaxed ) &&
                  !( armedWord( w, uint32_t( slot_ ) ).load( std::memory_order_acquire ) &
                     armedBit( uint32_t( slot_ ) ) ) &&
                  !readableNow( recvFd_ );
      wakeUp = wakeUp || ( lost && pokeLost_ );
      pokeLost_ = lost && !pokeLost_;
   }
   if ( wakeUp ) {
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
      if ( head < lastHead_ ) {
         rewound_.store( true, std::memory_order_release );
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
   auto askToRegister = [ this ] {
      // A wake segment to register in has appeared (the writer came): the
      // caller's next dispatch() registers.
      // Once per thread (the caller restarts it after each attempt): at
      // once when the file is new, else not before the caller's retry.
      if ( !askedToRegister_ && control_ && !unbindable_ &&
           ( wakeWasMissing_ || std::chrono::steady_clock::now() >= retryAt_ ) &&
           ::access( wakeName_.c_str(), F_OK ) == 0 ) {
         askedToRegister_ = true;
         needsMaintenance_.store( true, std::memory_order_release );
         poke();
      }
   };
   if ( changed() ) {
      signalAndWait();
      return;
   }
   if ( !wake_ ) {
      askToRegister();
      std::unique_lock lock( mutex_ );
      cv_.wait_for( lock, std::chrono::milliseconds( 20 ), [ this ] { return stop_; } );
      return;
   }
   WakeHeader& w = wakeHeader( wake_ );
   reapDeadSleepers( w );
   w.sleepers.fetch_add( 1, std::memory_order_seq_cst );
   // Our pid, where there is room, so that our count can be taken back if
   // we die asleep.
   std::atomic< uint32_t >* entry = nullptr;
   for ( auto& e : w.sleeperPids ) {
      uint32_t free = 0;
      if ( e.compare_exchange_strong( free, uint32_t( ::getpid() ) ) ) {
         entry = &e;
         break;
      }
   }
   if ( w.writerFenceFree.load( std::memory_order_seq_cst ) ) {
      readerBarrier();   // the writer's half is in Control::wake()
   }
   uint32_t seen = w.seq.load( std::memory_order_seq_cst );
   bool moved = changed();
   if ( !moved ) {
      futexWait( &w.seq, seen, statusPollMs );
   }
   // Each only if still ours: a reaper that thought us dead (a reused pid
   // is the only way) has already taken us off the count.
   uint32_t mine = uint32_t( ::getpid() );
   if ( !entry || entry->compare_exchange_strong( mine, 0 ) ) {
      dropSleeper( w );
   }
   if ( moved ) {
      signalAndWait();
   }
}

}  // namespace Lumen::internal

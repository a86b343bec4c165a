// Lumen internals: files, mappings and the non-template parts of the segment
// protocol (control segment, one generation's slot array, a reader's wake-up
// socket and registration). Used only by platform/lumen/Table.h.
//
// Threading: SlotArray and Control objects belong to one Writer or Reader and
// are used from its thread. Notifier is used from its Reader's thread and runs
// one low-rate thread of its own that touches only its own mappings and
// sockets.
#pragma once

#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/internal/Format.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sys/types.h>

namespace Lumen::internal {

template< class Record >
struct SlotOps;   // typed slot access, platform/lumen/internal/SlotOps.h

struct RecordLayout {
   uint32_t recordSize = 0;
   uint32_t recordAlign = 0;
   uint32_t keySize = 0;
   std::string typeName;

   uint32_t recordOffset() const { return recordAlign > 4 ? recordAlign : 4; }
   uint32_t slotSize() const;
   uint32_t feedEntrySize() const { return ( feedKeyOffset + keySize + 7 ) & ~7u; }
   uint64_t signature() const;
};

// Calls the handler (if any) with the message, then throws
// Fable::CorruptionDetectedException with it.
[[noreturn]] void raiseCorruption( const CorruptionHandler& handler, std::string message );

// How a writer makes and keeps a table's files: Options' modes, checked, and
// the group resolved (the option, else the writer's effective group).
struct FileAccess {
   mode_t tableMode = 0640;   // control and data files
   mode_t wakeMode = 0660;    // the wake file: readers register in it
   gid_t group = 0;
   static FileAccess of( const Options& options );   // throws on a mode it refuses
};

// Where table `path`'s files live under `root`. Each throws, with one
// message for writer and reader alike, for a path that is malformed or
// whose file names would not fit the file system.
std::string controlFileName( const std::string& root, const std::string& path );
std::string dataFileName( const std::string& root, const std::string& path, uint64_t generation );
std::string wakeFileName( const std::string& root, const std::string& path );
// Where reader `pid` binds the wake-up socket numbered `nonce`.
std::string readerSocketName( const std::string& root, uint32_t pid, uint32_t nonce );

bool processAlive( uint32_t pid );
// The writer lock: an exclusive open-file-description lock on the control
// file, held for as long as the writer is attached. takeWriterLock() is
// false when another description holds it. writerLockHeld() tests it without
// taking it (1 held, 0 free, -1 cannot tell); a description never sees its
// own lock.
bool takeWriterLock( int fd );
int writerLockHeld( int fd );
bool writerAlive( const ControlHeader& h, int lockFd );

// Which file a descriptor or name refers to, to notice a file replaced
// under its name.
struct FileIdentity {
   uint64_t device = 0;
   uint64_t inode = 0;
};
FileIdentity identityOf( int fd );
bool fileReplaced( const std::string& name, const FileIdentity& mapped );
uint32_t thisThreadId();   // cached per thread
int futexWakeAll( std::atomic< uint32_t >* word );   // how many woke
void futexWait( std::atomic< uint32_t >* word, uint32_t expected, int timeoutMs );
inline uint32_t mixHash( uint32_t h ) {
   // Final mixer of MurmurHash3: homes use the high bits of the product, so
   // they must depend on every bit of the key's own hash.
   h ^= h >> 16;
   h *= 0x85ebca6bU;
   h ^= h >> 13;
   h *= 0xc2b2ae35U;
   h ^= h >> 16;
   return h;
}
// Orders this writer's later loads after its earlier stores, as seen by a
// reader that called readerBarrier(): a compiler barrier when the process
// registered for membarrier, else a full fence. See Control::wake().
bool registerFenceFreeWriter();
void readerBarrier();

// Fault guard of read-only mappings (FaultGuard.cpp): a SIGBUS inside a
// guarded mapping (its file truncated under it) maps zero pages over the
// rest of it and sets the returned flag, instead of killing the process.
// `index` receives what unguardMapping() takes; -1 when the registry is full
// (the mapping is then unguarded and its flag never set).
const std::atomic< uint32_t >* guardMapping( void* addr, size_t size, int* index );
void unguardMapping( int index );
const std::atomic< uint32_t >* unguardedFlag();

class Mapping {
 public:
   Mapping() = default;
   Mapping( void* addr, size_t size ) : addr_( addr ), size_( size ) {}
   ~Mapping();
   Mapping( Mapping&& o ) noexcept;
   Mapping& operator=( Mapping&& o ) noexcept;
   uint8_t* data() const { return static_cast< uint8_t* >( addr_ ); }
   size_t size() const { return size_; }
   explicit operator bool() const { return addr_ != nullptr; }
   // Read-only file mappings only: survive the file's truncation (see above).
   void guard() { damaged_ = guardMapping( addr_, size_, &guard_ ); }
   // The file was truncated under the mapping: part of it now reads zeros.
   // One load, no system call.
   bool damaged() const { return damaged_->load( std::memory_order_relaxed ) != 0; }

 private:
   void release();
   void* addr_ = nullptr;
   size_t size_ = 0;
   int guard_ = -1;
   const std::atomic< uint32_t >* damaged_ = unguardedFlag();
};

// One generation of a table: DataHeader then 1 << shift slots. Either process
// memory (an unattached writer) or a file under the root.
class SlotArray {
 public:
   SlotArray() = default;
   static SlotArray createAnonymous( const RecordLayout& layout, uint32_t capacity,
                                     uint64_t generation );
   static SlotArray createFile( const std::string& root, const std::string& path,
                                const RecordLayout& layout, uint32_t capacity,
                                uint64_t generation, const FileAccess& access );
   // Maps generation `generation` read-only and checks its header against the
   // layout and the file size. Empty result if the file does not exist.
   // Throws TableAccessException for a file not owned by `owner` (the
   // control file's owner) or not a regular file.
   static SlotArray openFile( const std::string& root, const std::string& path,
                              const RecordLayout& layout, uint64_t generation, uid_t owner,
                              const CorruptionHandler& handler );
   static uint32_t slotCountFor( uint32_t capacity );
   // A copy-on-write mapping of this writer's own file (createFile): reads
   // come from the file's pages and cost nothing, stores go to pages of the
   // process's own, so the file keeps what it holds now. Empty when this is
   // no file, or the name no longer leads to the file mapped here.
   SlotArray privateView( const RecordLayout& layout ) const;

   explicit operator bool() const { return bool( map_ ); }
   // The file was truncated under a reader's mapping (see Mapping::guard).
   bool damaged() const { return map_.damaged(); }
   // The header still says what it said when the generation was mapped: a
   // writer never rewrites these fields once it has published the
   // generation, so a change is damage to the segment. A few loads.
   bool headerIntact() const {
      const DataHeader& h = header();
      return !damaged() && h.magic == dataMagic && h.generation == generation_ &&
             h.slotCount == slotCount_ && h.capacity == capacity_ &&
             h.count <= capacity_;
   }
   // The header's counts, read and changed through the array at each call.
   // There is deliberately no DataHeader& to hold: a rebuild, growth, shrink
   // or remap replaces the mapping under it, and a reference kept across such
   // a call would write into unmapped (or another generation's) memory.
   uint32_t liveCount() const { return header().count.load( std::memory_order_relaxed ); }
   uint32_t tombstoneCount() const { return header().tombstones.load( std::memory_order_relaxed ); }
   void liveCountIs( uint32_t n ) { header().count.store( n, std::memory_order_relaxed ); }
   // Counts have one writer: a plain load and store, not a locked
   // read-modify-write, which would stall each write on its own cache miss.
   void liveCountAdd( int delta ) { liveCountIs( liveCount() + uint32_t( delta ) ); }
   void tombstoneCountAdd( int delta ) {
      header().tombstones.store( tombstoneCount() + uint32_t( delta ), std::memory_order_relaxed );
   }
   uint64_t generation() const { return generation_; }
   uint32_t slotCount() const { return slotCount_; }
   uint64_t reciprocal() const { return reciprocal_; }   // floor( ( 2^64 - 1 ) / slotCount )
   uint32_t capacity() const { return capacity_; }
   uint32_t usedLimit() const { return slotCount_ - slotCount_ / 8; }   // live + tombstones
   uint8_t* slot( uint32_t i ) const { return slots_ + size_t( i ) * slotSize_; }
   std::atomic< uint32_t >& word( uint32_t i ) const {
      return *reinterpret_cast< std::atomic< uint32_t >* >( slot( i ) );
   }
   uint8_t* record( uint32_t i ) const { return slot( i ) + recordOffset_; }
   // Multiply-shift rather than a mask: any slot count works, and slot order
   // stays hash order, which is what lets a cursor move between generations.
   uint32_t home( uint32_t hash ) const {
      return uint32_t( ( uint64_t( mixHash( hash ) ) * slotCount_ ) >> 32 );
   }
   void unlinkFile();   // the mapping stays valid for whoever still has it

 private:
   static SlotArray fromMapping( Mapping map, const RecordLayout& layout, std::string file );
   DataHeader& header() const { return *reinterpret_cast< DataHeader* >( map_.data() ); }
   Mapping map_;
   std::string file_;
   FileIdentity identity_;   // of file_, when this writer created it
   uint8_t* slots_ = nullptr;
   uint64_t generation_ = 0;
   uint32_t slotCount_ = 0;
   uint64_t reciprocal_ = 0;
   uint32_t capacity_ = 0;
   uint32_t slotSize_ = 0;
   uint32_t recordOffset_ = 0;
};

// The control segment plus, for a writer, the writer lock and the wake word.
class Control {
 public:
   // Creates or opens the control file and takes the writer lock. Throws
   // WriterConflictException when a live writer holds it, and
   // TableAccessException when the table's files are not this user's.
   static std::unique_ptr< Control > openForWriter( const std::string& root, const std::string& path,
                                                    const RecordLayout& layout,
                                                    uint32_t feedCapacity,
                                                    const FileAccess& access,
                                                    const CorruptionHandler& handler );
   // Maps it read-only; null if it does not exist yet. Throws
   // TableAccessException when it exists but may not be read (this user is
   // neither its owner nor in its group) or is no regular file.
   static std::unique_ptr< Control > openForReader( const std::string& root, const std::string& path,
                                                    const RecordLayout& layout,
                                                    const CorruptionHandler& handler );
   ~Control();

   ControlHeader& header() const { return *reinterpret_cast< ControlHeader* >( map_.data() ); }
   const std::string& path() const { return path_; }
   uint32_t feedCapacity() const { return feedCapacity_; }
   MountStatus status() const;
   // Whether the attached writer lives: reader side, by the writer lock.
   bool writerAlive() const;
   // True when the file under the table's name is no longer the one mapped
   // (removed, or removed and created anew): a stat() per call.
   bool replaced() const { return fileReplaced( controlName_, identity_ ); }
   const FileIdentity& identity() const { return identity_; }
   // The control file's owner: the table's writer user, who must own every
   // other file of the table too.
   uid_t owner() const { return owner_; }
   // Reader: the file was truncated under the mapping (see Mapping::guard).
   bool damaged() const { return map_.damaged(); }

   // Writer side.
   // Called before each change: records the calling thread if it is not the
   // one recorded (a writer may move between threads).
   void noteWriterThread() {
      // pthread_self() is a load from the thread's own control block, far
      // cheaper per write than a thread_local in this shared library.
      pthread_t self = ::pthread_self();
      if ( !::pthread_equal( self, lastThread_ ) ) [[unlikely]] {
         lastThread_ = self;
         header().writerTid.store( thisThreadId(), std::memory_order_relaxed );
      }
   }
   void publish( const void* key );
   // The undo image (see UndoHeader): the writer fills it, record last, via
   // undo() and undoRecord() before each replacement of a live record.
   UndoHeader& undo() const { return *reinterpret_cast< UndoHeader* >( undo_ ); }
   uint8_t* undoRecord() const { return undo_ + undoRecordOffset_; }
   // Takeover: the record to restore into `slot` of `generation`, whose word
   // a dead writer left at `word`; null when the image is not of that change.
   const uint8_t* undoFor( uint64_t generation, uint32_t slot, uint32_t word ) const;
   void forceResync();   // every reader's cursor falls a full ring behind
   void markAttached();
   void markDetached();
   void wake();

   // Reader side: the key of feed sequence `seq`; false if it was overwritten.
   bool readFeed( uint64_t seq, void* keyOut ) const;

 private:
   // A registered reader's socket, connected once and kept: a poke is then
   // one non-blocking send.
   struct Peer {
      uint32_t pid = 0;
      uint32_t nonce = 0;
      int fd = -1;
   };
   Control() = default;
   void pokeOrDefer();
   void scanArmed( std::chrono::steady_clock::time_point now );
   uint32_t pokeArmed( uint32_t word );
   void poke( uint32_t i );
   void wakeSleepers( uint32_t sleepers );
   void sweepWake();
   void runFlusher();
   void stopFlusher();

   std::string path_;
   std::string controlName_;
   FileIdentity identity_;   // of the file mapped
   uid_t owner_ = 0;         // of the file mapped
   std::string root_;   // writer only: where readers' sockets live
   int fd_ = -1;        // writer: holds the writer lock
   int probeFd_ = -1;   // reader: tests the writer lock
   Mapping map_;
   Mapping wake_;   // writer only
   std::vector< Peer > peers_;   // writer only, by registration index; under pokeMutex_
   // Writer only: pokes are rationed in time. A scan that poked k readers
   // (k > 1) allows the next no sooner than k * pokeSpacing later; a change
   // made meanwhile leaves the bits to the flusher thread, which scans at
   // that time if anything changed since the last scan. So the writer's
   // thread spends a bounded share of its time poking, however many
   // readers keep re-arming, and a single reader is poked at once.
   std::mutex pokeMutex_;                           // scans, peers_, the sweep
   std::atomic< int64_t > nextScanNs_{ 0 };         // steady clock
   uint64_t scannedHead_ = 0;                       // under pokeMutex_
   std::atomic< uint32_t > flushPending_{ 0 };      // futex word: the flusher owes a scan
   std::atomic< bool > flusherStop_{ false };
   std::thread flusher_;
   bool fenceFree_ = false;   // writer only: readers issue the barrier
   pthread_t lastThread_ {};  // writer only: whose tid is in the header
   // Writer only: the sequence of the next feed entry. The shared head is
   // only ever stored, never read back: a head damaged backwards would
   // otherwise have the writer reuse sequences readers have passed.
   uint64_t head_ = 0;
   // Writer only: a sleeper count that futex wakes found nobody behind for a
   // while (a fallback reader killed while counted, without a pid entry);
   // not woken for again until the count changes. ~0u: none.
   uint32_t deadSleepers_ = ~0u;
   std::chrono::steady_clock::time_point missedSince_ {};
   uint32_t changesSinceCheck_ = 0;   // writer only: changes since the clock was read
   std::chrono::steady_clock::time_point lastSweep_ {};
   uint32_t feedCapacity_ = 0;
   uint32_t feedEntrySize_ = 0;
   uint32_t keySize_ = 0;
   // Writer only: the undo area, in map_, which lives as long as this
   // object and is never remapped.
   uint8_t* undo_ = nullptr;
   uint32_t undoRecordOffset_ = 0;
};

// What a reader needs to decide that a slot it keeps finding busy was left
// so by a dead or stalled writer. Used only on that slow path.
struct StuckContext {
   const Control* control;
   const std::string* path;
   const CorruptionHandler* handler;
};

// Retries copying `size` bytes of a slot's record until a copy validates
// against the slot's word or the slot is not live; returns its state. Yields
// now and then. Throws when the writer is gone or detached, or when the word
// has not moved for slotStuckLimit and the writer, alive, is not simply
// waiting for a processor (it sleeps, or has run for 2 ms meanwhile): a
// healthy writer holds a slot busy for one record copy, so the slot was left
// so by a writer that failed mid-update, or scribbled. slotStuckHardLimit
// bounds the wait on a writer that stays runnable but never runs.
inline constexpr std::chrono::milliseconds slotStuckLimit{ 10 };
inline constexpr std::chrono::milliseconds slotStuckHardLimit{ 1000 };
uint32_t readBusySlot( const StuckContext& ctx, const std::atomic< uint32_t >& word, uint32_t slot,
                       void* out, const void* record, size_t size );
// How many times this process's readers found a slot busy or changed under
// their copy, i.e. caught its writer mid-change (readBusySlot() calls).
uint64_t busySlotReads();

// A Reader's wake-up path. fd() is a datagram socket, the same one for the
// reader's whole life; once the table's
// writer has created the wake segment, the Notifier registers in a slot of it
// and binds the socket under the root. When the reader has consumed
// everything it arms the slot; the writer's next change clears the bit and
// sends one datagram, which makes fd() readable: one hop, no reader thread on
// the way.
//
// A slim thread remains, for what no writer announces: every statusPollMs it
// checks the mount status (a writer that dies is noticed within that) and the
// registration itself (slot, bit, segment header, file), so damage to the
// segment delays a change by that much at most: it pokes fd() and the next
// dispatch() repairs or registers again. Until the reader can register (no
// table or wake segment yet, every slot taken by a live reader, the socket
// name too long) the thread instead sleeps on the wake word (futex, counted
// in `sleepers`, or polls the control header when there is no segment) and
// forwards changes to fd(), as a second hop; nothing is lost, only latency.
//
// Registration state (segment, slot, socket) changes only on the caller's
// thread, in arm() and reopen(), with the thread stopped.
class Notifier {
 public:
   static constexpr int statusPollMs = 100;

   // `followed`: the control file the reader has mapped, if any.
   Notifier( const std::string& root, const std::string& path, uint64_t seenHead,
             MountStatus seenStatus, FileIdentity followed );
   ~Notifier();
   int fd() const { return recvFd_; }
   bool registered() const { return slot_ >= 0; }
   void drain();        // clears readiness
   // dispatch() consumed everything. Registers first if it is due. Then,
   // registered: asks for a poke at the next change; true when it newly
   // armed, and the caller must then re-check for changes made before the
   // writer could see the bit (and poke() if any). A re-check that finds
   // nothing must follow barrierAfterArm() when that returns true.
   bool arm();
   // The process-wide barrier a fence-free writer leaves to its readers;
   // false when none is needed (the writer fences each change).
   bool barrierAfterArm();
   void poke();         // makes fd() readable
   void dispatched();   // fallback thread: dispatch() ran, it may sleep again
   // The table's files were replaced: registers with whatever files bear the
   // name now (the reader follows no control file until it mounts one); fd()
   // stays the same.
   void reopen();
   // True once after the thread saw the feed head move backwards (damage):
   // the reader must rescan rather than trust the feed from its cursor.
   bool feedRewound() { return rewound_.exchange( false, std::memory_order_acq_rel ); }

 private:
   void maintain( bool force );
   bool wakeStillUsable();
   bool ownSlotIntact();
   void openWake();
   void claimSlot();
   bool bindSocket();
   void startThread();
   void closeControlFd();
   void stopThread();
   void releaseSlot();
   void run();
   void watchRegistration();
   void forwardChanges();
   bool openControl();
   bool replacedWhileNotMounted( MountStatus status ) const;

   std::string wakeName_;
   std::string controlName_;
   std::string root_;
   uint32_t nonce_ = 0;
   std::string socketName_;   // empty until bound by name
   bool unbindable_ = false;  // the socket name is too long: never registers
   int recvFd_ = -1;
   int sendFd_ = -1;          // connected to recvFd_, for poke()
   Mapping wake_;
   FileIdentity wakeIdentity_;
   FileIdentity followed_;    // caller's: the control file registered for
   int32_t slot_ = -1;
   std::chrono::steady_clock::time_point retryAt_ {};
   bool wakeWasMissing_ = false;   // at the last attempt to register
   // Set by arm(), cleared by drain(): the reader sleeps on a poke.
   std::atomic< bool > armed_{ false };
   std::atomic< bool > needsMaintenance_{ false };   // set by the thread
   std::atomic< bool > rewound_{ false };             // set by the thread
   // Thread only.
   Mapping control_;
   int controlFd_ = -1;       // thread only: tests the writer lock of control_
   FileIdentity threadFollowed_;
   bool askedToRegister_ = false;
   bool pokeLost_ = false;   // seen once: our bit cleared without a poke
   uint64_t lastHead_;
   MountStatus lastStatus_;
   std::mutex mutex_;
   std::condition_variable cv_;
   bool stop_ = false;
   bool dispatched_ = false;
   std::thread thread_;
};

}  // namespace Lumen::internal

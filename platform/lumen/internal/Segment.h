// Lumen internals: files, mappings and the non-template parts of the segment
// protocol (control segment, one generation's slot array, the reader's wake-up
// thread). Used only by platform/lumen/Table.h.
//
// Threading: SlotArray and Control objects belong to one Writer or Reader and
// are used from its thread; Notifier runs its own thread, which touches only
// its own mappings and an eventfd.
#pragma once

#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/lumen/Options.h"
#include "platform/lumen/internal/Format.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Lumen::internal {

template< class Record >
struct SlotOps;   // typed slot access, platform/lumen/internal/TableImpl.h

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

std::string controlFileName( const std::string& path );
std::string dataFileName( const std::string& path, uint64_t generation );
std::string wakeFileName( const std::string& path );

bool processAlive( uint32_t pid );
void futexWakeAll( std::atomic< uint32_t >* word );
void futexWait( std::atomic< uint32_t >* word, uint32_t expected, int timeoutMs );
uint32_t mixHash( uint32_t h );

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

 private:
   void* addr_ = nullptr;
   size_t size_ = 0;
};

// One generation of a table: DataHeader then 1 << shift slots. Either process
// memory (an unattached writer) or a file under the root.
class SlotArray {
 public:
   SlotArray() = default;
   static SlotArray createAnonymous( const RecordLayout& layout, uint32_t capacity,
                                     uint64_t generation );
   static SlotArray createFile( const std::string& path, const RecordLayout& layout,
                                uint32_t capacity, uint64_t generation );
   // Maps generation `generation` read-only and checks its header against the
   // layout and the file size. Empty result if the file does not exist.
   static SlotArray openFile( const std::string& path, const RecordLayout& layout,
                              uint64_t generation, const CorruptionHandler& handler );
   static uint32_t slotCountFor( uint32_t capacity );

   explicit operator bool() const { return bool( map_ ); }
   DataHeader& header() const { return *reinterpret_cast< DataHeader* >( map_.data() ); }
   uint64_t generation() const { return generation_; }
   uint32_t slotCount() const { return slotCount_; }
   uint32_t shift() const { return shift_; }
   uint32_t capacity() const { return capacity_; }
   uint32_t usedLimit() const { return slotCount_ - slotCount_ / 8; }   // live + tombstones
   uint8_t* slot( uint32_t i ) const { return slots_ + size_t( i ) * slotSize_; }
   std::atomic< uint32_t >& word( uint32_t i ) const {
      return *reinterpret_cast< std::atomic< uint32_t >* >( slot( i ) );
   }
   uint8_t* record( uint32_t i ) const { return slot( i ) + recordOffset_; }
   uint32_t home( uint32_t hash ) const { return mixHash( hash ) >> ( 32 - shift_ ); }
   void unlinkFile();   // the mapping stays valid for whoever still has it

 private:
   static SlotArray fromMapping( Mapping map, const RecordLayout& layout, std::string file );
   Mapping map_;
   std::string file_;
   uint8_t* slots_ = nullptr;
   uint64_t generation_ = 0;
   uint32_t slotCount_ = 0;
   uint32_t shift_ = 0;
   uint32_t capacity_ = 0;
   uint32_t slotSize_ = 0;
   uint32_t recordOffset_ = 0;
};

// The control segment plus, for a writer, the writer lock and the wake word.
class Control {
 public:
   // Creates or opens the control file and takes the writer lock. Throws
   // WriterConflictException when a live writer holds it.
   static std::unique_ptr< Control > openForWriter( const std::string& path,
                                                    const RecordLayout& layout,
                                                    uint32_t feedCapacity,
                                                    const CorruptionHandler& handler );
   // Maps it read-only; null if it does not exist yet.
   static std::unique_ptr< Control > openForReader( const std::string& path,
                                                    const RecordLayout& layout,
                                                    const CorruptionHandler& handler );
   ~Control();

   ControlHeader& header() const { return *reinterpret_cast< ControlHeader* >( map_.data() ); }
   const std::string& path() const { return path_; }
   uint32_t feedCapacity() const { return feedCapacity_; }
   MountStatus status() const;

   // Writer side.
   void publish( const void* key );
   void forceResync();   // every reader's cursor falls a full ring behind
   void markAttached();
   void markDetached();
   void wake();

   // Reader side: the key of feed sequence `seq`; false if it was overwritten.
   bool readFeed( uint64_t seq, void* keyOut ) const;

 private:
   Control() = default;
   std::string path_;
   int fd_ = -1;
   Mapping map_;
   Mapping wake_;   // writer only
   uint32_t feedCapacity_ = 0;
   uint32_t feedEntrySize_ = 0;
   uint32_t keySize_ = 0;
};

// A Reader's wake-up thread: sleeps on the table's wake word (futex) and makes
// an eventfd readable when the feed head or the mount status moved. After
// signalling it waits for dispatch() before sleeping on the shared word again,
// so a busy writer pays for at most one wake-up per dispatch.
class Notifier {
 public:
   Notifier( const std::string& path, uint64_t seenHead, MountStatus seenStatus );
   ~Notifier();
   int fd() const { return eventFd_; }
   void drain();        // clears readiness
   void dispatched();   // dispatch() ran: the thread may sleep again

 private:
   void run();
   bool openWake();
   bool openControl();

   std::string wakeName_;
   std::string controlName_;
   int eventFd_ = -1;
   Mapping wake_;
   Mapping control_;
   uint64_t lastHead_;
   MountStatus lastStatus_;
   std::mutex mutex_;
   std::condition_variable cv_;
   bool stop_ = false;
   bool dispatched_ = false;
   std::thread thread_;
};

}  // namespace Lumen::internal

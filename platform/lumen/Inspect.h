// Lumen inspection: what a table's files say about it, whatever its record
// type. For tools that list, check and show tables they were not built to
// read (the lumen command); programs that use a table read it through
// Reader<Record>.
//
// Everything here reads: nothing maps a file writable, registers as a
// reader or creates a file. A table is validated as a reader validates it
// when it mounts (control and data headers, layout signature, sizes,
// storage), with the record layout taken from the control segment itself.
// Damage is Fable::CorruptionDetectedException, a file this process may not
// use Lumen::TableAccessException, both naming the table and what is wrong.
//
// Threading: free functions, callable from any thread; they use Lumen::root()
// of the moment of the call.
#pragma once

#include "platform/lumen/CorruptionDetectedException.h"
#include "platform/lumen/Options.h"

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace Lumen {

// One table as its files describe it, read at one moment: a live writer
// may change any of it just after.
struct TableInfo {
   std::string path;
   std::string typeName;        // RecordTraits< Record >::name of its writer
   uint32_t recordSize = 0;
   uint32_t recordAlign = 0;
   uint32_t keySize = 0;
   // What a Reader would see: waitingForWriter (created, never attached),
   // mounted (a writer holds it) or writerGone (detached, or died).
   MountStatus status = MountStatus::waitingForWriter;
   uint32_t writerPid = 0;      // the last writer's; 0 when none attached yet
   bool writerAlive = false;    // it holds the writer lock now
   uint64_t writerEpoch = 0;    // attaches so far
   uint64_t writerStartNs = 0;  // CLOCK_REALTIME of the last attach
   uint64_t feedHead = 0;       // changes published so far (plus resync jumps)
   uint32_t feedCapacity = 0;
   // The current data segment; all zero while generation is 0 (none yet).
   uint64_t generation = 0;
   uint32_t count = 0;
   uint32_t tombstones = 0;
   uint32_t capacity = 0;
   uint32_t slotCount = 0;
   uint32_t slotSize = 0;
   uint64_t bytes = 0;          // size of the control, data and wake files
   uid_t owner = 0;             // of the control file: the writer's user
   gid_t group = 0;
   mode_t mode = 0;
};

// The table at `path` under Lumen::root(), validated; nothing when it has no
// control file. Throws Mox::Exception for a malformed path, and the
// exceptions above for a damaged or forbidden table.
std::optional< TableInfo > inspect( const std::string& path );

// Slot states of a table's current generation, counted by walking every
// slot, next to what its header says.
struct SlotCensus {
   uint64_t generation = 0;     // 0: the table has no data segment yet
   uint32_t slotCount = 0;
   uint32_t live = 0;
   uint32_t tombstones = 0;
   uint32_t busy = 0;           // being changed, or left so by a writer that died
   uint32_t empty = 0;
   uint32_t headerCount = 0;
   uint32_t headerTombstones = 0;
   // The walk saw the table at rest (the same generation and feed head
   // before and after), so its counts must equal the header's. False when a
   // writer kept changing the table through every attempt: the counts were
   // then not compared.
   bool settled = false;
};

// Walks every slot of the current generation. Throws
// Fable::CorruptionDetectedException when, at rest, the slots disagree with
// the header's counts or fill more than the share of slots a writer ever
// uses (probes would not end), besides everything inspect() throws.
// Nothing when the table does not exist.
std::optional< SlotCensus > census( const std::string& path );

}  // namespace Lumen

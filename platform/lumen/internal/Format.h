// Lumen segment layout, shared by writer and readers and drawn in
// docs/lumen-format.md. Every field has a fixed width and offset; the
// static_asserts below pin them. Do not reorder, resize or reuse fields:
// change formatVersion instead.
//
// Three files per table under Lumen::root() (path "/a/b/c" flattens to "a.b.c"):
//   <flat>          control segment: identity, generation word, writer state,
//                   change feed, undo image. Stable for the table's life; its
//                   writer holds an open-file-description lock on it.
//   <flat>@<gen>    data segment of one generation: header, then slots.
//   <flat>@wake     wake segment: the only file readers map writable (the
//                   futex word and the reader registrations).
// and, per registered Reader, a datagram socket <root>/@reader.<pid>.<nonce>
// ('@' starts no table's name) that the writer pokes to wake that reader.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Lumen::internal {

inline constexpr uint64_t controlMagic = 0x314c54434e4d554cULL;   // "LUMNCTL1"
inline constexpr uint64_t dataMagic = 0x315441444e4d554cULL;      // "LUMNDAT1"
inline constexpr uint64_t wakeMagic = 0x334b41574e4d554cULL;      // "LUMNWAK3"
// 3: the control segment ends with the undo area; the writer lock is an
// open-file-description lock (readers test it), no longer a flock.
inline constexpr uint32_t formatVersion = 3;

// ControlHeader::writerState.
enum class WriterState : uint32_t {
   none = 0,        // created, no writer has finished attaching yet
   attached = 1,    // a writer holds the table while it holds the writer lock
   detached = 2,    // the last writer detached cleanly
};

// Low two bits of a slot's sequence word; the upper 30 bits count updates.
enum SlotState : uint32_t {
   slotEmpty = 0,       // never used in this generation: ends a probe
   slotLive = 1,
   slotTombstone = 2,   // removed: a probe continues past it
   slotBusy = 3,        // the writer is changing the record: readers retry
};

struct ControlHeader {
   // Written once by the creating writer, before the file gets its name.
   uint64_t magic;                        // 0
   uint32_t formatVersion;                // 8
   uint32_t headerSize;                   // 12: sizeof( ControlHeader )
   uint64_t layoutSignature;              // 16: over type name and sizes
   uint32_t recordSize;                   // 24
   uint32_t recordAlign;                  // 28
   uint32_t keySize;                      // 32
   uint32_t feedCapacity;                 // 36: entries in the change feed
   uint32_t feedEntrySize;                // 40
   uint32_t reserved0;                    // 44
   uint8_t reserved1[ 16 ];               // 48
   // Written by the writer at attach, detach and generation flips; read by
   // readers on every operation, so kept apart from the busy feed head.
   std::atomic< uint64_t > generation;    // 64: current data segment, 0 = none
   std::atomic< uint64_t > writerEpoch;   // 72: attaches so far
   std::atomic< uint64_t > writerStartNs; // 80: CLOCK_REALTIME of the attach
   std::atomic< uint32_t > writerPid;     // 88
   std::atomic< uint32_t > writerState;   // 92: WriterState
   uint8_t reserved2[ 32 ];               // 96
   // Written by the writer on every change.
   std::atomic< uint64_t > feedHead;      // 128: sequence of the next feed entry
   // Thread that makes the changes (0 in files of writers that did not say),
   // so a reader judging a slot stuck looks at that thread, not the process.
   std::atomic< uint32_t > writerTid;     // 136
   uint8_t reserved3[ 52 ];               // 140
   char typeName[ 64 ];                   // 192: NUL-padded record type name
};
static_assert( sizeof( ControlHeader ) == 256 );
static_assert( offsetof( ControlHeader, generation ) == 64 );
static_assert( offsetof( ControlHeader, feedHead ) == 128 );
static_assert( offsetof( ControlHeader, writerTid ) == 136 );
static_assert( offsetof( ControlHeader, typeName ) == 192 );

// Feed entry i (sequence s lives at i = s % feedCapacity), at
// sizeof( ControlHeader ) + i * feedEntrySize:
//   uint64_t seq   2s+1 while written, 2s+2 once the key is complete
//   Key key        at offset 8; entry size rounded up to 8 bytes
inline constexpr uint32_t feedKeyOffset = 8;

// Undo image, after the feed at controlUndoOffset(): the record a writer is
// replacing, kept before it turns the slot busy, so that a writer killed in
// the middle of the copy leaves the last completed value behind. Written by
// the writer only, on every replacement; no reader reads it. The next writer
// restores it at takeover when, and only when, slot `slot` of generation
// `generation` still holds `busyWord`: slot words only grow, so that matches
// the one unfinished change the image was kept for, never a later insert
// into the same slot.
struct UndoHeader {
   // Stored only when it differs from the last image's.
   std::atomic< uint64_t > generation;    // 0
   // busyWord << 32 | slot, one store: busyWord is the slot's word during
   // the change; 0 = no image.
   std::atomic< uint64_t > change;        // 8
};
inline constexpr uint64_t undoChange( uint32_t slot, uint32_t busyWord ) {
   return uint64_t( busyWord ) << 32 | slot;
}
static_assert( sizeof( UndoHeader ) == 16 );

// Record offset in the undo area: 16, or the record's alignment if larger.
inline constexpr uint32_t undoRecordOffset( uint32_t recordAlign ) {
   return recordAlign > sizeof( UndoHeader ) ? recordAlign : uint32_t( sizeof( UndoHeader ) );
}
// The undo area starts on the cache line after the feed and fills whole lines.
inline constexpr uint64_t controlUndoOffset( uint32_t feedCapacity, uint32_t feedEntrySize ) {
   return ( 256 + uint64_t( feedCapacity ) * feedEntrySize + 63 ) / 64 * 64;
}
inline constexpr uint64_t controlUndoSize( uint32_t recordSize, uint32_t recordAlign ) {
   return ( undoRecordOffset( recordAlign ) + uint64_t( recordSize ) + 63 ) / 64 * 64;
}

struct DataHeader {
   // Written once by the writer before the generation is published.
   uint64_t magic;                        // 0
   uint32_t formatVersion;                // 8
   uint32_t headerSize;                   // 12: sizeof( DataHeader )
   uint64_t layoutSignature;              // 16
   uint64_t generation;                   // 24
   uint32_t recordSize;                   // 32
   uint32_t slotSize;                     // 36
   uint32_t recordOffset;                 // 40: record's offset in its slot
   uint32_t slotCount;                    // 44: any count from 8 up; homes scale to it
   uint32_t capacity;                     // 48: entries this generation holds
   uint32_t reserved0;                    // 52
   uint8_t reserved1[ 8 ];                // 56
   // Written by the writer on every insert and remove. At every instant
   // count <= capacity and count + tombstones <= slotCount - slotCount / 8;
   // a reader checks each alone when it maps the generation.
   std::atomic< uint32_t > count;         // 64: live slots
   std::atomic< uint32_t > tombstones;    // 68
   uint8_t reserved2[ 56 ];               // 72
};
static_assert( sizeof( DataHeader ) == 128 );
static_assert( offsetof( DataHeader, count ) == 64 );

// Slot i at sizeof( DataHeader ) + i * slotSize:
//   uint32_t word  SlotState in bits 0-1, update count above
//   Record         at recordOffset (4, or the record's alignment if larger)
// slotSize is a power of two up to 64 bytes and a multiple of 64 above, and
// the slots start on a cache-line boundary, so no slot straddles two lines:
// a lookup that finds its key in the home slot costs one line.

// The wake segment has a layout of its own, checked on its own: its magic
// carries its version. Version 3 replaced a count of armed registrations and
// a scan bound (either of which, damaged, silenced every reader) by a bitmap
// the writer scans whole, and records fallback sleepers by pid so that a
// dead one can be subtracted.
inline constexpr uint32_t wakeFormatVersion = 3;
inline constexpr uint32_t wakeReaderSlots = 1024;
inline constexpr uint32_t wakeSleeperSlots = 32;

struct WakeHeader {
   // Identity, written by the writer that creates the file (magic last) and
   // restored by whoever finds it damaged.
   uint64_t magic;                        // 0: wakeMagic
   uint32_t formatVersion;                // 8: wakeFormatVersion
   uint32_t headerSize;                   // 12: sizeof( WakeHeader )
   uint32_t slotCount;                    // 16: wakeReaderSlots
   uint32_t slotSize;                     // 20: sizeof( ReaderSlot )
   // 1 while the attached writer orders its sleepers / armed checks with a
   // compiler barrier only; readers then issue a process-wide memory barrier
   // (membarrier) before their last check. 0: the writer fences each change.
   std::atomic< uint32_t > writerFenceFree;   // 24
   uint32_t reserved0;                    // 28
   uint8_t reserved1[ 32 ];               // 32
   // Fallback sleepers: touched only by readers that could not register.
   std::atomic< uint32_t > seq;           // 64: bumped by the writer per wake-up; futex word
   // Fallback reader threads about to wait or waiting on seq. A hint: the
   // writer stops trusting it when its wakes find nobody, and whoever finds
   // a dead pid in sleeperPids takes that sleeper off it.
   std::atomic< uint32_t > sleepers;      // 68
   uint8_t reserved2[ 56 ];               // 72
   // Bit i: registration i is idle and wants one poke at the next change.
   // Set by its reader (fetch_or), taken by the writer a word at a time
   // (exchange to 0) before it pokes.
   std::atomic< uint64_t > armed[ wakeReaderSlots / 64 ];   // 128
   // Pid of each counted sleeper that found a free entry; 0 = free.
   std::atomic< uint32_t > sleeperPids[ wakeSleeperSlots ]; // 256
   uint8_t reserved3[ 128 ];              // 384
};
static_assert( sizeof( WakeHeader ) == 512 );
static_assert( offsetof( WakeHeader, writerFenceFree ) == 24 );
static_assert( offsetof( WakeHeader, seq ) == 64 );
static_assert( offsetof( WakeHeader, armed ) == 128 );
static_assert( offsetof( WakeHeader, sleeperPids ) == 256 );

// One Reader's registration, at sizeof( WakeHeader ) + i * 16.
struct ReaderSlot {
   // Owner's pid, 0 = free. Claimed by a reader with a CAS from 0 or from a
   // dead pid; freed by its owner, or by whoever finds the pid dead.
   std::atomic< uint32_t > pid;           // 0
   // Names the owner's socket together with pid. Written by the owner after
   // claiming, before it binds the socket and first arms.
   std::atomic< uint32_t > nonce;         // 4
   uint8_t reserved[ 8 ];                 // 8
};
static_assert( sizeof( ReaderSlot ) == 16 );

inline constexpr size_t wakeSegmentSize = sizeof( WakeHeader ) + wakeReaderSlots * sizeof( ReaderSlot );

}  // namespace Lumen::internal

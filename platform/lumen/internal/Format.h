// Lumen segment layout, shared by writer and readers and drawn in
// docs/lumen-format.md. Every field has a fixed width and offset; the
// static_asserts below pin them. Do not reorder, resize or reuse fields:
// change formatVersion instead.
//
// Three files per table under Lumen::root() (path "/a/b/c" flattens to "a.b.c"):
//   <flat>          control segment: identity, generation word, writer state,
//                   change feed. Stable for the table's life.
//   <flat>@<gen>    data segment of one generation: header, then slots.
//   <flat>@wake     wake word: the only file readers map writable (futex).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Lumen::internal {

inline constexpr uint64_t controlMagic = 0x314c54434e4d554cULL;   // "LUMNCTL1"
inline constexpr uint64_t dataMagic = 0x315441444e4d554cULL;      // "LUMNDAT1"
inline constexpr uint64_t wakeMagic = 0x314b41574e4d554cULL;      // "LUMNWAK1"
inline constexpr uint32_t formatVersion = 1;

// ControlHeader::writerState.
enum class WriterState : uint32_t {
   none = 0,        // created, no writer has finished attaching yet
   attached = 1,    // writerPid holds the table (alive or not: readers check)
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
   uint8_t reserved3[ 56 ];               // 136
   char typeName[ 64 ];                   // 192: NUL-padded record type name
};
static_assert( sizeof( ControlHeader ) == 256 );
static_assert( offsetof( ControlHeader, generation ) == 64 );
static_assert( offsetof( ControlHeader, feedHead ) == 128 );
static_assert( offsetof( ControlHeader, typeName ) == 192 );

// Feed entry i (sequence s lives at i = s % feedCapacity), at
// sizeof( ControlHeader ) + i * feedEntrySize:
//   uint64_t seq   2s+1 while written, 2s+2 once the key is complete
//   Key key        at offset 8; entry size rounded up to 8 bytes
inline constexpr uint32_t feedKeyOffset = 8;

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
   uint32_t slotShift;                    // 44: slot count is 1 << slotShift
   uint32_t capacity;                     // 48: entries this generation holds
   uint32_t reserved0;                    // 52
   uint8_t reserved1[ 8 ];                // 56
   // Written by the writer on every insert and remove.
   std::atomic< uint32_t > count;         // 64: live slots
   std::atomic< uint32_t > tombstones;    // 68
   uint8_t reserved2[ 56 ];               // 72
};
static_assert( sizeof( DataHeader ) == 128 );
static_assert( offsetof( DataHeader, count ) == 64 );

// Slot i at sizeof( DataHeader ) + i * slotSize:
//   uint32_t word  SlotState in bits 0-1, update count above
//   Record         at recordOffset (4, or the record's alignment if larger)

struct WakeHeader {
   uint64_t magic;                        // 0
   std::atomic< uint32_t > seq;           // 8: bumped by the writer per change
   std::atomic< uint32_t > sleepers;      // 12: reader threads in futex wait
   uint8_t reserved[ 48 ];                // 16
};
static_assert( sizeof( WakeHeader ) == 64 );

}  // namespace Lumen::internal

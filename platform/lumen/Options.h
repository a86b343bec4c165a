// Lumen: process-wide settings and the small value types shared by the
// table writer and reader (platform/lumen/Table.h).
//
// Owned by the host program. rootIs() is meant to be called once at start-up
// (or per test) before tables are opened; it is guarded by a mutex, and a
// table already open keeps the root it was opened under, for all its files.
#pragma once

#include "platform/mox/Exception.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Lumen {

// Folder under which every table's files live. Default /dev/shm, overridden by
// the environment variable ORBEVPN_LUMEN_ROOT, and by rootIs() above both.
void rootIs( std::string path );
std::string root();

// True when the lock-free 32- and 64-bit atomics the segment protocol relies on
// are available (a reader in another process cannot take a mutex of ours).
bool hardwareSupportsAtomics();

enum class MountStatus : uint8_t {
   unmounted = 0,
   waitingForWriter = 1,
   mounted = 2,
   writerGone = 3,
};

const char* mountStatusName( MountStatus s );

struct Options {
   uint32_t initialCapacity = 1024;   // entries the first generation holds
   uint32_t maxCapacity = 1u << 24;   // growth stops here: a new key then fails
   uint32_t feedCapacity = 4096;      // change-feed ring entries
};

using CorruptionHandler = std::function< void ( const std::string& message ) >;

// Resumable iteration cursor: (generation, position in hash order).
struct Hint {
   uint64_t value = 0;
};

// Name of a record type, checked when a table is mapped so that two programs
// built with different record layouts never read each other's bytes.
template< class R >
struct RecordTraits {
   static constexpr const char* name = R::lumenTypeName;
};

// A write of a new key when the table holds maxCapacity entries.
class TableFullException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

// attach() to a path that another live writer holds.
class WriterConflictException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

}  // namespace Lumen

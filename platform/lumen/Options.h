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
#include <optional>
#include <string>

#include <sys/types.h>

namespace Lumen {

// Folder under which every table's files live. Default /dev/shm, overridden by
// the environment variable ORBEVPN_LUMEN_ROOT, and by rootIs() above both.
void rootIs( std::string path );
std::string root();

// The table whose control file in a root is named `fileName`, or nothing
// when `fileName` names no control file (a data, wake or scratch file, a
// reader's socket, a stranger). Table paths map to file names one to one
// (docs/lumen-format.md, "Files of one table"), so a tool listing a root
// can print every table's path.
std::optional< std::string > tablePathOfFile( const std::string& fileName );

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

// The maxCapacity a table gets when its Options leave it alone: 1 << 24
// unless set here (at start-up, before tables are made; a program that caps
// its tables, or a test that fills one, sets it once).
void maxCapacityDefaultIs( uint32_t entries );
uint32_t maxCapacityDefault();

struct Options {
   uint32_t initialCapacity = 1024;   // entries the first generation holds
   uint32_t maxCapacity = maxCapacityDefault();   // growth stops here: a new key then fails
   uint32_t feedCapacity = 4096;      // change-feed ring entries
   // Who may read the table: the writer's user, and members of `group` (the
   // writer's effective group when unset). The control and data files get
   // tableMode; the wake file wakeMode, as readers register in it. Applied
   // to every file at each attach, so a change reaches an existing table.
   // Neither may let others write (a writer dies of SIGBUS when its file is
   // truncated), nor tableMode the group.
   mode_t tableMode = 0640;
   mode_t wakeMode = 0660;
   std::optional< gid_t > group {};
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

// A write of a new key when the table holds maxCapacity entries, and (as
// OutOfSpaceException) when it must grow but its root has no room left.
// The table is left as it was before the write; nothing is announced.
class TableFullException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

// The root's filesystem (or the process) has no memory for a table's new
// segment: ENOSPC, EDQUOT, EFBIG or ENOMEM when it is sized or mapped. The
// message names the file and the cause ("No space left on device").
class OutOfSpaceException : public TableFullException {
 public:
   using TableFullException::TableFullException;
};

// A table's file that this process may not use: one it has no permission
// to open (a reader outside the table's group), or one that is not what
// the table's writer makes (another user's, a symbolic link, not a regular
// file). The message names the file, its owner and mode.
class TableAccessException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

// attach() to a path that another live writer holds.
class WriterConflictException : public Mox::Exception {
 public:
   using Mox::Exception::Exception;
};

}  // namespace Lumen

// The record types the lumen tool can read, by their Lumen type names, and
// what it does with a table of each: dump its records, watch its changes,
// probe its keys. A table of a type not listed here can still be listed and
// checked through Lumen::inspect() and Lumen::census(), which need no type.
//
// Threading: the tool's one thread.
#pragma once

#include "platform/lumen/Options.h"
#include "tools/lumen/Output.h"
#include "tools/lumen/RecordForms.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace LumenTool {

// Exit codes of every command.
inline constexpr int exitOk = 0;
inline constexpr int exitFailed = 1;    // damage, access refused, the system failed
inline constexpr int exitNoTable = 2;   // no such table, a malformed path, an unknown record type

// The lines of `lumen watch`, in JSON or for people, each flushed at once.
class WatchPrinter {
 public:
   explicit WatchPrinter( Form form ) : form_( form ) {}
   void set( const Json& record );
   void del( const Json& key );
   void status( Lumen::MountStatus status, uint32_t count );
   void resync( bool begin );   // a full comparison follows / is done
   void error( const std::string& message );

 private:
   void emit( const char* op, const Json& line, const std::string& words );
   Form form_;
};

// When a watch found its table: there at the start, or after it had
// printed that it waits for it.
enum class Found { atStart, afterWaiting };

// Every record's key probed from its home slot.
struct KeyProbe {
   uint32_t records = 0;
   // The table did not change during the walk, so the walk saw every
   // record once and its number was compared with the header's count.
   bool settled = false;
};

struct RecordKind {
   std::string_view typeName;
   // The records of the table at `path`, as a reader mounts them, sorted by
   // their text forms.
   std::vector< Json > ( *dump )( const std::string& path );
   // Prints changes until `stopFd` is readable; the exit code. A table
   // found afterWaiting is news: every record it holds is printed first, as
   // a change.
   int ( *watch )( const std::string& path, WatchPrinter& out, int stopFd, Found found );
   // Walks every record in shared memory and probes its key. Throws
   // Fable::CorruptionDetectedException on a record a probe cannot find or
   // finds different, a key held twice, or a count that differs from the
   // header's, each only when seen with the table at rest.
   KeyProbe ( *probeKeys )( const std::string& path );
};

// The kind for `typeName`, or null.
const RecordKind* recordKind( std::string_view typeName );
std::vector< std::string_view > recordTypeNames();

}  // namespace LumenTool

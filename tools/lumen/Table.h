// Finding one table for a command: the path checked, the table inspected,
// and what went wrong turned into a message and an exit code.
#pragma once

#include "platform/lumen/Inspect.h"

#include <optional>
#include <string>

namespace LumenTool {

struct FoundTable {
   std::optional< Lumen::TableInfo > info;   // set when found and readable
   int exitCode = 0;                         // else why not
   std::string error;
};

// True for "/" followed by names separated by "/", none empty, "." or "..".
bool isTablePath( const std::string& path );
FoundTable findTable( const std::string& path );

struct RecordKind;
// The kind for the table's record type; null, after saying so on stderr,
// for a type lumen cannot read.
const RecordKind* kindOrComplain( const Lumen::TableInfo& info );

}  // namespace LumenTool

// The lumen tool's commands. Each reads tables under Lumen::root(), prints
// to stdout (problems to stderr), and returns the process's exit code
// (tools/lumen/Catalog.h). None writes a table.
#pragma once

#include "tools/lumen/Output.h"

#include <string>

namespace LumenTool {

// Every table under the root with its type, counts, writer and size.
int listTables( Form form );
// The records of one table.
int dumpTable( const std::string& path, Form form );
// One line per change of one table until SIGINT or SIGTERM.
int watchTable( const std::string& path, Form form );
// Full validation of one table.
int checkTable( const std::string& path, Form form );

// "lumen: " + message on stderr.
void complain( const std::string& message );

}  // namespace LumenTool

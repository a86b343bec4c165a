// Lumen salvage: what a writer does, before it attaches, about a table that
// was damaged while no writer held it, or that made its last writer stop.
//
// damageAtRest() judges a table no live writer holds: the headers as a
// reader validates them (inspect()), and the slots against what a writer
// that died can leave. A writer changes one slot at a time and updates the
// header's counts after it, so a dead writer leaves at most one busy slot
// and counts off by at most one each; attach() repairs that much (the undo
// image, the rebuilt generation). Anything beyond is damage that attach()
// would either refuse or copy into the next generation.
//
// moveAside() renames every file of a table into a folder of its own under
// the root's "lumen-damaged" folder, with a note of why, so the next attach
// creates the table anew while the damaged files stay for whoever wants to
// look at them. Readers that have them mapped keep their mappings; they
// notice the table was replaced and follow the new one.
//
// Threading: free functions, any thread; they use Lumen::root() of the call.
#pragma once

#include <optional>
#include <string>

namespace Lumen {

// Why the table at `path` is damaged, or nothing: also when it does not
// exist or a live writer holds it (then nothing can be judged at rest).
// Throws TableAccessException for files this process may not read.
std::optional< std::string > damageAtRest( const std::string& path );

// Moves the table's files (control, data, wake and scratch files) into
// <root>/lumen-damaged/<stem>.<UTC time>.<pid>/ with a file "reason"
// holding `reason`; returns that folder, or "" when the table has no files.
// Throws Mox::Exception when a file cannot be moved.
std::string moveAside( const std::string& path, const std::string& reason );

}  // namespace Lumen

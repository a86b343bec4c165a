// The Lumen root the agent will keep its tables in must be a folder no other
// user can rearrange: in a folder others may write, anyone could remove or
// rename a table file and plant their own under its name, unless the folder
// is sticky (only a file's owner may then remove or rename it, as in
// /dev/shm). The agent checks this before it opens anything there.
#pragma once

#include <string>

namespace Agent {

// The exit status of an agent that refuses its root (EX_NOPERM).
inline constexpr int exitUnsafeRoot = 77;

// Empty when `root` is safe to use (or is no folder at all, which opening
// a table reports); else why not, naming the folder, its owner or mode.
std::string unsafeRootReason( const std::string& root );

}  // namespace Agent

// What a program does before it attaches the shared tables it writes: a
// table found damaged at rest (Lumen::damageAtRest) is moved aside
// (Lumen::moveAside) so that the attach creates it anew, and the program
// then writes its content again from its own state. Every other table is
// taken over as it is.
#pragma once

#include "tools/common/Boundary.h"

#include <string>
#include <string_view>
#include <vector>

namespace OrbEvpn::Boundary {

// One line per table moved aside, for the program's log, e.g. "table
// /orbevpn/export/host was damaged (...); its files are in DIR and it is
// created anew". Throws what Lumen throws when a file cannot be read or moved.
std::vector< std::string > setAsideDamagedTables( std::string_view prefix, Side writer );

}  // namespace OrbEvpn::Boundary

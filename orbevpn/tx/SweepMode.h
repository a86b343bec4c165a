// OrbEvpn::SweepMode: how the export sweeps find the records they judge.
//
//  - index: each sweep visits only the records of its VNI, found through
//    the output tables' per-VNI index (cost: the VNI's own records).
//  - walk: each sweep walks the whole output table and skips the records
//    of other VNIs (cost: the whole table, for every VNI swept).
//
// Both delete the same records and emit the same trace lines (the order of
// the lines within one sweep may differ: nothing depends on it). The walk
// is kept as the reference the index is checked and measured against; a
// table whose sweeps never use the index never builds one.
//
// Process-wide; default index. Set it before the export root is made (a
// switch while it runs is harmless, but it is meant as a start-up choice).
// Read and written on the notification thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace OrbEvpn {

enum class SweepMode : uint8_t { index, walk };

void sweepModeIs( SweepMode m );
SweepMode sweepMode();

// "index" or "walk"; nullopt for anything else.
std::optional< SweepMode > sweepModeFromName( std::string_view name );
const char* sweepModeName( SweepMode m );

}  // namespace OrbEvpn

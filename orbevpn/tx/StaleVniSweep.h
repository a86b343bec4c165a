// OrbEvpn::cleanupStaleVniEntries: withdraws everything exported for a set
// of VNIs, working from the export root's output tables themselves rather
// than from any child's memory, so it also removes what no living child
// knows of (state left by an earlier run of the process).
//
// Order: the bridge ids first (so the EVPN side stops treating the VNIs as
// exported), then every host, then every flood entry of the VNIs. With
// SweepMode::index it visits only the VNIs' own records, through the
// tables' per-VNI index; with SweepMode::walk each table is walked once in
// full whatever the size of the set, also when it is empty (removal of the
// entry under the cursor is harmless). Both delete and trace the same.
//
// It reads neither the root's inputs, its children nor its `initialized`
// flag. Runs on the notification thread.
#pragma once

#include "platform/mox/Ptr.h"
#include "platform/values/Vni.h"

#include <set>

namespace OrbEvpn {

class OrbEvpnTxSm;

void cleanupStaleVniEntries( Mox::Ptr< OrbEvpnTxSm > txSm, const std::set< Vxlan::Vni >& vnis );

namespace internal {

// The sweep itself. The root calls this form: its first full pass runs
// inside its constructor, before any counted pointer holds it, and a
// counted pointer taken and dropped then would destroy it.
void sweepStaleVnis( OrbEvpnTxSm& txSm, const std::set< Vxlan::Vni >& vnis );

}  // namespace internal

}  // namespace OrbEvpn

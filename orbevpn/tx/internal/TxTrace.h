// The export module's one trace handle, "VxlanControllerEvpnTxSm", created
// on first use and shared by every source of orbevpn/tx (the module
// OrbEvpnTxSm). Entry lines trace at level 3, exit lines at level 4 and
// per-entry detail at level 8, with the exceptions the handlers note.
#pragma once

#include "platform/trace/DualLog.h"

namespace OrbEvpn::internal {

const Trace::Handle& txTrace();

}  // namespace OrbEvpn::internal

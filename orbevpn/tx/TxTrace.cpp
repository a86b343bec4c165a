#include "orbevpn/tx/internal/TxTrace.h"

namespace OrbEvpn {

const Trace::Handle& internal::txTrace() {
   static const Trace::Handle& h = Trace::handle( "VxlanControllerEvpnTxSm" );
   return h;
}

}  // namespace OrbEvpn

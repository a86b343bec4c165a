// The OrbEvpnTxSm module: registered with the framework when the library
// loads, which makes the three export machines reachable by type name
// through the generic interface.
#include "orbevpn/tx/MacVtepFloodListSm.h"
#include "orbevpn/tx/OrbEvpnTxSm.h"
#include "orbevpn/tx/VniFdbStatusSm.h"

namespace OrbEvpn {

namespace {

Mox::Module txModule( "OrbEvpnTxSm", { &Mox::TypeImpl< OrbEvpnTxSm >::instance(),
                                       &Mox::TypeImpl< VniFdbStatusSm >::instance(),
                                       &Mox::TypeImpl< MacVtepFloodListSm >::instance() } );
const bool registered = ( Mox::moxModuleIs( &txModule ), true );

}  // namespace

}  // namespace OrbEvpn

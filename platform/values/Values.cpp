// The value types' module: registered when the library loads, so the types
// are reachable by name through the generic interface.
#include "platform/mox/Type.h"
#include "platform/values/BridgeId.h"
#include "platform/values/EthAddr.h"
#include "platform/values/IpAddr.h"
#include "platform/values/Seqno32.h"
#include "platform/values/Vni.h"

namespace {

Mox::Module valuesModule( "Values", { &Mox::TypeImpl< Vxlan::Vni >::instance(),
                                      &Mox::TypeImpl< Wire::EthAddr >::instance(),
                                      &Mox::TypeImpl< Wire::IpAddr >::instance(),
                                      &Mox::TypeImpl< Keel::Seqno32 >::instance(),
                                      &Mox::TypeImpl< Bridging::BridgeId >::instance() } );
const bool registered = ( Mox::moxModuleIs( &valuesModule ), true );

}  // namespace

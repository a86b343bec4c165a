// The framework's own module: its object types.
#include "platform/mox/Dir.h"

namespace {

Mox::Module moxModule( "Mox", { &Mox::TypeImpl< Mox::PtrInterface >::instance(),
                                &Mox::TypeImpl< Mox::Entity >::instance(),
                                &Mox::TypeImpl< Mox::Dir >::instance() } );
const bool registered = ( Mox::moxModuleIs( &moxModule ), true );

}  // namespace

#include "orbevpn/tx/SweepMode.h"

namespace OrbEvpn {

namespace {

SweepMode mode = SweepMode::index;

}  // namespace

void sweepModeIs( SweepMode m ) {
   mode = m;
}

SweepMode sweepMode() {
   return mode;
}

std::optional< SweepMode > sweepModeFromName( std::string_view name ) {
   if ( name == "index" ) {
      return SweepMode::index;
   }
   if ( name == "walk" ) {
      return SweepMode::walk;
   }
   return std::nullopt;
}

const char* sweepModeName( SweepMode m ) {
   return m == SweepMode::walk ? "walk" : "index";
}

}  // namespace OrbEvpn

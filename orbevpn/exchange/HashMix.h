// The mixing step shared by the exchange keys' hashes.
//
// Thomas Wang's 32-bit integer hash, on unsigned 32-bit values (wrapping).
// Both sides of the exchange compute key hashes with it, so it must never
// change: a table written by one build is read by another.
#pragma once

#include <cstdint>

namespace OrbEvpn {

constexpr uint32_t hashMix( uint32_t h ) {
   h = ~h + ( h << 15 );   // h * 32767 - 1
   h = h ^ ( h >> 12 );
   h = h * 5;
   h = h ^ ( h >> 4 );
   h = h * 2057;
   h = h ^ ( h >> 16 );
   return h;
}

}  // namespace OrbEvpn

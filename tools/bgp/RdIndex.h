// RdIndex: the 16-bit assigned number of each VNI's route distinguisher
// (router-id:index), stable across restarts of orbevpn-bgp and gobgpd, so
// that a restarted speaker advertises an unchanged route under the same
// NLRI and peers see no withdrawal.
//
// A VNI's index is derived from the VNI: its low 16 bits, when no other
// VNI holds that number; a VNI that collides gets the lowest free number.
// Every assignment is persisted in a file (one "vni index" line each,
// replaced atomically by flush()) and read back at start, so collisions
// resolve the same way after a restart; without a file the derivation alone
// is stable while no two VNIs collide. An index stays with its VNI for the
// life of the file, so a VNI that comes back gets its old RD: 65,536 VNIs
// at most, beyond which indexOf() reports nothing.
//
// Threading: one thread (the speaker's).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace OrbEvpn::Bgp {

class RdIndex {
 public:
   // `file` empty: nothing is persisted. A missing file is an empty map; a
   // line that does not parse throws std::runtime_error naming the file.
   explicit RdIndex( std::string file = {} );

   // The index of `vni`, assigning one if it has none.
   std::optional< uint16_t > indexOf( uint32_t vni );
   // Writes the assignments made since the last flush (one file write per
   // batch of changes, not per VNI).
   void flush();
   size_t size() const { return byVni_.size(); }

 private:
   bool dirty_ = false;

   std::string file_;
   std::map< uint32_t, uint16_t > byVni_;
   std::map< uint16_t, uint32_t > byIndex_;
};

}  // namespace OrbEvpn::Bgp

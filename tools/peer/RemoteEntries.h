// What the stand-in EVPN side claims to have learnt from remote peers: for
// each VNI a fixed set of hosts behind VTEPs in 198.51.100.0/24 and one
// remote flood VTEP, all derived from (seed, VNI, index) alone, so that a
// run is reproducible and a restarted peer writes the same records again.
//
// Remote MACs are locally administered (first octet 0x0e) and carry the VNI
// in octets 1-3 and the index in octets 4-5, so they never collide across
// VNIs and are told apart from hosts the controller learnt.
//
// Pure functions; no state, safe from any thread.
#pragma once

#include "orbevpn/exchange/FloodEntry.h"
#include "orbevpn/exchange/Host.h"

#include <cstdint>
#include <string>

namespace OrbEvpn::Peer {

inline constexpr uint8_t remoteMacOctet0 = 0x0e;

// A 64-bit mix of the seed and up to two values (splitmix64 finaliser).
uint64_t mix( uint64_t seed, uint64_t a, uint64_t b = 0 );

Wire::EthAddr remoteMac( uint32_t vni, uint32_t index );
// True for a MAC that remoteMac() makes for `vni`.
bool isRemoteMac( const Wire::EthAddr& mac, uint32_t vni );

// The index-th remote host of `vni`.
Host remoteHost( uint64_t seed, uint32_t vni, uint32_t index );
// The one remote flood VTEP of `vni`.
Wire::IpAddr remoteFloodVtep( uint64_t seed, uint32_t vni );

// Text forms used in the log and on stderr: "0e:00:00:0a:00:01", "198.51.100.7".
std::string macText( const Wire::EthAddr& mac );
std::string ipText( const Wire::IpAddr& ip );

}  // namespace OrbEvpn::Peer

// Which shared table lives where, holds what, and is written by whom: the
// one place the agent, the EVPN side (the stand-in peer, a real EVPN agent)
// and the lumen tool agree on. docs/boundary.md tells the same in prose.
//
// Every table has a single writer. A process that would write a table it
// does not own is refused with refuseWrite()'s message before it touches
// shared memory.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OrbEvpn::Boundary {

inline constexpr std::string_view defaultPrefix = "/orbevpn";

enum class Side { agent, evpn };
const char* sideName( Side s );   // "orbevpn-agent", "the EVPN agent"

// One shared table, its path relative to the prefix.
struct TableSpec {
   std::string_view name;         // e.g. "export/host"
   std::string_view recordType;   // the Lumen type name of its records
   Side writer;
   std::string_view what;         // one line for people
};

// Every table, in a fixed order.
const std::vector< TableSpec >& tables();
// The table at `name` (relative to the prefix), or nothing.
std::optional< TableSpec > tableNamed( std::string_view name );

// Names of the tables, relative to the prefix.
inline constexpr std::string_view exportHost = "export/host";
inline constexpr std::string_view exportFlood = "export/flood";
inline constexpr std::string_view evpnHost = "evpn/host";
inline constexpr std::string_view evpnFlood = "evpn/flood";
inline constexpr std::string_view evpnCapability = "evpn/capability";
inline constexpr std::string_view brIdList = "brIdList";
inline constexpr std::string_view config = "config";

// "/orbevpn" + "/" + name; the prefix must start with '/' and not end with one.
std::string pathOf( std::string_view prefix, std::string_view name );
// Throws std::invalid_argument on a prefix that is not "/" followed by names.
void checkPrefix( std::string_view prefix );

// Empty when `side` may write table `name`; else the refusal, e.g.
// "table /orbevpn/evpn/capability is written only by the EVPN agent; orbevpn-agent may not write it".
std::string refuseWrite( std::string_view prefix, std::string_view name, Side side );

}  // namespace OrbEvpn::Boundary

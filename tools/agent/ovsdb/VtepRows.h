// Rows of the hardware_vtep OVSDB schema that the controller feed reads,
// parsed from their wire form (RFC 7047 JSON) into plain structs.
//
// OVSDB writes a column of set type as ["set",[...]] in general, but a set
// of exactly one element as the bare element, and a reference as
// ["uuid","..."]; every reader below accepts all of these. A row that
// cannot be used yields the reason instead of the row ("bad MAC \"zz\"").
#pragma once

#include "tools/agent/Event.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Agent::Ovsdb {

using Json = nlohmann::json;
using Uuid = std::string;

// The MAC of a multicast row that stands for every unknown destination.
inline constexpr const char* unknownDst = "unknown-dst";
inline constexpr const char* vxlanOverIpv4 = "vxlan_over_ipv4";

// The elements of a set-typed column, whichever of its forms it came in.
// Throws std::invalid_argument on anything that is not an OVSDB value.
std::vector< Json > setElements( const Json& value );
// A reference ["uuid", "..."] (or a one-element set of one); nullopt when
// the column holds none.
std::optional< Uuid > uuidOf( const Json& value );

struct SwitchRow {
   std::string name;
   uint32_t vni = 0;
};
struct LocatorRow {
   uint32_t ip = 0;
};
struct LocatorSetRow {
   std::vector< Uuid > locators;
};
struct UcastRow {
   Mac mac{};
   Uuid logicalSwitch, locator;
};
struct McastRow {
   bool unknownDst = false;   // the only kind the feed maps; others are kept out
   Uuid logicalSwitch, locatorSet;
};

template< class Row >
using RowOr = std::variant< Row, std::string >;

// `row` is the "new" object of a row update: column name to value.
RowOr< SwitchRow > parseSwitch( const Json& row );
RowOr< LocatorRow > parseLocator( const Json& row );
RowOr< LocatorSetRow > parseLocatorSet( const Json& row );
RowOr< UcastRow > parseUcast( const Json& row );
RowOr< McastRow > parseMcast( const Json& row );

}  // namespace Agent::Ovsdb

// One controller event, its JSON-lines form and the parser of that form.
//
// The agent's input is a stream of JSON objects, one per line (see
// docs/events.md). parseEvent() turns one line into an Event or into the
// reason it is refused ("bad MAC \"zz\""); the caller adds the line number.
// eventJson() writes an Event back in the same form, so a recorded stream
// can be fed to the agent again.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Agent {

// A MAC as its six bytes, most significant first.
using Mac = std::array< uint8_t, 6 >;

struct Event {
   enum class Op : uint8_t {
      vni,
      vniDel,
      mac,
      macDel,
      flood,
      floodDel,
      multiPath,
      multiPathDel,
      controllerdb,
      synced,
      // Writes of tables the EVPN side owns: parsed so that they can be
      // refused with the boundary's message, never applied.
      capability,
      evpnHost,
      evpnFlood,
   };
   Op op = Op::synced;
   uint32_t vni = 0;
   Mac mac{};
   uint32_t vtep = 0;               // IPv4, host order
   uint32_t seqNo = 0;
   uint8_t preference = 16;
   bool value = true;               // flood: the VTEP's flag; controllerdb/capability: enabled
   std::vector< uint32_t > vteps;   // multiPath

   bool operator==( const Event& ) const = default;
};

const char* opName( Event::Op op );
// The table (relative to the prefix) an event would write outside the
// agent's own model, or "" for events of the controller model.
std::string_view tableWritten( Event::Op op );

// An Event, or the reason the line is refused.
using Parsed = std::variant< Event, std::string >;
Parsed parseEvent( std::string_view line );

// The event as one JSON line (no newline).
std::string eventJson( const Event& e );

// Text forms used in every JSON the agent writes.
std::string macText( const Mac& m );
std::string ipText( uint32_t ip );
bool parseMac( std::string_view s, Mac& out );
bool parseIp( std::string_view s, uint32_t& out );

}  // namespace Agent

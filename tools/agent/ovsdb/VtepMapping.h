// The controller feed's view of a hardware_vtep database, and the controller
// events that keep the agent's model equal to it.
//
// It holds a replica of the five tables the feed monitors, as parsed rows,
// and what it last handed to the model (VNIs, MAC to VTEP with the sequence
// number it issued, flood VTEPs per VNI). After each batch of row updates it
// works out what the batch changed and emits exactly the events that bring
// the model there, through the same Event type the JSON-lines input uses.
// A fresh snapshot (the first monitor reply of a new session) replaces the
// replica wholesale and is compared against what was handed out, so rows
// deleted while the feed was away are withdrawn and nothing stale stays.
//
// Mapping: a Logical_Switch with a tunnel_key is a VNI (the lowest uuid wins
// when two claim one key); each Ucast_Macs_Remote row is a MAC behind its
// locator's dst_ip; the locators of every Mcast_Macs_Remote row whose MAC is
// "unknown-dst" form the VNI's flood list under 00:00:00:00:00:00.
//
// Sequence numbers: the schema has none, so they are issued here, per MAC
// (across VNIs, as EVPN judges mobility per MAC) and never decreasing. A MAC
// that appears or moves gets one more than the highest number issued for it
// or held for it by the import mirror. A MAC still behind the VTEP the export
// table held when the agent started keeps that number, so a restart over an
// unchanged database changes nothing.
//
// Rows that cannot be used (a switch without a key, a key out of range, a
// bad MAC or IP, a locator of another encapsulation) are reported once, with
// their table, uuid and reason, and left out; the rest of the batch applies.
//
// Threading: the event-loop thread only.
#pragma once

#include "tools/agent/Event.h"
#include "tools/agent/ovsdb/VtepRows.h"

#include <functional>
#include <map>
#include <set>
#include <string>

namespace Agent::Ovsdb {

// An event of the feed (those it makes have no multi-path set).
inline Event feedEvent( Event::Op op, uint32_t vni = 0, const Mac& mac = {}, uint32_t vtep = 0, uint32_t seqNo = 0,
                        bool value = true ) {
   Event e;
   e.op = op;
   e.vni = vni;
   e.mac = mac;
   e.vtep = vtep;
   e.seqNo = seqNo;
   e.value = value;
   return e;
}

class VtepMapping {
 public:
   using EmitFn = std::function< void( const Event& ) >;
   using ReportFn = std::function< void( std::string_view table, const Uuid& uuid, const std::string& reason ) >;
   // The highest sequence number the import mirror holds for a MAC (0: none).
   using MirrorSeqFn = std::function< uint32_t( const Mac& ) >;

   VtepMapping( EmitFn emit, ReportFn report, MirrorSeqFn mirrorSeq );

   // What the export table held at start: the MAC keeps `seqNo` while it
   // stays behind `vtep` in `vni`; and it is a floor for the MAC's numbers.
   void seedExported( uint32_t vni, const Mac& mac, uint32_t vtep, uint32_t seqNo );
   // A floor for the MAC's numbers (e.g. what the EVPN side holds).
   void seedSeqNo( const Mac& mac, uint32_t seqNo );

   // One monitor reply or "update" notification: {table: {uuid: {"old","new"}}}.
   // `snapshot`: the initial rows of a new session, which replace the replica.
   void apply( const Json& tableUpdates, bool snapshot );

   uint32_t issued( const Mac& mac ) const;
   size_t rows() const { return rows_; }
   size_t macs() const { return appliedMacs_.size(); }

 private:
   using MacKey = std::pair< Uuid, Mac >;   // switch, MAC
   struct Applied {
      uint32_t vtep = 0, seqNo = 0;
   };

   void rowUpdate( std::string_view table, const Uuid& uuid, const Json& update );
   void switchRow( const Uuid& uuid, const Json* row );
   void locatorRow( const Uuid& uuid, const Json* row, bool modified );
   void locatorSetRow( const Uuid& uuid, const Json* row, bool modified );
   void ucastRow( const Uuid& uuid, const Json* row );
   void mcastRow( const Uuid& uuid, const Json* row );
   template< class Row >
   bool usable( std::string_view table, const Uuid& uuid, const RowOr< Row >& parsed );

   void settle();
   void assignVnis();
   void switchPass( const Uuid& sw, uint32_t vni );
   void macPass( const Uuid& sw, uint32_t vni, const Mac& mac );
   void floodPass( const Uuid& sw, uint32_t vni );
   std::optional< uint32_t > wantedVtep( const Uuid& sw, const Mac& mac ) const;
   void macIs( uint32_t vni, const Mac& mac, std::optional< uint32_t > vtep );
   void emit( const Event& e ) { emit_( e ); }

   EmitFn emit_;
   ReportFn report_;
   MirrorSeqFn mirrorSeq_;

   // The replica: usable rows only.
   std::map< Uuid, SwitchRow > switches_;
   std::map< Uuid, uint32_t > locators_;                 // uuid -> dst_ip
   std::map< Uuid, std::vector< Uuid > > locatorSets_;
   std::map< Uuid, UcastRow > ucast_;
   std::map< Uuid, McastRow > mcast_;                    // "unknown-dst" rows only
   std::map< MacKey, std::set< Uuid > > ucastByKey_;
   std::map< Uuid, std::set< Uuid > > mcastBySwitch_;
   std::map< Uuid, std::string > reported_;              // uuid -> reason last reported
   size_t rows_ = 0;

   // The VNI of each switch that owns one, and the owner of each VNI.
   std::map< Uuid, uint32_t > vniOf_;
   std::map< uint32_t, Uuid > ownerOf_;

   // What the last settle() left to do.
   bool switchesChanged_ = false, everything_ = false;
   std::set< MacKey > dirtyMacs_;
   std::set< Uuid > dirtyFlood_, dirtySwitches_;

   // What the model holds from this feed.
   std::set< uint32_t > appliedVnis_;
   std::map< std::pair< uint32_t, Mac >, Applied > appliedMacs_;
   std::map< uint32_t, std::set< uint32_t > > appliedFlood_;

   std::map< Mac, uint32_t > issued_;
   std::map< std::pair< uint32_t, Mac >, Applied > exported_;   // at start, used once
};

}  // namespace Agent::Ovsdb

// lumen check: full validation of one table, as deep as its record type
// allows: the headers as a reader checks them, every slot counted against
// the header, every record's key probed.
#include "platform/lumen/Inspect.h"
#include "tools/lumen/Catalog.h"
#include "tools/lumen/Commands.h"
#include "tools/lumen/Output.h"
#include "tools/lumen/Table.h"

#include <fmt/format.h>

namespace LumenTool {

namespace {

// Both the census and the key probe: what check found, or what is wrong.
struct Verdict {
   Lumen::TableInfo info;
   Lumen::SlotCensus census;
   std::optional< KeyProbe > keys;   // none for a type lumen cannot read
};

void validate( const std::string& path, Verdict& v ) {
   std::optional< Lumen::SlotCensus > census = Lumen::census( path );
   if ( !census ) {
      MOX_THROW( Fable::CorruptionDetectedException, "Lumen table {} was removed while it was "
                 "checked", path );
   }
   v.census = *census;
   // A reader that meets a slot a dead writer left mid-update reports the
   // table damaged until the next writer restores the slot.
   if ( v.census.busy != 0 && !v.info.writerAlive ) {
      MOX_THROW( Fable::CorruptionDetectedException,
                 "Lumen table {}: {} slot{} left mid-update by a writer that is gone (its next "
                 "writer restores {})",
                 path, v.census.busy, v.census.busy == 1 ? " was" : "s were",
                 v.census.busy == 1 ? "it" : "them" );
   }
   if ( const RecordKind* kind = recordKind( v.info.typeName ) ) {
      v.keys = kind->probeKeys( path );
   }
}

std::string summaryOf( const Verdict& v ) {
   const Lumen::TableInfo& t = v.info;
   const Lumen::SlotCensus& c = v.census;
   std::string s = fmt::format( "{}, {} record{}", t.typeName, grouped( t.count ),
                                t.count == 1 ? "" : "s" );
   if ( c.generation != 0 ) {
      s += fmt::format( ", {} slots ({} live, {} removed, {} empty{}), capacity {}, generation {}",
                        grouped( c.slotCount ), grouped( c.live ), grouped( c.tombstones ),
                        grouped( c.empty ), c.busy ? fmt::format( ", {} busy", c.busy ) : "",
                        grouped( t.capacity ), c.generation );
   } else {
      s += ", no data segment yet";
   }
   s += t.writerPid == 0 ? ", no writer yet"
                         : fmt::format( ", writer {} {}", t.writerPid, t.writerAlive ? "live" : "gone" );
   if ( !v.keys ) {
      s += "; keys not probed: lumen cannot read this record type";
   } else if ( v.keys->settled ) {
      s += fmt::format( "; {} key{} probed", grouped( v.keys->records ), v.keys->records == 1 ? "" : "s" );
   }
   if ( !c.settled || ( v.keys && !v.keys->settled ) ) {
      s += "; the writer kept changing the table, so counts were not compared";
   }
   return s;
}

}  // namespace

int checkTable( const std::string& path, Form form ) {
   FoundTable found = findTable( path );
   if ( !found.info && found.exitCode == exitNoTable ) {
      complain( found.error );
      return found.exitCode;
   }
   Verdict v;
   std::string error = found.error;
   if ( found.info ) {
      v.info = *found.info;
      try {
         validate( path, v );
      } catch ( const std::exception& e ) {
         error = e.what();
      }
   }
   if ( form == Form::json ) {
      Json out = { { "path", path }, { "ok", error.empty() } };
      if ( !error.empty() ) {
         out[ "error" ] = error;
      } else {
         out[ "type" ] = v.info.typeName;
         out[ "count" ] = v.info.count;
         out[ "capacity" ] = v.info.capacity;
         out[ "generation" ] = v.census.generation;
         out[ "slots" ] = { { "total", v.census.slotCount }, { "live", v.census.live },
                            { "removed", v.census.tombstones }, { "empty", v.census.empty },
                            { "busy", v.census.busy } };
         out[ "writerPid" ] = v.info.writerPid;
         out[ "writerAlive" ] = v.info.writerAlive;
         out[ "keysProbed" ] = v.keys ? Json( v.keys->records ) : Json();
         out[ "settled" ] = v.census.settled && ( !v.keys || v.keys->settled );
      }
      printLine( out.dump() );
   } else if ( error.empty() ) {
      printLine( fmt::format( "ok {}: {}", path, summaryOf( v ) ) );
   } else {
      printLine( fmt::format( "damaged {}: {}", path, error ) );
   }
   return error.empty() ? exitOk : exitFailed;
}

}  // namespace LumenTool

#include "tests/support/LeakCheck.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

LeakCheck::LeakCheck() {
   for ( const auto* r : Mox::AllocTrackTypeInfo::all() ) {
      before_.push_back( { r, r->liveObjects(), r->liveBytes() } );
   }
}

LeakCheck::~LeakCheck() {
   for ( const auto& line : leaks() ) {
      ADD_FAILURE() << "leak: " << line;
   }
}

std::vector< std::string > LeakCheck::leaks() const {
   std::vector< std::string > out;
   for ( const auto* r : Mox::AllocTrackTypeInfo::all() ) {
      int64_t objects = 0;
      int64_t bytes = 0;
      for ( const auto& s : before_ ) {
         if ( s.record == r ) {
            objects = s.objects;
            bytes = s.bytes;
            break;
         }
      }
      if ( r->liveObjects() != objects || r->liveBytes() != bytes ) {
         out.push_back( fmt::format( "{}: {} live objects ({} bytes), expected {} ({} bytes)",
                                     r->name(), r->liveObjects(), r->liveBytes(), objects,
                                     bytes ) );
      }
   }
   return out;
}

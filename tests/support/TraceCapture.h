// TraceCapture: records the text trace for a test.
//
// RAII: the constructor installs a capturing text sink (and, given a level
// setting, applies it with Trace::configure); the destructor puts the previous
// sink back. Levels are not restored. Only the text trace is captured; the
// ring keeps recording as usual.
//
//    TraceCapture capture( "OrbEvpnModeSm/8" );
//    ...
//    EXPECT_THAT( capture.texts(), ElementsAre( "Turning orbEvpnIntegrationMode ON" ) );
//
// Threading: safe to read while other threads trace.
#pragma once

#include "platform/trace/Sink.h"

#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

class TraceCapture {
 public:
   struct Line {
      std::string handle;
      int level = 0;
      std::string text;
      friend bool operator==( const Line&, const Line& ) = default;
      friend void PrintTo( const Line& l, std::ostream* os ) {
         *os << '{' << l.handle << ' ' << l.level << " \"" << l.text << "\"}";
      }
   };

   explicit TraceCapture( std::string_view levels = {} );
   ~TraceCapture();
   TraceCapture( const TraceCapture& ) = delete;
   TraceCapture& operator=( const TraceCapture& ) = delete;

   std::vector< Line > lines() const;
   // The text part of every line, in order.
   std::vector< std::string > texts() const;
   // texts() of one handle only.
   std::vector< std::string > texts( std::string_view handle ) const;
   void clear();

 private:
   class Recorder;
   std::shared_ptr< Recorder > recorder_;
   std::shared_ptr< Trace::Sink > previous_;
};

// Text trace output: the record a trace statement produces and the sink that
// receives it.
//
// One text sink is installed per process (stderr by default). Every enabled
// trace statement hands it one Record. The facility serialises calls to
// write() under its own mutex, so a sink need not be thread-safe, but a sink
// must not issue trace statements itself (that would deadlock).
//
// Installing no sink (nullptr) turns the text trace off; statements then skip
// building the text altogether and only the ring records them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Trace {

struct Record {
   int64_t timestamp = 0;        // nanoseconds since the Unix epoch
   std::string_view handle;      // the handle's name
   int level = 0;
   std::string_view text;        // the formatted statement
};

// "2026-11-21 23:59:01.123456 OrbEvpnModeSm 8 Turning orbEvpnIntegrationMode ON"
// Time is UTC with microseconds, so traces from different hosts line up.
std::string formatLine( const Record& r );

class Sink {
 public:
   virtual ~Sink() = default;
   // The views in `r` are valid only during the call.
   virtual void write( const Record& r ) = 0;
};

// Installs `sink` as the text sink; nullptr turns the text trace off. Waits
// for a write in progress on the old sink to finish.
void textSinkIs( std::shared_ptr< Sink > sink );
std::shared_ptr< Sink > textSink();

// Full lines to stderr; the sink installed at start-up.
std::shared_ptr< Sink > stderrSink();
// Full lines appended to the file at `path`, flushed per line. Throws
// std::system_error when the file cannot be opened.
std::shared_ptr< Sink > fileSink( const std::string& path );

}  // namespace Trace

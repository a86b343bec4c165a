// The agent's controller input: the stream is cut into lines the way the
// agent reads it (tools/agent Input, over a regular file, in slices) and
// every line goes through the event parser (tools/agent Event). A line is
// either an Event or a reason; an Event written back as JSON must parse to
// the same Event. The lines handed out, with those reported too long in
// their places, must be the input: a small line limit makes the fuzzer meet
// overlong lines often.
#include "fuzz/Check.h"
#include "tools/agent/Event.h"
#include "tools/agent/EventLoop.h"
#include "tools/agent/Input.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include <sys/mman.h>
#include <unistd.h>

namespace {

void parseLine( std::string_view line ) {
   const Agent::Parsed parsed = Agent::parseEvent( line );
   if ( const auto* reason = std::get_if< std::string >( &parsed ) ) {
      Fuzz::check( !reason->empty(), "a refused line has no reason" );
      return;
   }
   const Agent::Event& e = std::get< Agent::Event >( parsed );
   const std::string json = Agent::eventJson( e );
   const Agent::Parsed again = Agent::parseEvent( json );
   if ( const auto* reason = std::get_if< std::string >( &again ) ) {
      Fuzz::inconsistent( "an event written back is refused:", json + ": " + *reason );
   }
   Fuzz::check( std::get< Agent::Event >( again ) == e, "an event written back parses differently:", json );
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   const std::string_view input( reinterpret_cast< const char* >( data ), size );
   const int fd = ::memfd_create( "fuzz-agent-event", MFD_CLOEXEC );
   Fuzz::check( fd >= 0, "memfd_create failed" );
   for ( size_t off = 0; off < size; ) {
      const ssize_t n = ::write( fd, data + off, size - off );
      Fuzz::check( n > 0, "writing the input failed" );
      off += size_t( n );
   }
   // A final newline ends the last line; it starts no new one.
   const std::string_view expected =
      !input.empty() && input.back() == '\n' ? input.substr( 0, size - 1 ) : input;
   constexpr size_t maxLine = 4096;
   size_t pos = 0;   // where the next line starts in `expected`
   uint64_t lines = 0;
   // The next line of the input: what the stream must account for next.
   auto nextLine = [ & ] {
      Fuzz::check( pos <= expected.size(), "more lines handed out than the input has" );
      const size_t nl = expected.find( '\n', pos );
      const std::string_view line = expected.substr( pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos );
      pos += line.size() + 1;
      return line;
   };
   {
      Agent::EventLoop loop;
      Agent::Input in(
         loop, "/proc/self/fd/" + std::to_string( fd ),
         [ & ]( std::string_view line, uint64_t number ) {
            Fuzz::check( number == ++lines, "lines are not numbered in order" );
            Fuzz::check( line.size() <= maxLine, "a line over the limit was handed out" );
            Fuzz::check( line == nextLine(), "a line handed out is not the input's" );
            parseLine( line );
         },
         [ & ] { loop.stop(); } );
      in.maxLineIs( maxLine );
      in.onTooLongIs( [ & ]( uint64_t number, uint64_t bytes ) {
         Fuzz::check( number == ++lines, "lines are not numbered in order" );
         Fuzz::check( bytes > maxLine, "a line within the limit was reported too long" );
         Fuzz::check( bytes == nextLine().size(), "a line reported too long has another length" );
      } );
      loop.run();
   }
   ::close( fd );
   Fuzz::check( pos >= expected.size() && ( expected.empty() || pos == expected.size() + 1 ),
                "the lines handed out are not the whole input" );
   return 0;
}

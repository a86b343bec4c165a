#include "platform/trace/Sink.h"

#include "platform/trace/internal/TextOutput.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <system_error>
#include <utility>

namespace Trace {

namespace {

class FileSink : public Sink {
 public:
   FileSink( std::FILE* file, bool owned ) : file_( file ), owned_( owned ) {}
   ~FileSink() override {
      if ( owned_ ) {
         std::fclose( file_ );
      }
   }
   void write( const Record& r ) override {
      std::string line = formatLine( r );
      line.push_back( '\n' );
      std::fwrite( line.data(), 1, line.size(), file_ );
      // A trace is read most when the process dies: never leave lines in a
      // user-space buffer.
      std::fflush( file_ );
   }

 private:
   std::FILE* file_;
   bool owned_;
};

struct TextState {
   // Guards sink and serialises write() calls on it.
   std::mutex mutex;
   std::shared_ptr< Sink > sink = stderrSink();
};

TextState& textState() {
   // Never destroyed: static destructors elsewhere may still trace.
   static TextState* s = new TextState;
   return *s;
}

}  // namespace

namespace internal {

std::atomic< bool > textSinkInstalled{ true };

void writeText( const Record& r ) {
   TextState& s = textState();
   std::lock_guard lock( s.mutex );
   if ( s.sink ) {
      s.sink->write( r );
   }
}

}  // namespace internal

std::string formatLine( const Record& r ) {
   std::time_t seconds = static_cast< std::time_t >( r.timestamp / 1'000'000'000 );
   int64_t micros = ( r.timestamp % 1'000'000'000 ) / 1000;
   if ( micros < 0 ) {  // before the epoch: keep the fraction positive
      --seconds;
      micros += 1'000'000;
   }
   std::tm tm{};
   gmtime_r( &seconds, &tm );
   return fmt::format( "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:06} {} {} {}",
                       tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                       tm.tm_min, tm.tm_sec, micros, r.handle, r.level, r.text );
}

void textSinkIs( std::shared_ptr< Sink > sink ) {
   TextState& s = textState();
   std::shared_ptr< Sink > old;
   {
      std::lock_guard lock( s.mutex );
      internal::textSinkInstalled.store( sink != nullptr, std::memory_order_relaxed );
      old = std::exchange( s.sink, std::move( sink ) );
   }
   // `old` is released outside the lock: its destructor may do I/O.
}

std::shared_ptr< Sink > textSink() {
   TextState& s = textState();
   std::lock_guard lock( s.mutex );
   return s.sink;
}

std::shared_ptr< Sink > stderrSink() {
   static const std::shared_ptr< Sink > sink =
      std::make_shared< FileSink >( stderr, false );
   return sink;
}

std::shared_ptr< Sink > fileSink( const std::string& path ) {
   std::FILE* f = std::fopen( path.c_str(), "a" );
   if ( !f ) {
      throw std::system_error( errno, std::generic_category(),
                               "cannot open trace file " + path );
   }
   return std::make_shared< FileSink >( f, true );
}

}  // namespace Trace

#include "tests/support/TraceCapture.h"

#include "platform/trace/Handle.h"

#include <mutex>

class TraceCapture::Recorder : public Trace::Sink {
 public:
   void write( const Trace::Record& r ) override {
      std::lock_guard lock( mutex_ );
      lines_.push_back( Line{ std::string( r.handle ), r.level, std::string( r.text ) } );
   }
   std::vector< Line > lines() const {
      std::lock_guard lock( mutex_ );
      return lines_;
   }
   void clear() {
      std::lock_guard lock( mutex_ );
      lines_.clear();
   }

 private:
   mutable std::mutex mutex_;
   std::vector< Line > lines_;
};

TraceCapture::TraceCapture( std::string_view levels )
   : recorder_( std::make_shared< Recorder >() ), previous_( Trace::textSink() ) {
   if ( !levels.empty() ) {
      Trace::configure( levels );
   }
   Trace::textSinkIs( recorder_ );
}

TraceCapture::~TraceCapture() {
   Trace::textSinkIs( previous_ );
}

std::vector< TraceCapture::Line > TraceCapture::lines() const {
   return recorder_->lines();
}

std::vector< std::string > TraceCapture::texts() const {
   std::vector< std::string > out;
   for ( const Line& l : recorder_->lines() ) {
      out.push_back( l.text );
   }
   return out;
}

std::vector< std::string > TraceCapture::texts( std::string_view handle ) const {
   std::vector< std::string > out;
   for ( const Line& l : recorder_->lines() ) {
      if ( l.handle == handle ) {
         out.push_back( l.text );
      }
   }
   return out;
}

void TraceCapture::clear() {
   recorder_->clear();
}

#include "tools/agent/Metrics.h"

#include <fmt/format.h>
#include <httplib.h>

#include <set>
#include <stdexcept>

namespace Agent {

std::string prometheusText( const std::vector< Metric >& metrics ) {
   std::string out;
   std::set< std::string > described;
   for ( const Metric& m : metrics ) {
      const std::string name = "orbevpn_agent_" + m.name;
      if ( described.insert( name ).second ) {
         out += fmt::format( "# HELP {} {}\n# TYPE {} {}\n", name, m.help, name, m.type );
      }
      out += m.labels.empty() ? fmt::format( "{} {}\n", name, m.value )
                              : fmt::format( "{}{{{}}} {}\n", name, m.labels, m.value );
   }
   return out;
}

MetricsHttp::MetricsHttp( const std::string& listen, bool anyAddress )
      : server_( std::make_unique< httplib::Server >() ) {
   const auto colon = listen.rfind( ':' );
   if ( colon == std::string::npos ) {
      throw std::runtime_error( fmt::format( "--metrics-listen {}: expected ADDR:PORT", listen ) );
   }
   const std::string addr = listen.substr( 0, colon );
   int port = 0;
   try {
      port = std::stoi( listen.substr( colon + 1 ) );
   } catch ( const std::exception& ) {
      throw std::runtime_error( fmt::format( "--metrics-listen {}: bad port", listen ) );
   }
   const bool loopback = addr == "localhost" || addr.rfind( "127.", 0 ) == 0 || addr == "::1";
   if ( !loopback && !anyAddress ) {
      throw std::runtime_error( fmt::format(
         "--metrics-listen {}: not a loopback address (add --metrics-any-address to allow it)", listen ) );
   }
   server_->Get( "/metrics", [ this ]( const httplib::Request&, httplib::Response& res ) {
      std::lock_guard< std::mutex > lock( mutex_ );
      res.set_content( text_, "text/plain; version=0.0.4" );
   } );
   if ( port == 0 ) {
      port_ = server_->bind_to_any_port( addr );
   } else {
      port_ = server_->bind_to_port( addr, port ) ? port : -1;
   }
   if ( port_ <= 0 ) {
      throw std::runtime_error( fmt::format( "--metrics-listen {}: cannot listen", listen ) );
   }
   thread_ = std::thread( [ this ] { server_->listen_after_bind(); } );
}

MetricsHttp::~MetricsHttp() {
   server_->stop();
   if ( thread_.joinable() ) {
      thread_.join();
   }
}

void MetricsHttp::textIs( std::string text ) {
   std::lock_guard< std::mutex > lock( mutex_ );
   text_ = std::move( text );
}

}  // namespace Agent

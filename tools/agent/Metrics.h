// Metrics in the Prometheus text exposition format, served on the control
// socket (`metrics`) and, with --metrics-listen, over HTTP at /metrics by a
// small server thread. That thread never touches the plug-in or the model:
// it serves the text the event loop last published.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

namespace Agent {

struct Metric {
   std::string name;     // without the orbevpn_agent_ prefix
   std::string type;     // "counter" or "gauge"
   std::string help;
   double value = 0;
   std::string labels;   // e.g. counter="hostIs", already escaped
};

std::string prometheusText( const std::vector< Metric >& metrics );

class MetricsHttp {
 public:
   // `listen` is ADDR:PORT; an address that is not loopback is refused
   // unless `anyAddress`. Throws std::runtime_error when it cannot listen.
   MetricsHttp( const std::string& listen, bool anyAddress );
   ~MetricsHttp();
   void textIs( std::string text );
   int port() const { return port_; }

 private:
   std::unique_ptr< httplib::Server > server_;
   std::thread thread_;
   std::mutex mutex_;
   std::string text_;
   int port_ = 0;
};

}  // namespace Agent

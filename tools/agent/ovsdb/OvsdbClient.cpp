#include "tools/agent/ovsdb/OvsdbClient.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Agent::Ovsdb {

namespace {
constexpr uint32_t firstBackoffMs = 100, lastBackoffMs = 3000;
constexpr const char* monitorId = "monitor";
}  // namespace

OvsdbClient::OvsdbClient( EventLoop& loop, const std::string& address, Callbacks cb )
      : loop_( loop ), address_( address ), cb_( std::move( cb ) ) {
   if ( address.rfind( "unix:", 0 ) == 0 ) {
      path_ = address.substr( 5 );
      if ( path_.empty() || path_.size() >= sizeof( sockaddr_un{}.sun_path ) ) {
         throw std::invalid_argument( fmt::format( "bad socket path in --ovsdb {}", address ) );
      }
   } else if ( address.rfind( "tcp:", 0 ) == 0 ) {
      tcp_ = true;
      const std::string rest = address.substr( 4 );
      const size_t colon = rest.rfind( ':' );
      unsigned long port = 0;
      if ( colon != std::string::npos && colon > 0 ) {
         try {
            size_t used = 0;
            port = std::stoul( rest.substr( colon + 1 ), &used );
            if ( used != rest.size() - colon - 1 ) {
               port = 0;
            }
         } catch ( const std::exception& ) {
            port = 0;
         }
      }
      if ( port == 0 || port > 65535 ) {
         throw std::invalid_argument( fmt::format( "--ovsdb {}: expected tcp:HOST:PORT", address ) );
      }
      host_ = rest.substr( 0, colon );
      if ( host_.size() > 2 && host_.front() == '[' && host_.back() == ']' ) {
         host_ = host_.substr( 1, host_.size() - 2 );
      }
      port_ = uint16_t( port );
   } else {
      throw std::invalid_argument( fmt::format( "--ovsdb {}: expected unix:PATH or tcp:HOST:PORT", address ) );
   }
   retryTimer_ = EventLoop::oneShotTimer();
   loop_.add( retryTimer_, [ this ]( uint32_t ) {
      EventLoop::drainTimer( retryTimer_ );
      if ( fd_ < 0 ) {
         connectNow();
      }
   } );
   connectNow();
}

OvsdbClient::~OvsdbClient() {
   if ( fd_ >= 0 ) {
      loop_.remove( fd_ );
      ::close( fd_ );
   }
   loop_.remove( retryTimer_ );
   ::close( retryTimer_ );
}

OvsdbClient::Json OvsdbClient::monitorRequest() {
   auto columns = []( std::initializer_list< const char* > names ) {
      Json c = Json::array();
      for ( const char* n : names ) {
         c.push_back( n );
      }
      return Json{ { "columns", c } };
   };
   Json tables = { { "Logical_Switch", columns( { "name", "tunnel_key" } ) },
                   { "Physical_Locator", columns( { "encapsulation_type", "dst_ip" } ) },
                   { "Physical_Locator_Set", columns( { "locators" } ) },
                   { "Ucast_Macs_Remote", columns( { "MAC", "logical_switch", "locator" } ) },
                   { "Mcast_Macs_Remote", columns( { "MAC", "logical_switch", "locator_set" } ) } };
   return { { "method", "monitor" }, { "params", Json::array( { database, monitorId, tables } ) }, { "id", monitorId } };
}

// ---- connection

void OvsdbClient::connectNow() {
   int fd = -1;
   int rc = -1;
   if ( tcp_ ) {
      addrinfo hints{};
      hints.ai_socktype = SOCK_STREAM;
      addrinfo* res = nullptr;
      const int gai = ::getaddrinfo( host_.c_str(), std::to_string( port_ ).c_str(), &hints, &res );
      if ( gai != 0 || !res ) {
         cb_.log( fmt::format( "{}: {}", address_, ::gai_strerror( gai ) ) );
         retryLater();
         return;
      }
      fd = ::socket( res->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      if ( fd >= 0 ) {
         const int one = 1;
         ::setsockopt( fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one );
         rc = ::connect( fd, res->ai_addr, res->ai_addrlen );
      }
      ::freeaddrinfo( res );
   } else {
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      std::memcpy( addr.sun_path, path_.c_str(), path_.size() + 1 );
      fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0 );
      if ( fd >= 0 ) {
         rc = ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr );
      }
   }
   // Only TCP connects in the background; a Unix socket that answers
   // EAGAIN has a full backlog and is tried again later.
   if ( fd < 0 || ( rc != 0 && errno != EINPROGRESS ) ) {
      if ( fd >= 0 ) {
         ::close( fd );
      }
      retryLater();
      return;
   }
   fd_ = fd;
   connecting_ = rc != 0;
   in_.clear();
   out_.clear();
   scanned_ = start_ = 0;
   depth_ = 0;
   inString_ = escaped_ = false;
   wantWrite_ = connecting_;
   loop_.add( fd_, [ this ]( uint32_t ev ) { onSocket( ev ); }, EPOLLIN | ( connecting_ ? EPOLLOUT : 0u ) );
   if ( !connecting_ ) {
      send( monitorRequest() );
   }
}

void OvsdbClient::onSocket( uint32_t events ) {
   if ( connecting_ ) {
      int err = 0;
      socklen_t len = sizeof err;
      ::getsockopt( fd_, SOL_SOCKET, SO_ERROR, &err, &len );
      if ( err != 0 ) {
         drop( std::strerror( err ) );
         return;
      }
      if ( !( events & ( EPOLLOUT | EPOLLIN ) ) ) {
         return;
      }
      connecting_ = false;
      send( monitorRequest() );
      if ( fd_ < 0 ) {
         return;
      }
   }
   if ( events & EPOLLOUT ) {
      flush();
   }
   if ( fd_ >= 0 && ( events & ( EPOLLIN | EPOLLHUP | EPOLLERR ) ) ) {
      readSome();
   }
}

void OvsdbClient::drop( const std::string& why ) {
   if ( fd_ < 0 ) {
      return;
   }
   loop_.remove( fd_ );
   ::close( fd_ );
   fd_ = -1;
   connecting_ = false;
   const bool wasUp = up_;
   up_ = false;
   if ( wasUp ) {
      cb_.log( fmt::format( "{}: session ended: {}", address_, why ) );
      cb_.down();
   }
   retryLater();
}

void OvsdbClient::retryLater() {
   EventLoop::armOnce( retryTimer_, backoffMs_ );
   backoffMs_ = std::min( lastBackoffMs, backoffMs_ * 2 );
}

// ---- bytes

void OvsdbClient::send( const Json& m ) {
   out_ += m.dump();
   flush();
}

void OvsdbClient::flush() {
   while ( !out_.empty() && fd_ >= 0 ) {
      const ssize_t n = ::send( fd_, out_.data(), out_.size(), MSG_NOSIGNAL );
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         if ( errno == EAGAIN || errno == EWOULDBLOCK ) {
            break;
         }
         drop( std::strerror( errno ) );
         return;
      }
      out_.erase( 0, size_t( n ) );
   }
   if ( fd_ < 0 || connecting_ ) {
      return;
   }
   const bool want = !out_.empty();
   if ( want != wantWrite_ ) {
      wantWrite_ = want;
      loop_.eventsIs( fd_, EPOLLIN | ( want ? EPOLLOUT : 0u ) );
   }
}

void OvsdbClient::readSome() {
   char buf[ 1 << 16 ];
   for ( ;; ) {
      const ssize_t n = ::read( fd_, buf, sizeof buf );
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         if ( errno != EAGAIN && errno != EWOULDBLOCK ) {
            drop( std::strerror( errno ) );
         }
         return;
      }
      if ( n == 0 ) {
         drop( "closed by the server" );
         return;
      }
      in_.append( buf, size_t( n ) );
      frame();
      if ( fd_ < 0 ) {
         return;
      }
   }
}

void OvsdbClient::frame() {
   const int fd = fd_;
   for ( size_t i = scanned_; i < in_.size(); ++i ) {
      const char c = in_[ i ];
      if ( inString_ ) {
         if ( escaped_ ) {
            escaped_ = false;
         } else if ( c == '\\' ) {
            escaped_ = true;
         } else if ( c == '"' ) {
            inString_ = false;
         }
         continue;
      }
      if ( c == '"' ) {
         inString_ = true;
      } else if ( c == '{' || c == '[' ) {
         if ( depth_++ == 0 ) {
            start_ = i;
         }
      } else if ( ( c == '}' || c == ']' ) && depth_ > 0 && --depth_ == 0 ) {
         Json m = Json::parse( in_.begin() + long( start_ ), in_.begin() + long( i + 1 ), nullptr, false );
         if ( m.is_discarded() ) {
            drop( "a message that is not JSON" );
            return;
         }
         scanned_ = i + 1;
         onMessage( m );
         if ( fd_ != fd ) {
            return;   // dropped (and maybe reconnected) meanwhile
         }
         start_ = i + 1;
      } else if ( depth_ == 0 && c != ' ' && c != '\n' && c != '\r' && c != '\t' ) {
         drop( fmt::format( "unexpected byte {:#04x} between messages", uint8_t( c ) ) );
         return;
      }
   }
   // Keep only the message in progress.
   const size_t keep = depth_ > 0 ? start_ : in_.size();
   in_.erase( 0, keep );
   start_ = 0;
   scanned_ = in_.size();
}

// ---- messages

void OvsdbClient::onMessage( const Json& m ) {
   if ( !m.is_object() ) {
      drop( "a message that is not an object" );
      return;
   }
   auto method = m.find( "method" );
   if ( method != m.end() && method->is_string() ) {
      const Json params = m.value( "params", Json::array() );
      if ( *method == "echo" ) {
         send( { { "result", params }, { "error", nullptr }, { "id", m.value( "id", Json() ) } } );
      } else if ( *method == "update" && up_ ) {
         if ( params.is_array() && params.size() == 2 && params[ 0 ] == monitorId ) {
            cb_.rows( params[ 1 ], false );
         }
      } else if ( !m.value( "id", Json() ).is_null() ) {
         send( { { "result", nullptr }, { "error", fmt::format( "unknown method {}", method->dump() ) }, { "id", m[ "id" ] } } );
      }
      return;
   }
   if ( m.value( "id", Json() ) == monitorId ) {
      const Json error = m.value( "error", Json() );
      if ( !error.is_null() ) {
         cb_.log( fmt::format( "{}: monitor refused: {}", address_, error.dump() ) );
         drop( "monitor refused" );
         return;
      }
      cb_.rows( m.value( "result", Json::object() ), true );
      up_ = true;
      ++sessions_;
      backoffMs_ = firstBackoffMs;
      cb_.up();
   }
}

}  // namespace Agent::Ovsdb

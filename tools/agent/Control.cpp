#include "tools/agent/Control.h"

#include "platform/lumen/Options.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Agent {

namespace {

bool addressOf( const std::string& path, sockaddr_un& addr ) {
   addr = {};
   addr.sun_family = AF_UNIX;
   if ( path.empty() || path.size() >= sizeof addr.sun_path ) {
      return false;
   }
   std::memcpy( addr.sun_path, path.c_str(), path.size() + 1 );
   return true;
}

bool writeAll( int fd, const std::string& s ) {
   size_t off = 0;
   while ( off < s.size() ) {
      const ssize_t n = ::send( fd, s.data() + off, s.size() - off, MSG_NOSIGNAL );
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         return false;
      }
      off += size_t( n );
   }
   return true;
}

}  // namespace

std::string defaultControlPath() {
   if ( const char* env = std::getenv( "ORBEVPN_AGENT_CONTROL" ); env && *env ) {
      return env;
   }
   return Lumen::root() + "/orbevpn-agent.ctl";
}

ControlServer::ControlServer( EventLoop& loop, const std::string& path, CommandFn fn )
      : ControlServer( loop, path, std::move( fn ), ControlLimits{} ) {}

ControlServer::ControlServer( EventLoop& loop, const std::string& path, CommandFn fn, ControlLimits limits )
      : loop_( loop ), path_( path ), fn_( std::move( fn ) ), limits_( limits ) {
   sockaddr_un addr;
   if ( !addressOf( path, addr ) ) {
      throw std::runtime_error( fmt::format( "bad control socket path \"{}\"", path ) );
   }
   // A live agent answers on the path; a dead one left only the file.
   const int probe = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if ( probe >= 0 && ::connect( probe, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) == 0 ) {
      ::close( probe );
      throw std::runtime_error( fmt::format( "control socket {} is in use by a live agent", path ) );
   }
   if ( probe >= 0 ) {
      ::close( probe );
   }
   ::unlink( path.c_str() );
   listenFd_ = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
   // Owner only from the first moment: the socket is made under umask 077.
   const mode_t old = ::umask( 077 );
   const int rc = ::bind( listenFd_, reinterpret_cast< sockaddr* >( &addr ), sizeof addr );
   ::umask( old );
   if ( rc != 0 || ::chmod( path.c_str(), 0600 ) != 0 || ::listen( listenFd_, 16 ) != 0 ) {
      const std::string why = std::strerror( errno );
      ::close( listenFd_ );
      throw std::runtime_error( fmt::format( "control socket {}: {}", path, why ) );
   }
   loop_.add( listenFd_, [ this ]( uint32_t ) { onAccept(); } );
   timerFd_ = EventLoop::periodicTimer( std::max< uint32_t >( 10, limits_.stallMs / 4 ) );
   loop_.add( timerFd_, [ this ]( uint32_t ) {
      EventLoop::drainTimer( timerFd_ );
      onTimer();
   } );
}

ControlServer::~ControlServer() {
   for ( auto& [ fd, c ] : clients_ ) {
      loop_.remove( fd );
      ::close( fd );
   }
   loop_.remove( timerFd_ );
   ::close( timerFd_ );
   loop_.remove( listenFd_ );
   ::close( listenFd_ );
   ::unlink( path_.c_str() );
}

void ControlServer::onAccept() {
   for ( ;; ) {
      const int fd = ::accept4( listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK );
      if ( fd < 0 ) {
         return;
      }
      const uint64_t number = ++accepted_;
      if ( clients_.size() >= limits_.maxClients ) {
         ++dropped_;
         std::fprintf( stderr, "control client #%llu: %zu clients are connected already; closed\n",
                       (unsigned long long)number, clients_.size() );
         ::close( fd );
         continue;
      }
      clients_[ fd ] = Client{ number, {}, {}, 0, Clock::now() };
      loop_.add( fd, [ this, fd ]( uint32_t events ) { onEvents( fd, events ); } );
   }
}

void ControlServer::onEvents( int fd, uint32_t events ) {
   auto it = clients_.find( fd );
   if ( it == clients_.end() ) {
      return;
   }
   Client& c = it->second;
   if ( c.out.empty() ) {
      onReadable( fd, c );
   } else if ( events & ( EPOLLOUT | EPOLLERR | EPOLLHUP ) ) {
      flush( fd, c );
   }
}

void ControlServer::onReadable( int fd, Client& c ) {
   char buf[ 4096 ];
   bool closed = false;
   for ( ;; ) {
      // Never more than one byte past the limit is kept.
      const size_t room = limits_.maxLine + 1 - c.in.size();
      const ssize_t n = ::read( fd, buf, std::min( sizeof buf, room ) );
      if ( n > 0 ) {
         const size_t before = c.in.size();
         c.in.append( buf, size_t( n ) );
         c.progress = Clock::now();
         if ( c.in.find( '\n', before ) != std::string::npos || c.in.size() > limits_.maxLine ) {
            break;
         }
         continue;
      }
      if ( n < 0 && errno == EINTR ) {
         continue;
      }
      closed = n == 0 || ( errno != EAGAIN && errno != EWOULDBLOCK );
      break;
   }
   const auto nl = c.in.find( '\n' );
   if ( nl == std::string::npos || nl > limits_.maxLine ) {
      if ( c.in.size() > limits_.maxLine ) {
         const std::string why =
            fmt::format( "command line longer than {} bytes (no newline by byte {})", limits_.maxLine, limits_.maxLine );
         std::fprintf( stderr, "control client #%llu: %s; refused\n", (unsigned long long)c.number, why.c_str() );
         c.in.clear();
         reply( fd, c, "error: " + why + "\n" );
         return;
      }
      if ( !closed ) {
         return;   // wait for the rest of the line
      }
   }
   std::string line = c.in.substr( 0, nl );
   c.in.clear();
   answer( fd, c, line );
}

void ControlServer::answer( int fd, Client& c, const std::string& line ) {
   std::string text;
   try {
      text = fn_( line );
   } catch ( const std::exception& e ) {
      text = fmt::format( "error: {}\n", e.what() );
   }
   if ( text.size() > limits_.maxReply ) {
      std::fprintf( stderr, "control client #%llu: reply of %zu bytes is over the limit of %zu; refused\n",
                    (unsigned long long)c.number, text.size(), limits_.maxReply );
      text = fmt::format( "error: the reply of {} bytes is over the limit of {} bytes\n", text.size(),
                          limits_.maxReply );
   }
   reply( fd, c, std::move( text ) );
}

void ControlServer::reply( int fd, Client& c, std::string text ) {
   c.out = std::move( text );
   c.sent = 0;
   c.progress = Clock::now();
   if ( c.out.empty() ) {
      close( fd );
      return;
   }
   loop_.eventsIs( fd, EPOLLOUT );
   flush( fd, c );
}

void ControlServer::flush( int fd, Client& c ) {
   while ( c.sent < c.out.size() ) {
      const ssize_t n = ::send( fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT );
      if ( n > 0 ) {
         c.sent += size_t( n );
         c.progress = Clock::now();
         continue;
      }
      if ( n < 0 && errno == EINTR ) {
         continue;
      }
      if ( n < 0 && ( errno == EAGAIN || errno == EWOULDBLOCK ) ) {
         return;   // the rest when the client reads
      }
      break;   // the client went away
   }
   close( fd );
}

void ControlServer::close( int fd ) {
   loop_.remove( fd );
   ::close( fd );
   clients_.erase( fd );
}

void ControlServer::drop( int fd, const std::string& why ) {
   auto it = clients_.find( fd );
   if ( it == clients_.end() ) {
      return;
   }
   ++dropped_;
   std::fprintf( stderr, "control client #%llu: %s; dropped\n", (unsigned long long)it->second.number, why.c_str() );
   close( fd );
}

void ControlServer::onTimer() {
   const auto now = Clock::now();
   std::vector< std::pair< int, std::string > > stalled;
   for ( const auto& [ fd, c ] : clients_ ) {
      const auto idle = std::chrono::duration_cast< std::chrono::milliseconds >( now - c.progress ).count();
      if ( idle < limits_.stallMs ) {
         continue;
      }
      stalled.emplace_back(
         fd, c.out.empty()
                ? fmt::format( "no whole command line in {} ms ({} bytes of it came)", idle, c.in.size() )
                : fmt::format( "took no byte of its reply in {} ms ({} of {} bytes taken)", idle, c.sent,
                               c.out.size() ) );
   }
   for ( const auto& [ fd, why ] : stalled ) {
      drop( fd, why );
   }
}

int controlClient( const std::string& path, const std::string& line ) {
   sockaddr_un addr;
   if ( !addressOf( path, addr ) ) {
      std::fprintf( stderr, "orbevpn-agent ctl: bad control socket path \"%s\"\n", path.c_str() );
      return 1;
   }
   const int fd = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
   if ( fd < 0 || ::connect( fd, reinterpret_cast< sockaddr* >( &addr ), sizeof addr ) != 0 ) {
      std::fprintf( stderr, "orbevpn-agent ctl: no agent at %s: %s\n", path.c_str(),
                    std::strerror( errno ) );
      if ( fd >= 0 ) {
         ::close( fd );
      }
      return 1;
   }
   writeAll( fd, line + "\n" );
   ::shutdown( fd, SHUT_WR );
   const std::string reply = readUntilClosed( fd );
   ::close( fd );
   const bool failed = reply.rfind( "error:", 0 ) == 0 || reply.empty();
   std::fwrite( reply.data(), 1, reply.size(), failed ? stderr : stdout );
   if ( reply.empty() ) {
      std::fprintf( stderr, "orbevpn-agent ctl: the agent closed the connection without a reply\n" );
   }
   return failed ? 1 : 0;
}

std::string readUntilClosed( int fd ) {
   std::string out;
   char buf[ 65536 ];
   for ( ssize_t n; ( n = ::read( fd, buf, sizeof buf ) ) != 0; ) {
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         break;
      }
      out.append( buf, size_t( n ) );
   }
   return out;
}

}  // namespace Agent

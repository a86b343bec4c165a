#include "tools/agent/Control.h"

#include "platform/lumen/Options.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
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
      : loop_( loop ), path_( path ), fn_( std::move( fn ) ) {
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
   loop_.add( listenFd_, [ this ]( uint32_t ) {
      for ( ;; ) {
         const int c = ::accept4( listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK );
         if ( c < 0 ) {
            return;
         }
         pending_[ c ];
         loop_.add( c, [ this, c ]( uint32_t ) { onReadable( c ); } );
      }
   } );
}

ControlServer::~ControlServer() {
   for ( auto& [ fd, text ] : pending_ ) {
      loop_.remove( fd );
      ::close( fd );
   }
   loop_.remove( listenFd_ );
   ::close( listenFd_ );
   ::unlink( path_.c_str() );
}

void ControlServer::onReadable( int fd ) {
   char buf[ 4096 ];
   std::string& got = pending_[ fd ];
   bool closed = false;
   for ( ;; ) {
      const ssize_t n = ::read( fd, buf, sizeof buf );
      if ( n > 0 ) {
         got.append( buf, size_t( n ) );
         continue;
      }
      closed = n == 0 || ( errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR );
      break;
   }
   const auto nl = got.find( '\n' );
   if ( nl == std::string::npos && !closed && got.size() < 65536 ) {
      return;   // wait for the rest of the line
   }
   std::string line = got.substr( 0, nl );
   loop_.remove( fd );
   pending_.erase( fd );
   answer( fd, line );
}

void ControlServer::answer( int fd, const std::string& line ) {
   std::string reply;
   try {
      reply = fn_( line );
   } catch ( const std::exception& e ) {
      reply = fmt::format( "error: {}\n", e.what() );
   }
   // Replies can be large (dumps): send them whole, blocking.
   ::fcntl( fd, F_SETFL, ::fcntl( fd, F_GETFL ) & ~O_NONBLOCK );
   writeAll( fd, reply );
   ::close( fd );
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
   std::string reply;
   char buf[ 65536 ];
   for ( ssize_t n; ( n = ::read( fd, buf, sizeof buf ) ) != 0; ) {
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         break;
      }
      reply.append( buf, size_t( n ) );
   }
   ::close( fd );
   const bool failed = reply.rfind( "error:", 0 ) == 0 || reply.empty();
   std::fwrite( reply.data(), 1, reply.size(), failed ? stderr : stdout );
   if ( reply.empty() ) {
      std::fprintf( stderr, "orbevpn-agent ctl: the agent closed the connection without a reply\n" );
   }
   return failed ? 1 : 0;
}

}  // namespace Agent

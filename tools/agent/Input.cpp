#include "tools/agent/Input.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Agent {

namespace {

constexpr size_t sliceLines = 4096;

[[noreturn]] void fail( const std::string& what ) {
   throw std::runtime_error( fmt::format( "{}: {}", what, std::strerror( errno ) ) );
}

}  // namespace

Input::Input( EventLoop& loop, const std::string& source, LineFn onLine, EndFn onEnd )
      : loop_( loop ), source_( source ), onLine_( std::move( onLine ) ), onEnd_( std::move( onEnd ) ) {
   if ( source.rfind( "unix:", 0 ) == 0 ) {
      socketPath_ = source.substr( 5 );
      sockaddr_un addr{};
      if ( socketPath_.empty() || socketPath_.size() >= sizeof addr.sun_path ) {
         throw std::runtime_error( fmt::format( "bad socket path in --input {}", source ) );
      }
      listenFd_ = ::socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0 );
      if ( listenFd_ < 0 ) {
         fail( "socket" );
      }
      addr.sun_family = AF_UNIX;
      std::memcpy( addr.sun_path, socketPath_.c_str(), socketPath_.size() + 1 );
      ::unlink( socketPath_.c_str() );
      // Whoever may connect may feed the controller's state: the owner
      // only, from the moment the name exists.
      const mode_t old = ::umask( 077 );
      const int rc = ::bind( listenFd_, reinterpret_cast< sockaddr* >( &addr ), sizeof addr );
      ::umask( old );
      if ( rc != 0 || ::chmod( socketPath_.c_str(), 0600 ) != 0 || ::listen( listenFd_, 4 ) != 0 ) {
         fail( fmt::format( "listening on {}", socketPath_ ) );
      }
      loop_.add( listenFd_, [ this ]( uint32_t ) {
         const int c = ::accept4( listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK );
         if ( c < 0 ) {
            return;
         }
         if ( fd_ >= 0 ) {
            ::close( c );   // one feed at a time
            return;
         }
         line_ = 0;
         offset_ = lineStart_ = skipped_ = 0;
         skipping_ = false;
         partial_.clear();
         ++connections_;
         watch( c );
      } );
      return;
   }
   if ( source == "-" ) {
      fd_ = ::dup( 0 );
   } else {
      fd_ = ::open( source.c_str(), O_RDONLY | O_CLOEXEC );
   }
   if ( fd_ < 0 ) {
      fail( fmt::format( "cannot open --input {}", source ) );
   }
   struct stat st{};
   ::fstat( fd_, &st );
   if ( S_ISREG( st.st_mode ) ) {
      loop_.workIs( [ this ] {
         if ( readSome( fd_, sliceLines ) ) {
            return true;
         }
         endOfStream();
         return false;
      } );
   } else {
      ::fcntl( fd_, F_SETFL, ::fcntl( fd_, F_GETFL ) | O_NONBLOCK );
      watch( fd_ );
   }
}

Input::~Input() {
   if ( fd_ >= 0 ) {
      ::close( fd_ );
   }
   if ( listenFd_ >= 0 ) {
      ::close( listenFd_ );
      ::unlink( socketPath_.c_str() );
   }
}

void Input::watch( int fd ) {
   fd_ = fd;
   loop_.add( fd, [ this ]( uint32_t ) {
      if ( !readSome( fd_, sliceLines ) ) {
         endOfStream();
      }
   } );
}

std::string Input::where() const {
   if ( !socketPath_.empty() ) {
      return fmt::format( "{}#{}", source_, connections_ );
   }
   return source_ == "-" ? std::string( "stdin" ) : source_;
}

void Input::lineEnds() {
   ++line_;
   if ( skipping_ ) {
      if ( onTooLong_ ) {
         onTooLong_( line_, skipped_ );
      }
      skipping_ = false;
      skipped_ = 0;
   } else {
      onLine_( partial_, line_ );
   }
   partial_.clear();
}

void Input::take( const char* data, size_t n, size_t& lines ) {
   size_t pos = 0;
   while ( pos < n ) {
      const char* nl = static_cast< const char* >( std::memchr( data + pos, '\n', n - pos ) );
      const size_t end = nl ? size_t( nl - data ) : n;
      const size_t len = end - pos;
      if ( skipping_ ) {
         skipped_ += len;
      } else if ( partial_.size() + len > maxLine_ ) {
         skipping_ = true;
         skipped_ = partial_.size() + len;
         partial_.clear();
         partial_.shrink_to_fit();
      } else if ( nl && partial_.empty() ) {
         // The usual case: a whole line in the buffer, handed out in place.
         ++line_;
         onLine_( std::string_view( data + pos, len ), line_ );
         ++lines;
         lineStart_ = offset_ + end + 1;
         pos = end + 1;
         continue;
      } else {
         partial_.append( data + pos, len );
      }
      if ( !nl ) {
         break;
      }
      lineEnds();
      ++lines;
      lineStart_ = offset_ + end + 1;
      pos = end + 1;
   }
   offset_ += n;
}

bool Input::readSome( int fd, size_t budget ) {
   char buf[ 65536 ];
   size_t lines = 0;
   while ( lines < budget ) {
      const ssize_t n = ::read( fd, buf, sizeof buf );
      if ( n < 0 ) {
         if ( errno == EINTR ) {
            continue;
         }
         return errno == EAGAIN || errno == EWOULDBLOCK;
      }
      if ( n == 0 ) {
         if ( !partial_.empty() || skipping_ ) {
            lineEnds();   // the last line, without its newline
         }
         return false;
      }
      take( buf, size_t( n ), lines );
   }
   return true;
}

void Input::endOfStream() {
   loop_.remove( fd_ );   // a regular file was never added: harmless
   ::close( fd_ );
   fd_ = -1;
   if ( !ended_ ) {
      ended_ = true;
      onEnd_();
   }
}

}  // namespace Agent

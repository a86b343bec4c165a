// The controller input: JSON lines from a file, stdin ("-") or a Unix
// socket ("unix:PATH", where the agent listens; each connection is a
// stream, numbered from line 1). Lines reach `onLine` with their number;
// `onEnd` runs once, when the file or stdin ends or the first connection
// closes. A regular file is read in slices between the loop's rounds (epoll
// cannot wait on one); everything else is waited on.
#pragma once

#include "tools/agent/EventLoop.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Agent {

class Input {
 public:
   using LineFn = std::function< void( std::string_view line, uint64_t number ) >;
   using EndFn = std::function< void() >;

   // Throws std::runtime_error when the input cannot be opened.
   Input( EventLoop& loop, const std::string& source, LineFn onLine, EndFn onEnd );
   ~Input();
   Input( const Input& ) = delete;
   Input& operator=( const Input& ) = delete;

   bool ended() const { return ended_; }
   const std::string& source() const { return source_; }

 private:
   // Reads what is there (up to `budget` lines); false at end of stream.
   bool readSome( int fd, size_t budget );
   void endOfStream();
   void watch( int fd );

   EventLoop& loop_;
   std::string source_;
   LineFn onLine_;
   EndFn onEnd_;
   int fd_ = -1;          // the stream being read
   int listenFd_ = -1;    // unix: the listening socket
   std::string socketPath_;
   std::string partial_;
   uint64_t line_ = 0;
   bool ended_ = false;
};

}  // namespace Agent

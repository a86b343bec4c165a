// The controller input: JSON lines from a file, stdin ("-") or a Unix
// socket ("unix:PATH", where the agent listens; each connection is a
// stream, numbered from line 1). Lines reach `onLine` with their number;
// `onEnd` runs once, when the file or stdin ends or the first connection
// closes. A regular file is read in slices between the loop's rounds (epoll
// cannot wait on one); everything else is waited on.
//
// Lines are bounded (maxLineIs, default 64 KiB): of a longer one only its
// length is kept, the rest of it is skipped as it arrives, and `onTooLong`
// hears of it instead of `onLine`, so a feed that never sends a newline
// costs no memory. While a line is handed out, lineOffset() is the byte
// offset of its first byte in the stream and where() names the stream.
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
   // A line over the limit: its number and its length in bytes.
   using TooLongFn = std::function< void( uint64_t number, uint64_t bytes ) >;
   static constexpr size_t defaultMaxLine = 64 * 1024;

   // Throws std::runtime_error when the input cannot be opened.
   Input( EventLoop& loop, const std::string& source, LineFn onLine, EndFn onEnd );
   ~Input();
   Input( const Input& ) = delete;
   Input& operator=( const Input& ) = delete;

   bool ended() const { return ended_; }
   const std::string& source() const { return source_; }

   void maxLineIs( size_t bytes ) { maxLine_ = bytes; }
   size_t maxLine() const { return maxLine_; }
   // Unset: a line over the limit is dropped without a word.
   void onTooLongIs( TooLongFn f ) { onTooLong_ = std::move( f ); }
   // The line being handed out: where its first byte is in its stream.
   uint64_t lineOffset() const { return lineStart_; }
   // The stream: the source, with the connection's number on a socket
   // ("unix:/run/feed.sock#2").
   std::string where() const;

 private:
   // Reads what is there (up to `budget` lines); false at end of stream.
   bool readSome( int fd, size_t budget );
   void endOfStream();
   void watch( int fd );
   // Splits what was read into lines; the line that does not end here stays partial.
   void take( const char* data, size_t n, size_t& lines );
   void lineEnds();

   EventLoop& loop_;
   std::string source_;
   LineFn onLine_;
   EndFn onEnd_;
   int fd_ = -1;          // the stream being read
   int listenFd_ = -1;    // unix: the listening socket
   std::string socketPath_;
   std::string partial_;     // the line so far, at most maxLine_ bytes
   bool skipping_ = false;    // the line so far is over the limit: only counted
   uint64_t skipped_ = 0;     // its length so far
   uint64_t offset_ = 0;      // bytes of the stream taken so far
   uint64_t lineStart_ = 0;   // offset of the line so far
   uint64_t line_ = 0;
   uint64_t connections_ = 0;
   size_t maxLine_ = defaultMaxLine;
   TooLongFn onTooLong_;
   bool ended_ = false;
};

}  // namespace Agent

// How the lumen tool prints for people: aligned tables with a header, human
// sizes, and one-line renderings of JSON records. The JSON forms themselves
// are in tools/lumen/RecordForms.h.
#pragma once

#include "tools/lumen/RecordForms.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace LumenTool {

// What a command prints: text for people, or JSON for programs.
enum class Form { text, json };

// Columns padded to their widest cell, two spaces apart; numeric columns
// are right-aligned, as in a router's show commands.
class TextTable {
 public:
   enum class Align { left, right };
   void column( std::string title, Align align = Align::left );
   void row( std::vector< std::string > cells );   // one cell per column
   bool empty() const { return rows_.empty(); }
   void print( std::FILE* out ) const;

 private:
   std::vector< std::string > titles_;
   std::vector< Align > aligns_;
   std::vector< std::vector< std::string > > rows_;
};

// "512 B", "4.0 KiB", "1.3 MiB".
std::string humanBytes( uint64_t bytes );
// "12,345".
std::string grouped( uint64_t n );
// A JSON scalar as a table cell: strings without quotes, null as "-".
std::string cellText( const Json& value );
// A JSON object on one line: "mac=02:00:00:00:00:01 vni=10".
std::string wordsOf( const Json& object );
// Prints `line` and a newline to stdout and flushes at once: a pipe reader
// sees each line as it happens.
void printLine( const std::string& line );

}  // namespace LumenTool

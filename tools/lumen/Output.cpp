#include "tools/lumen/Output.h"

#include <fmt/format.h>

#include <algorithm>

namespace LumenTool {

void TextTable::column( std::string title, Align align ) {
   titles_.push_back( std::move( title ) );
   aligns_.push_back( align );
}

void TextTable::row( std::vector< std::string > cells ) {
   cells.resize( titles_.size() );
   rows_.push_back( std::move( cells ) );
}

void TextTable::print( std::FILE* out ) const {
   std::vector< size_t > width( titles_.size() );
   for ( size_t c = 0; c < titles_.size(); ++c ) {
      width[ c ] = titles_[ c ].size();
      for ( const auto& r : rows_ ) {
         width[ c ] = std::max( width[ c ], r[ c ].size() );
      }
   }
   auto line = [ & ]( const std::vector< std::string >& cells ) {
      std::string s;
      for ( size_t c = 0; c < cells.size(); ++c ) {
         bool last = c + 1 == cells.size();
         if ( c > 0 ) {
            s += "  ";
         }
         if ( aligns_[ c ] == Align::right ) {
            s += fmt::format( "{:>{}}", cells[ c ], width[ c ] );
         } else if ( last ) {
            s += cells[ c ];   // no trailing blanks
         } else {
            s += fmt::format( "{:<{}}", cells[ c ], width[ c ] );
         }
      }
      fmt::print( out, "{}\n", s );
   };
   line( titles_ );
   for ( const auto& r : rows_ ) {
      line( r );
   }
}

std::string humanBytes( uint64_t bytes ) {
   if ( bytes < 1024 ) {
      return fmt::format( "{} B", bytes );
   }
   static const char* units[] = { "KiB", "MiB", "GiB", "TiB" };
   double v = double( bytes ) / 1024;
   size_t u = 0;
   while ( v >= 1024 && u + 1 < std::size( units ) ) {
      v /= 1024;
      ++u;
   }
   return fmt::format( "{:.1f} {}", v, units[ u ] );
}

std::string grouped( uint64_t n ) {
   std::string digits = std::to_string( n );
   std::string s;
   for ( size_t i = 0; i < digits.size(); ++i ) {
      if ( i > 0 && ( digits.size() - i ) % 3 == 0 ) {
         s += ',';
      }
      s += digits[ i ];
   }
   return s;
}

std::string cellText( const Json& value ) {
   if ( value.is_null() ) {
      return "-";
   }
   if ( value.is_string() ) {
      return value.get< std::string >();
   }
   return value.dump();
}

std::string wordsOf( const Json& object ) {
   std::string s;
   for ( const auto& [ name, value ] : object.items() ) {
      if ( !s.empty() ) {
         s += ' ';
      }
      s += name + "=" + cellText( value );
   }
   return s;
}

void printLine( const std::string& line ) {
   std::fwrite( line.data(), 1, line.size(), stdout );
   std::fputc( '\n', stdout );
   std::fflush( stdout );
}

}  // namespace LumenTool

#include "platform/trace/Handle.h"

#include "platform/mox/Exception.h"

#include <cctype>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Trace {

namespace {

struct Entry {
   std::string name;  // "*" for every handle
   uint32_t mask;
};

class SettingParser {
 public:
   explicit SettingParser( std::string_view setting ) : setting_( setting ) {}

   std::vector< Entry > parse() {
      std::vector< Entry > entries;
      skipBlanks();
      if ( atEnd() ) {
         return entries;
      }
      for ( ;; ) {
         entries.push_back( entry() );
         skipBlanks();
         if ( atEnd() ) {
            return entries;
         }
         expect( ',' );
      }
   }

 private:
   Entry entry() {
      skipBlanks();
      Entry e{ name(), 0 };
      skipBlanks();
      expect( '/' );
      e.mask = levels();
      return e;
   }

   std::string name() {
      if ( peek() == '*' ) {
         ++pos_;
         return "*";
      }
      size_t start = pos_;
      while ( !atEnd() && isNameChar( setting_[ pos_ ] ) ) {
         ++pos_;
      }
      if ( pos_ == start ) {
         fail( "expected a handle name or '*'" );
      }
      return std::string( setting_.substr( start, pos_ - start ) );
   }

   uint32_t levels() {
      uint32_t mask = 0;
      for ( ;; ) {
         skipBlanks();
         int low = level();
         int high = low;
         skipBlanks();
         if ( peek() == '-' ) {
            ++pos_;
            skipBlanks();
            high = level();
            if ( high < low ) {
               fail( "level range runs backwards" );
            }
         }
         for ( int l = low; l <= high; ++l ) {
            mask |= 1u << l;
         }
         skipBlanks();
         if ( peek() != '+' ) {
            return mask;
         }
         ++pos_;
      }
   }

   int level() {
      char c = peek();
      if ( !std::isdigit( static_cast< unsigned char >( c ) ) ) {
         fail( "expected a level 0-9" );
      }
      ++pos_;
      if ( std::isdigit( static_cast< unsigned char >( peek() ) ) ) {
         fail( "level out of range 0-9" );
      }
      return c - '0';
   }

   static bool isNameChar( char c ) {
      return std::isalnum( static_cast< unsigned char >( c ) ) || c == '_' ||
             c == '.' || c == ':' || c == '-';
   }
   void skipBlanks() {
      while ( !atEnd() && std::isspace( static_cast< unsigned char >( setting_[ pos_ ] ) ) ) {
         ++pos_;
      }
   }
   bool atEnd() const { return pos_ >= setting_.size(); }
   char peek() const { return atEnd() ? '\0' : setting_[ pos_ ]; }
   void expect( char c ) {
      if ( peek() != c ) {
         fail( fmt::format( "expected '{}'", c ) );
      }
      ++pos_;
   }
   [[noreturn]] void fail( std::string_view what ) const {
      MOX_THROW( Mox::RangeException, "bad trace level setting \"{}\": {} at offset {}",
                 setting_, what, pos_ );
   }

   std::string_view setting_;
   size_t pos_ = 0;
};

}  // namespace

// Owns every handle. Guarded by mutex_; handles are heap nodes so their
// addresses survive map growth.
class Registry {
 public:
   static Registry& instance() {
      // Never destroyed: statements in other static destructors may still
      // trace after main returns.
      static Registry* r = new Registry;
      return *r;
   }

   Handle& handle( std::string_view name ) {
      std::lock_guard lock( mutex_ );
      auto it = handles_.find( name );
      if ( it == handles_.end() ) {
         auto h = std::unique_ptr< Handle >(
            new Handle( std::string( name ), configuredMask( name ) ) );
         it = handles_.emplace( std::string( name ), std::move( h ) ).first;
      }
      return *it->second;
   }

   void apply( const std::vector< Entry >& entries ) {
      std::lock_guard lock( mutex_ );
      for ( const Entry& e : entries ) {
         if ( e.name == "*" ) {
            defaultMask_ = e.mask;
            byName_.clear();
            for ( auto& [ name, h ] : handles_ ) {
               h->levelsIs( e.mask );
            }
         } else {
            byName_[ e.name ] = e.mask;
            if ( auto it = handles_.find( e.name ); it != handles_.end() ) {
               it->second->levelsIs( e.mask );
            }
         }
      }
   }

   void reset() {
      std::lock_guard lock( mutex_ );
      defaultMask_ = 0;
      byName_.clear();
      for ( auto& [ name, h ] : handles_ ) {
         h->levelsIs( 0 );
      }
   }

 private:
   uint32_t configuredMask( std::string_view name ) const {
      auto it = byName_.find( name );
      return it == byName_.end() ? defaultMask_ : it->second;
   }

   std::mutex mutex_;
   std::map< std::string, std::unique_ptr< Handle >, std::less<> > handles_;
   // Levels for names configured before (or after) their handle exists.
   std::map< std::string, uint32_t, std::less<> > byName_;
   // Levels of any name byName_ does not hold; set by a "*" entry.
   uint32_t defaultMask_ = 0;
};

Handle& handle( std::string_view name ) {
   return Registry::instance().handle( name );
}

void configure( std::string_view setting ) {
   // Parse everything first: a bad setting must leave every level untouched.
   std::vector< Entry > entries = SettingParser( setting ).parse();
   Registry::instance().apply( entries );
}

void configureFromEnvironment() {
   if ( const char* setting = std::getenv( environmentVariable ) ) {
      configure( setting );
   }
}

void resetConfiguration() {
   Registry::instance().reset();
}

}  // namespace Trace

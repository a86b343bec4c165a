#include "platform/mox/Counters.h"

#include <map>
#include <memory>
#include <mutex>

namespace Mox {

namespace {

struct CounterRegistry {
   std::mutex mutex;
   std::map< std::string, std::unique_ptr< Counter >, std::less<> > byName;
};

CounterRegistry& registry() {
   static CounterRegistry r;
   return r;
}

}  // namespace

Counter& counter( std::string_view name ) {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   auto it = r.byName.find( name );
   if ( it == r.byName.end() ) {
      it = r.byName.emplace( std::string( name ), std::make_unique< Counter >( std::string( name ) ) )
              .first;
   }
   return *it->second;
}

std::vector< std::pair< std::string, uint64_t > > counters() {
   auto& r = registry();
   std::lock_guard lock( r.mutex );
   std::vector< std::pair< std::string, uint64_t > > out;
   for ( auto& [ n, c ] : r.byName ) {
      out.emplace_back( n, c->value() );
   }
   return out;
}

}  // namespace Mox

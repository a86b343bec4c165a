#include "tools/agent/PluginHost.h"

#include <fmt/format.h>

#include <cstdlib>
#include <stdexcept>

#include <dlfcn.h>
#include <link.h>
#include <limits.h>
#include <unistd.h>

namespace Agent {

namespace {

constexpr const char* library = "liborbevpn.so";
constexpr const char* modules[] = { "OrbEvpnLumen", "OrbEvpnModeSm", "OrbEvpnTxSm", "OrbEvpnRxSm" };

std::string exeDir() {
   char buf[ PATH_MAX ];
   ssize_t n = ::readlink( "/proc/self/exe", buf, sizeof buf - 1 );
   if ( n <= 0 ) {
      return ".";
   }
   std::string p( buf, size_t( n ) );
   return p.substr( 0, p.rfind( '/' ) );
}

}  // namespace

PluginHost& PluginHost::load() {
   static PluginHost* host = [] {
      std::vector< std::string > tries;
      if ( const char* env = std::getenv( "ORBEVPN_PLUGIN" ) ) {
         tries.push_back( env );
      }
      tries.push_back( library );   // the run path ($ORIGIN-relative when installed)
      tries.push_back( exeDir() + "/" + library );
      tries.push_back( exeDir() + "/../lib/" + library );
      tries.push_back( exeDir() + "/../../orbevpn/" + library );   // the build tree
      void* handle = nullptr;
      std::string errors;
      for ( const auto& t : tries ) {
         handle = ::dlopen( t.c_str(), RTLD_NOW | RTLD_GLOBAL );
         if ( handle ) {
            break;
         }
         errors += fmt::format( "\n  {}", ::dlerror() );
      }
      if ( !handle ) {
         throw std::runtime_error( fmt::format( "cannot load the plug-in {}:{}", library, errors ) );
      }
      auto* h = new PluginHost;
      link_map* map = nullptr;
      if ( ::dlinfo( handle, RTLD_DI_LINKMAP, &map ) == 0 && map && map->l_name ) {
         h->path_ = map->l_name;
      }
      for ( const char* m : modules ) {
         if ( !Mox::moxModule( m ) ) {
            throw std::runtime_error(
               fmt::format( "the plug-in {} did not register module {}", h->path_, m ) );
         }
      }
      return h;
   }();
   return *host;
}

Mox::Ptr< Mox::PtrInterface > PluginHost::create( std::string_view typeName,
                                                  std::vector< const void* > args ) const {
   const Mox::Type* t = Mox::moxTypeByName( typeName );
   if ( !t || !t->constructible() ) {
      throw std::runtime_error( fmt::format( "type {} is not registered as constructible", typeName ) );
   }
   Mox::GenericValue r;
   t->genericIfConstructFromCtorArgs( r, args.data() );
   return r.get< Mox::Ptr< Mox::PtrInterface > >();
}

void PluginHost::invoke( const Mox::Ptr< Mox::PtrInterface >& object, std::string_view name ) const {
   invoke( object, name, nullptr );
}

void PluginHost::invoke( const Mox::Ptr< Mox::PtrInterface >& object, std::string_view name,
                         const void* key ) const {
   const Mox::Type* t = object->fwkType();
   const Mox::AttributeId id = t->attributeId( name );
   Mox::GenericValue r;
   const int rc = t->genericIfAttributeOp( r, object.ptr(), id, Mox::genericOpInvoke, key );
   if ( rc != Mox::genericDone ) {
      throw std::runtime_error( fmt::format( "{}: invoking {} failed ({})", t->name(), name, rc ) );
   }
}

Mox::Ptr< Mox::PtrInterface > PluginHost::child( const Mox::Ptr< Mox::PtrInterface >& object,
                                                 std::string_view name, const void* key ) const {
   const Mox::Type* t = object->fwkType();
   const Mox::AttributeId id = t->attributeId( name );
   Mox::GenericValue r;
   const int rc = t->genericIfAttributeOp( r, object.ptr(), id, Mox::genericOpGet, key );
   if ( rc != Mox::genericDone ) {
      throw std::runtime_error( fmt::format( "{}: looking up {} failed ({})", t->name(), name, rc ) );
   }
   return r.get< Mox::Ptr< Mox::PtrInterface > >();
}

}  // namespace Agent

// The plug-in as the agent hosts it: a shared library whose modules
// register their types with the framework when it loads, and whose state
// machines the agent creates by type name through the framework's registry
// and generic interface, as a host platform does.
#pragma once

#include "platform/mox/Type.h"

#include <string>
#include <string_view>
#include <vector>

namespace Agent {

class PluginHost {
 public:
   // Loads the plug-in (found through the agent's run path, the folder of
   // the executable, or $ORBEVPN_PLUGIN) and checks that its modules have
   // registered. Throws std::runtime_error with the reason otherwise.
   static PluginHost& load();

   const std::string& path() const { return path_; }

   // Creates an object of the registered type `typeName` from pointers to
   // its constructor arguments, in declaration order.
   Mox::Ptr< Mox::PtrInterface > create( std::string_view typeName,
                                         std::vector< const void* > args ) const;
   // Invokes the no-argument operation `name` of `object`.
   void invoke( const Mox::Ptr< Mox::PtrInterface >& object, std::string_view name ) const;
   // Invokes the per-key form of operation `name` with `key` (a pointer to
   // a value of the operation's argument type).
   void invoke( const Mox::Ptr< Mox::PtrInterface >& object, std::string_view name,
                const void* key ) const;
   // The entry at `key` of the collection `name` of `object` (null if none).
   Mox::Ptr< Mox::PtrInterface > child( const Mox::Ptr< Mox::PtrInterface >& object,
                                        std::string_view name, const void* key ) const;

 private:
   PluginHost() = default;
   std::string path_;
};

}  // namespace Agent

// The controller-side model the agent owns and the plug-in's machines watch:
// the VNI directory of VniFdbStatusV2, the EVPN-side VniStatusDirV2, the
// controller database's status, the EVPN capability and the configuration
// entity the integration flag is written to. Controller events are applied
// here; nothing else writes the controller's part.
//
// Threading: the event-loop thread only.
#pragma once

#include "platform/model/ControllerdbStatus.h"
#include "platform/model/EvpnCapability.h"
#include "platform/model/OrbEvpnConfig.h"
#include "platform/model/VniFdbStatusV2.h"
#include "platform/model/VniStatusDirV2.h"
#include "platform/mox/Dir.h"
#include "tools/agent/Event.h"

#include <nlohmann/json.hpp>

namespace Agent {

class Model {
 public:
   Model();

   // Applies one controller event. Events that write a table of the EVPN
   // side are not the model's: the caller refuses them first.
   void apply( const Event& e );

   const Mox::Ptr< Mox::Dir >& vniDir() const { return vniDir_; }
   const Mox::Ptr< VxlanController::VniStatusDirV2 >& evpnDir() const { return evpnDir_; }
   const Mox::Ptr< Controllerdb::Status >& controllerdb() const { return controllerdb_; }
   const Mox::Ptr< OrbEvpn::EvpnCapability >& capability() const { return capability_; }
   const Mox::Ptr< OrbEvpn::OrbEvpnConfig >& config() const { return config_; }

   size_t vnis() const { return vniDir_->entityPtrs(); }
   // What the import mirrored: hosts and flood VTEPs over every VNI.
   size_t importedHosts() const;
   size_t importedFlood() const;

   // The JSON forms of `dump controller --json` and `dump import --json`.
   nlohmann::json controllerJson() const;
   nlohmann::json importJson() const;

 private:
   Mox::Ptr< VxlanController::VniFdbStatusV2 > status( uint32_t vni, bool create );

   Mox::Ptr< Mox::Dir > vniDir_;
   // The status the last event went to: a snapshot's events come VNI by
   // VNI, and finding a status by name costs a formatted name and a
   // directory lookup. Trusted only while it is still in the directory.
   uint32_t lastVni_ = 0;
   Mox::Ptr< VxlanController::VniFdbStatusV2 > last_;
   Mox::Ptr< VxlanController::VniStatusDirV2 > evpnDir_;
   Mox::Ptr< Controllerdb::Status > controllerdb_;
   Mox::Ptr< OrbEvpn::EvpnCapability > capability_;
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > config_;
};

}  // namespace Agent

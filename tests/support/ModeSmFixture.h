// ModeSmFixture: OrbEvpnIntegrationModeSm's inputs and output, a record of
// every write of the integration flag (written_), a trace capture, and a
// leak check over the whole test. The machine's trace handle starts off
// and is restored afterwards; tests that read the trace turn it on.
//
// Only for test binaries that link orbevpn. Threading: the test thread.
#pragma once

#include "orbevpn/mode/OrbEvpnIntegrationModeSm.h"
#include "platform/trace/Handle.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/NotifieeRecorder.h"
#include "tests/support/TraceCapture.h"

#include <gtest/gtest.h>

#include <vector>

class ModeSmFixture : public ::testing::Test {
 protected:
   using Sm = OrbEvpn::OrbEvpnIntegrationModeSm;

   void SetUp() override {
      savedLevels_ = trace_.levels();
      trace_.levelsIs( 0 );
      writes_->onEvent = [ this ]( Mox::AttributeId id, const void* ) {
         if ( id == config_->fwkType()->attributeId( "orbEvpnIntegrationMode" ) ) {
            written_.push_back( config_->orbEvpnIntegrationMode() );
         }
      };
   }
   void TearDown() override { trace_.levelsIs( savedLevels_ ); }

   Mox::Ptr< Sm > create() {
      return OrbEvpn::orbEvpnIntegrationModeSmFactory( status_, capability_, config_ );
   }

   Trace::Handle& trace_ = Trace::handle( "OrbEvpnModeSm" );
   uint32_t savedLevels_ = 0;
   TraceCapture capture_;
   LeakCheck leaks_;   // declared before the objects it watches
   Mox::Ptr< Controllerdb::Status > status_ = Controllerdb::Status::StatusIs( "status" );
   Mox::Ptr< OrbEvpn::EvpnCapability > capability_ =
      OrbEvpn::EvpnCapability::EvpnCapabilityIs( "capability" );
   Mox::Ptr< OrbEvpn::OrbEvpnConfig > config_ =
      OrbEvpn::OrbEvpnConfig::OrbEvpnConfigIs( "config" );
   Mox::Ptr< NotifieeRecorder< int > > writes_ =
      NotifieeRecorder< int >::NotifieeRecorderIs( config_ );
   std::vector< bool > written_;
};

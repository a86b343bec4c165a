#include "tools/bgp/GobgpClient.h"

#include "tools/bgp/GobgpPaths.h"

#include <grpcpp/grpcpp.h>

#include <fmt/format.h>

#include <sys/eventfd.h>
#include <unistd.h>

namespace OrbEvpn::Bgp {

namespace {

constexpr std::chrono::milliseconds callTimeout{ 10000 };

void check( const grpc::Status& s, const char* what ) {
   if ( !s.ok() ) {
      throw GobgpError( fmt::format( "gobgpd {}: {} (code {})", what, s.error_message(), int( s.error_code() ) ) );
   }
}

}  // namespace

GobgpClient::GobgpClient( const std::string& socketPath ) {
   channel_ = grpc::CreateChannel( "unix:" + socketPath, grpc::InsecureChannelCredentials() );
   stub_ = apipb::GobgpApi::NewStub( channel_ );
   eventFd_ = ::eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK );
   if ( eventFd_ < 0 ) {
      throw GobgpError( "eventfd failed" );
   }
}

GobgpClient::~GobgpClient() {
   if ( watchContext_ ) {
      watchContext_->TryCancel();
   }
   if ( watchThread_.joinable() ) {
      watchThread_.join();
   }
   ::close( eventFd_ );
}

std::unique_ptr< grpc::ClientContext > GobgpClient::context( std::chrono::milliseconds timeout ) const {
   auto c = std::make_unique< grpc::ClientContext >();
   c->set_deadline( std::chrono::system_clock::now() + timeout );
   return c;
}

bool GobgpClient::waitReady( std::chrono::milliseconds timeout ) {
   auto deadline = std::chrono::steady_clock::now() + timeout;
   while ( std::chrono::steady_clock::now() < deadline ) {
      auto c = context( std::chrono::milliseconds( 500 ) );
      c->set_wait_for_ready( true );
      apipb::GetBgpRequest req;
      apipb::GetBgpResponse resp;
      grpc::Status s = stub_->GetBgp( c.get(), req, &resp );
      // Before StartBgp the daemon answers, with an error or an empty global.
      bool unreachable = s.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED ||
                         s.error_code() == grpc::StatusCode::UNAVAILABLE;
      if ( !unreachable ) {
         return true;
      }
      std::this_thread::sleep_for( std::chrono::milliseconds( 50 ) );
   }
   return false;
}

void GobgpClient::startBgp( const GlobalConfig& g ) {
   apipb::StartBgpRequest req;
   apipb::Global* global = req.mutable_global();
   global->set_asn( g.asn );
   global->set_router_id( g.routerId );
   global->set_listen_port( g.listenPort );
   global->mutable_graceful_restart()->set_enabled( true );
   global->mutable_graceful_restart()->set_restart_time( g.restartTime );
   google::protobuf::Empty resp;
   auto c = context( callTimeout );
   check( stub_->StartBgp( c.get(), req, &resp ), "StartBgp" );
}

GlobalConfig GobgpClient::global() {
   apipb::GetBgpRequest req;
   apipb::GetBgpResponse resp;
   auto c = context( callTimeout );
   check( stub_->GetBgp( c.get(), req, &resp ), "GetBgp" );
   GlobalConfig g;
   g.asn = resp.global().asn();
   g.routerId = resp.global().router_id();
   g.listenPort = resp.global().listen_port();
   return g;
}

std::vector< std::string > GobgpClient::peerAddresses() {
   apipb::ListPeerRequest req;
   auto c = context( callTimeout );
   auto reader = stub_->ListPeer( c.get(), req );
   std::vector< std::string > out;
   apipb::ListPeerResponse resp;
   while ( reader->Read( &resp ) ) {
      out.push_back( resp.peer().conf().neighbor_address() );
   }
   check( reader->Finish(), "ListPeer" );
   return out;
}

void GobgpClient::deletePeer( const std::string& address ) {
   apipb::DeletePeerRequest req;
   req.set_address( address );
   google::protobuf::Empty resp;
   auto c = context( callTimeout );
   check( stub_->DeletePeer( c.get(), req, &resp ), "DeletePeer" );
}

void GobgpClient::addPeer( const NeighborConfig& n, const GlobalConfig& g ) {
   apipb::AddPeerRequest req;
   apipb::Peer* peer = req.mutable_peer();
   peer->mutable_conf()->set_neighbor_address( n.address );
   peer->mutable_conf()->set_peer_asn( n.asn );
   peer->mutable_conf()->set_local_asn( g.asn );
   // Our routes keep their next hop (the VTEP) towards eBGP peers too; a
   // peer one hop further is still reached.
   if ( n.asn != g.asn ) {
      peer->mutable_ebgp_multihop()->set_enabled( true );
      peer->mutable_ebgp_multihop()->set_multihop_ttl( 255 );
   }
   // Every session starts as a restart: the peer may still hold routes of
   // an earlier run of ours (or of an earlier gobgpd), and only the Restart
   // State bit and the per-family Forwarding State bit (which gobgpd sets
   // exactly when it is told it restarts) make it keep them until our
   // End-of-RIB instead of dropping them as the session comes up. Our RIB is
   // complete before any peer is added, so the End-of-RIB that ends the
   // deferral carries every route we want; a peer with nothing of ours just
   // sees a full table. gobgpd holds back updates until the peers' End-of-RIB
   // or the deferral time, whichever comes first.
   peer->mutable_graceful_restart()->set_enabled( true );
   peer->mutable_graceful_restart()->set_restart_time( g.restartTime );
   peer->mutable_graceful_restart()->set_local_restarting( true );
   peer->mutable_graceful_restart()->set_deferral_time( g.deferralTime );
   apipb::AfiSafi* afi = peer->add_afi_safis();
   *afi->mutable_config()->mutable_family() = evpnFamily();
   afi->mutable_config()->set_enabled( true );
   afi->mutable_mp_graceful_restart()->mutable_config()->set_enabled( true );
   google::protobuf::Empty resp;
   auto c = context( callTimeout );
   check( stub_->AddPeer( c.get(), req, &resp ), "AddPeer" );
}

void GobgpClient::sendPaths( const std::vector< apipb::Path >& paths ) {
   if ( paths.empty() ) {
      return;
   }
   apipb::AddPathStreamRequest req;
   req.set_table_type( apipb::GLOBAL );
   for ( const auto& p : paths ) {
      *req.add_paths() = p;
   }
   google::protobuf::Empty resp;
   // Each type-2 route costs the daemon a look at its whole EVPN table, so a
   // batch into a large table takes long.
   auto c = context( callTimeout + std::chrono::milliseconds( 500 ) * paths.size() );
   auto writer = stub_->AddPathStream( c.get(), &resp );
   writer->Write( req );   // a refusal shows in Finish()
   writer->WritesDone();
   check( writer->Finish(), "AddPathStream" );
}

std::vector< apipb::Path > GobgpClient::localEvpnPaths() {
   apipb::ListPathRequest req;
   req.set_table_type( apipb::GLOBAL );
   *req.mutable_family() = evpnFamily();
   auto c = context( std::chrono::milliseconds( 60000 ) );
   auto reader = stub_->ListPath( c.get(), req );
   std::vector< apipb::Path > out;
   apipb::ListPathResponse resp;
   while ( reader->Read( &resp ) ) {
      for ( const auto& p : resp.destination().paths() ) {
         if ( p.neighbor_ip().empty() || p.neighbor_ip() == "<nil>" ) {
            out.push_back( p );
         }
      }
   }
   check( reader->Finish(), "ListPath" );
   return out;
}

void GobgpClient::watchStart() {
   watchContext_ = std::make_unique< grpc::ClientContext >();
   watchThread_ = std::thread( [ this ] { watchLoop(); } );
}

void GobgpClient::watchLoop() {
   apipb::WatchEventRequest req;
   auto* filter = req.mutable_table()->add_filters();
   filter->set_type( apipb::WatchEventRequest::Table::Filter::BEST );
   filter->set_init( true );
   auto reader = stub_->WatchEvent( watchContext_.get(), req );
   apipb::WatchEventResponse resp;
   while ( reader->Read( &resp ) ) {
      if ( !resp.has_table() ) {
         continue;
      }
      {
         std::lock_guard< std::mutex > lock( mutex_ );
         for ( const auto& p : resp.table().paths() ) {
            queue_.push_back( p );
         }
      }
      uint64_t one = 1;
      [[maybe_unused]] ssize_t n = ::write( eventFd_, &one, sizeof one );
   }
   reader->Finish();
   ended_ = true;
   uint64_t one = 1;
   [[maybe_unused]] ssize_t n = ::write( eventFd_, &one, sizeof one );
}

std::vector< apipb::Path > GobgpClient::takeEvents() {
   uint64_t v = 0;
   [[maybe_unused]] ssize_t n = ::read( eventFd_, &v, sizeof v );
   std::vector< apipb::Path > out;
   std::lock_guard< std::mutex > lock( mutex_ );
   out.swap( queue_ );
   return out;
}

}  // namespace OrbEvpn::Bgp

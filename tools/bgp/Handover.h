// Handover: how one orbevpn-bgp's gobgpd passes to the next over the same
// state directory.
//
// The state directory has one owner at a time: the orbevpn-bgp that holds
// its instance lock, an open-file-description lock on STATE/lock (a second
// orbevpn-bgp over the same directory waits a moment for it, then gives
// up). The gobgpd the owner runs carries a claim, STATE/gobgpd.owner, the
// owner's random token, written whenever it starts or adopts a daemon. A
// process watching a departed owner's daemon (the keeper, Keeper.h) learns
// that a successor took the daemon over when the claim no longer names the
// departed owner, and that a successor is on its way while the lock is
// held by someone.
//
// Threading: none of its own; an InstanceLock belongs to one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace OrbEvpn::Bgp {

class InstanceLock {
 public:
   // The lock of `stateDir`, waiting up to `wait` while another holds it
   // (a keeper holds it for the moment it stops a daemon nobody took
   // over); nullptr if it is still held then. Throws std::runtime_error if
   // the lock file cannot be opened.
   static std::unique_ptr< InstanceLock > take( const std::string& stateDir, std::chrono::milliseconds wait );
   // Whether any open file description holds the lock of `stateDir`
   // (this process's own included, through another descriptor).
   static bool held( const std::string& stateDir );

   ~InstanceLock();   // releases it
   InstanceLock( const InstanceLock& ) = delete;
   InstanceLock& operator=( const InstanceLock& ) = delete;

 private:
   explicit InstanceLock( int fd ) : fd_( fd ) {}
   int fd_;
};

// A random token naming one run of orbevpn-bgp (never 0).
uint64_t newOwnerToken();
// Records `token` as the owner of the daemon of `stateDir`.
void claimDaemon( const std::string& stateDir, uint64_t token );
// The token of the last claim; nothing if none is recorded.
std::optional< uint64_t > daemonOwner( const std::string& stateDir );
std::string ownerPath( const std::string& stateDir );

}  // namespace OrbEvpn::Bgp

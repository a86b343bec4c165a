// The wake-up segment shared by a table's writer and its readers: helpers
// for its header, reader registrations, fallback sleepers and the datagram
// pokes. Internal to Lumen; the protocol is drawn in docs/lumen-format.md.
#pragma once

#include "platform/lumen/internal/Segment.h"

#include <string>

#include <sys/types.h>

namespace Lumen::internal {

// Writer: maps the table's wake segment, creating it when it does not exist
// (O_CREAT | O_EXCL | O_NOFOLLOW) with the access's wake mode and group. A
// file of this user that is not a valid segment of this layout is removed
// and created anew; a link or another user's file is refused with
// TableAccessException, as every other file of a table is.
Mapping openWakeForWriter( const std::string& name, const FileAccess& access,
                           FileIdentity* identity );
// Reader: maps an existing wake segment, never creating one: a regular file
// (not followed through a link) owned by `owner` (the control file's owner)
// with a valid header. A zeroed identity is restored. Empty mapping when
// none is usable. Never throws: readers' threads call it.
Mapping openWakeForReader( const std::string& name, uid_t owner, FileIdentity* identity );

WakeHeader& wakeHeader( const Mapping& m );
ReaderSlot& readerSlot( const Mapping& m, uint32_t i );
inline std::atomic< uint64_t >& armedWord( WakeHeader& w, uint32_t slot ) {
   return w.armed[ slot / 64 ];
}
inline uint64_t armedBit( uint32_t slot ) {
   return uint64_t( 1 ) << ( slot % 64 );
}

// Whether the identity fields name this layout.
bool wakeHeaderValid( const WakeHeader& w );
// Rewrites the identity fields, magic last. Only for a header whose magic is
// ours or zero (damaged, or not yet written by a writer that just created
// the file): another layout's file is never stamped as ours.
bool restoreWakeHeader( WakeHeader& w );

// Frees registration `i` when its owner is dead, removing its socket; true
// when this call freed it.
bool reclaimIfDead( const Mapping& m, const std::string& root, uint32_t i );
// Takes sleepers whose pid is dead off the sleeper count; how many.
uint32_t reapDeadSleepers( WakeHeader& w );
// The sleeper count minus one, never below zero.
void dropSleeper( WakeHeader& w );

// A non-blocking datagram socket connected to `name`, or -1.
int connectTo( const std::string& name );
// False when the peer is gone; a full queue is success.
bool sendPoke( int fd );
// The mount status a control header shows, the writer's liveness included.
// `lockFd`: a descriptor of the control file, to test the writer lock
// through; -1 falls back to the writer's pid, which a zombie or a reused pid
// fools.
MountStatus statusOf( const ControlHeader& h, int lockFd );

}  // namespace Lumen::internal

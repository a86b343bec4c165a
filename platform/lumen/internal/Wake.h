// The wake-up segment shared by a table's writer and its readers: helpers
// for its header, reader registrations and the datagram pokes. Internal to
// Lumen; the protocol is drawn in docs/lumen-format.md.
#pragma once

#include "platform/lumen/internal/Segment.h"

#include <string>

namespace Lumen::internal {

// Opens (creating and sizing if needed) and maps the wake segment; an empty
// mapping when that fails. Never throws to a reader (`writer` null): its
// threads call it. The table's writer passes its file access, and gets a
// TableAccessException for a wake file it must refuse (openWakeFile()).
Mapping openWakeWord( const std::string& name, const FileAccess* writer = nullptr );
WakeHeader& wakeHeader( const Mapping& m );
ReaderSlot& readerSlot( const Mapping& m, uint32_t i );
// Clears a reader's armed flag, keeping armedCount in step; true when it
// was armed (so exactly one of several racing callers sees true).
bool disarm( WakeHeader& w, ReaderSlot& slot );
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

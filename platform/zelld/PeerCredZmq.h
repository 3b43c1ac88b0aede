// SPDX-License-Identifier: GPL-2.0-or-later
// The sender's credentials of a message received on the broker's ipc ROUTER socket.
#pragma once

#include <cstddef>

#include <zmq.hpp>

#include "ZellRouter.h"

namespace zell {

// libzmq attaches the connection's "Peer-Address" (host:uid:gid:pid) to the frames it read from it;
// a routing-id frame the ROUTER made up ahead of time (asked whether it has input) may carry none, so
// the payload frames are asked first and the routing id last. Unknown (known=false) when no frame tells.
PeerCred peerCredOf(const zmq::message_t* frames, size_t count);

} // namespace zell

// SPDX-License-Identifier: GPL-2.0-or-later
#include "PeerCredZmq.h"

namespace zell {

PeerCred peerCredOf(const zmq::message_t* frames, size_t count)
{
    PeerCred cred;
    for (size_t i = count; i-- > 0;) {
        // zmq_msg_gets rather than message_t::gets, which throws for a frame without the property.
        if (parsePeerAddress(zmq_msg_gets(frames[i].handle(), "Peer-Address"), cred)) {
            return cred;
        }
    }
    return PeerCred{};
}

} // namespace zell

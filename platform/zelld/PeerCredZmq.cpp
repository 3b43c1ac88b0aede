#include "PeerCredZmq.h"

namespace zell {

PeerCred peerCredOf(zmq_msg_t* const* frames, size_t count)
{
    PeerCred cred;
    for (size_t i = count; i-- > 0;) {
        if (frames[i] == nullptr) {
            continue;
        }
        if (parsePeerAddress(zmq_msg_gets(frames[i], "Peer-Address"), cred)) {
            return cred;
        }
    }
    return PeerCred{};
}

} // namespace zell

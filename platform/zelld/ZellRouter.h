// SPDX-License-Identifier: GPL-2.0-or-later
// The broker's routing state: which client connection owns which endpoint GUID, and what to do with each
// message. Transport-free, so the frame handling can be driven by tests and the fuzzer.
#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ZellWire.h"

namespace zell {

// The peer's credentials as the kernel reported them at connect time.
struct PeerCred {
    bool known = false;
    uint32_t uid = 0;
    int32_t pid = 0;
};

// Reads the ":uid:gid:pid" tail that libzmq appends to an ipc peer's address. false when absent.
bool parsePeerAddress(const char* text, PeerCred& out);

class Router {
public:
    struct Limits {
        size_t maxPeers = 4096;
        size_t maxGuidsPerPeer = 4096;
        size_t maxGuids = 65536;
    };

    struct Counters {
        uint64_t received = 0;
        uint64_t routed = 0;
        uint64_t unknownDest = 0;
        uint64_t congested = 0;
        uint64_t malformed = 0;
        uint64_t foreignPeer = 0; // wrong uid
        uint64_t sourceTaken = 0;
        uint64_t registered = 0;
        uint64_t refused = 0;
        uint64_t closedPeers = 0; // dropped because their connection closed
        uint64_t peerLimit = 0;
    };

    enum class Action {
        Drop,    // nothing to send (see lastError for malformed input)
        Reply,   // send `reply` back to the sender
        Forward, // send the message, its command byte made Deliver, to `forwardTo`; then routed() or notRouted()
    };

    struct Decision {
        Action action = Action::Drop;
        wire::Message msg;
        std::string forwardTo;
        std::string reply; // one message
        wire::ParseError error = wire::ParseError::None;
        bool foreign = false; // dropped because the peer runs as another user (or is unknown)
        bool refusedUnregister = false; // an Unregister for a GUID that another client owns
    };

    // alive(pid) tells whether a process still exists; it decides GUID take-over from dead clients.
    Router(uint32_t ownUid, uint64_t instance, Limits limits, std::function<bool(int32_t)> alive);

    // frames: what followed the routing id; a valid message is exactly one frame.
    Decision handle(const std::string& peer, const PeerCred& cred, const wire::FrameView* frames, size_t count,
                    int64_t nowMs);
    // After a Forward went out: the Ack for the sender when it asked for one (else empty).
    std::string routed(const wire::Message& msg);
    // After a Forward could not go out: the Error for the sender. For congestion it is sent only when the
    // sender asked for a verdict, or once a second otherwise: a flood of notices would only add to the load.
    std::string notRouted(const std::string& sender, const wire::Message& msg, uint32_t code, int64_t nowMs);
    // Whether the transport's connection `fd` is still open and still belongs to `pid` (0: unknown).
    // Without a check every connection counts as open.
    using ConnectionCheck = std::function<bool(int fd, int32_t pid)>;
    void setConnectionCheck(ConnectionCheck check) { m_connectionOpen = std::move(check); }
    // The message just handled from `peer` came in on connection `fd`. false: that connection is already
    // gone, and the peer with its GUIDs was dropped.
    bool noteConnection(const std::string& peer, int fd);
    // The transport saw connection `fd` close: drops every peer on it whose connection is gone (the
    // number may already name a new connection). Returns how many peers went.
    size_t connectionClosed(int fd);
    // The destination connection vanished (the transport said so): forget it.
    void dropPeer(const std::string& peer);

    // A message the transport layer refused before parsing (too many frames).
    void noteMalformed() { ++m_counters.received, ++m_counters.malformed; }
    const Counters& counters() const { return m_counters; }
    size_t peerCount() const { return m_peers.size(); }
    size_t guidCount() const { return m_owners.size(); }
    uint64_t instance() const { return m_instance; }

private:
    struct Peer {
        PeerCred cred;
        int fd = -1; // the transport's connection, -1 unknown
        int64_t lastSeen = 0;
        int64_t lastCongestionNotice = INT64_MIN / 2;
        std::unordered_set<wire::GuidKey, wire::GuidKeyHash> guids;
    };

    void registerGuid(const std::string& peerId, Peer& peer, const wire::Message& msg, Decision& decision);
    void unregisterGuid(const std::string& peerId, Peer& peer, const GUID& guid);
    bool ownerGone(const Peer& owner) const;
    bool connectionGone(const Peer& peer) const;
    size_t dropClosed();

    uint32_t m_uid;
    uint64_t m_instance;
    Limits m_limits;
    std::function<bool(int32_t)> m_alive;
    ConnectionCheck m_connectionOpen;
    std::unordered_map<std::string, Peer> m_peers;
    std::unordered_map<wire::GuidKey, std::string, wire::GuidKeyHash> m_owners; // guid -> peer id
    Counters m_counters;
};

} // namespace zell

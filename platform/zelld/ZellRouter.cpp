// SPDX-License-Identifier: GPL-2.0-or-later
#include "ZellRouter.h"

#include <charconv>
#include <cstring>
#include <string_view>

namespace zell {

using namespace zell::wire;

bool parsePeerAddress(const char* text, PeerCred& out)
{
    if (text == nullptr) {
        return false;
    }
    // "<host>:<uid>:<gid>:<pid>": take the last three fields. Read for every message, so without copies.
    std::string_view rest(text);
    uint64_t fields[3] = {};
    for (int i = 2; i >= 0; --i) {
        const size_t colon = rest.rfind(':');
        if (colon == std::string_view::npos) {
            return false;
        }
        const std::string_view digits = rest.substr(colon + 1);
        if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string_view::npos) {
            return false;
        }
        std::from_chars(digits.data(), digits.data() + digits.size(), fields[i]);
        rest = rest.substr(0, colon);
    }
    if (fields[0] > UINT32_MAX || fields[2] > INT32_MAX) {
        return false;
    }
    out.known = true;
    out.uid = static_cast<uint32_t>(fields[0]);
    out.pid = static_cast<int32_t>(fields[2]);
    return true;
}

Router::Router(uint32_t ownUid, uint64_t instance, Limits limits, std::function<bool(int32_t)> alive)
    : m_uid(ownUid), m_instance(instance), m_limits(limits), m_alive(std::move(alive))
{
}

std::string Router::routed(const Message& msg)
{
    ++m_counters.routed;
    if ((msg.meta.flags & kFlagWantAck) == 0) {
        return std::string();
    }
    return encodeRouted(Cmd::Ack, msg);
}

std::string Router::notRouted(const std::string& sender, const Message& msg, uint32_t code, int64_t nowMs)
{
    if (code == kErrUnknownDest) {
        ++m_counters.unknownDest;
    }
    if (code == kErrCongested) {
        ++m_counters.congested;
        if ((msg.meta.flags & kFlagWantAck) == 0) {
            auto peer = m_peers.find(sender);
            if (peer == m_peers.end() || nowMs - peer->second.lastCongestionNotice < 1000) {
                return std::string();
            }
            peer->second.lastCongestionNotice = nowMs;
        }
    }
    return encodeError(msg, code);
}

bool Router::connectionGone(const Peer& peer) const
{
    return peer.fd >= 0 && m_connectionOpen && !m_connectionOpen(peer.fd, peer.cred.known ? peer.cred.pid : 0);
}

bool Router::ownerGone(const Peer& owner) const
{
    if (connectionGone(owner)) {
        return true;
    }
    return owner.cred.known && owner.cred.pid > 0 && m_alive && !m_alive(owner.cred.pid);
}

bool Router::noteConnection(const std::string& peerId, int fd)
{
    auto found = m_peers.find(peerId);
    if (found == m_peers.end() || fd < 0 || found->second.fd == fd) {
        return true;
    }
    found->second.fd = fd;
    // A message may be read after its connection closed (and after the close was reported): such a
    // peer must not keep what it registers.
    if (connectionGone(found->second)) {
        dropPeer(peerId);
        ++m_counters.closedPeers;
        return false;
    }
    return true;
}

size_t Router::connectionClosed(int fd)
{
    std::vector<std::string> gone;
    for (const auto& [id, peer] : m_peers) {
        if (peer.fd == fd && connectionGone(peer)) {
            gone.push_back(id);
        }
    }
    for (const std::string& id : gone) {
        dropPeer(id);
    }
    m_counters.closedPeers += gone.size();
    return gone.size();
}

size_t Router::dropClosed()
{
    std::vector<std::string> gone;
    for (const auto& [id, peer] : m_peers) {
        if (ownerGone(peer)) {
            gone.push_back(id);
        }
    }
    for (const std::string& id : gone) {
        dropPeer(id);
    }
    m_counters.closedPeers += gone.size();
    return gone.size();
}

void Router::registerGuid(const std::string& peerId, Peer& peer, const Message& msg, Decision& decision)
{
    uint32_t status = kRegOk;
    const GuidKey key = guidKey(msg.dest);
    if (guidIsZero(msg.dest)) {
        status = kRegInvalid;
    } else {
        auto owner = m_owners.find(key);
        if (owner != m_owners.end() && owner->second != peerId) {
            auto holder = m_peers.find(owner->second);
            if (holder == m_peers.end() || ownerGone(holder->second)) {
                if (holder != m_peers.end()) {
                    holder->second.guids.erase(key);
                }
                m_owners.erase(owner);
            } else {
                status = kRegTaken;
            }
        }
        if (status == kRegOk && m_owners.find(key) == m_owners.end()) {
            if (peer.guids.size() >= m_limits.maxGuidsPerPeer || m_owners.size() >= m_limits.maxGuids) {
                status = kRegLimit;
            } else {
                m_owners.emplace(key, peerId);
                peer.guids.insert(key);
            }
        }
    }
    if (status == kRegOk) {
        ++m_counters.registered;
    } else {
        ++m_counters.refused;
    }
    decision.action = Action::Reply;
    decision.reply = encodeRegisterAck(msg.dest, status);
}

void Router::unregisterGuid(const std::string& peerId, Peer& peer, const GUID& guid)
{
    const GuidKey key = guidKey(guid);
    auto owner = m_owners.find(key);
    if (owner != m_owners.end() && owner->second == peerId) {
        m_owners.erase(owner);
    }
    peer.guids.erase(key);
}

void Router::dropPeer(const std::string& peerId)
{
    auto found = m_peers.find(peerId);
    const bool fresh = found == m_peers.end();
    if (fresh) {
        return;
    }
    for (const GuidKey& key : found->second.guids) {
        auto owner = m_owners.find(key);
        if (owner != m_owners.end() && owner->second == peerId) {
            m_owners.erase(owner);
        }
    }
    m_peers.erase(found);
}

Router::Decision Router::handle(const std::string& peerId, const PeerCred& cred, const FrameView* frames,
                                size_t count, int64_t nowMs)
{
    Decision decision;
    ++m_counters.received;
    // A sender the kernel did not vouch for is treated as a foreign one.
    if (!cred.known || cred.uid != m_uid) {
        ++m_counters.foreignPeer;
        decision.foreign = true;
        return decision;
    }
    if (count != 1 || frames == nullptr) {
        decision.error = count == 0 ? ParseError::NoFrames : ParseError::BadFrameCount;
    } else {
        decision.error = parse(frames[0].data, frames[0].size, Direction::ToBroker, decision.msg);
    }
    if (decision.error != ParseError::None || peerId.empty()) {
        if (decision.error == ParseError::None) {
            decision.error = ParseError::NoFrames;
        }
        ++m_counters.malformed;
        return decision;
    }

    auto found = m_peers.find(peerId);
    const bool fresh = found == m_peers.end();
    if (fresh) {
        if (decision.msg.cmd == Cmd::Bye) {
            return decision;
        }
        if (m_peers.size() >= m_limits.maxPeers) {
            dropClosed();
            if (m_peers.size() >= m_limits.maxPeers) {
                ++m_counters.peerLimit;
                return decision;
            }
        }
        found = m_peers.emplace(peerId, Peer{}).first;
    }
    Peer& peer = found->second;
    peer.cred = cred;
    peer.lastSeen = nowMs;
    const Message& msg = decision.msg;

    switch (msg.cmd) {
    case Cmd::Ping:
        if (!fresh) {
            decision.action = Action::Reply;
            decision.reply = encodeInstance(Cmd::Pong, m_instance);
            break;
        }
        // A ping from a client we do not know (its connection was dropped, say): a Welcome makes it
        // register its endpoints again.
        [[fallthrough]];
    case Cmd::Hello:
        decision.action = Action::Reply;
        decision.reply = encodeInstance(Cmd::Welcome, m_instance);
        break;
    case Cmd::Register:
        registerGuid(peerId, peer, msg, decision);
        break;
    case Cmd::Unregister: {
        // Only the owner lets a GUID go; a GUID nobody holds is let go at once.
        auto owner = m_owners.find(guidKey(msg.dest));
        if (owner != m_owners.end() && owner->second != peerId) {
            ++m_counters.refused;
            decision.refusedUnregister = true;
            break;
        }
        unregisterGuid(peerId, peer, msg.dest);
        decision.action = Action::Reply;
        decision.reply = encodeGuid(Cmd::Unregistered, msg.dest);
        break;
    }
    case Cmd::Bye:
        dropPeer(peerId);
        break;
    case Cmd::Send: {
        // A source GUID of another client would let replies go astray; an unregistered one is allowed
        // (a message may race ahead of its sender's registration after a reconnect).
        auto srcOwner = m_owners.find(guidKey(msg.src));
        if (srcOwner != m_owners.end() && srcOwner->second != peerId) {
            ++m_counters.sourceTaken;
            decision.action = Action::Reply;
            decision.reply = encodeError(msg, kErrSourceTaken);
            break;
        }
        auto destOwner = m_owners.find(guidKey(msg.dest));
        if (destOwner == m_owners.end()) {
            decision.action = Action::Reply;
            decision.reply = notRouted(peerId, msg, kErrUnknownDest, nowMs);
            break;
        }
        decision.action = Action::Forward;
        decision.forwardTo = destOwner->second;
        break;
    }
    default:
        // parse() admits only client commands in this direction.
        ++m_counters.malformed;
        decision.error = ParseError::BadCommand;
        break;
    }
    return decision;
}

} // namespace zell

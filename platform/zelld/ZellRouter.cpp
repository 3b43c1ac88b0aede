#include "ZellRouter.h"

#include <cstdlib>
#include <cstring>

namespace zell {

using namespace zell::wire;

bool parsePeerAddress(const char* text, PeerCred& out)
{
    if (text == nullptr) {
        return false;
    }
    // "<host>:<uid>:<gid>:<pid>": take the last three fields.
    const std::string address(text);
    size_t end = address.size();
    long long fields[3];
    for (int i = 2; i >= 0; --i) {
        const size_t colon = address.rfind(':', end == 0 ? 0 : end - 1);
        if (colon == std::string::npos || colon + 1 >= end) {
            return false;
        }
        const std::string digits = address.substr(colon + 1, end - colon - 1);
        if (digits.empty() || digits.size() > 10 || digits.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        fields[i] = std::strtoll(digits.c_str(), nullptr, 10);
        end = colon;
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

std::vector<std::string> Router::routedFrames(Cmd cmd, const Message& msg, bool withCode, uint32_t code)
{
    std::vector<std::string> frames(withCode ? 5 : 4);
    uint8_t buffer[kMetaSize];
    putHeader(buffer, cmd);
    frames[0].assign(reinterpret_cast<char*>(buffer), kHeaderSize);
    putGuid(buffer, msg.dest);
    frames[1].assign(reinterpret_cast<char*>(buffer), kGuidSize);
    putGuid(buffer, msg.src);
    frames[2].assign(reinterpret_cast<char*>(buffer), kGuidSize);
    putMeta(buffer, msg.meta);
    frames[3].assign(reinterpret_cast<char*>(buffer), kMetaSize);
    if (withCode) {
        putU32(buffer, code);
        frames[4].assign(reinterpret_cast<char*>(buffer), 4);
    }
    return frames;
}

std::vector<std::string> Router::routed(const Message& msg)
{
    ++m_counters.routed;
    if ((msg.meta.flags & kFlagWantAck) == 0) {
        return {};
    }
    return routedFrames(Cmd::Ack, msg, false, 0);
}

std::vector<std::string> Router::notRouted(const Message& msg, uint32_t code)
{
    if (code == kErrCongested) {
        ++m_counters.congested;
    } else if (code == kErrUnknownDest) {
        ++m_counters.unknownDest;
    }
    return routedFrames(Cmd::Error, msg, true, code);
}

bool Router::ownerGone(const Peer& owner, int64_t nowMs) const
{
    if (nowMs - owner.lastSeen > m_limits.peerExpiryMs) {
        return true;
    }
    return owner.cred.known && owner.cred.pid > 0 && m_alive && !m_alive(owner.cred.pid);
}

void Router::registerGuid(const std::string& peerId, Peer& peer, const Message& msg, int64_t nowMs,
                          Decision& decision)
{
    uint32_t status = kRegOk;
    const GuidKey key = guidKey(msg.dest);
    if (guidIsZero(msg.dest)) {
        status = kRegInvalid;
    } else {
        auto owner = m_owners.find(key);
        if (owner != m_owners.end() && owner->second != peerId) {
            auto holder = m_peers.find(owner->second);
            if (holder == m_peers.end() || ownerGone(holder->second, nowMs)) {
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
    uint8_t buffer[kGuidSize];
    decision.action = Action::Reply;
    decision.reply.resize(3);
    putHeader(buffer, Cmd::RegisterAck);
    decision.reply[0].assign(reinterpret_cast<char*>(buffer), kHeaderSize);
    putGuid(buffer, msg.dest);
    decision.reply[1].assign(reinterpret_cast<char*>(buffer), kGuidSize);
    putU32(buffer, status);
    decision.reply[2].assign(reinterpret_cast<char*>(buffer), 4);
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

size_t Router::expire(int64_t nowMs)
{
    std::vector<std::string> gone;
    for (const auto& [id, peer] : m_peers) {
        if (nowMs - peer.lastSeen > m_limits.peerExpiryMs) {
            gone.push_back(id);
        }
    }
    for (const std::string& id : gone) {
        dropPeer(id);
    }
    m_counters.expiredPeers += gone.size();
    return gone.size();
}

Router::Decision Router::handle(const std::string& peerId, const PeerCred& cred, const FrameView* frames,
                                size_t count, int64_t nowMs)
{
    Decision decision;
    ++m_counters.received;
    if (cred.known && cred.uid != m_uid) {
        ++m_counters.foreignPeer;
        decision.foreign = true;
        return decision;
    }
    decision.error = parse(frames, count, Direction::ToBroker, decision.msg);
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
            expire(nowMs);
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

    uint8_t buffer[12];
    switch (msg.cmd) {
    case Cmd::Ping:
        if (!fresh) {
            decision.action = Action::Reply;
            decision.reply.resize(2);
            putHeader(buffer, Cmd::Pong);
            decision.reply[0].assign(reinterpret_cast<char*>(buffer), kHeaderSize);
            putU64(buffer, m_instance);
            decision.reply[1].assign(reinterpret_cast<char*>(buffer), 8);
            break;
        }
        // A ping from a client we do not know (expired while it was stopped, say): a Welcome makes it
        // register its endpoints again.
        [[fallthrough]];
    case Cmd::Hello:
        decision.action = Action::Reply;
        decision.reply.resize(2);
        putHeader(buffer, Cmd::Welcome);
        decision.reply[0].assign(reinterpret_cast<char*>(buffer), kHeaderSize);
        putU64(buffer, m_instance);
        putU32(buffer + 8, static_cast<uint32_t>(kMaxBody));
        decision.reply[1].assign(reinterpret_cast<char*>(buffer), 12);
        break;
    case Cmd::Register:
        registerGuid(peerId, peer, msg, nowMs, decision);
        break;
    case Cmd::Unregister: {
        unregisterGuid(peerId, peer, msg.dest);
        uint8_t guid[kGuidSize];
        decision.action = Action::Reply;
        decision.reply.resize(2);
        putHeader(buffer, Cmd::Unregistered);
        decision.reply[0].assign(reinterpret_cast<char*>(buffer), kHeaderSize);
        putGuid(guid, msg.dest);
        decision.reply[1].assign(reinterpret_cast<char*>(guid), kGuidSize);
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
            decision.reply = routedFrames(Cmd::Error, msg, true, kErrSourceTaken);
            break;
        }
        auto destOwner = m_owners.find(guidKey(msg.dest));
        if (destOwner == m_owners.end()) {
            decision.action = Action::Reply;
            decision.reply = notRouted(msg, kErrUnknownDest);
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

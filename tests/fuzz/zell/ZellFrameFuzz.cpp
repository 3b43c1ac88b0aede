// SPDX-License-Identifier: GPL-2.0-or-later
// The broker's message handling on arbitrary input from several peers. Everything the broker answers must
// itself be a well-formed message for clients.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ZellRouter.h"
#include "ZellWire.h"

using namespace zell;
using namespace zell::wire;

namespace {

void checkReply(const std::string& reply)
{
    if (reply.empty()) {
        return;
    }
    Message msg;
    if (parse(reply.data(), reply.size(), Direction::ToClient, msg) != ParseError::None) {
        abort();
    }
}

} // namespace

// Input: records of [peer byte][shape byte] then per frame [length byte][bytes]. The shape byte picks the
// frame count (mostly one, as a real client sends) and whether the frame gets our header prefix, so the
// fuzzer reaches the commands quickly.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Router router(1000, 42, Router::Limits{8, 4, 16}, [](int32_t pid) { return pid % 2 == 0; });
    // Connections with odd numbers count as closed.
    router.setConnectionCheck([](int fd, int32_t) { return fd % 2 == 0; });
    size_t at = 0;
    int64_t now = 0;
    while (at + 2 <= size) {
        const uint8_t peerByte = data[at++];
        const uint8_t shape = data[at++];
        const size_t count = (shape & 3) == 3 ? (shape >> 4) % 4 : 1;
        std::vector<std::string> frames;
        for (size_t i = 0; i < count && at < size; ++i) {
            const size_t length = data[at++];
            const size_t take = length < size - at ? length : size - at;
            std::string frame;
            if (shape & 4) {
                frame.assign("KZ\x01", 3);
            }
            frame.append(reinterpret_cast<const char*>(data + at), take);
            if ((shape & 8) && frame.size() >= kRoutedSize) {
                frame.append(static_cast<size_t>(peerByte) * 16, 'b'); // bodies of some size
            }
            frames.push_back(std::move(frame));
            at += take;
        }
        std::vector<FrameView> views;
        for (const auto& f : frames) {
            views.push_back(FrameView{f.data(), f.size()});
        }
        const std::string peer(1, static_cast<char>(peerByte % 12));
        PeerCred cred;
        cred.known = (peerByte & 0x40) == 0;
        cred.uid = (peerByte & 0x80) ? 0 : 1000;
        cred.pid = peerByte % 12;
        now += peerByte;
        Router::Decision decision = router.handle(peer, cred, views.data(), views.size(), now);
        router.noteConnection(peer, (peerByte >> 2) % 5);
        switch (decision.action) {
        case Router::Action::Reply:
            checkReply(decision.reply);
            break;
        case Router::Action::Forward: {
            if (decision.msg.cmd != Cmd::Send || views.size() != 1) {
                abort();
            }
            // What the broker sends on: the same bytes as a Deliver.
            std::string forwarded = frames[0];
            forwarded[3] = static_cast<char>(Cmd::Deliver);
            checkReply(forwarded);
            checkReply(peerByte & 1 ? router.routed(decision.msg)
                                    : router.notRouted(peer, decision.msg, kErrCongested, now));
            if (peerByte & 2) {
                router.dropPeer(decision.forwardTo);
            }
            break;
        }
        case Router::Action::Drop:
            break;
        }
        if ((peerByte & 0x3F) == 0x3F) {
            router.connectionClosed(peerByte % 5);
        }
        if (router.guidCount() > 16 || router.peerCount() > 8) {
            abort(); // the limits hold
        }
    }
    // The client side of the parser on the same bytes.
    Message msg;
    parse(data, size, Direction::ToClient, msg);
    return 0;
}

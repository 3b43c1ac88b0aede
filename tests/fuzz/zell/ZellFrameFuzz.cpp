// The broker's frame handling on arbitrary multipart messages from several peers. Everything the broker
// answers must itself be a well-formed message for clients.
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

void checkReply(const std::vector<std::string>& frames)
{
    if (frames.empty()) {
        return;
    }
    std::vector<FrameView> views;
    for (const auto& f : frames) {
        views.push_back(FrameView{f.data(), f.size()});
    }
    Message msg;
    if (parse(views.data(), views.size(), Direction::ToClient, msg) != ParseError::None) {
        abort();
    }
}

} // namespace

// Input: repeated records of [peer byte][frame count byte] then per frame [length byte][bytes].
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Router router(1000, 42, Router::Limits{8, 4, 16, 15000}, [](int32_t pid) { return pid % 2 == 0; });
    size_t at = 0;
    int64_t now = 0;
    while (at + 2 <= size) {
        const uint8_t peerByte = data[at++];
        const size_t count = data[at++] % (kMaxFrames + 3);
        std::vector<std::string> frames;
        for (size_t i = 0; i < count && at < size; ++i) {
            const size_t length = data[at++];
            const size_t take = length < size - at ? length : size - at;
            frames.emplace_back(reinterpret_cast<const char*>(data + at), take);
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
        switch (decision.action) {
        case Router::Action::Reply:
            checkReply(decision.reply);
            break;
        case Router::Action::Forward:
            if (decision.msg.cmd != Cmd::Send) {
                abort();
            }
            checkReply(peerByte & 1 ? router.routed(decision.msg) : router.notRouted(decision.msg, kErrCongested));
            if (peerByte & 2) {
                router.dropPeer(decision.forwardTo);
            }
            break;
        case Router::Action::Drop:
            break;
        }
        if ((peerByte & 0x3F) == 0x3F) {
            router.expire(now + 20000);
        }
        if (router.guidCount() > 16 || router.peerCount() > 8) {
            abort(); // the limits hold
        }
    }
    // The client side of the parser on the same bytes.
    std::vector<FrameView> views;
    for (size_t i = 0; i + 1 < size && views.size() < kMaxFrames + 1; i += 1 + data[i]) {
        const size_t length = data[i] < size - i - 1 ? data[i] : size - i - 1;
        views.push_back(FrameView{data + i + 1, length});
    }
    Message msg;
    parse(views.data(), views.size(), Direction::ToClient, msg);
    return 0;
}

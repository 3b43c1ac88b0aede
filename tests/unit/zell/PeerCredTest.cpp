// The sender's credentials of a message read from a ROUTER socket after zmq_poll woke the reader.
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <string>

#include <gtest/gtest.h>
#include <zmq.h>

#include "PeerCredZmq.h"
#include "KuvTestDir.h"

namespace {

struct Msg {
    zmq_msg_t m;
    Msg() { zmq_msg_init(&m); }
    ~Msg() { zmq_msg_close(&m); }
};

} // namespace

TEST(PeerCredAfterPoll, EveryMessageOnAConnectionCarriesItsSender)
{
    kuvtest::TempDir dir;
    const std::string endpoint = "ipc://" + dir.path() + "/bus";
    void* ctx = zmq_ctx_new();
    void* router = zmq_socket(ctx, ZMQ_ROUTER);
    void* dealer = zmq_socket(ctx, ZMQ_DEALER);
    ASSERT_EQ(zmq_bind(router, endpoint.c_str()), 0);
    ASSERT_EQ(zmq_connect(dealer, endpoint.c_str()), 0);

    for (int round = 0; round < 3; ++round) {
        const std::string body = "message " + std::to_string(round);
        ASSERT_EQ(zmq_send(dealer, body.data(), body.size(), 0), static_cast<int>(body.size()));
        // The broker waits in zmq_poll and then reads without blocking, as here.
        zmq_pollitem_t item{router, 0, ZMQ_POLLIN, 0};
        ASSERT_EQ(zmq_poll(&item, 1, 30000), 1);
        Msg id;
        Msg payload;
        ASSERT_GE(zmq_msg_recv(&id.m, router, ZMQ_DONTWAIT), 0);
        ASSERT_TRUE(zmq_msg_more(&id.m));
        ASSERT_GE(zmq_msg_recv(&payload.m, router, ZMQ_DONTWAIT), 0);
        std::array<zmq_msg_t*, 2> frames{&id.m, &payload.m};
        const zell::PeerCred cred = zell::peerCredOf(frames.data(), frames.size());
        ASSERT_TRUE(cred.known) << "round " << round;
        EXPECT_EQ(cred.uid, static_cast<uint32_t>(::geteuid()));
        EXPECT_EQ(cred.pid, static_cast<int32_t>(::getpid()));
        // The payload frame alone is enough.
        const zell::PeerCred fromPayload = zell::peerCredOf(frames.data() + 1, 1);
        EXPECT_TRUE(fromPayload.known);
        EXPECT_EQ(fromPayload.pid, static_cast<int32_t>(::getpid()));
    }
    // No frame, no credentials.
    Msg bare;
    std::array<zmq_msg_t*, 1> none{&bare.m};
    EXPECT_FALSE(zell::peerCredOf(none.data(), none.size()).known);

    int linger = 0;
    zmq_setsockopt(dealer, ZMQ_LINGER, &linger, sizeof linger);
    zmq_setsockopt(router, ZMQ_LINGER, &linger, sizeof linger);
    zmq_close(dealer);
    zmq_close(router);
    zmq_ctx_term(ctx);
}

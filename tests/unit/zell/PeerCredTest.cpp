// SPDX-License-Identifier: GPL-2.0-or-later
// The sender's credentials of a message read from a ROUTER socket after zmq_poll woke the reader.
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <string>

#include <gtest/gtest.h>
#include <zmq.hpp>

#include "PeerCredZmq.h"
#include "KuvTestDir.h"

TEST(PeerCredAfterPoll, EveryMessageOnAConnectionCarriesItsSender)
{
    kuvtest::TempDir dir;
    const std::string endpoint = "ipc://" + dir.path() + "/bus";
    zmq::context_t ctx;
    zmq::socket_t router(ctx, zmq::socket_type::router);
    zmq::socket_t dealer(ctx, zmq::socket_type::dealer);
    router.set(zmq::sockopt::linger, 0);
    dealer.set(zmq::sockopt::linger, 0);
    router.bind(endpoint);
    dealer.connect(endpoint);

    for (int round = 0; round < 3; ++round) {
        const std::string body = "message " + std::to_string(round);
        ASSERT_EQ(dealer.send(zmq::buffer(body)), body.size());
        // The broker waits in zmq_poll and then reads without blocking, as here.
        zmq::pollitem_t item{router.handle(), 0, ZMQ_POLLIN, 0};
        ASSERT_EQ(zmq::poll(&item, 1, std::chrono::milliseconds(30000)), 1);
        std::array<zmq::message_t, 2> frames;
        ASSERT_TRUE(router.recv(frames[0], zmq::recv_flags::dontwait));
        ASSERT_TRUE(frames[0].more());
        ASSERT_TRUE(router.recv(frames[1], zmq::recv_flags::dontwait));
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
    const zmq::message_t bare;
    EXPECT_FALSE(zell::peerCredOf(&bare, 1).known);
}

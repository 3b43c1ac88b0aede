// SPDX-License-Identifier: GPL-2.0-or-later
// Receivers are never called once their endpoint is given back: destroyEndPoint, uninit,
// unregisterRecvNotify and the client's own stop/release, while messages keep arriving.
#include <gtest/gtest.h>

#include "ZellTestSupport.h"

using namespace zelltest;

namespace {

const char* const kTarget = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";
const char* const kSource = "0B7E3A12-9C41-4D2B-8E5F-6A7B8C9D0E1F";

// Counts calls made after it was declared gone; deleted right after, so a late call is also a
// use-after-free for the sanitizers to see.
class Watched : public IMRReceiveComplete {
public:
    explicit Watched(std::atomic<int>& lateCalls) : m_lateCalls(lateCalls) {}
    void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override
    {
        if (m_gone.load()) {
            ++m_lateCalls;
        }
        if (++m_calls % 16 == 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // widen the window
        }
    }
    void gone() { m_gone.store(true); }
    int calls() const { return m_calls.load(); }

private:
    std::atomic<int>& m_lateCalls;
    std::atomic<bool> m_gone{false};
    std::atomic<int> m_calls{0};
};

class ZellLifetime : public ::testing::Test {
protected:
    void SetUp() override
    {
        runtime = std::make_unique<RuntimeDir>();
        broker = std::make_unique<Broker>(KUV_ZELLD_PATH, *runtime);
        module = std::make_unique<Module>(KUV_ZELL_MODULE);
        sender = std::make_unique<Client>(*module, "sender");
        ASSERT_TRUE(sender->start());
        source = (*sender)->createEndPoint();
        ASSERT_EQ(source->init(guidOf(kSource)), 0);
    }
    void TearDown() override
    {
        stopFlood();
        sender.reset();
        module.reset();
        broker.reset();
        runtime.reset();
    }
    void startFlood()
    {
        flooding = true;
        flood = std::thread([this] {
            while (flooding.load()) {
                if (source->sendMsg(guidOf(kTarget), 1003, "flood", 5) != 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
            }
        });
    }
    void stopFlood()
    {
        flooding = false;
        if (flood.joinable()) {
            flood.join();
        }
    }

    std::unique_ptr<RuntimeDir> runtime;
    std::unique_ptr<Broker> broker;
    std::unique_ptr<Module> module;
    std::unique_ptr<Client> sender;
    IZellMREndPoint4* source = nullptr;
    std::atomic<bool> flooding{false};
    std::thread flood;
};

} // namespace

TEST_F(ZellLifetime, NoReceiverCallAfterDestroyEndPoint)
{
    Client client(*module, "receiver");
    ASSERT_EQ(client.init(settingsJson("./kuv_zell", 2)), 0);
    ASSERT_TRUE(client.waitConnected());
    std::atomic<int> late{0};
    startFlood();
    for (int round = 0; round < 12; ++round) {
        IZellMREndPoint4* ep = client->createEndPoint();
        auto receiver = std::make_unique<Watched>(late);
        ASSERT_EQ(ep->registerRecvNotify(1003, receiver.get(), 0), 0);
        ASSERT_EQ(ep->init(guidOf(kTarget)), 0) << "round " << round;
        ASSERT_TRUE(kuvtest::waitUntil([&] { return receiver->calls() > 20; }, 60000)) << "round " << round;
        ASSERT_EQ(client->destroyEndPoint(ep), 0);
        receiver->gone();
        receiver.reset();
    }
    stopFlood();
    EXPECT_EQ(late.load(), 0);
    EXPECT_EQ(client->endPointCount(), 0);
}

TEST_F(ZellLifetime, NoReceiverCallAfterUnregisterOrUninit)
{
    Client client(*module, "receiver");
    ASSERT_EQ(client.init(settingsJson("./kuv_zell", 3)), 0);
    ASSERT_TRUE(client.waitConnected());
    std::atomic<int> late{0};
    IZellMREndPoint4* ep = client->createEndPoint();
    ASSERT_EQ(ep->init(guidOf(kTarget)), 0);
    startFlood();
    for (int round = 0; round < 10; ++round) {
        auto receiver = std::make_unique<Watched>(late);
        ASSERT_EQ(ep->registerRecvNotify(1003, receiver.get(), 0), 0);
        ASSERT_TRUE(kuvtest::waitUntil([&] { return receiver->calls() > 10; }, 60000));
        if (round % 2 == 0) {
            ASSERT_EQ(ep->unregisterRecvNotify(1003), 0);
        } else {
            ASSERT_EQ(ep->uninit(), 0);
            ASSERT_EQ(ep->init(guidOf(kTarget)), 0);
        }
        receiver->gone();
        receiver.reset();
    }
    stopFlood();
    EXPECT_EQ(late.load(), 0);
}

TEST_F(ZellLifetime, ReceiverMayDestroyItsOwnEndpoint)
{
    Client client(*module, "receiver");
    ASSERT_EQ(client.init(settingsJson("./kuv_zell", 2)), 0);
    ASSERT_TRUE(client.waitConnected());
    struct SelfDestroy : IMRReceiveComplete {
        IZellClientMgr* mgr = nullptr;
        std::atomic<int> calls{0};
        std::atomic<int64_t> result{99};
        void ReceiveCallback(uint64_t endpoint, int64_t, const char*, int, uint64_t, uint64_t) override
        {
            if (++calls == 1) {
                result = mgr->destroyEndPoint(reinterpret_cast<IZellMREndPoint4*>(endpoint));
            }
        }
    } self;
    self.mgr = client.get();
    IZellMREndPoint4* ep = client->createEndPoint();
    ASSERT_EQ(ep->registerRecvNotify(1003, &self, 0), 0);
    ASSERT_EQ(ep->init(guidOf(kTarget)), 0);
    startFlood();
    ASSERT_TRUE(kuvtest::waitUntil([&] { return self.result.load() != 99; }, 60000));
    EXPECT_EQ(self.result.load(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // give stray deliveries a chance to show
    stopFlood();
    EXPECT_EQ(self.calls.load(), 1);
    EXPECT_EQ(client->endPointCount(), 0);
}

TEST_F(ZellLifetime, StopReleaseAndDestroyWhileMessagesArrive)
{
    std::atomic<int> late{0};
    startFlood();
    for (int round = 0; round < 5; ++round) {
        auto client = std::make_unique<Client>(*module, "receiver-" + std::to_string(round));
        ASSERT_EQ(client->init(settingsJson("./kuv_zell", 2)), 0);
        ASSERT_TRUE(client->waitConnected());
        IZellMREndPoint4* ep = (*client)->createEndPoint();
        auto receiver = std::make_unique<Watched>(late);
        ASSERT_EQ(ep->registerRecvNotify(1003, receiver.get(), 0), 0);
        ASSERT_EQ(ep->init(guidOf(kTarget)), 0) << "round " << round;
        ASSERT_TRUE(kuvtest::waitUntil([&] { return receiver->calls() > 20; }, 60000));
        // The service's order: the endpoint stays, the client is stopped, released and destroyed.
        client->close();
        receiver->gone();
        receiver.reset();
    }
    stopFlood();
    EXPECT_EQ(late.load(), 0);
}

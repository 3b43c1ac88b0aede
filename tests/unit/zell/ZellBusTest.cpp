// SPDX-License-Identifier: GPL-2.0-or-later
// The bus end to end: a real kuv-zelld and clients loaded from libZellClientMgr.so.
#include <gtest/gtest.h>

#include <zmq.h>

#include <sys/stat.h>

#include <random>

#include "ZellTestSupport.h"

using namespace zelltest;

namespace {

const char* const kAppGuid = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";
const char* const kPeerGuid = "0B7E3A12-9C41-4D2B-8E5F-6A7B8C9D0E1F";
const char* const kOtherGuid = "D3C2B1A0-1111-2222-3333-444455556666";

class ZellBus : public ::testing::Test {
protected:
    void SetUp() override
    {
        runtime = std::make_unique<RuntimeDir>();
        broker = std::make_unique<Broker>(KUV_ZELLD_PATH, *runtime);
        module = std::make_unique<Module>(KUV_ZELL_MODULE);
    }
    void TearDown() override
    {
        module.reset();
        broker.reset();
        runtime.reset();
    }

    // Starts a and b; rx (kAppGuid, on a) gets type through receiver, tx (kPeerGuid, on b) sends.
    static void openPair(Client& a, Client& b, IZellMREndPoint4*& rx, IZellMREndPoint4*& tx,
                         IMRReceiveComplete* receiver, int64_t type)
    {
        ASSERT_TRUE(a.start());
        ASSERT_TRUE(b.start());
        rx = a->createEndPoint();
        tx = b->createEndPoint();
        ASSERT_EQ(rx->init(guidOf(kAppGuid)), 0);
        ASSERT_EQ(rx->registerRecvNotify(type, receiver, 0), 0);
        ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);
    }

    std::unique_ptr<RuntimeDir> runtime;
    std::unique_ptr<Broker> broker;
    std::unique_ptr<Module> module;
};

struct LogLines {
    static std::mutex mutex;
    static std::vector<std::pair<int, std::string>> lines;
    static void callback(int level, const char* text, int)
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.emplace_back(level, text);
    }
    static bool contains(const std::string& needle)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& line : lines) {
            if (line.second.find(needle) != std::string::npos) {
                return true;
            }
        }
        return false;
    }
    static void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
    }
};
std::mutex LogLines::mutex;
std::vector<std::pair<int, std::string>> LogLines::lines;

} // namespace

TEST_F(ZellBus, DeliversType1003WithItsExactBody)
{
    Client receiverSide(*module, "69948CC6-CA3A-471E-9D6D-E532496DBBE2");
    Client senderSide(*module, "11111111-2222-3333-4444-555555555555");
    ASSERT_TRUE(receiverSide.start());
    ASSERT_TRUE(senderSide.start());

    IZellMREndPoint4* app = receiverSide->createEndPoint();
    ASSERT_NE(app, nullptr);
    Recorder on1003;
    Recorder on1002;
    ASSERT_EQ(app->init(guidOf(kAppGuid)), 0);
    ASSERT_EQ(app->registerRecvNotify(1003, &on1003, 0), 0);
    ASSERT_EQ(app->registerRecvNotify(1002, &on1002, 0), 0);
    EXPECT_EQ(app->isRegistered(), 1);

    IZellMREndPoint4* peer = senderSide->createEndPoint();
    ASSERT_EQ(peer->init(guidOf(kPeerGuid)), 0);

    const std::string body("plugin\0update\0\x01\xff end", 20);
    ASSERT_EQ(peer->sendMsg(guidOf(kAppGuid), 1003, body.data(), static_cast<int>(body.size())), 0);
    ASSERT_EQ(peer->sendMsg(guidOf(kAppGuid), 1003, nullptr, 0), 0);
    ASSERT_TRUE(on1003.waitFor(2));
    const auto items = on1003.items();
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].type, 1003);
    EXPECT_EQ(items[0].body, body);
    EXPECT_EQ(items[0].body.size(), 20u);
    EXPECT_EQ(items[0].endpoint, reinterpret_cast<uint64_t>(app));
    EXPECT_EQ(items[0].sender, kPeerGuid);
    EXPECT_EQ(items[1].body, "");
    EXPECT_GT(items[1].sequence, items[0].sequence);
    EXPECT_EQ(on1002.count(), 0u);

    // A type nobody registered for is not delivered to the 1003 receiver.
    ASSERT_EQ(peer->sendMsgWait(guidOf(kAppGuid), 1004, "x", 1, 10000), ZELL_SEND_ROUTED);
    ASSERT_EQ(peer->sendMsgWait(guidOf(kAppGuid), 1003, "last", 4, 10000), ZELL_SEND_ROUTED);
    ASSERT_TRUE(on1003.waitFor(3));
    EXPECT_EQ(on1003.items().back().body, "last");
    EXPECT_EQ(on1003.count(), 3u);

    senderSide->destroyEndPoint(peer);
    receiverSide->destroyEndPoint(app);
}

TEST_F(ZellBus, AnyTypeReceiverGetsUnclaimedTypes)
{
    Client a(*module, "A");
    ASSERT_TRUE(a.start());
    IZellMREndPoint4* one = a->createEndPoint();
    IZellMREndPoint4* two = a->createEndPoint();
    Recorder any;
    Recorder specific;
    ASSERT_EQ(one->init(guidOf(kAppGuid)), 0);
    ASSERT_EQ(two->init(guidOf(kPeerGuid)), 0);
    ASSERT_EQ(one->registerRecvNotify(kZellAnyMsgType, &any, 0), 0);
    ASSERT_EQ(one->registerRecvNotify(7, &specific, 0), 0);
    EXPECT_EQ(two->sendMsg(guidOf(kAppGuid), 7, "s", 1), 0);
    EXPECT_EQ(two->sendMsg(guidOf(kAppGuid), 8, "a", 1), 0);
    ASSERT_TRUE(any.waitFor(1));
    ASSERT_TRUE(specific.waitFor(1));
    EXPECT_EQ(any.items()[0].type, 8);
    EXPECT_EQ(specific.items()[0].type, 7);
    EXPECT_EQ(a->endPointCount(), 2);
}

TEST_F(ZellBus, UnknownDestinationIsReportedToTheSender)
{
    LogLines::clear();
    Client a(*module, "A");
    ASSERT_EQ(a.init(settingsJson()), 0);
    a->setLogCallback(&LogLines::callback);
    a->setLogMask(0xFFFFFFFFu);
    ASSERT_TRUE(a.waitConnected());
    IZellMREndPoint4* ep = a->createEndPoint();
    ASSERT_EQ(ep->init(guidOf(kPeerGuid)), 0);

    EXPECT_EQ(ep->sendMsgWait(guidOf(kOtherGuid), 5, "lost", 4, 10000), ZELL_SEND_UNKNOWN_DEST);
    // A plain send is told too, through the log callback.
    EXPECT_EQ(ep->sendMsg(guidOf(kOtherGuid), 6, "lost", 4), 0);
    EXPECT_TRUE(kuvtest::waitUntil(
        [] { return LogLines::contains(std::string("to ") + kOtherGuid + " type 6 not delivered"); }, 30000));
    // The bus still routes to a known destination afterwards.
    EXPECT_EQ(ep->sendMsgWait(guidOf(kPeerGuid), 5, "self", 4, 10000), ZELL_SEND_ROUTED);
}

TEST_F(ZellBus, SecondLiveEndpointWithTheSameGuidIsRefused)
{
    Client a(*module, "A");
    Client b(*module, "B");
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(b.start());
    IZellMREndPoint4* first = a->createEndPoint();
    IZellMREndPoint4* sameClient = a->createEndPoint();
    IZellMREndPoint4* otherClient = b->createEndPoint();
    ASSERT_EQ(first->init(guidOf(kAppGuid)), 0);
    EXPECT_NE(sameClient->init(guidOf(kAppGuid)), 0);
    EXPECT_NE(otherClient->init(guidOf(kAppGuid)), 0);
    EXPECT_NE(first->init(guidOf(kPeerGuid)), 0) << "an initialised endpoint cannot be renamed";
    GUID zero{};
    EXPECT_NE(sameClient->init(zero), 0);

    // Once the holder leaves, the GUID is free again.
    EXPECT_EQ(first->uninit(), 0);
    EXPECT_EQ(otherClient->init(guidOf(kAppGuid)), 0);
    EXPECT_EQ(otherClient->isRegistered(), 1);
    EXPECT_EQ(a->destroyEndPoint(first), 0);
    EXPECT_NE(a->destroyEndPoint(first), 0) << "a destroyed endpoint is not destroyed twice";
    EXPECT_NE(a->destroyEndPoint(otherClient), 0) << "another client's endpoint is refused";
}

TEST_F(ZellBus, ClientsWaitForALateBroker)
{
    broker.reset();
    Client a(*module, "A");
    Client b(*module, "B");
    ASSERT_EQ(a.init(settingsJson()), 0) << "a broker that is not there yet is not an init failure";
    ASSERT_EQ(b.init(settingsJson()), 0);
    IZellMREndPoint4* rx = a->createEndPoint();
    IZellMREndPoint4* tx = b->createEndPoint();
    Recorder recorder;
    ASSERT_EQ(rx->init(guidOf(kAppGuid)), 0);
    ASSERT_EQ(rx->registerRecvNotify(1003, &recorder, 0), 0);
    ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);
    EXPECT_EQ(a->isConnected(), 0);
    EXPECT_EQ(a->waitConnected(50), 0) << "no broker: the wait ends with its timeout";
    EXPECT_EQ(tx->sendMsg(guidOf(kAppGuid), 1003, "x", 1), 1) << "no broker: not handed to the bus";
    EXPECT_EQ(tx->sendMsgWait(guidOf(kAppGuid), 1003, "x", 1, 100), ZELL_SEND_NO_BROKER);
    // Told when the registration changes, so nobody polls isRegistered().
    struct Registered {
        std::mutex mutex;
        std::condition_variable cv;
        int calls = 0;
        static void notify(void* self)
        {
            auto* r = static_cast<Registered*>(self);
            std::lock_guard<std::mutex> lock(r->mutex);
            ++r->calls;
            r->cv.notify_all();
        }
    } registered;
    rx->setRegisteredNotify(&Registered::notify, &registered);

    broker = std::make_unique<Broker>(KUV_ZELLD_PATH, *runtime);
    ASSERT_TRUE(a.waitConnected());
    ASSERT_TRUE(b.waitConnected());
    {
        std::unique_lock<std::mutex> lock(registered.mutex);
        ASSERT_TRUE(registered.cv.wait_for(lock, std::chrono::seconds(30), [&] { return rx->isRegistered() == 1; }));
        EXPECT_GE(registered.calls, 1);
    }
    rx->setRegisteredNotify(nullptr, nullptr);
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] { return tx->sendMsgWait(guidOf(kAppGuid), 1003, "late", 4, 5000) == ZELL_SEND_ROUTED; }, 30000, 50));
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.items()[0].body, "late");
}

TEST_F(ZellBus, DeliveryResumesAfterTheBrokerIsKilledAndRestarted)
{
    Client a(*module, "A");
    Client b(*module, "B");
    Recorder recorder;
    IZellMREndPoint4* rx = nullptr;
    IZellMREndPoint4* tx = nullptr;
    ASSERT_NO_FATAL_FAILURE(openPair(a, b, rx, tx, &recorder, 1003));
    ASSERT_EQ(tx->sendMsgWait(guidOf(kAppGuid), 1003, "before", 6, 10000), ZELL_SEND_ROUTED);
    ASSERT_TRUE(recorder.waitFor(1));

    for (int round = 0; round < 2; ++round) {
        broker->kill9();
        ASSERT_TRUE(kuvtest::waitUntil([&] { return a->isConnected() == 0 && b->isConnected() == 0; }, 30000));
        broker->start(); // replaces the dead broker's socket
        const std::string body = "after-" + std::to_string(round);
        // Same clients, same endpoints: they reconnect and register again on their own.
        EXPECT_TRUE(kuvtest::waitUntil(
            [&] {
                return tx->sendMsgWait(guidOf(kAppGuid), 1003, body.data(), static_cast<int>(body.size()), 2000) ==
                       ZELL_SEND_ROUTED;
            },
            60000, 20));
        ASSERT_TRUE(recorder.waitFor(2 + static_cast<size_t>(round)));
        EXPECT_EQ(recorder.items().back().body, body);
    }
}

TEST_F(ZellBus, HundredThousandMessagesInARowNoneLost)
{
    // Declared before the clients so it outlives every dispatch thread that may still call it.
    struct Counter : IMRReceiveComplete {
        std::atomic<uint64_t> count{0};
        std::atomic<uint64_t> outOfOrder{0};
        std::atomic<uint64_t> badBody{0};
        uint64_t last = 0;
        void ReceiveCallback(uint64_t, int64_t, const char* content, int length, uint64_t, uint64_t) override
        {
            uint64_t index = 0;
            if (length != 64) {
                ++badBody;
            } else {
                memcpy(&index, content, sizeof(index));
            }
            if (index != last + 1) {
                ++outOfOrder;
            }
            last = index;
            ++count;
        }
    } counter;
    Client a(*module, "A");
    Client b(*module, "B");
    IZellMREndPoint4* rx = nullptr;
    IZellMREndPoint4* tx = nullptr;
    ASSERT_NO_FATAL_FAILURE(openPair(a, b, rx, tx, &counter, 42));

    constexpr uint64_t kCount = 100000;
    char body[64] = {0};
    for (uint64_t i = 1; i <= kCount; ++i) {
        memcpy(body, &i, sizeof(i));
        // A full send queue refuses the message without taking it (the sender's flow control);
        // the sender tries again, so nothing is lost and nothing is sent twice.
        int rc = ZELL_SEND_CONGESTED;
        for (int attempt = 0; attempt < 60 && rc == ZELL_SEND_CONGESTED; ++attempt) {
            rc = tx->sendMsg(guidOf(kAppGuid), 42, body, sizeof(body));
        }
        ASSERT_EQ(rc, 0) << "message " << i;
    }
    EXPECT_TRUE(kuvtest::waitUntil([&] { return counter.count.load() >= kCount; }, 240000));
    EXPECT_EQ(counter.count.load(), kCount);
    EXPECT_EQ(counter.outOfOrder.load(), 0u);
    EXPECT_EQ(counter.badBody.load(), 0u);
    EXPECT_EQ(a->destroyEndPoint(rx), 0);
}

TEST_F(ZellBus, GarbageFramesLeaveTheBrokerServing)
{
    // Raw ZMQ peers that speak the transport but not our protocol.
    void* ctx = zmq_ctx_new();
    void* raw = zmq_socket(ctx, ZMQ_DEALER);
    const int zero = 0;
    zmq_setsockopt(raw, ZMQ_LINGER, &zero, sizeof(zero));
    ASSERT_EQ(zmq_connect(raw, ("ipc://" + runtime->socketPath()).c_str()), 0);
    std::mt19937 random(12345);
    auto sendParts = [&](const std::vector<std::string>& parts) {
        for (size_t i = 0; i < parts.size(); ++i) {
            zmq_send(raw, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
        }
    };
    const std::string header = std::string("KZ\x01", 3);
    sendParts({""});
    sendParts({"KZ"});
    sendParts({header + '\x06'});                                       // Send without its frames
    sendParts({header + '\x06', "short", "x", "y", "z"});              // wrong sizes
    sendParts({header + '\x07', std::string(16, 'a'), std::string(16, 'b'), std::string(24, 'c'), "x"}); // Deliver upward
    sendParts({header + '\x03', std::string(16, '\0')});               // the zero GUID
    sendParts({std::string("KZ\x09\x01", 4)});                          // future version
    sendParts({header + '\x01', "extra"});
    std::vector<std::string> many(50, "frame");
    many[0] = header + '\x0a';
    sendParts(many);
    for (int i = 0; i < 2000; ++i) {
        std::vector<std::string> parts(1 + random() % 7);
        for (auto& part : parts) {
            part.resize(random() % 40);
            for (auto& c : part) {
                c = static_cast<char>(random());
            }
        }
        if (random() % 2) {
            parts[0] = header + static_cast<char>(random() % 16);
        }
        sendParts(parts);
    }
    // Bytes that are not even ZMTP.
    for (int i = 0; i < 5; ++i) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, runtime->socketPath().c_str(), sizeof(address.sun_path) - 1);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            std::string junk(300, '\0');
            for (auto& c : junk) {
                c = static_cast<char>(random());
            }
            (void)!::write(fd, junk.data(), junk.size());
        }
        ::close(fd);
    }

    Client a(*module, "A");
    Client b(*module, "B");
    Recorder recorder;
    IZellMREndPoint4* rx = nullptr;
    IZellMREndPoint4* tx = nullptr;
    ASSERT_NO_FATAL_FAILURE(openPair(a, b, rx, tx, &recorder, 1003));
    EXPECT_EQ(tx->sendMsgWait(guidOf(kAppGuid), 1003, "still here", 10, 10000), ZELL_SEND_ROUTED);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.items()[0].body, "still here");
    EXPECT_TRUE(broker->process().running());

    zmq_close(raw);
    zmq_ctx_term(ctx);
    EXPECT_EQ(broker->terminate(), 0);
    EXPECT_NE(broker->err().find("malformed"), std::string::npos);
}

TEST_F(ZellBus, OversizedBodiesAreRefusedBeforeSending)
{
    Client a(*module, "A");
    ASSERT_TRUE(a.start());
    IZellMREndPoint4* ep = a->createEndPoint();
    EXPECT_EQ(ep->sendMsg(guidOf(kAppGuid), 1, "x", 1), -1) << "not initialised";
    ASSERT_EQ(ep->init(guidOf(kAppGuid)), 0);
    std::string big(16u * 1024 * 1024 + 1, 'x');
    EXPECT_EQ(ep->sendMsg(guidOf(kAppGuid), 1, big.data(), static_cast<int>(big.size())), -1);
    EXPECT_EQ(ep->sendMsg(guidOf(kAppGuid), 1, nullptr, 5), -1);
    EXPECT_EQ(ep->sendMsg(guidOf(kAppGuid), 1, "x", -1), -1);
    Recorder recorder;
    ASSERT_EQ(ep->registerRecvNotify(1, &recorder, 0), 0);
    big.resize(16u * 1024 * 1024);
    EXPECT_EQ(ep->sendMsgWait(guidOf(kAppGuid), 1, big.data(), static_cast<int>(big.size()), 30000),
              ZELL_SEND_ROUTED);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.items()[0].body.size(), big.size());
}

TEST_F(ZellBus, ReceiverMayUninitItsOwnEndpoint)
{
    Client a(*module, "A");
    ASSERT_TRUE(a.start());
    IZellMREndPoint4* rx = a->createEndPoint();
    IZellMREndPoint4* tx = a->createEndPoint();
    struct SelfStopper : IMRReceiveComplete {
        std::atomic<int> calls{0};
        std::atomic<int> uninitResult{99};
        void ReceiveCallback(uint64_t endpoint, int64_t, const char*, int, uint64_t, uint64_t) override
        {
            if (++calls == 1) {
                uninitResult = reinterpret_cast<IZellMREndPoint4*>(endpoint)->uninit();
            }
        }
    } stopper;
    ASSERT_EQ(rx->init(guidOf(kAppGuid)), 0);
    ASSERT_EQ(rx->registerRecvNotify(3, &stopper, 0), 0);
    ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);
    for (int i = 0; i < 50; ++i) {
        tx->sendMsg(guidOf(kAppGuid), 3, "m", 1);
    }
    ASSERT_TRUE(kuvtest::waitUntil([&] { return stopper.uninitResult.load() != 99; }, 30000));
    EXPECT_EQ(stopper.uninitResult.load(), 0);
    // Messages sent afterwards find no endpoint.
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] { return tx->sendMsgWait(guidOf(kAppGuid), 3, "m", 1, 5000) == ZELL_SEND_UNKNOWN_DEST; }, 30000));
    EXPECT_EQ(stopper.calls.load(), 1);
    EXPECT_EQ(a->destroyEndPoint(rx), 0);
}

TEST_F(ZellBus, SeveralDispatchThreadsKeepEachEndpointInOrder)
{
    Client a(*module, "A");
    Client b(*module, "B");
    ASSERT_EQ(a.init(settingsJson("./kuv_zell", 4)), 0);
    ASSERT_EQ(b.init(settingsJson()), 0);
    ASSERT_TRUE(a.waitConnected());
    ASSERT_TRUE(b.waitConnected());
    struct Ordered : IMRReceiveComplete {
        std::atomic<int> count{0};
        std::atomic<int> bad{0};
        std::atomic<int> concurrent{0};
        std::atomic<int> inside{0};
        uint64_t last = 0;
        void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t sequence) override
        {
            if (++inside > 1) {
                ++concurrent;
            }
            if (sequence <= last) {
                ++bad;
            }
            last = sequence;
            --inside;
            ++count;
        }
    };
    std::vector<std::unique_ptr<Ordered>> receivers;
    std::vector<IZellMREndPoint4*> rx;
    for (int i = 0; i < 8; ++i) {
        receivers.push_back(std::make_unique<Ordered>());
        rx.push_back(a->createEndPoint());
        GUID guid = guidOf(kAppGuid);
        guid.Data4[7] = static_cast<uint8_t>(i);
        ASSERT_EQ(rx.back()->init(guid), 0);
        ASSERT_EQ(rx.back()->registerRecvNotify(9, receivers.back().get(), 0), 0);
    }
    IZellMREndPoint4* tx = b->createEndPoint();
    ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);
    for (int n = 0; n < 2000; ++n) {
        GUID guid = guidOf(kAppGuid);
        guid.Data4[7] = static_cast<uint8_t>(n % 8);
        ASSERT_EQ(tx->sendMsg(guid, 9, "o", 1), 0);
    }
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] {
            int total = 0;
            for (auto& r : receivers) {
                total += r->count.load();
            }
            return total == 2000;
        },
        60000));
    for (auto& r : receivers) {
        EXPECT_EQ(r->count.load(), 250);
        EXPECT_EQ(r->bad.load(), 0);
        EXPECT_EQ(r->concurrent.load(), 0);
    }
}

TEST_F(ZellBus, SettingsAsTheServiceSendsThemAndUnusableOnes)
{
    kuvtest::TempDir install("zellinst");
    ASSERT_EQ(mkdir((install.path() + "/bin").c_str(), 0755), 0);
    const std::string base = install.path() + "/bin/../";
    // The service's settings, member for member.
    const std::string settings = "{\"log_path\":\"" + base + "log/gui/gui.ipc.log\",\"log_backup_path\":\"" + base +
                                 "log/gui/backup\",\"socket_addr\":\"./kuv_zell\",\"thread_nums\":1,\"log_level\":4,"
                                 "\"log_size\":10485760}";
    {
        Client client(*module, "69948CC6-CA3A-471E-9D6D-E532496DBBE2");
        EXPECT_EQ(client->init(settings.c_str(), "gui"), ZELL_INIT_OK);
        EXPECT_STREQ(client->lastError(), "");
        EXPECT_EQ(client->init(settings.c_str(), "gui"), ZELL_INIT_NOT_FRESH) << "a second init is refused";
        EXPECT_NE(std::string(client->lastError()).find("initialised or stopped before"), std::string::npos);
        EXPECT_STREQ(client->version(), "1.0.0");
        ASSERT_TRUE(client.waitConnected());
        EXPECT_TRUE(kuvtest::waitForFileContains(install.path() + "/log/gui/gui.ipc.log", "connected to the broker"));
        EXPECT_TRUE(kuvtest::fileContains(install.path() + "/log/gui/gui.ipc.log", "(module \"gui\""));
    }
    EXPECT_EQ(module->create(nullptr), nullptr);
    {
        Client client(*module, "null");
        EXPECT_EQ(client->init(nullptr, "gui"), ZELL_INIT_BAD_SETTINGS);
        EXPECT_STREQ(client->lastError(), "unusable settings: no settings");
    }
}

struct UnusableSettings {
    const char* text;
    int code;
    const char* lastError; // a part of the module's last error line
};

class ZellBusUnusableSettings : public ZellBus, public ::testing::WithParamInterface<UnusableSettings> {
};

TEST_P(ZellBusUnusableSettings, AreRefusedWithTheirReason)
{
    const UnusableSettings& c = GetParam();
    Client client(*module, "bad");
    // The reason is kept even with the module log silenced and no callback set.
    client->setLogMask(0);
    EXPECT_EQ(client->init(c.text, "gui"), c.code) << c.text;
    EXPECT_NE(std::string(client->lastError()).find(c.lastError), std::string::npos) << client->lastError();
    EXPECT_EQ(client->createEndPoint()->init(guidOf(kAppGuid)), -1) << "no bus without settings";
}

INSTANTIATE_TEST_SUITE_P(
    Settings, ZellBusUnusableSettings,
    ::testing::Values(UnusableSettings{"", ZELL_INIT_BAD_SETTINGS, "settings are not JSON"},
                      UnusableSettings{"not json", ZELL_INIT_BAD_SETTINGS, "settings are not JSON"},
                      UnusableSettings{"[1]", ZELL_INIT_BAD_SETTINGS, "not a JSON object"},
                      UnusableSettings{"{\"thread_nums\":0}", ZELL_INIT_BAD_SETTINGS, "\"thread_nums\""},
                      UnusableSettings{"{\"thread_nums\":\"1\"}", ZELL_INIT_BAD_SETTINGS, "\"thread_nums\""},
                      UnusableSettings{"{\"log_level\":9}", ZELL_INIT_BAD_SETTINGS, "\"log_level\""},
                      UnusableSettings{"{\"socket_addr\":5}", ZELL_INIT_BAD_SETTINGS, "\"socket_addr\""},
                      UnusableSettings{"{\"socket_addr\":\"\"}", ZELL_INIT_BAD_SETTINGS, "\"socket_addr\" is empty"},
                      UnusableSettings{"{\"socket_addr\":\"tcp://127.0.0.1:5555\"}", ZELL_INIT_BAD_ADDRESS,
                                       "unusable bus address"},
                      UnusableSettings{"{\"log_size\":-1}", ZELL_INIT_BAD_SETTINGS, "\"log_size\""}));

TEST_F(ZellBus, AnUnwritableLogCostsTheLogNotTheBus)
{
    Client client(*module, "nolog");
    EXPECT_EQ(client.init(settingsJson("./kuv_zell", 1, "/proc/none/x.log")), ZELL_INIT_OK);
    EXPECT_TRUE(client.waitConnected());
}

TEST_F(ZellBus, OneInstancePerGuid)
{
    IZellClientMgr* first = module->create("same");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(module->create("same"), nullptr);
    EXPECT_NE(module->destroy("other", first), 0);
    EXPECT_NE(module->destroy("same", nullptr), 0);
    EXPECT_EQ(module->destroy("same", first), 0);
    IZellClientMgr* again = module->create("same");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(module->destroy("same", again), 0) << "destroying an instance that never ran init";
}

TEST_F(ZellBus, RefusedInTheBackgroundThenTakenOverWhenFreed)
{
    Client a(*module, "A");
    ASSERT_TRUE(a.start());
    IZellMREndPoint4* holder = a->createEndPoint();
    ASSERT_EQ(holder->init(guidOf(kAppGuid)), 0);

    Client b(*module, "B");
    ASSERT_EQ(b.init(settingsJson()), 0);
    IZellMREndPoint4* late = b->createEndPoint();
    Recorder recorder;
    ASSERT_EQ(late->registerRecvNotify(1003, &recorder, 0), 0);
    // Before B is connected the answer comes later; once connected it comes at once.
    const int rc = late->init(guidOf(kAppGuid));
    printf("[     INFO ] the refusal came %s\n", rc == 0 ? "in the background" : "at once");
    if (rc == 0) {
        EXPECT_TRUE(kuvtest::waitUntil([&] { return late->isRegistered() == -1; }, 30000));
        // The holder leaves; B asks again by itself and gets the GUID.
        EXPECT_EQ(holder->uninit(), 0);
        EXPECT_TRUE(kuvtest::waitUntil([&] { return late->isRegistered() == 1; }, 60000));
        IZellMREndPoint4* tx = a->createEndPoint();
        ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);
        EXPECT_EQ(tx->sendMsgWait(guidOf(kAppGuid), 1003, "mine now", 8, 10000), ZELL_SEND_ROUTED);
        ASSERT_TRUE(recorder.waitFor(1));
        EXPECT_EQ(recorder.items()[0].body, "mine now");
    } else {
        EXPECT_EQ(rc, 2);
        EXPECT_EQ(late->isRegistered(), 0);
    }
}

TEST_F(ZellBus, ASlowClientLosesMessagesButNeverStallsTheBroker)
{
    // A broker with a small queue per client, so a stalled client is reached quickly.
    broker.reset();
    broker = std::make_unique<Broker>(KUV_ZELLD_PATH, *runtime, std::vector<std::string>{"--hwm", "500"});
    struct Blocked : IMRReceiveComplete {
        std::mutex mutex;
        std::condition_variable cv;
        bool open = false;
        std::atomic<uint64_t> calls{0};
        void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override
        {
            std::unique_lock<std::mutex> lock(mutex);
            cv.wait(lock, [&] { return open; });
            ++calls;
        }
        void release()
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
            cv.notify_all();
        }
    } blocked;
    // Receivers outlive the clients (declared first), and the stalled one is let go on every way out.
    struct Release {
        Blocked& blocked;
        ~Release() { blocked.release(); }
    };
    Recorder recorder;
    Recorder marker;
    Client slow(*module, "slow");
    Release releaseOnExit{blocked};
    Client fast(*module, "fast");
    Client sender(*module, "sender");
    for (Client* c : {&slow, &fast, &sender}) {
        ASSERT_TRUE(c->start());
    }
    IZellMREndPoint4* stalled = slow->createEndPoint();
    ASSERT_EQ(stalled->init(guidOf(kAppGuid)), 0);
    ASSERT_EQ(stalled->registerRecvNotify(1, &blocked, 0), 0);
    IZellMREndPoint4* quick = fast->createEndPoint();
    ASSERT_EQ(quick->init(guidOf(kOtherGuid)), 0);
    ASSERT_EQ(quick->registerRecvNotify(1, &recorder, 0), 0);
    IZellMREndPoint4* tx = sender->createEndPoint();
    ASSERT_EQ(tx->init(guidOf(kPeerGuid)), 0);

    uint64_t sent = 0;
    bool congested = false;
    const std::string body(64, 'c');
    for (int batch = 0; batch < 100 && !congested; ++batch) {
        for (int i = 0; i < 10000; ++i) {
            ASSERT_EQ(tx->sendMsg(guidOf(kAppGuid), 1, body.data(), static_cast<int>(body.size())), 0);
            ++sent;
        }
        congested = tx->sendMsgWait(guidOf(kAppGuid), 1, "probe", 5, 30000) == ZELL_SEND_CONGESTED;
    }
    ASSERT_TRUE(congested) << "the stalled client's queue never filled after " << sent << " messages";
    // Everyone else is still served at once.
    EXPECT_EQ(tx->sendMsgWait(guidOf(kOtherGuid), 1, "unaffected", 10, 10000), ZELL_SEND_ROUTED);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.items()[0].body, "unaffected");

    blocked.release();
    // It catches up with what it had queued (a marker sent after it arrives last); the rest was dropped.
    ASSERT_EQ(stalled->registerRecvNotify(2, &marker, 0), 0);
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] { return tx->sendMsgWait(guidOf(kAppGuid), 2, "marker", 6, 10000) == ZELL_SEND_ROUTED; }, 120000, 50));
    ASSERT_TRUE(marker.waitFor(1, 120000));
    EXPECT_GT(blocked.calls.load(), 0u);
    EXPECT_LT(blocked.calls.load(), sent) << "some messages to the stalled client were dropped";
    EXPECT_EQ(slow->destroyEndPoint(stalled), 0);
    EXPECT_EQ(broker->terminate(), 0);
    EXPECT_NE(broker->err().find("destination congested"), std::string::npos);
}

TEST_F(ZellBus, ClientsSurviveTheBrokerKilledInTheMiddleOfTraffic)
{
    Client a(*module, "A");
    Client b(*module, "B");
    struct Count : IMRReceiveComplete {
        std::atomic<uint64_t> n{0};
        void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override { ++n; }
    } count;
    IZellMREndPoint4* rx = nullptr;
    IZellMREndPoint4* tx = nullptr;
    ASSERT_NO_FATAL_FAILURE(openPair(a, b, rx, tx, &count, 5));
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        const std::string body(512, 'f');
        while (flooding.load()) {
            if (tx->sendMsg(guidOf(kAppGuid), 5, body.data(), static_cast<int>(body.size())) != 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });
    for (int round = 0; round < 4; ++round) {
        const uint64_t before = count.n.load();
        ASSERT_TRUE(kuvtest::waitUntil([&] { return count.n.load() > before + 1000; }, 60000)) << "round " << round;
        broker->kill9(); // while messages stream in both clients
        broker->start();
        ASSERT_TRUE(kuvtest::waitUntil([&] { return a->isConnected() == 1 && rx->isRegistered() == 1; }, 60000));
    }
    flooding = false;
    flood.join();
    // The receiver lives on this stack: no call may reach it once the test returns.
    EXPECT_EQ(a->destroyEndPoint(rx), 0);
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The container manager against a broken bus library; one executable per kind of breakage, each with
// its own library beside it (BUS_VARIANT_* selects the tests).
#include "BusTestSupport.h"

using namespace bustest;

namespace {

class BusFailureTest : public BusFixture {
protected:
    void SetUp() override
    {
        BusFixture::SetUp();
        writeConf("{}");
    }
    // What a failed start leaves behind, whatever broke.
    void expectNotStarted(CContainerMgr& mgr)
    {
        EXPECT_FALSE(CContainerMgrTest::initialised(mgr));
        EXPECT_TRUE(fake::eventsWithPrefix("tag.").empty());
        EXPECT_TRUE(fake::eventsWithPrefix("bus.DestoryInstance").empty());
        EXPECT_FALSE(moduleLoaded());
        EXPECT_EQ(messagesOf("init"), std::vector<std::string>{"initZell failed"});
        EXPECT_TRUE(fake::logContains("initZell failed", 4));
        // The bus log stays open: nothing tears a failed start down.
        EXPECT_NE(CContainerMgr::g_pLogZell, nullptr);

        fake::resetLog();
        EXPECT_EQ(mgr.uninit(), 0);
        EXPECT_EQ(fake::logMessages(), (std::vector<std::string>{"[CContainerMgr] start uninit",
                                                                 "[CContainerMgr] uninit failed, not init"}));
        EXPECT_EQ(mgr.notifyRunning(), 0);
    }
};

} // namespace

#if defined(BUS_VARIANT_NOMODULE)

TEST_F(BusFailureTest, ALibraryThatCannotBeLoadedFailsTheStart)
{
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    const auto lines = messagesOf("initZell");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[CContainerMgr] start init zell");
    EXPECT_EQ(lines[1].rfind("dlopen failed: ", 0), 0u) << lines[1];
    EXPECT_NE(lines[1].find("/../lib/modules/libZellClientMgr.so"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[1].back(), '.');
    EXPECT_EQ(fake::logLines()[1].level, 4);
    EXPECT_TRUE(fake::eventsWithPrefix("bus.").empty());
    EXPECT_EQ(CContainerMgrTest::proxy(mgr), nullptr);
    EXPECT_EQ(CContainerMgrTest::module(mgr), nullptr);
    expectNotStarted(mgr);

    // No bus instance: endpoints are refused.
    EXPECT_EQ(mgr.createEndPoint(), nullptr);
    EXPECT_TRUE(fake::logContains("[CContainerMgr] m_pZellProxy is null.", 4));
}

#elif defined(BUS_VARIANT_NOCREATE)

TEST_F(BusFailureTest, ALibraryWithoutCreateInstanceIsUnloaded)
{
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    const auto lines = messagesOf("initZell");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].rfind("dlsym CreateInstance failed: ", 0), 0u) << lines[1];
    EXPECT_NE(lines[1].find("CreateInstance"), std::string::npos);
    EXPECT_EQ(lines[1].back(), '.');
    EXPECT_EQ(fake::events().back(), "bus.module.unload");
    EXPECT_EQ(fake::eventsWithPrefix("bus."), (std::vector<std::string>{"bus.module.load", "bus.module.unload"}));
    EXPECT_EQ(CContainerMgrTest::proxy(mgr), nullptr);
    expectNotStarted(mgr);
}

#elif defined(BUS_VARIANT_NULLCREATE)

TEST_F(BusFailureTest, ANullInstanceFailsWithoutALineOfItsOwn)
{
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    EXPECT_EQ(messagesOf("initZell"), std::vector<std::string>{"[CContainerMgr] start init zell"});
    EXPECT_EQ(fake::eventsWithPrefix("bus."),
              (std::vector<std::string>{"bus.module.load", std::string("bus.CreateInstance ") + kGuid,
                                        "bus.module.unload"}));
    EXPECT_EQ(CContainerMgrTest::proxy(mgr), nullptr);
    expectNotStarted(mgr);
}

#elif defined(BUS_VARIANT_INITFAIL)

TEST_F(BusFailureTest, ABusThatRefusesItsSettingsIsUnloadedAndTheInstanceLeftDangling)
{
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    EXPECT_EQ(messagesOf("initZell"), std::vector<std::string>{"[CContainerMgr] start init zell"});
    const auto bus = fake::eventsWithPrefix("bus.");
    ASSERT_EQ(bus.size(), 4u);
    EXPECT_EQ(bus[0], "bus.module.load");
    EXPECT_EQ(bus[2].rfind("bus.init {", 0), 0u);
    EXPECT_EQ(bus[3], "bus.module.unload");
    // Neither the log callback nor the mask was handed over, and the instance was not given back.
    EXPECT_TRUE(fake::eventsWithPrefix("bus.setLog").empty());
    EXPECT_NE(CContainerMgrTest::proxy(mgr), nullptr);
    expectNotStarted(mgr);
    // The destructor's uninit refuses too, so the dangling instance is never touched.
}

#elif defined(BUS_VARIANT_NODESTROY)

TEST_F(BusFailureTest, WithoutDestoryInstanceTheLibraryIsStillUnloaded)
{
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    fake::resetLog();
    fake::clearEvents();

    EXPECT_EQ(mgr.uninit(), 1);
    const auto lines = messagesOf("uninit");
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "[CContainerMgr] start uninit");
    EXPECT_EQ(lines[1], "[CContainerMgr] start uninit zell");
    EXPECT_EQ(lines[2].rfind("dlsym DestoryInstance failed: ", 0), 0u) << lines[2];
    EXPECT_EQ(lines[2].back(), '.');
    EXPECT_EQ(fake::logLines()[2].level, 4);
    EXPECT_EQ(lines[3], "[CContainerMgr] end uninit zell");
    EXPECT_EQ(lines[4], "[LogInfoX] end uninit");
    EXPECT_EQ(fake::events(),
              (std::vector<std::string>{"bus.stop", "bus.release", "bus.module.unload", "log.uninit"}));
    // The instance pointer is left set, the library is gone all the same.
    EXPECT_NE(CContainerMgrTest::proxy(mgr), nullptr);
    EXPECT_FALSE(moduleLoaded());
    EXPECT_FALSE(CContainerMgrTest::initialised(mgr));

    fake::resetLog();
    EXPECT_EQ(mgr.uninit(), 0);
    EXPECT_TRUE(fake::logContains("[CContainerMgr] uninit failed, not init", 4));
}

#else
#error "build with one BUS_VARIANT_* definition"
#endif

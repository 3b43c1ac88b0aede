// SPDX-License-Identifier: GPL-2.0-or-later
// The container manager against a complete bus library: bus log, start, status, endpoints, tear-down.
#include <memory>

#include <json/json.h>

#include "BusTestSupport.h"

using namespace bustest;

namespace {

using ContainerMgrTest = BusFixture;

std::string baseDir()
{
    return CDir::currentDir() + "/../";
}

std::string expectedSettings()
{
    // JsonCpp writes members in key order; the values are what the bus must be given.
    return "{\"log_backup_path\":\"" + baseDir() + "log/gui/backup\",\"log_level\":4,\"log_path\":\"" + baseDir() +
           "log/gui/gui.ipc.log\",\"log_size\":10485760,\"socket_addr\":\"./kuv_zell\",\"thread_nums\":1}";
}

std::string banner(int level, int size, const std::string& path, int backups)
{
    return "===== zellInitLog =====\n===== loglevel:" + std::to_string(level) +
           "\n===== logSize:" + std::to_string(size) + "\n===== logName:kuvgui.zell\n===== logPath:" + path +
           "\n===== logBackupMaxNum:" + std::to_string(backups) + "\n";
}

} // namespace

TEST_F(ContainerMgrTest, InitStartsTheBusAndPublishesStatusOne)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(out, banner(3, 1048576, installDir + "/log/", 5));

    const std::string logDir = installDir + "/log/";
    EXPECT_EQ(fake::events(), (std::vector<std::string>{
                                  "log.init kuvgui.zell",
                                  "log.set kuvgui.zell 2=" + logDir,
                                  "log.set kuvgui.zell 1=kuvgui.zell",
                                  "log.set kuvgui.zell 8=1048576",
                                  "log.set kuvgui.zell 16=5",
                                  "log.set kuvgui.zell 4=3",
                                  "bus.module.load",
                                  std::string("bus.CreateInstance ") + kGuid,
                                  "bus.init " + expectedSettings() + " gui",
                                  "bus.setLogCallback",
                                  "bus.setLogMask ffffffff",
                                  "tag.setAttribute status=1",
                              }));
    EXPECT_EQ(messagesOf("initZell"),
              (std::vector<std::string>{"[CContainerMgr] start init zell", "[CContainerMgr] end init zell"}));
    for (const auto& l : fake::logLines()) {
        EXPECT_EQ(l.file, kFile);
        EXPECT_EQ(l.level, 2);
    }
    EXPECT_EQ(fake::tagAttributes().at("status"), "1");
    EXPECT_EQ(CContainerMgrTest::status(mgr), 1);
    EXPECT_TRUE(CContainerMgrTest::initialised(mgr));
    EXPECT_NE(CContainerMgr::g_pLogZell, nullptr);
    ASSERT_EQ(mgr.uninit(), 1);
}

TEST_F(ContainerMgrTest, SettingsAreOneCompactLineWithTheBusAddressLeftRelative)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    const auto init = fake::eventsWithPrefix("bus.init ");
    ASSERT_EQ(init.size(), 1u);
    const std::string text = init[0].substr(9, init[0].size() - 9 - 4);
    EXPECT_EQ(init[0].substr(init[0].size() - 4), " gui");
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find(": "), std::string::npos);
    Json::Value v;
    ASSERT_TRUE(Json::Reader().parse(text, v));
    EXPECT_EQ(v.size(), 6u);
    EXPECT_EQ(v["socket_addr"].asString(), "./kuv_zell");
    // The "/../" stays unresolved in both log paths.
    EXPECT_EQ(v["log_path"].asString(), CDir::currentDir() + "/../log/gui/gui.ipc.log");
    EXPECT_EQ(v["log_backup_path"].asString(), CDir::currentDir() + "/../log/gui/backup");
    EXPECT_EQ(v["thread_nums"].asInt(), 1);
    EXPECT_EQ(v["log_level"].asInt(), 4);
    EXPECT_EQ(v["log_size"].asInt(), 0xA00000);
    mgr.uninit();
}

TEST_F(ContainerMgrTest, BusLogTakesItsValuesFromTheConfigurationDirectory)
{
    // The configuration directory is asked for on its own, not derived here from the installation.
    const std::string confDir = root + "/conf/";
    std::filesystem::create_directories(confDir + "debug");
    std::ofstream(confDir + "debug/gui_zell_debug.conf")
        << R"({"log_size": 4096, "log_backup_max_num": 2, "log_level": 1})";
    fake::setConfigurationDir(confDir);
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(fake::logProperties("kuvgui.zell"),
              (std::vector<std::string>{"2=" + installDir + "/log/", "1=kuvgui.zell", "8=4096", "16=2", "4=1"}));
    EXPECT_EQ(out, banner(1, 4096, installDir + "/log/", 2));
    mgr.uninit();
}

TEST_F(ContainerMgrTest, ALevelWrittenAsTextKeepsTheDefault)
{
    writeConf(R"({"log_level": "2", "log_size": 1.5, "log_backup_max_num": null})");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(fake::logProperties("kuvgui.zell"),
              (std::vector<std::string>{"2=" + installDir + "/log/", "1=kuvgui.zell", "8=1048576", "16=5", "4=3"}));
    mgr.uninit();
}

TEST_F(ContainerMgrTest, ANonObjectConfigurationGivesTheDefaults)
{
    writeConf("[1, 2]");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(out, banner(3, 1048576, installDir + "/log/", 5));
    mgr.uninit();
}

TEST_F(ContainerMgrTest, WithoutTheBusLogConfigurationTheBusIsNotStarted)
{
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    EXPECT_EQ(out, "No valid logdebug configuration file " + confFile + "\n");
    EXPECT_EQ(fake::logMessages(), std::vector<std::string>{"zellLogHelperInit failed"});
    EXPECT_EQ(fake::logLines()[0].level, 4);
    EXPECT_EQ(fake::logLines()[0].function, "init");
    EXPECT_TRUE(fake::events().empty());
    EXPECT_FALSE(moduleLoaded());
    EXPECT_EQ(CContainerMgr::g_pLogZell, nullptr);
    EXPECT_TRUE(fake::tagAttributes().empty());
}

TEST_F(ContainerMgrTest, AnUnreadableBusLogConfigurationIsRefusedTheSameWay)
{
    writeConf("{\"log_level\": ");
    CContainerMgr mgr(&tag);
    std::string out;
    EXPECT_EQ(initCapturing(mgr, out), 0);
    EXPECT_EQ(out, "No valid logdebug configuration file " + confFile + "\n");
    EXPECT_TRUE(fake::logContains("zellLogHelperInit failed", 4));
    EXPECT_TRUE(fake::events().empty());
}

TEST_F(ContainerMgrTest, ASecondInitFailsWithoutALine)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    const size_t lines = fake::logLines().size();
    const size_t events = fake::events().size();
    EXPECT_EQ(initCapturing(mgr, out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(fake::logLines().size(), lines);
    EXPECT_EQ(fake::events().size(), events);
    EXPECT_TRUE(CContainerMgrTest::initialised(mgr));
    mgr.uninit();
}

TEST_F(ContainerMgrTest, BusLogLinesArriveWithTheirLevelsInverted)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    const std::vector<std::pair<int, int>> mapping = {{0, 4}, {1, 3}, {2, 2}, {3, 1}, {4, 1}, {7, 0}, {-1, 0}};
    {
        LoadedModule bus;
        ASSERT_TRUE(bus);
        for (const auto& m : mapping) {
            bus.emitLog(m.first, ("bus line " + std::to_string(m.first)).c_str());
        }
        bus.emitLog(2, "text with % signs %s %d\tand a tab");
    }
    std::vector<fake::LogLine> zell;
    for (const auto& l : fake::logLines()) {
        if (l.log == "kuvgui.zell") {
            zell.push_back(l);
        }
    }
    ASSERT_EQ(zell.size(), mapping.size() + 1);
    for (size_t i = 0; i < mapping.size(); ++i) {
        EXPECT_EQ(zell[i].message, "bus line " + std::to_string(mapping[i].first));
        EXPECT_EQ(zell[i].level, mapping[i].second) << "bus level " << mapping[i].first;
        EXPECT_EQ(zell[i].file, kFile);
        EXPECT_EQ(zell[i].function, "zellLogCallback");
        EXPECT_EQ(zell[i].line, 168u);
    }
    // The text is written as it is, never used as a format.
    EXPECT_EQ(zell.back().message, "text with % signs %s %d\tand a tab");
    mgr.uninit();
}

TEST_F(ContainerMgrTest, BusLogLinesWithoutTheBusLogGoNowhere)
{
    ASSERT_EQ(CContainerMgr::g_pLogZell, nullptr);
    CContainerMgr::zellLogCallback(0, "lost", 0);
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(ContainerMgrTest, NotifyRunningPublishesTwoThenThreeOnlyAfterInit)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    EXPECT_EQ(mgr.notifyRunning(), 0);
    EXPECT_TRUE(fake::eventsWithPrefix("tag.").empty());

    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(mgr.notifyRunning(), 1);
    EXPECT_EQ(mgr.notifyRunning(), 1);
    EXPECT_EQ(fake::eventsWithPrefix("tag."),
              (std::vector<std::string>{"tag.setAttribute status=1", "tag.setAttribute status=2",
                                        "tag.setAttribute status=3", "tag.setAttribute status=2",
                                        "tag.setAttribute status=3"}));
    EXPECT_EQ(CContainerMgrTest::status(mgr), 3);

    // Torn down: nothing is published and the status stays.
    ASSERT_EQ(mgr.uninit(), 1);
    EXPECT_EQ(mgr.notifyRunning(), 0);
    EXPECT_EQ(CContainerMgrTest::status(mgr), 3);
    EXPECT_EQ(fake::eventsWithPrefix("tag.").size(), 5u);
}

TEST_F(ContainerMgrTest, WithoutATagNothingIsPublished)
{
    writeConf("{}");
    CContainerMgr mgr(nullptr);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(mgr.notifyRunning(), 1);
    EXPECT_TRUE(fake::eventsWithPrefix("tag.").empty());
    EXPECT_EQ(CContainerMgrTest::status(mgr), 3);
    mgr.uninit();
}

TEST_F(ContainerMgrTest, EndpointsComeFromTheBusAndGoBackThroughIt)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    fake::clearEvents();

    IZellMREndPoint4* endPoint = mgr.createEndPoint();
    ASSERT_NE(endPoint, nullptr);
    EXPECT_EQ(mgr.destroyEndPoint(endPoint), 0x123456789LL);
    EXPECT_EQ(fake::events(),
              (std::vector<std::string>{"bus.createEndPoint", "endpoint.uninit", "bus.destroyEndPoint"}));

    EXPECT_EQ(mgr.destroyEndPoint(nullptr), 0);
    EXPECT_TRUE(fake::logContains("[CContainerMgr] obj is null.", 4));
    EXPECT_EQ(messagesOf("destroyEndPoint"), std::vector<std::string>{"[CContainerMgr] obj is null."});

    {
        LoadedModule bus;
        bus.setEndpointNull(true);
    }
    EXPECT_EQ(mgr.createEndPoint(), nullptr);
    EXPECT_EQ(messagesOf("createEndPoint"), std::vector<std::string>{"[CContainerMgr] endPoint is null."});
    EXPECT_EQ(fake::logLines().back().level, 4);
    {
        LoadedModule bus;
        bus.setEndpointNull(false);
    }
    mgr.uninit();
}

TEST_F(ContainerMgrTest, EndpointsDoNotLookAtTheInitialisedFlag)
{
    CContainerMgr mgr(&tag);
    EXPECT_EQ(mgr.createEndPoint(), nullptr);
    EXPECT_TRUE(fake::logContains("[CContainerMgr] m_pZellProxy is null.", 4));
    EXPECT_EQ(messagesOf("createEndPoint"), std::vector<std::string>{"[CContainerMgr] m_pZellProxy is null."});
}

TEST_F(ContainerMgrTest, UninitTearsDownInOrder)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    fake::clearEvents();
    fake::resetLog();

    EXPECT_EQ(mgr.uninit(), 1);
    EXPECT_EQ(fake::events(),
              (std::vector<std::string>{"bus.stop", "bus.release", std::string("bus.DestoryInstance ") + kGuid + " instance",
                                        "bus.module.unload", "log.uninit"}));
    EXPECT_EQ(messagesOf("uninit"),
              (std::vector<std::string>{"[CContainerMgr] start uninit", "[CContainerMgr] start uninit zell",
                                        "[CContainerMgr] end uninit zell", "[LogInfoX] end uninit"}));
    for (const auto& l : fake::logLines()) {
        EXPECT_EQ(l.level, 2);
        EXPECT_EQ(l.file, kFile);
    }
    EXPECT_EQ(CContainerMgr::g_pLogZell, nullptr);
    EXPECT_EQ(CContainerMgrTest::proxy(mgr), nullptr);
    // The handle field keeps its old value although the library is gone.
    EXPECT_NE(CContainerMgrTest::module(mgr), nullptr);
    EXPECT_FALSE(moduleLoaded());
    EXPECT_FALSE(CContainerMgrTest::initialised(mgr));
    EXPECT_EQ(CContainerMgrTest::status(mgr), 1);
    EXPECT_TRUE(fake::tagAttributes().at("status") == "1");

    // After a complete tear-down there is no bus to ask for endpoints.
    fake::resetLog();
    EXPECT_EQ(mgr.createEndPoint(), nullptr);
    EXPECT_TRUE(fake::logContains("[CContainerMgr] m_pZellProxy is null.", 4));
    struct Unused : IZellMREndPoint4 {
        int init(const GUID&) override { return 0; }
        int uninit() override
        {
            ADD_FAILURE() << "endpoint touched without a bus";
            return 0;
        }
        int registerRecvNotify(int64_t, IMRReceiveComplete*, int) override { return 0; }
        int unregisterRecvNotify(int64_t) override { return 0; }
        int sendMsg(const GUID&, int64_t, const char*, int) override { return 0; }
    } unused;
    EXPECT_EQ(mgr.destroyEndPoint(&unused), 0);
    EXPECT_EQ(messagesOf("destroyEndPoint"), std::vector<std::string>{"[CContainerMgr] m_pZellProxy is null."});
}

TEST_F(ContainerMgrTest, UninitWithoutABusInstanceStillClosesTheBusLog)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    IZellClientMgr* proxy = CContainerMgrTest::proxy(mgr);
    void* module = CContainerMgrTest::module(mgr);
    CContainerMgrTest::setProxy(mgr, nullptr);
    fake::resetLog();
    fake::clearEvents();

    EXPECT_EQ(mgr.uninit(), 1);
    EXPECT_EQ(messagesOf("uninit"), (std::vector<std::string>{"[CContainerMgr] start uninit",
                                                              "[CContainerMgr] m_pZellProxy is null",
                                                              "[LogInfoX] end uninit"}));
    EXPECT_EQ(fake::logLines()[1].level, 2);
    EXPECT_EQ(fake::events(), std::vector<std::string>{"log.uninit"});
    EXPECT_EQ(CContainerMgr::g_pLogZell, nullptr);
    EXPECT_FALSE(CContainerMgrTest::initialised(mgr));

    // Give the instance back by hand, as the manager would have.
    auto destroy = reinterpret_cast<PFN_DestoryInstance>(dlsym(module, "DestoryInstance"));
    ASSERT_NE(destroy, nullptr);
    proxy->stop();
    proxy->release();
    destroy(kGuid, proxy);
    dlclose(module);
    EXPECT_FALSE(moduleLoaded());
}

TEST_F(ContainerMgrTest, UninitWithoutInitRefuses)
{
    CContainerMgr mgr(&tag);
    EXPECT_EQ(mgr.uninit(), 0);
    EXPECT_EQ(messagesOf("uninit"),
              (std::vector<std::string>{"[CContainerMgr] start uninit", "[CContainerMgr] uninit failed, not init"}));
    EXPECT_EQ(fake::logLines()[0].level, 2);
    EXPECT_EQ(fake::logLines()[1].level, 4);
}

TEST_F(ContainerMgrTest, ARegularExitEndsWithTheDestructorsSecondUninit)
{
    writeConf("{}");
    {
        auto mgr = std::make_unique<CContainerMgr>(&tag);
        std::string out;
        ASSERT_EQ(initCapturing(*mgr, out), 1);
        IZellMREndPoint4* endPoint = mgr->createEndPoint();
        mgr->notifyRunning();
        mgr->destroyEndPoint(endPoint);
        ASSERT_EQ(mgr->uninit(), 1);
        mgr.reset();
    }
    const auto messages = fake::logMessages();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages[messages.size() - 3], "[LogInfoX] end uninit");
    EXPECT_EQ(messages[messages.size() - 2], "[CContainerMgr] start uninit");
    EXPECT_EQ(messages[messages.size() - 1], "[CContainerMgr] uninit failed, not init");
    EXPECT_EQ(fake::eventsWithPrefix("bus.stop").size(), 1u);
}

TEST_F(ContainerMgrTest, TheDestructorTearsDownWhatTheOwnerLeft)
{
    writeConf("{}");
    {
        CContainerMgr mgr(&tag);
        std::string out;
        ASSERT_EQ(initCapturing(mgr, out), 1);
    }
    EXPECT_EQ(fake::eventsWithPrefix("bus.DestoryInstance").size(), 1u);
    EXPECT_FALSE(moduleLoaded());
    EXPECT_EQ(CContainerMgr::g_pLogZell, nullptr);
}

TEST_F(ContainerMgrTest, AfterUninitTheBusCanBeStartedAgain)
{
    writeConf("{}");
    CContainerMgr mgr(&tag);
    std::string out;
    ASSERT_EQ(initCapturing(mgr, out), 1);
    ASSERT_EQ(mgr.uninit(), 1);
    ASSERT_EQ(initCapturing(mgr, out), 1);
    EXPECT_EQ(fake::eventsWithPrefix("bus.module.load").size(), 2u);
    EXPECT_TRUE(moduleLoaded());
    mgr.uninit();
}

TEST_F(ContainerMgrTest, TheManagerTakesNoBusMessages)
{
    CContainerMgr mgr(&tag);
    IMRReceiveComplete* receiver = &mgr;
    const char body[] = "x";
    receiver->ReceiveCallback(0, 1003, body, 1, 0, 0);
    EXPECT_TRUE(fake::logLines().empty());
    EXPECT_TRUE(fake::events().empty());
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service on the real bus broker: status, messages to the application endpoint, the bus
// log, a start without the bus log configuration, and the container manager's lines at exit.
#include <unistd.h>

#include "ServiceLog.h"
#include "ServiceSupport.h"

using svctest::Service;

namespace {

constexpr const char* kAppGuid = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";
constexpr const char* kContainer = "gui/service/core/bin/CContainerMgr";
constexpr const char* kHandler = "gui/service/core/adaptor/CGuiMsgHandle";
constexpr const char* kApp = "gui/service/core/bin/cAfxGuiMain";

kuvtest::RunResult busSend(const Service& s, const std::string& type, const std::string& body)
{
    return kuvtest::run({s.inst.bin("kuvctl"), "bus", "send", "--to", kAppGuid, "--type", type, "--body", body},
                        s.env(), 60000);
}

int indexOf(const std::vector<svclog::Record>& records, const std::string& file, const std::string& function,
            const std::string& message)
{
    for (size_t i = 0; i < records.size(); ++i) {
        if (records[i].file == file && records[i].function == function && records[i].message == message) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace

TEST(ServiceBus, RunningServicePublishesStatusThree)
{
    Service s;
    s.startAll();
    svctest::Status st = s.status();
    EXPECT_EQ(st.exitCode, 0) << st.text;
    EXPECT_EQ(st.attributes["status"], "3") << st.text;

    const auto records = svclog::read(s.inst.log());
    EXPECT_GE(indexOf(records, kContainer, "initZell", "[CContainerMgr] start init zell"), 0) << s.log();
    EXPECT_GT(indexOf(records, kContainer, "initZell", "[CContainerMgr] end init zell"),
              indexOf(records, kContainer, "initZell", "[CContainerMgr] start init zell"));

    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0);
    // The bus log banner went to standard output (a file here, so it is complete only once the process ended).
    const std::string out = s.service->out();
    EXPECT_NE(out.find("===== zellInitLog =====\n===== loglevel:"), std::string::npos) << out;
    EXPECT_NE(out.find("===== logName:kuvgui.zell\n===== logPath:" + s.inst.dir + "/log/\n"), std::string::npos)
        << out;
}

TEST(ServiceBus, Type1003ReachesTheHandlerAndItsHookButType1002ReachesNoReceiver)
{
    Service s;
    s.startAll();

    // 1002 first: the broker routes it to the service's connection, where no receiver takes it.
    const auto other = busSend(s, "1002", "not for the handler");
    EXPECT_EQ(other.status, 0) << other.err;
    const auto update = busSend(s, "1003", "hello");
    ASSERT_EQ(update.status, 0) << update.err;

    const std::string line = "[CGuiMsgHandle] msgType = 1003, content = hello";
    ASSERT_TRUE(kuvtest::waitForFileContains(s.inst.log(), line, 30000)) << s.log();
    // The hook writes its two progress lines right after the handler's line.
    std::vector<svclog::Record> records;
    int handler = -1;
    ASSERT_TRUE(kuvtest::waitUntil(
        [&] {
            records = svclog::read(s.inst.log());
            handler = indexOf(records, kHandler, "ReceiveCallback", line);
            int hook = 0;
            for (int i = handler + 1; handler >= 0 && i < static_cast<int>(records.size()); ++i) {
                hook += records[i].file == kApp && records[i].function == "updatePlugins_s";
            }
            return hook >= 2;
        },
        30000))
        << s.log();
    EXPECT_EQ(records[handler].level, "INFO");
    int hookLines = 0;
    for (int i = handler + 1; i < static_cast<int>(records.size()); ++i) {
        if (records[i].file == kApp && records[i].function == "updatePlugins_s") {
            EXPECT_EQ(records[i].level, "ERROR") << records[i].message;
            EXPECT_NE(records[i].message, "[CAfxGuiMain] data is null");
            ++hookLines;
        }
    }
    EXPECT_EQ(hookLines, 2);

    // The 1002 message reached the service's connection before the 1003 one and left no line.
    const std::string log = s.log();
    EXPECT_EQ(log.find("msgType = 1002"), std::string::npos) << log;
    EXPECT_EQ(log.find("not for the handler"), std::string::npos) << log;
    EXPECT_EQ(kuvtest::countInFile(s.inst.log(), "[CGuiMsgHandle] msgType = "), 1);
    ASSERT_TRUE(s.quit());
}

TEST(ServiceBus, BusLogLinesGoToTheirOwnLog)
{
    Service s;
    s.startAll();
    const std::string zellLog = s.inst.dir + "log/kuvgui.zell.log";
    // Whatever the bus module reports arrives through the callback, under its fixed source line.
    ASSERT_TRUE(kuvtest::waitForFileContains(zellLog, "[gui/service/core/bin/CContainerMgr:zellLogCallback:168] ",
                                             30000))
        << kuvtest::readFile(zellLog);
    for (const auto& r : svclog::read(zellLog)) {
        EXPECT_EQ(r.file, kContainer);
        EXPECT_EQ(r.function, "zellLogCallback");
    }
    EXPECT_FALSE(kuvtest::fileContains(s.inst.log(), "zellLogCallback"));
    ASSERT_TRUE(s.quit());
}

TEST(ServiceBus, ARegularExitEndsWithTheSecondUninit)
{
    Service s;
    s.startAll();
    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();

    const auto container = svclog::messagesFrom(svclog::read(s.inst.log()), kContainer);
    ASSERT_GE(container.size(), 3u) << s.log();
    EXPECT_EQ(container[container.size() - 3], "[LogInfoX] end uninit");
    EXPECT_EQ(container[container.size() - 2], "[CContainerMgr] start uninit");
    EXPECT_EQ(container[container.size() - 1], "[CContainerMgr] uninit failed, not init");
    const auto records = svclog::read(s.inst.log());
    const int first = svclog::find(records, "[CContainerMgr] start uninit");
    ASSERT_GE(first, 0);
    EXPECT_EQ(records[svclog::find(records, "[CContainerMgr] start uninit zell", first)].file, kContainer);
    EXPECT_GT(svclog::find(records, "[CContainerMgr] end uninit zell", first), first);
    EXPECT_EQ(s.status().exitCode, 1);
}

TEST(ServiceBus, WithoutTheBusLogConfigurationTheStartFails)
{
    Service s;
    const std::string conf = s.inst.dir + "etc/debug/gui_zell_debug.conf";
    ASSERT_EQ(unlink(conf.c_str()), 0);
    s.startBroker();
    s.startService({svctest::noLeakCheck()});
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->exitStatus(), 255);
    EXPECT_NE(s.service->out().find("No valid logdebug configuration file " + conf + "\n"), std::string::npos)
        << s.service->out();

    const auto records = svclog::read(s.inst.log());
    const int helper = indexOf(records, kContainer, "init", "zellLogHelperInit failed");
    const int container = indexOf(records, kApp, "initComm", "init ContainerMgr failed");
    const int comm = indexOf(records, kApp, "init", "failed to init communication");
    ASSERT_GE(helper, 0) << s.log();
    EXPECT_GT(container, helper) << s.log();
    EXPECT_GT(comm, container) << s.log();
    for (int i : {helper, container, comm}) {
        EXPECT_EQ(records[i].level, "ERROR");
    }
    // The bus was never started: no bus log, no start of the bus client.
    EXPECT_EQ(indexOf(records, kContainer, "initZell", "[CContainerMgr] start init zell"), -1);
    EXPECT_FALSE(svctest::exists(s.inst.dir + "log/kuvgui.zell.log"));
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service, headless, in a private installation: start lines, instance state, failed starts,
// back-end marker, guard script and restart monitor.
#include <chrono>
#include <fstream>

#include "ServiceSupport.h"

using svctest::Service;

namespace {

std::string line(const char* what) { return std::string("Container[") + svctest::kTag + "] " + what + "\n"; }

int countLines(const std::string& text)
{
    int n = 0;
    for (char c : text) {
        n += c == '\n';
    }
    return n;
}

} // namespace

TEST(ServiceApp, FirstStartRunsSecondStartForwardsAndStatusIsPublished)
{
    Service s;
    s.startAll();
    const svctest::Status st = s.status();
    EXPECT_EQ(st.exitCode, 0) << st.text;
    EXPECT_EQ(st.get("pid"), std::to_string(s.service->pid())) << st.text;
    EXPECT_EQ(st.get("status"), "3") << st.text;

    const auto second = s.second({});
    EXPECT_EQ(second.out, line("is Running"));
    EXPECT_EQ(second.status, 1);

    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();
    EXPECT_EQ(s.status().exitCode, 1);
    // Standard output is a file here, so it is complete only now.
    EXPECT_EQ(s.service->out().rfind(line("single process mark create success"), 0), 0u) << s.service->out();
}

TEST(ServiceApp, UnobtainableTagEndsWithTheFailureLine)
{
    Service s;
    // A directory where the tag's lock file belongs: the tag can be neither created nor taken.
    mkdir((s.inst.runtime + "/kuv").c_str(), 0700);
    mkdir((s.inst.runtime + "/kuv/" + svctest::kTag + ".lock").c_str(), 0700);
    const auto r = s.second({}, {svctest::noLeakCheck()});
    EXPECT_EQ(r.out, line("single process mark create failed"));
    EXPECT_EQ(r.status, 255);
}

TEST(ServiceApp, MissingDebugConfigurationFailsWith255)
{
    Service s;
    unlink((s.inst.dir + "etc/debug/gui_debug.conf").c_str());
    s.startBroker();
    s.startService({svctest::noLeakCheck()});
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->exitStatus(), 255);
    const std::string out = s.service->out();
    EXPECT_EQ(out.rfind(line("single process mark create success"), 0), 0u) << out;
    EXPECT_NE(out.find("No valid logdebug configuration file " + s.inst.dir + "etc/debug/gui_debug.conf\n"),
              std::string::npos) << out;
    EXPECT_NE(out.find("failed to init debug log\n"), std::string::npos) << out;
    EXPECT_FALSE(svctest::exists(s.marker()));
}

TEST(ServiceApp, MissingConfigurationModuleFailsWith255)
{
    Service s;
    unlink((s.inst.dir + "lib/modules/libconfigproxy.so").c_str());
    kuvtest::writeFile(s.marker(), "");
    s.startBroker();
    s.startService({svctest::noLeakCheck()});
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->exitStatus(), 255);
    EXPECT_NE(s.service->out().find("[loadLib] laod err: "), std::string::npos) << s.service->out();
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[ERROR]"));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "===== configproxy init faild. =====")) << s.log();
    // The start ended before the marker step.
    EXPECT_TRUE(svctest::exists(s.marker()));
}

TEST(ServiceApp, MarkerIsRemovedAtStartAndWrittenOnlyWhenTheBackEndIsToStop)
{
    Service s;
    kuvtest::writeFile(s.marker(), "");
    s.startAll();
    EXPECT_FALSE(svctest::exists(s.marker()));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] remove data/pubcfg/.guiexit finish"));
    ASSERT_TRUE(s.quit());
    EXPECT_FALSE(svctest::exists(s.marker()));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "====== not stop backend ======"));

    kuvtest::writeFile(s.inst.dir + "etc/gui_shell.conf", "{\"stop_backend_on_quit\":true}\n");
    s.startService();
    ASSERT_TRUE(s.waitRunning());
    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0);
    ASSERT_TRUE(svctest::exists(s.marker()));
    EXPECT_EQ(kuvtest::readFile(s.marker()), "");
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "====== stop backend ======"));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] create data/pubcfg/.guiexit finish"));
}

TEST(ServiceApp, GuardScriptIsLaunched)
{
    Service s;
    s.startAll();
    const std::string guard = s.inst.dir + "script/kuvgui_guard.sh";
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] find " + guard)) << s.log();
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] Cmd 1"));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] start kuvgui_guard end"));
    EXPECT_FALSE(kuvtest::fileContains(s.inst.log(), "restart kuvgui_guard failed"));
    const std::string guardLog = s.inst.dir + "log/kuvgui_guard.log";
    EXPECT_TRUE(kuvtest::waitForFileContains(guardLog, "guarding kuvgui pid " + std::to_string(s.service->pid())))
        << kuvtest::readFile(guardLog);
    ASSERT_TRUE(s.quit());
    EXPECT_TRUE(kuvtest::waitForFileContains(guardLog, "quit normally, guard ends", 30000))
        << kuvtest::readFile(guardLog);
}

TEST(ServiceApp, MissingGuardScriptIsOnlyLogged)
{
    Service s;
    const std::string guard = s.inst.dir + "script/kuvgui_guard.sh";
    unlink(guard.c_str());
    s.startAll();
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[WARN]"));
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "[CAfxGuiMain] not find  " + guard)) << s.log();
}

TEST(ServiceApp, GuardBringsBackAKilledServiceButNotAQuitOne)
{
    Service s;
    s.startAll();
    const std::string guardLog = s.inst.dir + "log/kuvgui_guard.log";
    const pid_t first = s.service->pid();
    ASSERT_TRUE(kuvtest::waitForFileContains(guardLog, "guarding kuvgui pid " + std::to_string(first)));

    const auto killedAt = std::chrono::steady_clock::now();
    s.service->signal(SIGKILL);
    ASSERT_TRUE(s.service->wait(10000));
    // The guard starts the installed service again; it is the guard's child, not ours. The guard blocks
    // on the tag's lock, so the new process is there as soon as the old one is gone.
    const std::string attr = s.runtimeKuv() + svctest::kTag + ".attr";
    const std::string firstText = "\"pid\":\"" + std::to_string(first) + "\"";
    ASSERT_TRUE(kuvtest::waitUntil(
        [&] {
            const std::string text = kuvtest::readFile(attr);
            return text.find("\"pid\"") != std::string::npos && text.find(firstText) == std::string::npos;
        },
        60000, 5))
        << kuvtest::readFile(guardLog);
    const double restartMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - killedAt).count();
    printf("[     INFO ] killed service replaced by the guard after %.0f ms\n", restartMs);
    EXPECT_LT(restartMs, 20000.0) << "the guard waits on the tag, not on a timer";
    std::string restarted;
    ASSERT_TRUE(kuvtest::waitUntil(
        [&] {
            const svctest::Status st = s.status();
            if (st.exitCode == 0 && st.get("status") == "3" && st.get("pid") != std::to_string(first)) {
                restarted = st.get("pid");
                return true;
            }
            return false;
        },
        60000, 200))
        << kuvtest::readFile(guardLog);
    EXPECT_TRUE(kuvtest::fileContains(guardLog, "kuvgui pid " + std::to_string(first) +
                                                    " ended without quitting, restarting it in 0s"))
        << kuvtest::readFile(guardLog);
    EXPECT_TRUE(kuvtest::waitForFileContains(guardLog, "guarding kuvgui pid " + restarted));
    // Only one guard: the restarted service's own guard gave way to the running one.
    EXPECT_EQ(kuvtest::countInFile(guardLog, "guarding kuvgui pid " + restarted), 1);

    const auto q = s.second({"quit"});
    EXPECT_EQ(q.status, 1);
    const pid_t restartedPid = std::stoi(restarted);
    EXPECT_TRUE(kuvtest::waitUntil([&] { return kill(restartedPid, 0) != 0; }, 60000));
    EXPECT_TRUE(kuvtest::waitForFileContains(guardLog, "kuvgui pid " + restarted + " quit normally", 30000))
        << kuvtest::readFile(guardLog);
    // And it stays down.
    usleep(3 * 1000 * 1000);
    EXPECT_EQ(s.status().exitCode, 1);
}

TEST(ServiceApp, ChangedVersionLaunchesTheRestartScript)
{
    Service s;
    const std::string record = s.inst.dir + "restart-calls";
    const std::string script = s.inst.dir + "script/starttaviksd.sh";
    kuvtest::writeFile(script, "#!/bin/sh\necho \"$@\" >> '" + record + "'\n");
    chmod(script.c_str(), 0755);
    // 30 s become 300 ms.
    s.startAll({"KUV_TIMER_SCALE=100"});
    usleep(1500 * 1000);
    EXPECT_FALSE(svctest::exists(record)) << "restart asked for without a version change";

    kuvtest::writeFile(s.inst.dir + "VERSION", "9.8.7\n");
    ASSERT_TRUE(kuvtest::waitForFileContains(record, "user_restart", 30000));
    // Asked again on later runs while the process lives.
    ASSERT_TRUE(kuvtest::waitUntil([&] { return countLines(kuvtest::readFile(record)) >= 3; }, 30000));
    const std::string calls = kuvtest::readFile(record);
    for (size_t pos = 0; pos < calls.size();) {
        const size_t end = calls.find('\n', pos);
        EXPECT_EQ(calls.substr(pos, end - pos), "user_restart");
        pos = end == std::string::npos ? calls.size() : end + 1;
    }
    EXPECT_TRUE(s.service->running());
}

TEST(ServiceApp, RestartScriptReplacesTheRunningInstance)
{
    Service s;
    s.startAll();
    const pid_t first = s.service->pid();
    const auto r = kuvtest::run({s.inst.dir + "script/starttaviksd.sh", "user_restart"}, s.env(), 90000);
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(s.service->wait(30000));
    EXPECT_EQ(s.service->exitStatus(), 0);
    std::string now;
    ASSERT_TRUE(kuvtest::waitUntil(
        [&] {
            const svctest::Status st = s.status();
            now = st.get("pid");
            return st.exitCode == 0 && st.get("status") == "3" && now != std::to_string(first);
        },
        60000, 200))
        << kuvtest::readFile(s.inst.dir + "log/starttaviksd.log");
    // The new instance is not our child: ask it to quit.
    EXPECT_EQ(s.second({"quit"}).status, 1);
    const pid_t pid = std::stoi(now);
    EXPECT_TRUE(kuvtest::waitUntil([&] { return kill(pid, 0) != 0; }, 60000));
}

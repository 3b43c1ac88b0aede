// SPDX-License-Identifier: GPL-2.0-or-later
// The installed bus: kuv-zelld as a daemon, kuvctl bus send/listen and kuvctl status, run from a private copy
// of the staged installation with a private runtime directory.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

#include "CGlobalTag.h"
#include "Harness.h"

using kuvtest::Install;
using kuvtest::Process;
using kuvtest::RunResult;

namespace {

const char* const kApp = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";

class BusInstalled : public ::testing::Test {
protected:
    void SetUp() override { install = std::make_unique<Install>(); }
    void TearDown() override
    {
        stopDaemon(SIGTERM);
        install.reset();
    }

    std::string socket() const { return install->runtime + "/kuv/kuv_zell"; }
    pid_t daemonPid() const { return static_cast<pid_t>(atoi(kuvtest::readFile(socket() + ".lock").c_str())); }

    RunResult run(const std::vector<std::string>& argv, int timeoutMs = 60000)
    {
        return kuvtest::run(argv, install->env(), timeoutMs);
    }
    RunResult kuvctl(std::vector<std::string> args, int timeoutMs = 60000)
    {
        args.insert(args.begin(), install->bin("kuvctl"));
        return run(args, timeoutMs);
    }
    void startDaemon()
    {
        const RunResult r = run({install->bin("kuv-zelld")});
        ASSERT_EQ(r.status, 0) << r.err;
        struct stat st;
        ASSERT_EQ(lstat(socket().c_str(), &st), 0) << "the daemon reports success once it listens";
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    }
    void stopDaemon(int sig)
    {
        const pid_t pid = daemonPid();
        if (pid > 0 && ::kill(pid, 0) == 0) {
            ::kill(pid, sig);
            kuvtest::waitUntil([&] { return ::kill(pid, 0) != 0; }, 20000);
        }
    }
    std::unique_ptr<Process> listen(const std::vector<std::string>& extra)
    {
        std::vector<std::string> argv = {install->bin("kuvctl"), "bus", "listen", "--guid", kApp};
        argv.insert(argv.end(), extra.begin(), extra.end());
        auto process = std::make_unique<Process>(argv, install->env());
        const bool ready = kuvtest::waitUntil(
            [&] { return process->err().find("listening") != std::string::npos || !process->running(); }, 60000);
        EXPECT_TRUE(ready && process->running()) << process->err();
        return process;
    }

    std::unique_ptr<Install> install;
};

} // namespace

TEST_F(BusInstalled, SendReachesTheListenerWithItsBody)
{
    startDaemon();
    auto listener = listen({"--type", "1003", "--count", "2"});
    RunResult sent = kuvctl({"bus", "send", "--to", kApp, "--type", "1003", "--body", "hello\tworld\\"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    sent = kuvctl({"bus", "send", "--to", kApp, "--type", "1004", "--body", "not for the listener"});
    EXPECT_EQ(sent.status, 0) << "routed to the endpoint, which has no receiver for it";
    sent = kuvctl({"bus", "send", "--to", std::string("{") + kApp + "}", "--type", "1003", "--body", "second"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    ASSERT_TRUE(listener->wait(60000));
    EXPECT_EQ(listener->exitStatus(), 0);
    const std::string out = listener->out();
    EXPECT_NE(out.find("type=1003 from="), std::string::npos) << out;
    EXPECT_NE(out.find(" body=hello\\tworld\\\\\n"), std::string::npos) << out;
    EXPECT_NE(out.find(" body=second\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("not for the listener"), std::string::npos);
}

TEST_F(BusInstalled, UnknownDestinationAndMissingBrokerAreNotDelivered)
{
    RunResult r = kuvctl({"bus", "send", "--to", kApp, "--type", "1", "--timeout", "500"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("not running"), std::string::npos) << r.err;

    startDaemon();
    r = kuvctl({"bus", "send", "--to", kApp, "--type", "1003", "--body", "x"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no endpoint"), std::string::npos) << r.err;
}

TEST_F(BusInstalled, OneBrokerPerUserAndStaleSocketsAreReplaced)
{
    startDaemon();
    const pid_t first = daemonPid();
    RunResult second = run({install->bin("kuv-zelld"), "--foreground"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("already serves"), std::string::npos) << second.err;

    stopDaemon(SIGKILL);
    ASSERT_NE(::kill(first, 0), 0);
    struct stat st;
    ASSERT_EQ(lstat(socket().c_str(), &st), 0) << "a killed broker leaves its socket behind";
    startDaemon();
    EXPECT_NE(daemonPid(), first);
    RunResult r = kuvctl({"bus", "send", "--to", kApp, "--type", "1", "--body", "x"});
    EXPECT_EQ(r.status, 1) << "serving again (it answers: no such endpoint)";
    EXPECT_NE(r.err.find("no endpoint"), std::string::npos) << r.err;

    stopDaemon(SIGTERM);
    EXPECT_NE(lstat(socket().c_str(), &st), 0) << "a clean stop removes the socket";
    EXPECT_TRUE(kuvtest::fileContains(install->dir + "log/kuv-zelld.log", "stopped: received"));
}

TEST_F(BusInstalled, ListenerSurvivesABrokerKilledAndRestarted)
{
    startDaemon();
    auto listener = listen({});
    stopDaemon(SIGKILL);
    startDaemon();
    // The same listener process registers again by itself.
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] { return kuvctl({"bus", "send", "--to", kApp, "--type", "77", "--body", "again"}).status == 0; }, 60000,
        100));
    EXPECT_TRUE(kuvtest::waitUntil([&] { return listener->out().find("type=77") != std::string::npos; }, 30000));
    listener->signal(SIGTERM);
    ASSERT_TRUE(listener->wait(30000));
    EXPECT_EQ(listener->exitStatus(), 0);
}

TEST_F(BusInstalled, AKilledClientsEndpointsAreDroppedAtOnce)
{
    startDaemon();
    auto listener = listen({});
    listener->signal(SIGKILL);
    ASSERT_TRUE(listener->wait(30000));
    // The broker learns it from the closed connection itself, not from a later timeout or the next
    // registration of that GUID.
    EXPECT_TRUE(kuvtest::waitForFileContains(install->dir + "log/kuv-zelld.log",
                                             "closed: dropped 1 client(s) and their endpoints", 30000));
    RunResult r = kuvctl({"bus", "send", "--to", kApp, "--type", "1003", "--body", "x"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no endpoint"), std::string::npos) << r.err;
    // A new start with the same GUID gets it on its first try.
    auto again = listen({"--count", "1"});
    r = kuvctl({"bus", "send", "--to", kApp, "--type", "5", "--body", "back"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(again->wait(30000));
    EXPECT_EQ(again->exitStatus(), 0);
    EXPECT_NE(again->out().find("body=back"), std::string::npos) << again->out();
}

TEST_F(BusInstalled, ListenerWithATakenGuidFails)
{
    startDaemon();
    auto listener = listen({});
    RunResult second = kuvctl({"bus", "listen", "--guid", kApp, "--count", "1"});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("in use"), std::string::npos) << second.err;
}

TEST_F(BusInstalled, StatusReportsTheInstanceTag)
{
    RunResult r = kuvctl({"status"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("not running"), std::string::npos);

    setenv("XDG_RUNTIME_DIR", install->runtime.c_str(), 1);
    {
        CGlobalTag tag("A5F24530-52D7-11EE-AF47-4B159A309AD8", CGlobalTag::TagConfig::getUserConfig());
        ASSERT_EQ(tag.trylock(false), 1);
        ASSERT_EQ(tag.setAttribute("pid", std::to_string(getpid())), 1);
        ASSERT_EQ(tag.setAttribute("status", "3"), 1);
        r = kuvctl({"status"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "pid=" + std::to_string(getpid()) + "\nstatus=3\n");
    }
    unsetenv("XDG_RUNTIME_DIR");
    r = kuvctl({"status"});
    EXPECT_EQ(r.status, 1) << "released with the tag";
}

TEST_F(BusInstalled, UsageErrorsAndHelp)
{
    for (const auto& args : std::vector<std::vector<std::string>>{
             {},
             {"nonsense"},
             {"bus"},
             {"bus", "shout"},
             {"bus", "send"},
             {"bus", "send", "--to", "not-a-guid", "--type", "1"},
             {"bus", "send", "--to", kApp, "--type", "x"},
             {"bus", "send", "--to", kApp},
             {"bus", "listen"},
             {"bus", "listen", "--guid", kApp, "--count", "0"},
             {"status", "--bogus"},
         }) {
        const RunResult r = kuvctl(args);
        EXPECT_EQ(r.status, 2) << "kuvctl with " << args.size() << " argument(s): " << r.err;
        EXPECT_FALSE(r.err.empty());
    }
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--help"}, {"bus", "--help"}, {"bus", "send", "--help"}, {"bus", "listen", "--help"}, {"status", "--help"}}) {
        const RunResult r = kuvctl(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.out.find("Usage: kuvctl"), std::string::npos);
        EXPECT_NE(r.out.find("Exit status"), std::string::npos);
    }
    RunResult r = run({install->bin("kuv-zelld"), "--log-level", "9"});
    EXPECT_EQ(r.status, 2);
    r = run({install->bin("kuv-zelld"), "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("--socket"), std::string::npos);
}

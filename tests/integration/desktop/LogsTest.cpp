// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl logs" of the installed tree: last lines, following across rotation, truncation and
// removal, waiting for a log to appear, escaping, usage, and the live log of the running service.
#include "DesktopSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace {

using namespace kuvtest;
using namespace kuvdesk;

class KuvctlLogs : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        try {
            s_inst = std::make_unique<PrivateInstall>();
        } catch (const std::exception& e) {
            s_error = e.what();
        }
    }
    static void TearDownTestSuite() { s_inst.reset(); }

    void SetUp() override
    {
        ASSERT_EQ(s_error, "");
        m_logDir = s_inst->prefix + "/log";
        m_log = m_logDir + "/kuvgui.log";
        // Every test starts with an empty log directory.
        ASSERT_EQ(run({"/bin/rm", "-rf", m_logDir}).status, 0);
        ASSERT_EQ(mkdir(m_logDir.c_str(), 0755), 0);
    }

    RunResult logs(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {s_inst->bin("kuvctl"), "logs"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, toolEnv(), 30000);
    }

    // kuvctl logs is what is tested here: with leak checks.
    static std::vector<std::string> toolEnv()
    {
        std::vector<std::string> env = s_inst->env();
        env.push_back(kLeakCheck);
        return env;
    }

    static void append(const std::string& path, const std::string& text)
    {
        FILE* f = std::fopen(path.c_str(), "ab");
        ASSERT_NE(f, nullptr) << path;
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }

    static std::string lines(int from, int to)
    {
        std::string out;
        for (int i = from; i <= to; ++i) {
            out += "line " + std::to_string(i) + "\n";
        }
        return out;
    }

    std::string m_logDir;
    std::string m_log;
    static std::unique_ptr<PrivateInstall> s_inst;
    static std::string s_error;
};

std::unique_ptr<PrivateInstall> KuvctlLogs::s_inst;
std::string KuvctlLogs::s_error;

TEST_F(KuvctlLogs, PrintsTheLastLines)
{
    append(m_log, lines(1, 15));
    RunResult r = logs({"--no-follow"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, lines(6, 15));
    r = logs({"-n", "3", "--no-follow"});
    EXPECT_EQ(r.out, lines(13, 15));
    r = logs({"--lines=1", "--no-follow"});
    EXPECT_EQ(r.out, lines(15, 15));
    r = logs({"-n0", "--no-follow"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    r = logs({"-n", "100", "--no-follow"});
    EXPECT_EQ(r.out, lines(1, 15));
}

TEST_F(KuvctlLogs, UnfinishedLastLineCounts)
{
    append(m_log, "one\ntwo\nthree");
    const RunResult r = logs({"-n", "2", "--no-follow"});
    EXPECT_EQ(r.out, "two\nthree");
}

TEST_F(KuvctlLogs, LongLogReadFromTheEnd)
{
    std::string big;
    for (int i = 0; i < 20000; ++i) {
        big += "record " + std::to_string(i) + " " + std::string(40, 'x') + "\n";
    }
    append(m_log, big);
    const RunResult r = logs({"-n", "2", "--no-follow"});
    EXPECT_EQ(r.out, "record 19998 " + std::string(40, 'x') + "\nrecord 19999 " + std::string(40, 'x') + "\n");
}

TEST_F(KuvctlLogs, ControlCharactersAreEscaped)
{
    append(m_log, "plain\ttab\n\x1b[31mred\x7f\r\n\xc2\x9b" "2J \xe2\x80\xa8 \xff" " kept\\n\n");
    const RunResult r = logs({"--no-follow"});
    // The rule of the log writers, backslashes left as the writers wrote them.
    EXPECT_EQ(r.out, "plain\\ttab\n\\x1b[31mred\\x7f\\r\n\\u009b2J \\u2028 \\xff kept\\n\n");
}

TEST_F(KuvctlLogs, MissingLogWithoutFollowFails)
{
    const RunResult r = logs({"--no-follow"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("kuvgui.log"), std::string::npos) << r.err;
}

TEST_F(KuvctlLogs, OtherFilesAndTheBusLog)
{
    append(m_logDir + "/kuvgui.zell.log", "bus line\n");
    RunResult r = logs({"--zell", "--no-follow"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "bus line\n");
    const std::string other = s_inst->root() + "/other log";
    append(other, "x\ny\n");
    r = logs({"--file", other, "-n", "1", "--no-follow"});
    EXPECT_EQ(r.out, "y\n");
}

TEST_F(KuvctlLogs, WrongUsage)
{
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"-n", "x"}, {"-n"}, {"-n", "-1"}, {"--lines=99999999"}, {"--bogus"}, {"--zell", "--file", "f"},
             {"--file", ""}, {"follow"}}) {
        const RunResult r = logs(args);
        EXPECT_EQ(r.status, 2) << visible(args);
        EXPECT_FALSE(r.err.empty()) << visible(args);
    }
    const RunResult help = logs({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit status"), std::string::npos) << help.out;
}

TEST_F(KuvctlLogs, FollowsAcrossRotationTruncationAndRemoval)
{
    append(m_log, lines(1, 5));
    Process follower({s_inst->bin("kuvctl"), "logs", "-n", "2"}, toolEnv());
    auto shows = [&](const std::string& text) {
        return waitUntil([&] { return follower.out().find(text) != std::string::npos; }, 30000);
    };
    ASSERT_TRUE(shows(lines(4, 5))) << follower.out() << follower.err();

    append(m_log, "appended\n");
    EXPECT_TRUE(shows("appended\n"));

    // Rotation as the log service does it: the file is renamed and a new one started.
    ASSERT_EQ(std::rename(m_log.c_str(), (m_logDir + "/kuvgui.1.log").c_str()), 0);
    append(m_logDir + "/kuvgui.1.log", "late in the old file\n");
    append(m_log, "first of the new file\n");
    EXPECT_TRUE(shows("first of the new file\n")) << follower.out() << follower.err();
    EXPECT_TRUE(shows("late in the old file\n")) << follower.out();

    // Truncated in place.
    ASSERT_EQ(truncate(m_log.c_str(), 0), 0);
    append(m_log, "after truncation\n");
    EXPECT_TRUE(shows("after truncation\n")) << follower.out() << follower.err();

    // Removed, then created again.
    ASSERT_EQ(std::remove(m_log.c_str()), 0);
    EXPECT_TRUE(waitUntil([&] { return follower.err().find("is gone") != std::string::npos; }, 30000))
        << follower.err();
    append(m_log, "back again\n");
    EXPECT_TRUE(shows("back again\n")) << follower.out() << follower.err();

    // Nothing printed twice, nothing lost, in order.
    EXPECT_EQ(follower.out(), lines(4, 5) + "appended\nlate in the old file\nfirst of the new file\n"
                                            "after truncation\nback again\n");

    follower.signal(SIGTERM);
    ASSERT_TRUE(follower.wait(30000));
    EXPECT_EQ(follower.exitStatus(), 0);
}

TEST_F(KuvctlLogs, WaitsForALogThatDoesNotExistYet)
{
    ASSERT_EQ(rmdir(m_logDir.c_str()), 0);
    Process follower({s_inst->bin("kuvctl"), "logs"}, toolEnv());
    ASSERT_TRUE(waitUntil([&] { return follower.err().find("waiting") != std::string::npos; }, 30000))
        << follower.err();
    mkdir(m_logDir.c_str(), 0755);
    append(m_log, "finally\n");
    EXPECT_TRUE(waitUntil([&] { return follower.out() == "finally\n"; }, 30000)) << follower.out() << follower.err();
    follower.signal(SIGINT);
    ASSERT_TRUE(follower.wait(30000));
    EXPECT_EQ(follower.exitStatus(), 0);
}

TEST_F(KuvctlLogs, ShowsWhatTheRunningServiceLogs)
{
    const std::string problem = s_inst->start();
    ASSERT_EQ(problem, "");
    Process follower({s_inst->bin("kuvctl"), "logs", "-n", "0"}, toolEnv());
    // Following has begun once a marker line written now comes through (one written before the
    // follower opened the log would not: -n 0).
    ASSERT_TRUE(waitUntil(
        [&] {
            append(m_log, "marker\n");
            return follower.out().find("marker\n") != std::string::npos;
        },
        30000, 200))
        << follower.err();

    const RunResult sent = run({s_inst->bin("kuvgui"), "right", "/tmp/a b", "/tmp/line\nfeed"}, s_inst->env());
    EXPECT_EQ(sent.status, 1) << sent.out << sent.err;
    // The service logs each path, its line feed escaped, so one record stays one line.
    EXPECT_TRUE(waitUntil([&] { return follower.out().find("context menu scan [/tmp/line\\nfeed].") != std::string::npos; },
                          30000))
        << follower.out();
    EXPECT_NE(follower.out().find("context menu scan [/tmp/a b]."), std::string::npos);
    EXPECT_EQ(s_inst->stop(), "");
    follower.signal(SIGTERM);
    EXPECT_TRUE(follower.wait(30000));
    EXPECT_EQ(follower.exitStatus(), 0);
}

} // namespace

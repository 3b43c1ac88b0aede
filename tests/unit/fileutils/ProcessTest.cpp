// SPDX-License-Identifier: GPL-2.0-or-later
// CProcess starts real programs: detached, reaped, without our descriptors, exec failures reported.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuv::test::TempDir;

namespace {

bool noChildLeft()
{
    errno = 0;
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& prefix)
{
    std::vector<std::string> out;
    for (const std::string& line : kuvtest::lines(text)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(line.substr(prefix.size()));
        }
    }
    return out;
}

} // namespace

TEST(CProcessTest, StartsWithBlankSeparatedArgumentsDetachedAndWithoutOurDescriptors)
{
    TempDir dir;
    const std::string report = dir / "report";
    // Descriptors without close-on-exec, as careless code elsewhere in the process might leave them.
    const int leaky = ::open("/dev/null", O_RDONLY);
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    ASSERT_GE(leaky, 0);

    CProcess process;
    EXPECT_EQ(process.execute(KUV_FD_PROBE, "  " + report + "   one\ttwo  ", true), 1);
    EXPECT_TRUE(noChildLeft());
    ASSERT_TRUE(kuvtest::eventually([&] { return kuvtest::exists(report); }));

    const std::string text = kuvtest::readFile(report);
    EXPECT_EQ(linesWith(text, "arg:"), (std::vector<std::string>{report, "one", "two"}));
    EXPECT_EQ(linesWith(text, "fd:"), (std::vector<std::string>{"0", "1", "2"})) << text;
    const auto sid = linesWith(text, "sid:");
    ASSERT_EQ(sid.size(), 1u);
    EXPECT_NE(sid[0], std::to_string(::getsid(0)));

    ::close(leaky);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

TEST(CProcessTest, NoZombieAfterManyStarts)
{
    CProcess process;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(process.execute("/bin/true", "", i % 2 == 0), 1);
    }
    EXPECT_TRUE(noChildLeft());
}

TEST(CProcessTest, FindsProgramsOnPath)
{
    CProcess process;
    EXPECT_EQ(process.execute("true", "", true), 1);
    EXPECT_TRUE(noChildLeft());
}

TEST(CProcessTest, ExecFailureIsZero)
{
    TempDir dir;
    kuvtest::writeFile(dir / "not-executable", "#!/bin/sh\nexit 0\n");
    ::chmod((dir / "not-executable").c_str(), 0644);

    CProcess process;
    EXPECT_EQ(process.execute("/nonexistent/kuv/program", "1", true), 0);
    EXPECT_EQ(process.execute("kuv-no-such-program-on-path", "", true), 0);
    EXPECT_EQ(process.execute(dir / "not-executable", "", true), 0);
    EXPECT_EQ(process.execute(dir.path(), "", true), 0);
    EXPECT_EQ(process.execute("", "", true), 0);
    EXPECT_TRUE(noChildLeft());
}

TEST(CProcessTest, ScriptWithArgumentRuns)
{
    TempDir dir;
    const std::string script = dir / "guard.sh";
    kuvtest::writeFile(script, "#!/bin/sh\necho \"$1\" > \"$0.out\"\n");
    ::chmod(script.c_str(), 0755);
    CProcess process;
    EXPECT_EQ(process.execute(script, "user_restart", true), 1);
    ASSERT_TRUE(kuvtest::eventually([&] { return kuvtest::readFile(script + ".out") == "user_restart\n"; }));
}

TEST(CProcessTest, DeferredLaunchesRunWhenTheDeferralSaysSo)
{
    TempDir dir;
    const std::string report = dir / "report";
    std::vector<std::function<void()>> kept;
    kuv::setLaunchDeferral([&kept](std::function<void()> launch) {
        kept.push_back(std::move(launch));
        return true;
    });
    CProcess process;
    EXPECT_EQ(process.execute(KUV_FD_PROBE, report + " later", true), 1) << "it can run";
    EXPECT_EQ(process.execute("/nonexistent/kuv/program", "1", true), 0) << "it cannot";
    ASSERT_EQ(kept.size(), 2u);
    usleep(100 * 1000);
    EXPECT_FALSE(kuvtest::exists(report)) << "nothing started before the deferral runs it";
    kept[0]();
    kept[1]();
    EXPECT_TRUE(noChildLeft());
    ASSERT_TRUE(kuvtest::eventually([&] { return kuvtest::exists(report); }));
    EXPECT_EQ(linesWith(kuvtest::readFile(report), "arg:"), (std::vector<std::string>{report, "later"}));

    // A deferral that declines leaves the launch to execute itself.
    kuv::setLaunchDeferral([](std::function<void()>) { return false; });
    EXPECT_EQ(process.execute("/bin/true", "", true), 1);
    EXPECT_EQ(process.execute("/nonexistent/kuv/program", "", true), 0);
    kuv::setLaunchDeferral(nullptr);
    EXPECT_TRUE(noChildLeft());
}

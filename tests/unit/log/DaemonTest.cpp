// SPDX-License-Identifier: GPL-2.0-or-later
// kuv::daemonize: the daemon runs detached in a session of its own, and the process that started it exits
// with the status the daemon reports.
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "Daemon.h"
#include "KuvTestDir.h"

namespace {

// Runs daemonize in a child, as a daemon's main would; daemonMain runs in the daemon and returns the
// status to report, or -1 to end without a report. Returns the child's exit status.
template <typename Fn>
int startDaemon(Fn daemonMain)
{
    const pid_t child = ::fork();
    if (child == 0) {
        kuv::UniqueFd ready;
        if (!kuv::daemonize(ready, 3)) {
            _exit(9);
        }
        const int status = daemonMain();
        if (status >= 0) {
            kuv::reportReady(ready, status);
            kuv::reportReady(ready, 0); // once only
        }
        _exit(0);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

} // namespace

TEST(Daemonize, TheStarterExitsWithTheDaemonsReport)
{
    kuvtest::TempDir dir;
    const std::string facts = dir / "facts";
    EXPECT_EQ(startDaemon([&] {
                  char cwd[PATH_MAX] = {0};
                  char in[PATH_MAX] = {0};
                  (void)!::getcwd(cwd, sizeof cwd);
                  (void)!::readlink("/proc/self/fd/0", in, sizeof in - 1);
                  FILE* out = std::fopen(facts.c_str(), "w");
                  if (out != nullptr) {
                      std::fprintf(out, "%d %d %s %s\n", static_cast<int>(::getpid()), static_cast<int>(::getsid(0)),
                                   cwd, in);
                      std::fclose(out);
                  }
                  return 5;
              }),
              5);
    int pid = 0;
    int sid = 0;
    char cwd[PATH_MAX] = {0};
    char in[PATH_MAX] = {0};
    FILE* file = std::fopen(facts.c_str(), "r");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fscanf(file, "%d %d %4095s %4095s", &pid, &sid, cwd, in), 4);
    std::fclose(file);
    EXPECT_NE(sid, static_cast<int>(::getsid(0))) << "a session of its own";
    EXPECT_NE(sid, pid) << "not its leader, so no terminal can come back";
    EXPECT_STREQ(cwd, "/");
    EXPECT_STREQ(in, "/dev/null");
}

TEST(Daemonize, ADaemonThatEndsWithoutAReportFailsTheStart)
{
    EXPECT_EQ(startDaemon([] { return -1; }), 3);
    EXPECT_EQ(startDaemon([] { return 0; }), 0);
}

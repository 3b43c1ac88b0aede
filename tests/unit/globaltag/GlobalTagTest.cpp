// SPDX-License-Identifier: GPL-2.0-or-later
// CGlobalTag across real processes: one winner among many, release on death, refused runtime dirs.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "CGlobalTag.h"
#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"
#include "UniqueFd.h"

using kuvtest::ScopedEnv;
using kuv::test::TempDir;

extern char** environ;

namespace {

const char* kTag = "A5F24530-52D7-11EE-AF47-4B159A309AD8";

class GlobalTagTest : public ::testing::Test {
protected:
    TempDir base;
    ScopedEnv env{"XDG_RUNTIME_DIR", base.path().c_str()};
    void SetUp() override { ::chmod(base.path().c_str(), 0700); }
    std::string runtime() const { return base / "kuv/"; }
};

struct Racer {
    pid_t pid;
    int result;
};

// Starts n probes that wait on one pipe, releases them together, and collects their results.
std::vector<Racer> race(int n, const std::string& name)
{
    int goPipe[2];
    int resultPipe[2];
    EXPECT_EQ(::pipe2(goPipe, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(resultPipe, O_CLOEXEC), 0);
    std::vector<pid_t> pids;
    for (int i = 0; i < n; ++i) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, goPipe[0], 0);
        posix_spawn_file_actions_adddup2(&actions, resultPipe[1], 1);
        std::string nameArg = name;
        char* argv[] = {const_cast<char*>(KUV_TAG_PROBE), &nameArg[0], nullptr};
        pid_t pid = -1;
        EXPECT_EQ(::posix_spawn(&pid, KUV_TAG_PROBE, &actions, nullptr, argv, environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        pids.push_back(pid);
    }
    ::close(goPipe[0]);
    ::close(resultPipe[1]);
    ::close(goPipe[1]); // all probes see end of file at once
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(resultPipe[0], buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
        if (std::count(text.begin(), text.end(), '\n') == n) {
            break;
        }
    }
    ::close(resultPipe[0]);
    std::vector<Racer> out;
    std::istringstream in(text);
    Racer r;
    while (in >> r.pid >> r.result) {
        out.push_back(r);
    }
    // Reap the losers; the winner keeps holding.
    for (const Racer& each : out) {
        if (each.result != 1) {
            int status = 0;
            ::waitpid(each.pid, &status, 0);
        }
    }
    return out;
}

} // namespace

TEST_F(GlobalTagTest, SixtyFourProcessesOneWinnerThenKillReleases)
{
    const auto racers = race(64, kTag);
    ASSERT_EQ(racers.size(), 64u);
    pid_t winner = -1;
    int ones = 0;
    int twos = 0;
    for (const Racer& r : racers) {
        if (r.result == 1) {
            ++ones;
            winner = r.pid;
        } else if (r.result == 2) {
            ++twos;
        }
    }
    ASSERT_EQ(ones, 1);
    EXPECT_EQ(twos, 63);

    const auto config = CGlobalTag::TagConfig::getUserConfig();
    ASSERT_EQ(config.dir, runtime()) << config.error;
    EXPECT_TRUE(CGlobalTag::isHeld(kTag, config));
    std::map<std::string, std::string> attributes;
    ASSERT_TRUE(kuvtest::eventually([&] {
        return CGlobalTag::readAttributes(kTag, config, attributes) && attributes.count("status") == 1;
    }));
    EXPECT_EQ(attributes["pid"], std::to_string(winner));
    EXPECT_EQ(attributes["status"], "1");

    {
        CGlobalTag mine(kTag, config);
        EXPECT_EQ(mine.trylock(false), 2);
        EXPECT_EQ(mine.setAttribute("pid", "1"), 0);
    }
    ASSERT_EQ(::kill(winner, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(winner, &status, 0), winner);

    EXPECT_FALSE(CGlobalTag::isHeld(kTag, config));
    EXPECT_FALSE(CGlobalTag::readAttributes(kTag, config, attributes)); // stale file of the dead holder
    CGlobalTag next(kTag, config);
    EXPECT_EQ(next.trylock(false), 1);
    EXPECT_TRUE(CGlobalTag::isHeld(kTag, config));
    EXPECT_TRUE(CGlobalTag::readAttributes(kTag, config, attributes));
    EXPECT_TRUE(attributes.empty());
}

TEST_F(GlobalTagTest, InProcessHolderAttributesAndRelease)
{
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    ASSERT_FALSE(config.dir.empty()) << config.error;
    auto first = std::make_unique<CGlobalTag>("tag-one", config);
    CGlobalTag second("tag-one", config);
    EXPECT_FALSE(CGlobalTag::isHeld("tag-one", config));
    EXPECT_EQ(first->setAttribute("pid", "1"), 0); // not held yet
    EXPECT_EQ(first->trylock(false), 1);
    EXPECT_EQ(first->trylock(false), 1); // still ours
    EXPECT_EQ(second.trylock(false), 2);
    EXPECT_EQ(first->setAttribute("pid", std::to_string(::getpid())), 1);
    EXPECT_EQ(first->setAttribute("status", "2"), 1);
    EXPECT_EQ(first->setAttribute("status", "3"), 1);
    EXPECT_EQ(first->setAttribute("odd", "line\nfeed \"quoted\""), 1);

    std::map<std::string, std::string> attributes;
    ASSERT_TRUE(CGlobalTag::readAttributes("tag-one", config, attributes));
    EXPECT_EQ(attributes["pid"], std::to_string(::getpid()));
    EXPECT_EQ(attributes["status"], "3");
    EXPECT_EQ(attributes["odd"], "line\nfeed \"quoted\"");
    struct stat st;
    ASSERT_EQ(::stat((runtime() + "tag-one.attr").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    first.reset();
    EXPECT_FALSE(kuvtest::exists(runtime() + "tag-one.attr"));
    EXPECT_FALSE(CGlobalTag::isHeld("tag-one", config));
    EXPECT_EQ(second.trylock(false), 1);
}

TEST_F(GlobalTagTest, WaitingLockWhenFree)
{
    CGlobalTag tag("tag-wait", CGlobalTag::TagConfig::getUserConfig());
    EXPECT_EQ(tag.trylock(true), 1);
}

// The guard waits for the tag with a shared lock and lets go at once; a start in that moment takes the
// tag once the reader has passed, while a real holder still makes it a second instance.
TEST_F(GlobalTagTest, AReaderPassingThroughDoesNotLookLikeAHolder)
{
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    ASSERT_FALSE(config.dir.empty()) << config.error;
    {
        CGlobalTag probe("tag-pass", config); // creates the lock file
        ASSERT_EQ(probe.trylock(false), 1);
    }
    const kuv::UniqueFd reader(::open((config.dir + "tag-pass.lock").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(reader.valid());
    ASSERT_EQ(::flock(reader.get(), LOCK_SH | LOCK_NB), 0);
    std::thread passer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        ::flock(reader.get(), LOCK_UN);
    });
    CGlobalTag tag("tag-pass", config);
    EXPECT_EQ(tag.trylock(false), 1);
    passer.join();
    EXPECT_TRUE(CGlobalTag::isHeld("tag-pass", config));
    CGlobalTag other("tag-pass", config);
    EXPECT_EQ(other.trylock(false), 2);
}

// Readers alone (the guard waiting) hold nothing: the tag reads as free, and a start that finds a reader
// which never leaves gives up after its bounded wait and reports a running instance, as before.
TEST_F(GlobalTagTest, AReaderAloneIsNotAHolder)
{
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    ASSERT_FALSE(config.dir.empty()) << config.error;
    {
        CGlobalTag probe("tag-reader", config);
        ASSERT_EQ(probe.trylock(false), 1);
    }
    const kuv::UniqueFd reader(::open((config.dir + "tag-reader.lock").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(reader.valid());
    ASSERT_EQ(::flock(reader.get(), LOCK_SH | LOCK_NB), 0);
    EXPECT_FALSE(CGlobalTag::isHeld("tag-reader", config));
    std::map<std::string, std::string> attributes;
    EXPECT_FALSE(CGlobalTag::readAttributes("tag-reader", config, attributes));
    // The probes gave their shared locks back: the reader can still become the holder.
    ASSERT_EQ(::flock(reader.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_TRUE(CGlobalTag::isHeld("tag-reader", config));
    ASSERT_EQ(::flock(reader.get(), LOCK_SH | LOCK_NB), 0);
    CGlobalTag late("tag-reader", config);
    EXPECT_EQ(late.trylock(false), 2);
    EXPECT_FALSE(CGlobalTag::isHeld("tag-reader", config));
    ::flock(reader.get(), LOCK_UN);
    EXPECT_EQ(late.trylock(false), 1);
}

// A holder's own process sees its tag held (the service reads its attributes for the Overview).
TEST_F(GlobalTagTest, TheHolderSeesItsOwnTagHeld)
{
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    CGlobalTag tag("tag-own", config);
    ASSERT_EQ(tag.trylock(false), 1);
    ASSERT_EQ(tag.setAttribute("pid", "42"), 1);
    EXPECT_TRUE(CGlobalTag::isHeld("tag-own", config));
    std::map<std::string, std::string> attributes;
    EXPECT_TRUE(CGlobalTag::readAttributes("tag-own", config, attributes));
    EXPECT_EQ(attributes["pid"], "42");
    EXPECT_EQ(tag.trylock(false), 1);
}

TEST_F(GlobalTagTest, LinkedRuntimeDirIsRefused)
{
    TempDir elsewhere;
    ::chmod(elsewhere.path().c_str(), 0700);
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), (base / "kuv").c_str()), 0);
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    EXPECT_TRUE(config.dir.empty());
    EXPECT_NE(config.error.find("symbolic link"), std::string::npos) << config.error;
    CGlobalTag tag(kTag, config);
    testing::internal::CaptureStderr();
    EXPECT_EQ(tag.trylock(false), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("symbolic link"), std::string::npos) << err;
    EXPECT_FALSE(kuvtest::exists(elsewhere / (std::string(kTag) + ".lock")));
}

// The runtime directory is refused for the reason given, and a tag on it cannot be taken.
static void expectRuntimeDirRefused(const char* why)
{
    const auto config = CGlobalTag::TagConfig::getUserConfig();
    EXPECT_TRUE(config.dir.empty());
    EXPECT_NE(config.error.find(why), std::string::npos) << config.error;
    testing::internal::CaptureStderr();
    EXPECT_EQ(CGlobalTag(kTag, config).trylock(false), -1);
    testing::internal::GetCapturedStderr();
}

TEST_F(GlobalTagTest, WrongModeRuntimeDirIsRefused)
{
    ASSERT_EQ(::mkdir((base / "kuv").c_str(), 0755), 0);
    ::chmod((base / "kuv").c_str(), 0755);
    expectRuntimeDirRefused("mode 0755");
}

TEST_F(GlobalTagTest, OtherOwnersRuntimeDirIsRefused)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give the directory away";
    }
    ASSERT_EQ(::mkdir((base / "kuv").c_str(), 0700), 0);
    ASSERT_EQ(::chown((base / "kuv").c_str(), 65534, 65534), 0);
    expectRuntimeDirRefused("owned by uid 65534");
}

TEST_F(GlobalTagTest, UncreatableLockFileIsMinusOne)
{
    auto config = CGlobalTag::TagConfig::getUserConfig();
    ASSERT_FALSE(config.dir.empty());
    // A link where the lock file belongs is never followed.
    ASSERT_EQ(::symlink("/dev/null", (config.dir + "linked.lock").c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(CGlobalTag("linked", config).trylock(false), -1);
    EXPECT_EQ(CGlobalTag("bad/name", config).trylock(false), -1);
    CGlobalTag::TagConfig missing;
    missing.dir = base / "missing/";
    EXPECT_EQ(CGlobalTag("x", missing).trylock(false), -1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("linked"), std::string::npos) << err;
    EXPECT_FALSE(CGlobalTag::isHeld("bad/name", config));
}

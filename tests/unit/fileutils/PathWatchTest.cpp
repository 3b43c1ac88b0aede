// SPDX-License-Identifier: GPL-2.0-or-later
// What PathWatch reports as gone, and what it leaves alone.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "PathWatch.h"
#include "TempDir.h"

using kuv::test::TempDir;

namespace {

struct WatchedFile {
    TempDir dir{"pathwatch"};
    std::string sub = dir / "run";
    std::string file = sub + "/daemon.lock";
    kuv::PathWatch watch;

    WatchedFile()
    {
        std::filesystem::create_directory(sub);
        std::ofstream(file) << "1";
        EXPECT_TRUE(watch.watch(file)) << std::strerror(errno);
    }

    // The descriptor wakes for what happened (no timing: events are queued before this is asked).
    bool readable() const
    {
        struct pollfd p {watch.fd(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }
};

struct GoneCase {
    const char* name;
    std::function<void(const WatchedFile&)> act;
};

class PathWatchGoneTest : public ::testing::TestWithParam<GoneCase> {};

} // namespace

TEST_P(PathWatchGoneTest, ReportsTheFileGone)
{
    WatchedFile w;
    ASSERT_FALSE(w.watch.gone());
    GetParam().act(w);
    EXPECT_TRUE(w.readable());
    EXPECT_TRUE(w.watch.gone());
    EXPECT_NE(w.watch.why().find(w.sub), std::string::npos) << w.watch.why();
    // It stays gone.
    EXPECT_TRUE(w.watch.gone());
}

INSTANTIATE_TEST_SUITE_P(
    Ways, PathWatchGoneTest,
    ::testing::Values(GoneCase{"Removed", [](const WatchedFile& w) { ::unlink(w.file.c_str()); }},
                      GoneCase{"RenamedAway",
                               [](const WatchedFile& w) { ::rename(w.file.c_str(), (w.sub + "/old").c_str()); }},
                      GoneCase{"ReplacedByRename",
                               [](const WatchedFile& w) {
                                   std::ofstream(w.sub + "/new") << "2";
                                   ::rename((w.sub + "/new").c_str(), w.file.c_str());
                               }},
                      GoneCase{"DirectoryRemoved",
                               [](const WatchedFile& w) { std::filesystem::remove_all(w.sub); }},
                      GoneCase{"DirectoryMoved",
                               [](const WatchedFile& w) {
                                   ::rename(w.sub.c_str(), (w.dir / "moved").c_str());
                               }}),
    [](const ::testing::TestParamInfo<GoneCase>& info) { return std::string(info.param.name); });

TEST(PathWatchTest, OtherEntriesAndWritesAreNotGone)
{
    WatchedFile w;
    std::ofstream(w.sub + "/other") << "x";
    ::rename((w.sub + "/other").c_str(), (w.sub + "/other2").c_str());
    ::unlink((w.sub + "/other2").c_str());
    std::ofstream(w.file, std::ios::app) << "more";
    ::chmod(w.file.c_str(), 0600);
    EXPECT_FALSE(w.watch.gone());
    EXPECT_TRUE(w.watch.why().empty());
    // The events were read: nothing is left to wake a loop.
    EXPECT_FALSE(w.readable());
}

TEST(PathWatchTest, ANameComingBackAfterRemovalIsStillGone)
{
    WatchedFile w;
    ::unlink(w.file.c_str());
    std::ofstream(w.file) << "someone else";
    EXPECT_TRUE(w.watch.gone());
}

TEST(PathWatchTest, AMissingFileCannotBeWatched)
{
    TempDir dir{"pathwatch"};
    kuv::PathWatch watch;
    EXPECT_FALSE(watch.watch(dir / "nothing"));
    EXPECT_EQ(watch.fd(), -1);
    EXPECT_FALSE(watch.gone());
    EXPECT_FALSE(watch.watch(""));
}

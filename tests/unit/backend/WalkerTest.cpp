// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "TempDir.h"
#include "Walker.h"

using kuv::scand::WalkEntry;
using kuv::scand::Walker;

namespace {

class TempTree {
public:
    TempTree() : tmp("kuvwalk"), root(tmp.path()) {}
    void file(const std::string& rel, const std::string& content = "x")
    {
        std::ofstream(root + "/" + rel) << content;
    }
    void dir(const std::string& rel) { mkdir((root + "/" + rel).c_str(), 0700); }
    kuv::test::TempDir tmp;
    std::string root;
};

std::map<std::string, WalkEntry> walkAll(const std::vector<std::string>& roots, const std::vector<std::string>& exclude = {})
{
    std::map<std::string, WalkEntry> seen;
    Walker walker(exclude, nullptr);
    walker.walk(roots, [&](WalkEntry&& e) {
        EXPECT_EQ(seen.count(e.path), 0u) << "reported twice: " << e.path;
        seen[e.path] = e;
        return true;
    });
    return seen;
}

} // namespace

TEST(Walker, ReportsEveryEntryWithoutFollowingLinks)
{
    TempTree t;
    t.dir("a");
    t.dir("a/b");
    t.file("top.txt", "12345");
    t.file("a/b/deep.bin");
    t.file("a/line\nfeed");
    ASSERT_EQ(symlink((t.root + "/a").c_str(), (t.root + "/link-to-dir").c_str()), 0);
    ASSERT_EQ(symlink((t.root + "/top.txt").c_str(), (t.root + "/link-to-file").c_str()), 0);
    ASSERT_EQ(mkfifo((t.root + "/fifo").c_str(), 0600), 0);
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string sockPath = t.root + "/sock";
    ASSERT_LT(sockPath.size(), sizeof(addr.sun_path));
    memcpy(addr.sun_path, sockPath.c_str(), sockPath.size() + 1);
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);

    auto seen = walkAll({t.root});
    close(s);
    ASSERT_EQ(seen.size(), 7u);
    EXPECT_EQ(seen.at(t.root + "/top.txt").kind, WalkEntry::Kind::Regular);
    EXPECT_EQ(seen.at(t.root + "/top.txt").size, 5u);
    EXPECT_EQ(seen.at(t.root + "/a/b/deep.bin").kind, WalkEntry::Kind::Regular);
    EXPECT_EQ(seen.at(t.root + "/a/line\nfeed").kind, WalkEntry::Kind::Regular);
    EXPECT_EQ(seen.at(t.root + "/link-to-dir").kind, WalkEntry::Kind::Skipped);
    EXPECT_EQ(seen.at(t.root + "/link-to-dir").reason, "symbolic link");
    EXPECT_EQ(seen.at(t.root + "/link-to-file").reason, "symbolic link");
    EXPECT_EQ(seen.at(t.root + "/fifo").kind, WalkEntry::Kind::Skipped);
    EXPECT_EQ(seen.at(t.root + "/fifo").reason, "fifo");
    EXPECT_EQ(seen.at(t.root + "/sock").reason, "socket");
    EXPECT_EQ(seen.count(t.root + "/link-to-dir/b/deep.bin"), 0u) << "a linked folder is not entered";
}

TEST(Walker, RootsNamedByTheUser)
{
    TempTree t;
    t.file("f");
    t.dir("d");
    t.file("d/inside");
    ASSERT_EQ(symlink((t.root + "/d").c_str(), (t.root + "/named-link").c_str()), 0);
    auto seen = walkAll({t.root + "/f", t.root + "/named-link/", t.root + "/missing", "/proc", "/proc/self/status",
                         "/dev/null", "relative/name"});
    EXPECT_EQ(seen.at(t.root + "/f").kind, WalkEntry::Kind::Regular);
    EXPECT_EQ(seen.at(t.root + "/named-link/inside").kind, WalkEntry::Kind::Regular)
        << "a link named as a root is followed once";
    EXPECT_EQ(seen.at(t.root + "/missing").kind, WalkEntry::Kind::Error);
    EXPECT_EQ(seen.at(t.root + "/missing").reason, "no such file or directory");
    EXPECT_EQ(seen.at("/proc").reason, "virtual file system");
    EXPECT_EQ(seen.at("/proc/self/status").reason, "virtual file system");
    EXPECT_EQ(seen.at("/dev/null").kind, WalkEntry::Kind::Skipped);
    EXPECT_EQ(seen.at("relative/name").reason, "not an absolute path");
    EXPECT_EQ(seen.size(), 7u);
}

TEST(Walker, ExcludedSubtreesAndUnreadableFolders)
{
    TempTree t;
    t.dir("keep");
    t.file("keep/a");
    t.dir("skip");
    t.file("skip/b");
    t.file("skipper"); // shares a prefix, not a component
    t.dir("locked");
    t.file("locked/c");
    chmod((t.root + "/locked").c_str(), 0);
    auto seen = walkAll({t.root}, {t.root + "/skip"});
    EXPECT_EQ(seen.at(t.root + "/keep/a").kind, WalkEntry::Kind::Regular);
    EXPECT_EQ(seen.at(t.root + "/skip").reason, "excluded");
    EXPECT_EQ(seen.count(t.root + "/skip/b"), 0u);
    EXPECT_EQ(seen.at(t.root + "/skipper").kind, WalkEntry::Kind::Regular);
    if (geteuid() != 0) {
        EXPECT_EQ(seen.at(t.root + "/locked").kind, WalkEntry::Kind::Error);
        EXPECT_EQ(seen.at(t.root + "/locked").reason, "permission denied");
    } else {
        GTEST_LOG_(INFO) << "running as root: a folder of mode 000 is readable, its error is not checked";
    }
}

TEST(Walker, StopsWhenCancelled)
{
    TempTree t;
    for (int i = 0; i < 50; ++i) {
        t.file("f" + std::to_string(i));
    }
    std::atomic<bool> cancel{false};
    Walker walker({}, &cancel);
    int visited = 0;
    const bool complete = walker.walk({t.root}, [&](WalkEntry&&) {
        if (++visited == 10) {
            cancel = true;
        }
        return true;
    });
    EXPECT_FALSE(complete);
    EXPECT_EQ(visited, 10);
}

TEST(Walker, DeepTreesNeedNoDescriptorPerLevel)
{
    TempTree t;
    std::string rel;
    for (int i = 0; i < 300; ++i) {
        rel += (i ? "/" : "") + std::string("d");
        t.dir(rel);
    }
    t.file(rel + "/bottom");
    auto seen = walkAll({t.root});
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen.begin()->second.kind, WalkEntry::Kind::Regular);
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The runtime directory's checks, atomic writes and escaping.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuvtest::ScopedEnv;
using kuv::test::TempDir;

namespace {

// A base directory fit to be XDG_RUNTIME_DIR: ours and 0700.
struct RuntimeBase {
    TempDir dir;
    ScopedEnv env{"XDG_RUNTIME_DIR", dir.path().c_str()};
    RuntimeBase() { ::chmod(dir.path().c_str(), 0700); }
    std::string kuv() const { return dir / "kuv"; }
};

} // namespace

TEST(RuntimeDirTest, CreatedPrivateUnderXdg)
{
    RuntimeBase base;
    ::umask(022);
    std::string error;
    const std::string dir = kuv::runtimeDir(&error);
    EXPECT_EQ(dir, base.kuv() + "/") << error;
    struct stat st;
    ASSERT_EQ(::lstat(base.kuv().c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(st.st_uid, ::geteuid());
    // Again, now that it exists.
    EXPECT_EQ(kuv::runtimeDir(&error), dir);
}

TEST(RuntimeDirTest, CreatedPrivateEvenUnderAStrictUmask)
{
    RuntimeBase base;
    const mode_t old = ::umask(0777);
    std::string error;
    const std::string dir = kuv::runtimeDir(&error);
    ::umask(old);
    EXPECT_EQ(dir, base.kuv() + "/") << error;
}

TEST(RuntimeDirTest, LinkIsRefused)
{
    RuntimeBase base;
    TempDir elsewhere;
    ::chmod(elsewhere.path().c_str(), 0700);
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), base.kuv().c_str()), 0);
    std::string error;
    EXPECT_EQ(kuv::runtimeDir(&error), "");
    EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
    EXPECT_NE(error.find(base.kuv()), std::string::npos) << error;
    EXPECT_EQ(kuv::runtimePath("/tmp/kuv-gui"), "");
}

TEST(RuntimeDirTest, WrongModeIsRefused)
{
    RuntimeBase base;
    ASSERT_EQ(::mkdir(base.kuv().c_str(), 0700), 0);
    ASSERT_EQ(::chmod(base.kuv().c_str(), 0755), 0);
    std::string error;
    EXPECT_EQ(kuv::runtimeDir(&error), "");
    EXPECT_NE(error.find("mode 0755"), std::string::npos) << error;
    // Left as it was: no repair of a directory we did not just create.
    struct stat st;
    ASSERT_EQ(::lstat(base.kuv().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
}

TEST(RuntimeDirTest, OtherOwnerIsRefused)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give the directory away";
    }
    RuntimeBase base;
    ASSERT_EQ(::mkdir(base.kuv().c_str(), 0700), 0);
    ASSERT_EQ(::chown(base.kuv().c_str(), 65534, 65534), 0);
    std::string error;
    EXPECT_EQ(kuv::runtimeDir(&error), "");
    EXPECT_NE(error.find("owned by uid 65534"), std::string::npos) << error;
}

TEST(RuntimeDirTest, FileInPlaceIsRefused)
{
    RuntimeBase base;
    kuvtest::writeFile(base.kuv(), "");
    std::string error;
    EXPECT_EQ(kuv::runtimeDir(&error), "");
    EXPECT_NE(error.find("not a directory"), std::string::npos) << error;
}

TEST(RuntimeDirTest, UnfitXdgFallsBackToTmp)
{
    TempDir loose;
    ::chmod(loose.path().c_str(), 0755);
    ScopedEnv env("XDG_RUNTIME_DIR", loose.path().c_str());
    const std::string tmp = "/tmp/kuv-" + std::to_string(::geteuid());
    std::string error;
    const std::string dir = kuv::runtimeDir(&error);
    // Either /tmp/kuv-<uid>/ is usable, or it was refused by name.
    if (dir.empty()) {
        EXPECT_NE(error.find(tmp), std::string::npos) << error;
    } else {
        EXPECT_EQ(dir, tmp + "/");
    }
    EXPECT_FALSE(kuvtest::exists(loose / "kuv"));

    ScopedEnv relative("XDG_RUNTIME_DIR", "relative/dir");
    const std::string again = kuv::runtimeDir(&error);
    EXPECT_TRUE(again.empty() || again == tmp + "/");
}

TEST(RuntimeDirTest, PathOfLogicalNames)
{
    RuntimeBase base;
    EXPECT_EQ(kuv::runtimePath("/tmp/kuv-gui"), base.kuv() + "/kuv-gui");
    EXPECT_EQ(kuv::runtimePath("./kuv_zell"), base.kuv() + "/kuv_zell");
    EXPECT_EQ(kuv::runtimePath("plain"), base.kuv() + "/plain");
    std::string error;
    EXPECT_EQ(kuv::runtimePath("", &error), "");
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(kuv::runtimePath("/tmp/..", &error), "");
}

TEST(WriteFileAtomicTest, ReplacesContentWithModeAndLeavesNoTemporary)
{
    TempDir dir;
    const std::string path = dir / "attr";
    kuvtest::writeFile(path, "old content that is longer");
    ASSERT_TRUE(kuv::writeFileAtomic(path, "new", 0600));
    EXPECT_EQ(kuvtest::readFile(path), "new");
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    ASSERT_TRUE(kuv::writeFileAtomic(path, std::string("a\0b", 3)));
    EXPECT_EQ(kuvtest::readFile(path), std::string("a\0b", 3));
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    std::list<CFileInfo> entries;
    ASSERT_TRUE(CDir::getAllFilesInDir(entries, dir.path().c_str()));
    EXPECT_EQ(entries.size(), 1u);

    EXPECT_FALSE(kuv::writeFileAtomic(dir / "no/dir/file", "x"));
    EXPECT_FALSE(kuv::writeFileAtomic("", "x"));
}


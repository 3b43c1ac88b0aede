// SPDX-License-Identifier: GPL-2.0-or-later
// CFile, CFileInfo, CDir and CStr against the real file system.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>

#include <gtest/gtest.h>

#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuv::test::TempDir;

TEST(CFileTest, CreateWriteReadRemove)
{
    TempDir dir;
    CFile file(dir / "marker");
    EXPECT_FALSE(file.exists());
    ASSERT_TRUE(file.open(std::ios::out));
    EXPECT_TRUE(file.isOpen());
    file.close(std::ios::in | std::ios::out);
    EXPECT_FALSE(file.isOpen());
    EXPECT_TRUE(file.exists());
    EXPECT_EQ(kuvtest::readFile(dir / "marker"), "");

    ASSERT_TRUE(file.open(std::ios::out));
    EXPECT_TRUE(file.Write("first\nline"));
    file.close(std::ios::out);
    ASSERT_TRUE(file.open(std::ios::in));
    std::string content;
    EXPECT_TRUE(file.ReadAll(content));
    EXPECT_EQ(content, "first\nline");
    file.close(std::ios::in);

    // Opening for output again truncates.
    ASSERT_TRUE(file.open(std::ios::out));
    EXPECT_TRUE(file.Write("x"));
    file.close(std::ios::out);
    EXPECT_EQ(kuvtest::readFile(dir / "marker"), "x");

    EXPECT_TRUE(file.remove());
    EXPECT_FALSE(file.exists());
    EXPECT_FALSE(file.remove());
}

TEST(CFileTest, ReadOfEmptyFileAndFailures)
{
    TempDir dir;
    kuvtest::writeFile(dir / "empty", "");
    CFile empty(dir / "empty");
    ASSERT_TRUE(empty.open(std::ios::in));
    std::string content = "stale";
    EXPECT_TRUE(empty.ReadAll(content));
    EXPECT_EQ(content, "");

    CFile missing(dir / "missing");
    EXPECT_FALSE(missing.open(std::ios::in));
    EXPECT_FALSE(missing.ReadAll(content));
    EXPECT_FALSE(missing.Write("x"));

    CFile inMissingDir(dir / "no/such/file");
    EXPECT_FALSE(inMissingDir.open(std::ios::out));
}

TEST(CFileTest, ExistsSeesDanglingLink)
{
    TempDir dir;
    ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (dir / "link").c_str()), 0);
    EXPECT_TRUE(CFile(dir / "link").exists());
}

TEST(CFileInfoTest, KindsAndName)
{
    TempDir dir;
    kuvtest::writeFile(dir / "a.json", "{}");
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    ASSERT_EQ(::symlink((dir / "a.json").c_str(), (dir / "l.json").c_str()), 0);

    CFileInfo file(dir / "a.json");
    EXPECT_TRUE(file.isFile());
    EXPECT_FALSE(file.isDir());
    EXPECT_FALSE(file.isSymLink());
    EXPECT_EQ(file.fileName(), "a.json");
    EXPECT_EQ(file.absoluteFilePath(), dir / "a.json");

    CFileInfo sub(dir / "sub");
    EXPECT_TRUE(sub.isDir());
    EXPECT_FALSE(sub.isFile());

    CFileInfo link(dir / "l.json");
    EXPECT_TRUE(link.isSymLink());
    EXPECT_EQ(link.absoluteFilePath(), dir / "l.json");
}

TEST(CDirTest, ListsOneLevelInDirectoryOrderWithLinks)
{
    TempDir dir;
    for (const char* name : {"b.json", "a.json", "c", ".hidden"}) {
        kuvtest::writeFile(dir / name, "{}");
    }
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0755), 0);
    kuvtest::writeFile(dir / "sub/deep.json", "{}");
    ASSERT_EQ(::symlink((dir / "a.json").c_str(), (dir / "link.json").c_str()), 0);

    // The order readdir gives is the order expected.
    std::vector<std::string> expected;
    DIR* d = ::opendir(dir.path().c_str());
    ASSERT_NE(d, nullptr);
    while (const struct dirent* e = ::readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") {
            expected.push_back(dir / n);
        }
    }
    ::closedir(d);

    std::list<CFileInfo> out;
    out.emplace_back(dir / "stale-entry");
    ASSERT_TRUE(CDir::getAllFilesInDir(out, dir.path().c_str()));
    std::vector<std::string> got;
    int links = 0;
    for (const CFileInfo& info : out) {
        got.push_back(info.absoluteFilePath());
        if (info.isSymLink()) {
            ++links;
            EXPECT_EQ(info.fileName(), "link.json");
        }
    }
    EXPECT_EQ(got, expected);
    EXPECT_EQ(got.size(), 6u);
    EXPECT_EQ(links, 1);
    EXPECT_EQ(std::count(got.begin(), got.end(), dir / "sub/deep.json"), 0);
}

TEST(CDirTest, MissingDirectoryIsFalseAndClears)
{
    std::list<CFileInfo> out;
    out.emplace_back("/x");
    EXPECT_FALSE(CDir::getAllFilesInDir(out, "/nonexistent/kuv/dir"));
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(CDir::getAllFilesInDir(out, nullptr));
}

TEST(CDirTest, CurrentDirIsTheExecutablesDirectoryWhateverTheWorkingDirectory)
{
    char exe[PATH_MAX + 1];
    const ssize_t n = ::readlink("/proc/self/exe", exe, PATH_MAX);
    ASSERT_GT(n, 0);
    std::string expected(exe, static_cast<size_t>(n));
    expected.erase(expected.rfind('/'));

    char cwd[PATH_MAX];
    ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(::chdir("/"), 0);
    const std::string got = CDir::currentDir();
    ASSERT_EQ(::chdir(cwd), 0);
    EXPECT_EQ(got, expected);
    EXPECT_NE(got.back(), '/');
}

TEST(CDirTest, MkpathCreatesParents)
{
    TempDir dir;
    EXPECT_TRUE(CDir::mkpath(dir / "a/b/c", 0750));
    struct stat st;
    ASSERT_EQ(::stat((dir / "a/b/c").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(CDir::mkpath(dir / "a/b/c/", 0750));
    kuvtest::writeFile(dir / "file", "");
    EXPECT_FALSE(CDir::mkpath(dir / "file", 0750));
    EXPECT_FALSE(CDir::mkpath(dir / "file/x", 0750));
}

TEST(CStrTest, CaseAndTrim)
{
    std::string text = "AbC-Ö-09 xyZ";
    CStr::toLower(text);
    EXPECT_EQ(text, "abc-Ö-09 xyz");
    CStr::toUpper(text);
    EXPECT_EQ(text, "ABC-Ö-09 XYZ");
    EXPECT_EQ(CStr::trim("  \t a b \r\n"), "a b");
    EXPECT_EQ(CStr::trim(" \n "), "");
    EXPECT_EQ(CStr::trim(""), "");
}

// What kuv::openNoFollow refuses, and the errno that says why.
struct RefusedOpen {
    const char* name;
    int flags;
    int error;
};

class OpenNoFollowRefuses : public ::testing::TestWithParam<RefusedOpen> {};

TEST_P(OpenNoFollowRefuses, WithoutBlockingOrFollowing)
{
    TempDir dir;
    kuvtest::writeFile(dir / "target", "kept");
    ASSERT_EQ(::symlink((dir / "target").c_str(), (dir / "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0700), 0);

    const RefusedOpen& c = GetParam();
    errno = 0;
    const kuv::UniqueFd fd = kuv::openNoFollow(dir / c.name, c.flags);
    EXPECT_FALSE(fd.valid());
    EXPECT_EQ(errno, c.error) << std::strerror(errno);
    EXPECT_EQ(kuvtest::readFile(dir / "target"), "kept") << "nothing written through the link";
}

INSTANTIATE_TEST_SUITE_P(Cases, OpenNoFollowRefuses,
                         ::testing::Values(RefusedOpen{"link", O_WRONLY | O_CREAT | O_TRUNC, ELOOP},
                                           RefusedOpen{"link", O_RDONLY, ELOOP},
                                           RefusedOpen{"fifo", O_RDONLY, EINVAL},
                                           RefusedOpen{"sub", O_RDONLY, EINVAL},
                                           RefusedOpen{"missing", O_RDONLY, ENOENT}),
                         [](const ::testing::TestParamInfo<RefusedOpen>& info) {
                             return std::string(info.param.name) + "_" + std::to_string(info.index);
                         });

TEST(OpenNoFollow, CreatesPrivateBlockingCloseOnExecAndReportsStatus)
{
    TempDir dir;
    const mode_t oldMask = ::umask(022);
    struct stat st {};
    const kuv::UniqueFd fd = kuv::openNoFollow(dir / "new.log", O_WRONLY | O_CREAT | O_APPEND, 0600, &st);
    ::umask(oldMask);
    ASSERT_TRUE(fd.valid()) << std::strerror(errno);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, 0);
    const int status = ::fcntl(fd.get(), F_GETFL);
    EXPECT_EQ(status & O_NONBLOCK, 0);
    EXPECT_NE(status & O_APPEND, 0);
    EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(TempDirTest, RemovesItselfWithUnwritableSubdirectories)
{
    std::string path;
    {
        TempDir dir("kuvtempdir");
        path = dir.path();
        EXPECT_NE(path.find("/kuvtempdir-"), std::string::npos);
        ASSERT_EQ(::mkdir((dir / "locked").c_str(), 0700), 0);
        kuvtest::writeFile(dir / "locked/file", "x");
        ASSERT_EQ(::chmod((dir / "locked").c_str(), 0500), 0);
        ASSERT_EQ(::symlink("/", (dir / "root-link").c_str()), 0);
    }
    EXPECT_FALSE(kuvtest::exists(path));
}

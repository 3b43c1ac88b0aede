// SPDX-License-Identifier: GPL-2.0-or-later
// CFile::ReadAll on files that change under it, and the installation directory as the environment
// and the executable give it.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuv::test::TempDir;
using kuvtest::ScopedEnv;

namespace {

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
    }
    return text;
}

void appendTo(const std::string& path, const std::string& text)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
}

bool readWhole(const std::string& path, std::string& content)
{
    CFile file(path);
    if (!file.open(std::ios::in)) {
        return false;
    }
    return file.ReadAll(content);
}

} // namespace

TEST(CFileReadAll, ARegularFileComesBackByteForByte)
{
    TempDir dir;
    for (size_t size : {size_t{1}, size_t{150}, size_t{16383}, size_t{16384}, size_t{16385}, size_t{100000}}) {
        const std::string text = pattern(size);
        kuvtest::writeFile(dir / "file", text);
        std::string content = "stale";
        ASSERT_TRUE(readWhole(dir / "file", content)) << size;
        EXPECT_EQ(content, text) << size;
    }
}

TEST(CFileReadAll, AnEmptyFileIsEmptyText)
{
    TempDir dir;
    kuvtest::writeFile(dir / "empty", "");
    std::string content = "stale";
    ASSERT_TRUE(readWhole(dir / "empty", content));
    EXPECT_EQ(content, "");
}

TEST(CFileReadAll, AFileOfExactlyTheCapIsReadAndOneByteMoreIsNot)
{
    TempDir dir;
    const std::string text = pattern(static_cast<size_t>(CFile::kMaxReadAll));
    kuvtest::writeFile(dir / "cap", text);
    std::string content;
    ASSERT_TRUE(readWhole(dir / "cap", content));
    EXPECT_EQ(content.size(), CFile::kMaxReadAll);
    EXPECT_TRUE(content == text);

    appendTo(dir / "cap", "x");
    content = "stale";
    errno = 0;
    EXPECT_FALSE(readWhole(dir / "cap", content));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_TRUE(content.empty());
}

TEST(CFileReadAll, ReadingTwiceGivesTheSameContent)
{
    TempDir dir;
    kuvtest::writeFile(dir / "file", "{\"index\":1}");
    CFile file(dir / "file");
    ASSERT_TRUE(file.open(std::ios::in));
    std::string first;
    std::string second;
    ASSERT_TRUE(file.ReadAll(first));
    ASSERT_TRUE(file.ReadAll(second));
    EXPECT_EQ(first, "{\"index\":1}");
    EXPECT_EQ(second, first);
}

TEST(CFileReadAll, AFileThatGrowsAfterTheOpenIsReadToItsNewEnd)
{
    TempDir dir;
    const std::string start = "0123456789";
    for (size_t grown : {size_t{1}, size_t{6}, size_t{20000}, size_t{300000}}) {
        kuvtest::writeFile(dir / "file", start);
        CFile file(dir / "file");
        ASSERT_TRUE(file.open(std::ios::in));
        const std::string more = pattern(grown);
        appendTo(dir / "file", more);
        std::string content;
        ASSERT_TRUE(file.ReadAll(content)) << grown;
        EXPECT_TRUE(content == start + more) << grown << " bytes added, " << content.size() << " read";
    }
}

TEST(CFileReadAll, AFileThatShrinksAfterTheOpenIsReadToItsNewEnd)
{
    TempDir dir;
    kuvtest::writeFile(dir / "file", pattern(5000));
    CFile file(dir / "file");
    ASSERT_TRUE(file.open(std::ios::in));
    ASSERT_EQ(::truncate((dir / "file").c_str(), 1234), 0);
    std::string content;
    ASSERT_TRUE(file.ReadAll(content));
    EXPECT_TRUE(content == pattern(1234)) << content.size();
}

TEST(CFileReadAll, AFileThatGrowsPastTheCapAfterTheOpenIsRefused)
{
    TempDir dir;
    kuvtest::writeFile(dir / "file", "small");
    CFile file(dir / "file");
    ASSERT_TRUE(file.open(std::ios::in));
    ASSERT_EQ(::truncate((dir / "file").c_str(), static_cast<off_t>(CFile::kMaxReadAll) + 1), 0);
    std::string content = "stale";
    errno = 0;
    EXPECT_FALSE(file.ReadAll(content));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_TRUE(content.empty());
}

TEST(CFileReadAll, AFileThatReportsNoSizeIsReadToItsEnd)
{
    // /proc files are regular with a size of 0.
    std::string content;
    ASSERT_TRUE(readWhole("/proc/self/status", content));
    EXPECT_EQ(content.compare(0, 5, "Name:"), 0) << content.substr(0, 40);
    EXPECT_NE(content.find("\nPid:"), std::string::npos);
}

TEST(CFileReadAll, LinksDirectoriesAndFifosAreRefusedWithoutBlocking)
{
    TempDir dir;
    kuvtest::writeFile(dir / "real", "content");
    ASSERT_EQ(::symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
    ASSERT_EQ(::mkdir((dir / "sub").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);

    // Run apart, so that a blocking open fails the test instead of hanging it.
    auto refused = std::async(std::launch::async, [&] {
        std::string content;
        int opened = 0;
        for (const char* name : {"link", "sub", "fifo"}) {
            CFile file(dir / name);
            if (file.open(std::ios::in) || file.ReadAll(content)) {
                ++opened;
            }
        }
        // A FIFO with a writer (and data waiting) is refused too.
        const int writer = ::open((dir / "fifo").c_str(), O_RDWR | O_NONBLOCK);
        if (writer >= 0) {
            (void)::write(writer, "x", 1);
            CFile file(dir / "fifo");
            if (file.open(std::ios::in)) {
                ++opened;
            }
            ::close(writer);
        }
        return opened;
    });
    ASSERT_EQ(refused.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "an open blocked";
    EXPECT_EQ(refused.get(), 0);
    std::string content;
    ASSERT_TRUE(readWhole(dir / "real", content));
    EXPECT_EQ(content, "content");
}

TEST(CFileReadAll, AFileOpenedForWritingOnlyIsNotRead)
{
    TempDir dir;
    kuvtest::writeFile(dir / "file", "secret");
    CFile file(dir / "file");
    ASSERT_TRUE(file.open(std::ios::out));
    std::string content = "stale";
    EXPECT_FALSE(file.ReadAll(content));
    EXPECT_TRUE(content.empty());
}

TEST(CFileReadAll, AFileOpenedForReadingAndWritingReadsWhatWasWritten)
{
    TempDir dir;
    CFile file(dir / "file");
    ASSERT_TRUE(file.open(std::ios::in | std::ios::out));
    ASSERT_TRUE(file.Write("written after the open"));
    std::string content;
    ASSERT_TRUE(file.ReadAll(content));
    EXPECT_EQ(content, "written after the open");
}

TEST(InstallDir, TheEnvironmentWinsAtEveryCallAndTheExecutableGivesTheRest)
{
    char exe[PATH_MAX + 1];
    const ssize_t n = ::readlink("/proc/self/exe", exe, PATH_MAX);
    ASSERT_GT(n, 0);
    std::string fromExe(exe, static_cast<size_t>(n));
    fromExe.erase(fromExe.rfind('/')); // DIR/bin
    fromExe.erase(fromExe.rfind('/') + 1); // DIR/

    {
        ScopedEnv unset("KUV_INSTALL_DIR", nullptr);
        EXPECT_EQ(kuv::installDir(), fromExe);
        ScopedEnv empty("KUV_INSTALL_DIR", "");
        EXPECT_EQ(kuv::installDir(), fromExe) << "an empty value counts as unset";
    }
    {
        ScopedEnv set("KUV_INSTALL_DIR", "/opt/first");
        EXPECT_EQ(kuv::installDir(), "/opt/first/");
    }
    {
        ScopedEnv set("KUV_INSTALL_DIR", "/opt/second/");
        EXPECT_EQ(kuv::installDir(), "/opt/second/");
    }
    ScopedEnv unset("KUV_INSTALL_DIR", nullptr);
    EXPECT_EQ(kuv::installDir(), fromExe);
}

// The paths of a record written by an exit handler or a static destructor are still mapped, after exit()
// has destroyed the main thread's per-thread objects (the sanitizer build reports a use after free).
TEST(InstallDirDeathTest, UserStatePathWorksInAnExitHandler)
{
    TempDir one;
    ScopedEnv i("KUV_INSTALL_DIR", one.path().c_str());
    static std::string g_install;
    g_install = one.path();
    EXPECT_EXIT(
        {
            if (kuv::userStatePath(g_install + "/log/a.log") != g_install + "/log/a.log") {
                _exit(2);
            }
            std::atexit([] {
                _exit(kuv::userStatePath(g_install + "/log/b.log") == g_install + "/log/b.log" ? 0 : 3);
            });
            std::exit(7);
        },
        testing::ExitedWithCode(0), "");
}

TEST(InstallDir, UserStatePathFollowsTheInstallationOfTheMoment)
{
    TempDir one;
    TempDir two;
    TempDir state;
    ScopedEnv s("XDG_STATE_HOME", state.path().c_str());
    {
        ScopedEnv i("KUV_INSTALL_DIR", one.path().c_str());
        // An installation of the user keeps its paths, spelt as they were given.
        EXPECT_EQ(kuv::userStatePath(one.path() + "//etc/plugins-gui/combo_plugin_map/a.json"),
                  one.path() + "//etc/plugins-gui/combo_plugin_map/a.json");
        EXPECT_EQ(kuv::userStatePath(one.path() + "//log/"), one.path() + "//log/");
        CFile file(one.path() + "/./log/../etc/x");
        EXPECT_EQ(file.path(), one.path() + "/./log/../etc/x");
    }
    {
        // Another installation of the moment, shared: its areas map into the state directory.
        ScopedEnv i("KUV_INSTALL_DIR", "/usr/share");
        if (::geteuid() != 0) {
            EXPECT_EQ(kuv::userStatePath("/usr/share//data/pubcfg/x"), state.path() + "/kuv/data/pubcfg/x");
            EXPECT_EQ(kuv::userStatePath("/usr/share/etc/../log"), state.path() + "/kuv/log");
        }
        EXPECT_EQ(kuv::userStatePath("/usr/share/logs/x"), "/usr/share/logs/x");
        EXPECT_EQ(kuv::userStatePath("/usr/shared/log/x"), "/usr/shared/log/x");
        EXPECT_EQ(kuv::userStatePath("relative/log/x"), "relative/log/x");
        EXPECT_EQ(kuv::userStatePath(""), "");
    }
    {
        ScopedEnv i("KUV_INSTALL_DIR", two.path().c_str());
        EXPECT_EQ(kuv::userStatePath(two.path() + "/log/x.log"), two.path() + "/log/x.log");
        EXPECT_EQ(kuv::userStatePath("/usr/share/log/x"), "/usr/share/log/x");
    }
}

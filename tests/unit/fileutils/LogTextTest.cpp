// SPDX-License-Identifier: GPL-2.0-or-later
// The log escaping rule, the record cap, whole-record appends, per-user state paths and CFile's checks.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuv::test::TempDir;

namespace {

std::string bytes(const char* p, size_t n) { return std::string(p, n); }

// Sets an environment variable for the life of the object.
class EnvVar {
public:
    EnvVar(const char* name, const std::string& value) : m_name(name)
    {
        const char* old = std::getenv(name);
        m_had = old != nullptr;
        if (m_had) {
            m_old = old;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~EnvVar()
    {
        if (m_had) {
            ::setenv(m_name, m_old.c_str(), 1);
        } else {
            ::unsetenv(m_name);
        }
    }

private:
    const char* m_name;
    bool m_had = false;
    std::string m_old;
};

} // namespace

TEST(LogRule, ControlsBackslashAndSeparatorsAreEscaped)
{
    EXPECT_EQ(kuv::escapeControl("plain text"), "plain text");
    EXPECT_EQ(kuv::escapeControl("a\nb\rc\td"), "a\\nb\\rc\\td");
    EXPECT_EQ(kuv::escapeControl(bytes("\x01\x1f\x7f", 3)), "\\x01\\x1f\\x7f");
    EXPECT_EQ(kuv::escapeControl(bytes("x\0y", 3)), "x\\x00y");
    // A literal backslash-n must not read like an escaped line feed.
    EXPECT_EQ(kuv::escapeControl("a\\nb"), "a\\\\nb");
    // C1 controls (NEL, CSI) and the Unicode line and paragraph separators.
    EXPECT_EQ(kuv::escapeControl("a\xc2\x85" "b\xc2\x9b" "c"), "a\\u0085b\\u009bc");
    EXPECT_EQ(kuv::escapeControl("a\xe2\x80\xa8" "b\xe2\x80\xa9" "c"), "a\\u2028b\\u2029c");
    // Other text beyond ASCII passes untouched.
    EXPECT_EQ(kuv::escapeControl("删除文件 é €"), "删除文件 é €");
    EXPECT_EQ(kuv::escapeControl("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
}

TEST(LogRule, BytesThatAreNotUtf8AreWrittenAsHex)
{
    EXPECT_EQ(kuv::escapeControl("\x9b" "3"), "\\x9b3");
    EXPECT_EQ(kuv::escapeControl("\xff\xfe"), "\\xff\\xfe");
    EXPECT_EQ(kuv::escapeControl("\xc0\xaf"), "\\xc0\\xaf");         // overlong "/"
    EXPECT_EQ(kuv::escapeControl("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // surrogate
    EXPECT_EQ(kuv::escapeControl("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // above U+10FFFF
    EXPECT_EQ(kuv::escapeControl("\xe5\x88"), "\\xe5\\x88");         // cut short
    EXPECT_EQ(kuv::escapeControl("\xe5\x88" "x"), "\\xe5\\x88x");
}

TEST(LogRule, NoEscapedTextContainsALineBreakForAnyReader)
{
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
    }
    all += "\xc2\x85\xe2\x80\xa8\xe2\x80\xa9";
    const std::string out = kuv::escapeControl(all);
    for (unsigned char c : out) {
        EXPECT_TRUE(c >= 0x20 && c < 0x7f) << int(c);
    }
}

TEST(LogRule, BackslashesCanBeLeftForTextThatIsEscapedAlready)
{
    EXPECT_EQ(kuv::escapeControl("a\\nb\x1b[1m", false), "a\\nb\\x1b[1m");
}

TEST(LogRule, MessageDropsOneFinalLineFeedAndIsCutWithAMarker)
{
    EXPECT_EQ(kuv::logMessage("line\n"), "line");
    EXPECT_EQ(kuv::logMessage("line\n\n"), "line\\n");
    const std::string big(100000, 'x');
    const std::string cut = kuv::logMessage(big);
    EXPECT_EQ(cut, std::string(kuv::kMaxLogMessage, 'x') + " [... " +
                       std::to_string(100000 - kuv::kMaxLogMessage) + " bytes cut]");
    // An escape is never split by the cut.
    const std::string controls(20000, '\x01');
    const std::string cutControls = kuv::logMessage(controls);
    const size_t marker = cutControls.find(" [... ");
    ASSERT_NE(marker, std::string::npos);
    EXPECT_EQ(marker % 4, 0u);
    EXPECT_LE(marker, kuv::kMaxLogMessage);
    EXPECT_EQ(cutControls.substr(marker), " [... " + std::to_string(20000 - marker / 4) + " bytes cut]");
    EXPECT_EQ(kuv::logMessage("short", 100, 7), "short [... 7 bytes cut]");
}

TEST(StatePaths, AnInstallationOfTheUserKeepsItsOwnPaths)
{
    TempDir install;
    TempDir state;
    EnvVar i("KUV_INSTALL_DIR", install.path());
    EnvVar s("XDG_STATE_HOME", state.path());
    const std::string dir = install.path() + "/";
    EXPECT_EQ(kuv::installDir(), dir);
    EXPECT_TRUE(kuv::ownInstallation(dir));
    EXPECT_EQ(kuv::userStatePath(dir + "/log/"), dir + "/log/");
    EXPECT_EQ(kuv::userStatePath(dir + "data/pubcfg/.guiexit"), dir + "data/pubcfg/.guiexit");
}

// Runs body as uid 65534 when this test runs as root (who owns nothing it cannot write); the child's
// expectations decide its exit status.
template <typename F>
void asAnotherUser(const std::string& ownDir, F body)
{
    if (::geteuid() != 0) {
        body();
        return;
    }
    ASSERT_EQ(::chown(ownDir.c_str(), 65534, 65534), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(10);
        }
        body();
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(StatePaths, ASharedInstallationMapsLogAndPubcfgIntoTheStateDirectory)
{
    TempDir state;
    // A directory the user does not own stands for the package's /opt/kuv.
    EnvVar i("KUV_INSTALL_DIR", "/usr/share/");
    EnvVar s("XDG_STATE_HOME", state.path());
    asAnotherUser(state.path(), [&] {
        EXPECT_FALSE(kuv::ownInstallation("/usr/share/"));
        const std::string kuvState = state.path() + "/kuv/";
        EXPECT_EQ(kuv::userStatePath("/usr/share//log/"), kuvState + "log/");
        EXPECT_EQ(kuv::userStatePath("/usr/share/bin/../log/gui/gui.ipc.log"), kuvState + "log/gui/gui.ipc.log");
        EXPECT_EQ(kuv::userStatePath("/usr/share/data/pubcfg/.guiexit"), kuvState + "data/pubcfg/.guiexit");
        EXPECT_EQ(kuv::userStatePath("/usr/share/logbook"), "/usr/share/logbook");
        EXPECT_EQ(kuv::userStatePath("/usr/share/etc/gui_shell.conf"), "/usr/share/etc/gui_shell.conf");
        EXPECT_EQ(kuv::userStatePath("/elsewhere/log/x.log"), "/elsewhere/log/x.log");
        struct stat st;
        ASSERT_EQ(::lstat(kuvState.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0700u);

        // The marker goes where the mapping says, created private.
        CFile marker("/usr/share/data/pubcfg/.guiexit");
        EXPECT_EQ(marker.path(), kuvState + "data/pubcfg/.guiexit");
        ASSERT_TRUE(CDir::mkpath(kuvState + "data/pubcfg", 0700));
        ASSERT_TRUE(marker.open(std::ios::out));
        marker.close(std::ios::out);
        ASSERT_EQ(::lstat(marker.path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_TRUE(marker.remove());
    });
}

TEST(StatePaths, AStateDirectoryThatIsALinkIsRefused)
{
    TempDir state;
    TempDir elsewhere;
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), (state / "kuv").c_str()), 0);
    EnvVar s("XDG_STATE_HOME", state.path());
    std::string error;
    EXPECT_EQ(kuv::userStateDir(&error), "");
    EXPECT_NE(error.find("refused"), std::string::npos) << error;
}

TEST(CFileChecks, OnlyRegularFilesAreReadAndNeverThroughALink)
{
    TempDir dir;
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    CFile fifo(dir / "fifo");
    EXPECT_FALSE(fifo.open(std::ios::in)) << "a FIFO must not block or be read";
    CFile directory(dir.path());
    EXPECT_FALSE(directory.open(std::ios::in));

    {
        std::ofstream out(dir / "real", std::ios::binary);
        out << "content";
    }
    ASSERT_EQ(::symlink((dir / "real").c_str(), (dir / "link").c_str()), 0);
    CFile link(dir / "link");
    EXPECT_FALSE(link.open(std::ios::in));
    EXPECT_FALSE(link.open(std::ios::out));
    EXPECT_EQ(kuvtest::readFile(dir / "real"), "content");

    CFile real(dir / "real");
    ASSERT_TRUE(real.open(std::ios::in));
    std::string content;
    EXPECT_TRUE(real.ReadAll(content));
    EXPECT_EQ(content, "content");
}

TEST(CFileChecks, AFileLargerThanTheCapIsNotRead)
{
    TempDir dir;
    const std::string path = dir / "big";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(CFile::kMaxReadAll) + 1), 0);
    ::close(fd);
    CFile big(path);
    ASSERT_TRUE(big.open(std::ios::in));
    std::string content;
    EXPECT_FALSE(big.ReadAll(content));
    EXPECT_TRUE(content.empty());
}

// Another user who creates /tmp/kuv-<uid> first does not stop the user: a private directory under the
// user's home is taken instead, by this process and by every later one.
TEST(RuntimeFallback, ASquattedTmpDirectoryIsAvoided)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to play two users";
    }
    const uid_t victim = 65534;
    const std::string squatted = "/tmp/kuv-" + std::to_string(victim);
    struct stat st;
    if (::lstat(squatted.c_str(), &st) == 0) {
        GTEST_SKIP() << squatted << " exists already";
    }
    TempDir home;
    ASSERT_EQ(::chown(home.path().c_str(), victim, victim), 0);
    ASSERT_EQ(::mkdir(squatted.c_str(), 0700), 0); // root's, as another user would leave it
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(pipeFds[0]);
        ::dup2(pipeFds[1], STDERR_FILENO);
        if (::setgid(victim) != 0 || ::setuid(victim) != 0) {
            ::_exit(10);
        }
        ::unsetenv("XDG_RUNTIME_DIR");
        ::setenv("HOME", home.path().c_str(), 1);
        std::string error;
        const std::string first = kuv::runtimeDir(&error);
        const std::string again = kuv::runtimeDir(&error);
        if (first != home.path() + "/.cache/kuv/runtime/" || again != first) {
            ::_exit(11);
        }
        if (kuv::runtimeDirNotice().find("is taken by uid 0 (root)") == std::string::npos) {
            ::_exit(12);
        }
        struct stat own;
        if (::lstat(first.c_str(), &own) != 0 || (own.st_mode & 07777) != 0700 || own.st_uid != victim) {
            ::_exit(13);
        }
        ::_exit(0);
    }
    ::close(pipeFds[1]);
    std::string err;
    char buf[512];
    ssize_t n;
    while ((n = ::read(pipeFds[0], buf, sizeof buf)) > 0) {
        err.append(buf, static_cast<size_t>(n));
    }
    ::close(pipeFds[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::rmdir(squatted.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << err;
    // Said once on stderr, with the owner.
    EXPECT_EQ(err, "kuv: " + squatted + "/ is taken by uid 0 (root); using " + home.path() +
                       "/.cache/kuv/runtime/ instead\n");
}

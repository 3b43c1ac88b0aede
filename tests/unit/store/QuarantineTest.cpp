// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "TempDir.h"
#include "Harness.h"
#include "Quarantine.h"
#include "Sha256.h"

using namespace kuv::store;

namespace {

// Content that a scanner might know; stored, it must not appear anywhere in the quarantine.
std::string sampleContent(size_t size)
{
    std::string s = "MARKER-ORIGINAL-CONTENT-";
    while (s.size() < size) {
        s += static_cast<char>('a' + (s.size() * 31) % 26);
    }
    s.resize(size);
    return s;
}

void makeFile(const std::string& path, const std::string& content, mode_t mode, time_t mtime)
{
    kuvtest::writeFile(path, content);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    const struct timespec t[2] = {{mtime - 100, 123456789}, {mtime, 987654321}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0);
}

std::vector<std::string> listDir(const std::string& dir)
{
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        out.push_back(e.path().filename().string());
    }
    return out;
}

bool exists(const std::string& p)
{
    struct stat st {};
    return lstat(p.c_str(), &st) == 0;
}

// A directory on another file system than $TMPDIR (tmpfs /dev/shm), removed afterwards.
class ShmDir {
public:
    ShmDir()
    {
        try {
            m_dir = std::make_unique<kuv::test::TempDir>("kuvstore", "/dev/shm");
            m_path = m_dir->path();
        } catch (const std::runtime_error&) {
            // No tmpfs here: path() stays empty and the test skips.
        }
    }
    const std::string& path() const { return m_path; }

private:
    std::unique_ptr<kuv::test::TempDir> m_dir;
    std::string m_path;
};

void expectRestoredExactly(const std::string& path, const std::string& content, mode_t mode, time_t mtime,
                           bool checkAtime = true)
{
    struct stat st {};
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, mode);
    EXPECT_EQ(st.st_mtim.tv_sec, mtime);
    EXPECT_EQ(st.st_mtim.tv_nsec, 987654321);
    if (checkAtime) {
        EXPECT_EQ(st.st_atim.tv_sec, mtime - 100);
    }
    EXPECT_EQ(kuvtest::readFile(path), content);
}

} // namespace

TEST(Quarantine, RoundTripKeepsPathModeTimesAndContentAndStoresItNeutralised)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/data/kuv";
    std::string error;
    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store) << error;
    struct stat st {};
    ASSERT_EQ(stat((data + "/quarantine").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    const std::string victim = dir.path() + std::string("/odd name \xff.exe");
    const std::string content = sampleContent(200000);
    makeFile(victim, content, 0751, 1600000000);
    QuarantineEntry e;
    const QResult r = store->quarantine(victim, "Test.Signature", "job-1", &e);
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_FALSE(exists(victim));
    EXPECT_EQ(e.originalPath, victim);
    EXPECT_EQ(e.mode, 0751u);
    EXPECT_EQ(e.size, content.size());
    Sha256 h;
    h.update(content.data(), content.size());
    EXPECT_EQ(e.sha256, h.hexFinish());

    const std::string stored = data + "/quarantine/" + QuarantineStore::storedName(e.id);
    ASSERT_EQ(stat(stored.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    const std::string raw = kuvtest::readFile(stored);
    EXPECT_EQ(raw.find("MARKER-ORIGINAL-CONTENT"), std::string::npos);
    EXPECT_EQ(raw.find(content.substr(5000, 64)), std::string::npos);

    const auto list = store->list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].signature, "Test.Signature");
    EXPECT_EQ(list[0].originalPath, victim);

    std::string to;
    const QResult back = store->restore(e.id, RestoreMode::Refuse, &to);
    ASSERT_TRUE(back.ok()) << back.message;
    EXPECT_EQ(to, victim);
    expectRestoredExactly(victim, content, 0751, 1600000000);
    EXPECT_TRUE(store->list().empty());
    EXPECT_FALSE(exists(stored));
    for (const std::string& n : listDir(dir.path())) {
        EXPECT_EQ(n.find(".kuv-restore-"), std::string::npos) << n;
    }
}

TEST(Quarantine, SameNamesStayApartAndRestoreNeverOverwrites)
{
    kuvtest::TempDir dir;
    std::string error;
    auto store = QuarantineStore::open(dir.path() + "/d", error);
    ASSERT_TRUE(store) << error;
    const std::string victim = dir.path() + "/same.txt";
    makeFile(victim, "first", 0644, 1500000000);
    QuarantineEntry a, b;
    ASSERT_TRUE(store->quarantine(victim, "S", "", &a).ok());
    makeFile(victim, "second", 0600, 1500000001);
    ASSERT_TRUE(store->quarantine(victim, "S", "", &b).ok());
    EXPECT_NE(a.id, b.id);
    EXPECT_EQ(store->list().size(), 2u);

    // Something stands there now: refused, nothing changed.
    makeFile(victim, "new file the user made", 0644, 1500000002);
    QResult r = store->restore(a.id, RestoreMode::Refuse);
    EXPECT_EQ(r.status, QStatus::Exists) << r.message;
    EXPECT_EQ(kuvtest::readFile(victim), "new file the user made");
    EXPECT_EQ(store->list().size(), 2u);

    std::string to;
    r = store->restore(a.id, RestoreMode::Beside, &to);
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(to, victim + ".restored");
    EXPECT_EQ(kuvtest::readFile(to), "first");
    r = store->restore(b.id, RestoreMode::Beside, &to);
    ASSERT_TRUE(r.ok()) << r.message;
    EXPECT_EQ(to, victim + ".restored-2");
    EXPECT_EQ(kuvtest::readFile(to), "second");
    EXPECT_EQ(kuvtest::readFile(victim), "new file the user made");
    EXPECT_TRUE(store->list().empty());
}

TEST(Quarantine, RefusesWhatIsNotARegularFileAndDeletes)
{
    kuvtest::TempDir dir;
    std::string error;
    auto store = QuarantineStore::open(dir.path() + "/d", error);
    ASSERT_TRUE(store) << error;
    const std::string target = dir.path() + "/target";
    kuvtest::writeFile(target, "keep me");
    ASSERT_EQ(symlink(target.c_str(), (dir.path() + "/link").c_str()), 0);
    EXPECT_EQ(store->quarantine(dir.path() + "/link", "S", "").status, QStatus::NotRegular);
    EXPECT_EQ(store->quarantine(dir.path(), "S", "").status, QStatus::NotRegular);
    EXPECT_EQ(store->quarantine(dir.path() + "/missing", "S", "").status, QStatus::NotFound);
    EXPECT_EQ(kuvtest::readFile(target), "keep me");
    EXPECT_TRUE(exists(dir.path() + "/link"));

    QuarantineEntry e;
    ASSERT_TRUE(store->quarantine(target, "S", "", &e).ok());
    EXPECT_TRUE(store->remove(e.id).ok());
    EXPECT_TRUE(store->list().empty());
    EXPECT_EQ(store->remove(e.id).status, QStatus::NotFound);
    EXPECT_EQ(store->restore("../../etc", RestoreMode::Refuse).status, QStatus::NotFound);
}

TEST(Quarantine, IndexIsRebuiltFromTheStoredFilesWhenTheDatabaseIsLost)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/d";
    std::string error;
    QuarantineEntry e;
    {
        auto store = QuarantineStore::open(data, error);
        ASSERT_TRUE(store) << error;
        makeFile(dir.path() + "/v", "payload", 0640, 1400000000);
        ASSERT_TRUE(store->quarantine(dir.path() + "/v", "Sig", "", &e).ok());
    }
    kuvtest::writeFile(data + "/history.sqlite", std::string(4096, '\x5a'));
    unlink((data + "/history.sqlite-wal").c_str());
    unlink((data + "/history.sqlite-shm").c_str());
    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store) << error;
    bool keptAside = false;
    for (const std::string& n : store->notices()) {
        keptAside = keptAside || n.find("kept it as") != std::string::npos;
    }
    EXPECT_TRUE(keptAside);
    const auto list = store->list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, e.id);
    EXPECT_EQ(list[0].signature, "Sig");
    ASSERT_TRUE(store->restore(e.id, RestoreMode::Refuse).ok());
    EXPECT_EQ(kuvtest::readFile(dir.path() + "/v"), "payload");
}

namespace {

// Quarantines (then restores) a file in a child that is killed at step n; checks that the file is
// where it was or complete in the quarantine, and that the next open leaves no debris.
void crashAt(const std::string& srcDir, int n)
{
    SCOPED_TRACE("step " + std::to_string(n) + " source in " + srcDir);
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/d";
    const std::string victim = srcDir + "/victim-" + std::to_string(n) + ".bin";
    const std::string content = sampleContent(300000);
    makeFile(victim, content, 0750, 1300000000);
    const bool restoring = n > 10;
    if (restoring) {
        std::string error;
        auto store = QuarantineStore::open(data, error);
        ASSERT_TRUE(store) << error;
        ASSERT_TRUE(store->quarantine(victim, "S", "").ok());
    }
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        QuarantineStore::setStepHook([n](int s) {
            if (s == n) {
                kill(getpid(), SIGKILL);
            }
        });
        std::string error;
        auto store = QuarantineStore::open(data, error);
        if (!store) {
            _exit(3);
        }
        if (restoring) {
            const auto list = store->list();
            _exit(list.size() == 1 && store->restore(list[0].id, RestoreMode::Refuse).ok() ? 0 : 4);
        }
        _exit(store->quarantine(victim, "S", "").ok() ? 0 : 5);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;

    // Right after the crash: the original is intact where it was, or a complete copy is stored.
    const std::string qdir = data + "/quarantine";
    bool storedComplete = false;
    for (const std::string& name : listDir(qdir)) {
        if (name.size() > 3 && name.substr(name.size() - 3) == ".kq") {
            storedComplete = true; // renamed in only after it was complete and synced
        }
        if (name.size() > 4 && name.substr(name.size() - 4) == ".raw") {
            EXPECT_EQ(kuvtest::readFile(qdir + "/" + name), content);
            storedComplete = true;
        }
    }
    const bool inPlace = exists(victim) && kuvtest::readFile(victim) == content;
    EXPECT_TRUE(inPlace || storedComplete);

    // The next open finishes or undoes the operation.
    std::string error;
    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store) << error;
    for (const std::string& name : listDir(qdir)) {
        EXPECT_TRUE(name == ".lock" || (name.size() > 3 && name.substr(name.size() - 3) == ".kq")) << name;
    }
    for (const std::string& name : listDir(srcDir)) {
        EXPECT_EQ(name.find(".kuv-restore-"), std::string::npos) << name;
    }
    const auto list = store->list();
    const bool wasInPlace = exists(victim);
    if (wasInPlace) {
        EXPECT_TRUE(list.empty()) << "both in place and in the quarantine";
        // Reading it above may have moved its access time; a restored copy gets the recorded one.
        expectRestoredExactly(victim, content, 0750, 1300000000, false);
        // Quarantined again works after a crash.
        ASSERT_TRUE(store->quarantine(victim, "S", "").ok());
        ASSERT_EQ(store->list().size(), 1u);
    } else {
        ASSERT_EQ(list.size(), 1u) << "lost";
    }
    const auto entry = store->list().at(0);
    const QResult r = store->restore(entry.id, RestoreMode::Refuse);
    ASSERT_TRUE(r.ok()) << r.message;
    expectRestoredExactly(victim, content, 0750, 1300000000, !wasInPlace);
    unlink(victim.c_str());
}

} // namespace

// Killed at one step of a quarantine (1-7) or a restore (11-14); step 2 is the rename into the store,
// which only happens on the same file system.
class QuarantineCrash : public ::testing::TestWithParam<int> {};
class QuarantineCrashAcross : public ::testing::TestWithParam<int> {};

TEST_P(QuarantineCrash, SameFileSystem)
{
    kuvtest::TempDir src;
    crashAt(src.path(), GetParam());
}

TEST_P(QuarantineCrashAcross, ToShm)
{
    ShmDir src;
    if (src.path().empty()) {
        GTEST_SKIP() << "no /dev/shm to put the source on another file system";
    }
    kuvtest::TempDir probe;
    struct stat a {}, b {};
    ASSERT_EQ(stat(src.path().c_str(), &a), 0);
    ASSERT_EQ(stat(probe.path().c_str(), &b), 0);
    if (a.st_dev == b.st_dev) {
        GTEST_SKIP() << "/dev/shm and the temporary folder are on the same file system here";
    }
    crashAt(src.path(), GetParam());
}

TEST_P(QuarantineCrashAcross, ToAFreshTmpfsMount)
{
    kuvtest::TempDir mnt;
    if (mount("tmpfs", mnt.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=16m,mode=0700") != 0) {
        GTEST_SKIP() << "mounting a tmpfs was refused (" << strerror(errno) << "); /dev/shm covers this case";
    }
    crashAt(mnt.path(), GetParam());
    umount2(mnt.path().c_str(), MNT_DETACH);
}

INSTANTIATE_TEST_SUITE_P(Steps, QuarantineCrash, ::testing::Values(1, 2, 3, 4, 5, 6, 7, 11, 12, 13, 14));
INSTANTIATE_TEST_SUITE_P(Steps, QuarantineCrashAcross, ::testing::Values(1, 3, 4, 5, 6, 7, 11, 12, 13, 14));

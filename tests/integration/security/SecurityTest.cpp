// SPDX-License-Identifier: GPL-2.0-or-later
// The installed tree probed as another local user and with hostile input. Other users are played with
// setpriv (uids 65534 and 65533), so the suite runs as root; as anyone else it is skipped.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>
#include <zmq.h>

#include "Harness.h"
#include "ScanPaths.h"
#include "ServiceSupport.h"
#include "ZellWire.h"

using namespace kuvtest;
using svctest::Service;

namespace {

const char* const kAppGuid = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";

std::string setprivPath()
{
    for (const char* p : {"/usr/bin/setpriv", "/bin/setpriv"}) {
        if (::access(p, X_OK) == 0) {
            return p;
        }
    }
    return "setpriv";
}

std::string dirOf(const std::string& path)
{
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') {
        p.pop_back();
    }
    return p.substr(0, p.rfind('/'));
}

struct stat statOf(const std::string& path)
{
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return st;
}

// Lets other users run the installation (it stays root's and unwritable for them).
void openToOthers(const Service& svc)
{
    ::chmod(dirOf(svc.inst.dir).c_str(), 0755);
}

// A user other than the one running the tests, with a private home, runtime and state directory.
class OtherUser {
public:
    OtherUser(uid_t uid, const Service& svc, bool withRuntimeDir = true)
        : m_uid(uid), m_svc(svc), m_base("kuvuser")
    {
        home = m_base.path() + "/home";
        runtime = m_base.path() + "/run";
        state = home + "/.local/state";
        ::chmod(m_base.path().c_str(), 0755);
        ::mkdir(home.c_str(), 0700);
        ::chown(home.c_str(), uid, uid);
        if (withRuntimeDir) {
            ::mkdir(runtime.c_str(), 0700);
            ::chown(runtime.c_str(), uid, uid);
        }
        m_withRuntime = withRuntimeDir;
    }
    ~OtherUser() { stop(); }

    std::string journal() const { return home + "/journal.jsonl"; }
    std::string log() const { return state + "/kuv/log/kuvgui.log"; }
    std::string runtimeKuv() const { return runtime + "/kuv/"; }

    std::vector<std::string> env() const
    {
        return {"PATH=/usr/bin:/bin", "XDG_RUNTIME_DIR=" + (m_withRuntime ? runtime : std::string()), "HOME=" + home,
                "XDG_STATE_HOME=", "QT_QPA_PLATFORM=offscreen", "KUV_SHELL_JOURNAL=" + journal(),
                "USER=nobody", "LOGNAME=nobody"};
    }
    std::vector<std::string> as(const std::vector<std::string>& argv) const
    {
        std::vector<std::string> out = {setprivPath(), "--reuid=" + std::to_string(m_uid),
                                        "--regid=" + std::to_string(m_uid), "--clear-groups"};
        out.insert(out.end(), argv.begin(), argv.end());
        return out;
    }
    RunResult run(const std::vector<std::string>& argv) const { return kuvtest::run(as(argv), env(), 30000, "/"); }

    bool statusRunning() const
    {
        const RunResult r = run({m_svc.inst.bin("kuvctl"), "status"});
        static const std::regex running("\"?status\"?\\s*[:=]\\s*\"?3\"?");
        return r.status == 0 && std::regex_search(r.out, running);
    }

    // The user's broker and service, the way a session starts them.
    ::testing::AssertionResult start(const std::string& busSocketDir)
    {
        broker = std::make_unique<Process>(as({m_svc.inst.bin("kuv-zelld"), "--foreground"}), env(), "/");
        if (!waitUntil([&] { return svctest::exists(busSocketDir + "kuv_zell") || !broker->running(); }, 30000) ||
            !broker->running()) {
            return ::testing::AssertionFailure() << "broker of uid " << m_uid << ": " << broker->err();
        }
        service = std::make_unique<Process>(as({m_svc.inst.bin("kuvgui")}), env(), "/");
        if (!waitUntil([&] { return statusRunning() || !service->running(); }, 60000, 200) || !service->running()) {
            return ::testing::AssertionFailure() << "service of uid " << m_uid << ":\n"
                                                 << service->out() << service->err();
        }
        return ::testing::AssertionSuccess();
    }

    void stop()
    {
        if (service && service->running()) {
            run({m_svc.inst.bin("kuvgui"), "quit"});
            if (!service->wait(20000)) {
                service->signal(SIGKILL);
                service->wait(10000);
            }
        }
        if (broker && broker->running()) {
            broker->signal(SIGTERM);
            if (!broker->wait(10000)) {
                broker->signal(SIGKILL);
                broker->wait(10000);
            }
        }
    }

    std::string home;
    std::string runtime;
    std::string state;
    std::unique_ptr<Process> broker;
    std::unique_ptr<Process> service;

private:
    uid_t m_uid;
    const Service& m_svc;
    TempDir m_base;
    bool m_withRuntime = true;
};

class Security : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "other users are played with setpriv, which needs root";
        }
        if (kuvtest::run({setprivPath(), "--reuid=65534", "--regid=65534", "--clear-groups", "true"}).status != 0) {
            GTEST_SKIP() << "setpriv cannot switch users here";
        }
    }
};

long vmHwmKb(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmHWM:") == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

// One raw message on the command socket; true when the server confirmed it whole.
bool sendCommand(const std::string& socketPath, uint64_t type, const std::string& payload)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    bool ok = ::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    std::string frame(16, '\0');
    const uint64_t length = payload.size();
    std::memcpy(&frame[0], &type, 8);
    std::memcpy(&frame[8], &length, 8);
    frame += payload;
    size_t done = 0;
    while (ok && done < frame.size()) {
        const ssize_t n = ::send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            ok = false;
        } else {
            done += static_cast<size_t>(n);
        }
    }
    char ack = 0;
    ok = ok && ::recv(fd, &ack, 1, 0) == 1 && ack == 0x06;
    ::close(fd);
    return ok;
}

std::vector<std::vector<std::string>> journalScans(const std::string& path)
{
    std::vector<std::vector<std::string>> out;
    std::istringstream lines(readFile(path));
    std::string line;
    while (std::getline(lines, line)) {
        Json::Value rec;
        if (!Json::Reader().parse(line, rec) || rec.get("event", "").asString() != "ctrl" ||
            rec.get("code", -1).asInt() != 1) {
            continue;
        }
        std::vector<std::string> paths;
        for (const Json::Value& p : rec["paths"]) {
            std::string bytes;
            paths.push_back(kuvscan::pathFromJson(p, bytes) ? bytes : std::string("<lost>"));
        }
        out.push_back(paths);
    }
    return out;
}

} // namespace

// Two users on one installation that neither owns: each has a complete log of its own, which the
// other can neither read nor plant anything beside.
TEST_F(Security, TwoUsersKeepCompletePrivateLogs)
{
    Service svc;
    openToOthers(svc);
    OtherUser a(65534, svc);
    OtherUser b(65533, svc);
    ASSERT_TRUE(a.start(a.runtimeKuv()));
    ASSERT_TRUE(b.start(b.runtimeKuv()));
    EXPECT_EQ(a.run({svc.inst.bin("kuvgui"), "right", "/home/a/secret-tax-return-a.pdf"}).status, 1);
    EXPECT_EQ(b.run({svc.inst.bin("kuvgui"), "right", "/home/b/secret-tax-return-b.pdf"}).status, 1);
    ASSERT_TRUE(waitForFileContains(a.log(), "secret-tax-return-a.pdf", 30000)) << readFile(a.log());
    ASSERT_TRUE(waitForFileContains(b.log(), "secret-tax-return-b.pdf", 30000)) << readFile(b.log());

    for (const OtherUser* u : {&a, &b}) {
        const OtherUser* other = u == &a ? &b : &a;
        const uid_t uid = u == &a ? 65534 : 65533;
        // Complete: the start-up records are there too.
        EXPECT_NE(readFile(u->log()).find("[CContainerMgr] end init zell"), std::string::npos);
        EXPECT_FALSE(readFile(u->log()).find(u == &a ? "-b.pdf" : "-a.pdf") != std::string::npos);
        // Private: the file 0600, its directories 0700, all the user's.
        const struct stat file = statOf(u->log());
        EXPECT_EQ(file.st_uid, uid);
        EXPECT_EQ(file.st_mode & 0777, 0600u);
        const struct stat dir = statOf(u->state + "/kuv");
        EXPECT_EQ(dir.st_uid, uid);
        EXPECT_EQ(dir.st_mode & 0777, 0700u);
        // The other user can neither read it nor put anything beside it (the user itself can).
        EXPECT_EQ(u->run({"cat", u->log()}).status, 0);
        EXPECT_NE(other->run({"cat", u->log()}).status, 0);
        EXPECT_NE(other->run({"ln", "-s", other->home + "/.bashrc", u->state + "/kuv/log/kuvgui.zell.log"}).status,
                  0);
        EXPECT_NE(other->run({"touch", u->state + "/kuv/log/planted"}).status, 0);
        // kuvctl logs finds the user's own log.
        const RunResult logs = u->run({svc.inst.bin("kuvctl"), "logs", "--no-follow", "-n", "200"});
        EXPECT_EQ(logs.status, 0) << logs.err;
        EXPECT_NE(logs.out.find(u == &a ? "secret-tax-return-a.pdf" : "secret-tax-return-b.pdf"), std::string::npos);
    }
    // Nothing of theirs in the installation, and nobody can write there.
    EXPECT_FALSE(svctest::exists(svc.inst.dir + "log/kuvgui.log"));
    EXPECT_NE(a.run({"touch", svc.inst.dir + "log/planted"}).status, 0);
    EXPECT_NE(a.run({"touch", svc.inst.dir + "data/pubcfg/planted"}).status, 0);
}

// With the modes deliberately opened, a message of another uid is dropped by the broker, the first
// one on its connection included, while the user's own messages still arrive.
TEST_F(Security, AForeignUidsFirstBusMessageIsDropped)
{
    Service svc;
    svc.startAll();
    ASSERT_FALSE(HasFatalFailure());
    const std::string socket = svc.runtimeKuv() + "kuv_zell";
    openToOthers(svc);
    ASSERT_EQ(::chmod(svc.inst.runtime.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(svc.runtimeKuv().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(socket.c_str(), 0777), 0);

    for (int attempt = 0; attempt < 3; ++attempt) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
                ::_exit(10);
            }
            using namespace zell::wire;
            GUID dest{};
            GUID src{};
            parseGuidText(kAppGuid, dest);
            parseGuidText("0BADF00D-0000-4000-8000-000000000001", src);
            Meta meta;
            meta.type = 1003;
            meta.sequence = 1;
            std::string frame(kHeaderSize + 2 * kGuidSize + kMetaSize, '\0');
            auto* raw = reinterpret_cast<uint8_t*>(&frame[0]);
            putHeader(raw, Cmd::Send);
            putGuid(raw + kHeaderSize, dest);
            putGuid(raw + kHeaderSize + kGuidSize, src);
            putMeta(raw + kHeaderSize + 2 * kGuidSize, meta);
            frame += "FOREIGN-BODY-" + std::to_string(attempt);
            void* ctx = zmq_ctx_new();
            void* dealer = zmq_socket(ctx, ZMQ_DEALER);
            int linger = 5000;
            zmq_setsockopt(dealer, ZMQ_LINGER, &linger, sizeof linger);
            const std::string endpoint = "ipc://" + socket;
            if (zmq_connect(dealer, endpoint.c_str()) != 0 ||
                zmq_send(dealer, frame.data(), frame.size(), 0) != static_cast<int>(frame.size())) {
                ::_exit(11);
            }
            zmq_close(dealer);
            zmq_ctx_term(ctx);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    EXPECT_TRUE(waitUntil([&] { return svc.broker->err().find("from uid 65534") != std::string::npos; }, 30000))
        << svc.broker->err();
    EXPECT_EQ(svc.broker->err().find("FOREIGN"), std::string::npos);
    // The user's own message after them arrives (its tools want their runtime directory private again).
    ASSERT_EQ(::chmod(svc.runtimeKuv().c_str(), 0700), 0);
    ASSERT_EQ(::chmod(svc.inst.runtime.c_str(), 0700), 0);
    const RunResult own = kuvtest::run({svc.inst.bin("kuvctl"), "bus", "send", "--to", kAppGuid, "--type", "1003",
                                        "--body", "OWN-BODY"},
                                       svc.env(), 30000);
    EXPECT_EQ(own.status, 0) << own.out << own.err;
    EXPECT_TRUE(waitForFileContains(svc.inst.log(), "OWN-BODY", 30000));
    EXPECT_EQ(svc.log().find("FOREIGN-BODY"), std::string::npos) << svc.log();
}

// A 16.5 MB message of 5.5 million empty paths: refused with one record, memory within 16 times its size.
TEST_F(Security, AHugeScanCommandStaysWithinTheMemoryBound)
{
    Service svc;
    svc.startAll();
    ASSERT_FALSE(HasFatalFailure());
    const pid_t pid = svc.service->pid();
    const long before = vmHwmKb(pid);
    ASSERT_GT(before, 0);
    std::string payload = "{\"paths\":[\"\"";
    payload.reserve(5500000 * 3 + 16);
    for (int i = 1; i < 5500000; ++i) {
        payload += ",\"\"";
    }
    payload += "]}";
    ASSERT_GT(payload.size(), 16400000u);
    ASSERT_TRUE(sendCommand(svc.runtimeKuv() + "kuv-gui", 4, payload));
    ASSERT_TRUE(waitForFileContains(svc.inst.log(), "paths refused (at most 100000)", 60000)) << svc.log();
    const long after = vmHwmKb(pid);
    const long boundKb = static_cast<long>(16 * payload.size() / 1024);
    std::printf("VmHWM %ld kB -> %ld kB (+%ld kB) for a %zu-byte message; bound +%ld kB\n", before, after,
                after - before, payload.size(), boundKb);
    EXPECT_LT(after - before, boundKb) << "peak grew from " << before << " kB to " << after << " kB";
    EXPECT_EQ(countInFile(svc.inst.log(), "context menu scan"), 1) << "one record, not one per path";
    // The user's own next command still gets through.
    EXPECT_EQ(svc.second({"right", "/after/the/flood"}).status, 1);
    EXPECT_TRUE(waitForFileContains(svc.inst.log(), "context menu scan [/after/the/flood]", 30000));
}

// Names built to forge records for Unicode-aware readers and terminals are written escaped, and
// kuvctl logs prints nothing raw.
TEST_F(Security, ForgedRecordNamesAreEscaped)
{
    Service svc;
    svc.startAll();
    ASSERT_FALSE(HasFatalFailure());
    const std::vector<std::string> names = {
        "/f/nel\xc2\x85[2026-01-01 00:00:00.000] [1:1] [INFO] [x:y:1] forged",
        "/f/ls\xe2\x80\xa8[2026-01-01 00:00:00.000] forged",
        "/f/ps\xe2\x80\xa9[2026-01-01 00:00:00.000] forged",
        "/f/csi\xc2\x9b" "2J",
        "/f/literal\\nbackslash",
        "/f/bytes\xff\xfe",
    };
    std::vector<std::string> argv = {"right"};
    argv.insert(argv.end(), names.begin(), names.end());
    EXPECT_EQ(svc.second(argv).status, 1);
    ASSERT_TRUE(waitForFileContains(svc.inst.log(), "bytes\\xff\\xfe]", 30000)) << svc.log();
    const std::string log = svc.log();
    for (const char* raw : {"\xc2\x85", "\xe2\x80\xa8", "\xe2\x80\xa9", "\xc2\x9b", "\xff"}) {
        EXPECT_EQ(log.find(raw), std::string::npos) << "raw sequence in the log";
    }
    for (const char* shown : {"nel\\u0085[2026", "ls\\u2028[2026", "ps\\u2029[2026", "csi\\u009b2J",
                              "literal\\\\nbackslash", "bytes\\xff\\xfe"}) {
        EXPECT_NE(log.find(shown), std::string::npos) << shown;
    }
    // One record per name, each on one line.
    std::istringstream lines(log);
    std::string line;
    while (std::getline(lines, line)) {
        EXPECT_NE(line.compare(0, 11, "[2026-01-01"), 0) << "a forged record: " << line;
    }
    EXPECT_EQ(countInFile(svc.inst.log(), "context menu scan [/f/"), 6);
    const RunResult logs = kuvtest::run({svc.inst.bin("kuvctl"), "logs", "--no-follow", "-n", "500"}, svc.env());
    EXPECT_EQ(logs.status, 0);
    for (const char* raw : {"\x1b", "\xc2\x85", "\xe2\x80\xa8", "\xc2\x9b", "\xff"}) {
        EXPECT_EQ(logs.out.find(raw), std::string::npos) << "raw sequence printed";
    }
}

// File names that are not UTF-8 reach the shell with their exact bytes.
TEST_F(Security, NamesThatAreNotUtf8StayIntact)
{
    Service svc;
    svc.startAll();
    ASSERT_FALSE(HasFatalFailure());
    const std::vector<std::string> names = {"/n/\x9b" "3", "/n/\xff\xfe", "/n/plain", "/n/中文"};
    std::vector<std::string> argv = {"right"};
    argv.insert(argv.end(), names.begin(), names.end());
    EXPECT_EQ(svc.second(argv).status, 1);
    std::vector<std::vector<std::string>> scans;
    ASSERT_TRUE(waitUntil([&] { return !(scans = journalScans(svc.inst.journal())).empty(); }, 30000));
    EXPECT_EQ(scans.back(), names);
}

// A FIFO among the map files leaves start-up and quit unaffected.
TEST_F(Security, AFifoMapFileLeavesStartUpUnaffected)
{
    Service svc;
    const std::string fifo = svc.inst.dir + "etc/plugins-gui/combo_plugin_map/zz-fifo.json";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    svc.startAll();
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(waitForFileContains(svc.inst.log(), "open " + svc.inst.dir + "/etc/plugins-gui/combo_plugin_map/zz-fifo.json failed", 30000))
        << svc.log();
    EXPECT_TRUE(svc.quit());
}

// Another user who made /tmp/kuv-UID first does not stop the user's service; the owner is named.
TEST_F(Security, ASquattedTmpRuntimeDirectoryDoesNotStopTheService)
{
    const uid_t victim = 65533;
    const std::string squatted = "/tmp/kuv-" + std::to_string(victim);
    if (svctest::exists(squatted)) {
        GTEST_SKIP() << squatted << " exists already";
    }
    ASSERT_EQ(::mkdir(squatted.c_str(), 0700), 0);
    struct Cleanup {
        std::string dir;
        ~Cleanup() { ::rmdir(dir.c_str()); }
    } cleanup{squatted};

    Service svc;
    openToOthers(svc);
    OtherUser u(victim, svc, false);
    const std::string fallback = u.home + "/.cache/kuv/runtime/";
    ASSERT_TRUE(u.start(fallback));
    EXPECT_NE(u.broker->err().find(squatted + "/ is taken by uid 0 (root); using " + fallback + " instead"),
              std::string::npos)
        << u.broker->err();
    EXPECT_EQ(u.run({svc.inst.bin("kuvgui"), "right", "/still/works"}).status, 1);
    EXPECT_TRUE(waitForFileContains(u.log(), "context menu scan [/still/works]", 30000)) << readFile(u.log());
    EXPECT_TRUE(fileContains(u.log(), "is taken by uid 0 (root)"));
    const struct stat st = statOf(fallback);
    EXPECT_EQ(st.st_uid, victim);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
}

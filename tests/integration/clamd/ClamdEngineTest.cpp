// SPDX-License-Identifier: GPL-2.0-or-later
// The clamd engine against a real clamd started on a private socket with the shipped database (or one
// written here where the tree has none), and against a small in-process fake for the answers a healthy
// clamd never gives (stalls, junk).
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ClamdEngine.h"
#include "ClamdReply.h"
#include "Harness.h"
#include "RealClamd.h"
#include "UniqueFd.h"

using namespace kuv::scan;
using kuv::UniqueFd;
using namespace kuvclamd;
using Clock = std::chrono::steady_clock;

namespace {

UniqueFd openRead(const std::string& path)
{
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(fd.valid()) << path << ": " << strerror(errno);
    return fd;
}

// One command on a connection of its own, answer up to the NUL (or EOF).
std::string rawCommand(const std::string& sock, const std::string& command)
{
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        return "connect failed";
    }
    const std::string z = command + std::string(1, '\0');
    if (::send(fd.get(), z.data(), z.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(z.size())) {
        return "send failed";
    }
    std::string out;
    char c;
    while (out.size() < 4096 && ::recv(fd.get(), &c, 1, 0) == 1 && c != '\0') {
        out += c;
    }
    return out;
}

std::unique_ptr<IScanEngine> engineFor(const std::string& sock, const ClamdOptions& opt = ClamdOptions())
{
    std::string error;
    auto engine = makeClamdEngine(sock, opt, error);
    EXPECT_TRUE(engine) << error;
    return engine;
}

} // namespace

// ---- answers ----

struct ClamdAnswer {
    const char* reply;
    Verdict verdict;
    const char* signature; // checked when not null
    const char* reason;    // checked when not null
};

class ClamdVerdict : public ::testing::TestWithParam<ClamdAnswer> {};

TEST_P(ClamdVerdict, FromTheAnswer)
{
    const ClamdAnswer& a = GetParam();
    const ScanResult r = clamd::parseScanReply(a.reply);
    EXPECT_EQ(r.verdict, a.verdict) << a.reply;
    if (a.signature != nullptr) {
        EXPECT_EQ(r.signature, a.signature) << a.reply;
    }
    if (a.reason != nullptr) {
        EXPECT_EQ(r.reason, a.reason) << a.reply;
    }
}

INSTANTIATE_TEST_SUITE_P(
    ClamdReply, ClamdVerdict,
    ::testing::Values(
        ClamdAnswer{"fd[11]: OK", Verdict::Clean, nullptr, nullptr},
        ClamdAnswer{"fd[11]: Kuv.Test.EICAR.UNOFFICIAL FOUND", Verdict::Infected, "Kuv.Test.EICAR.UNOFFICIAL", nullptr},
        ClamdAnswer{"fd[11]: Heuristics.Limits.Exceeded.MaxScanSize FOUND", Verdict::Partial, nullptr,
                    "not fully scanned: MaxScanSize"},
        ClamdAnswer{"fd[11]: Heuristics.Limits.Exceeded FOUND", Verdict::Partial, nullptr, "not fully scanned: limit"},
        ClamdAnswer{"fd[11]: Heuristics.Encrypted.Zip FOUND", Verdict::Infected, nullptr, nullptr},
        ClamdAnswer{"fd[11]: lstat() failed: No such file ERROR", Verdict::Error, nullptr,
                    "engine: clamd: lstat() failed: No such file"},
        ClamdAnswer{"UNKNOWN COMMAND", Verdict::Error, nullptr, nullptr},
        ClamdAnswer{"fd[11]:  FOUND", Verdict::Error, nullptr, nullptr},
        ClamdAnswer{"fd[11]: two words FOUND", Verdict::Error, nullptr, nullptr},
        ClamdAnswer{"fd[11: OK", Verdict::Error, nullptr, nullptr}, ClamdAnswer{"", Verdict::Error, nullptr, nullptr}));

TEST(ClamdReply, ControlBytesNeverReachTheReason)
{
    const ScanResult r = clamd::parseScanReply(std::string("fd[1]: \x01\xff OK", 13));
    EXPECT_EQ(r.verdict, Verdict::Error);
    EXPECT_EQ(r.reason.find('\x01'), std::string::npos);
}

TEST(ClamdReply, SessionPrefixAndVersion)
{
    std::string s = "3: fd[9]: OK";
    EXPECT_TRUE(clamd::stripSessionId(s, 3));
    EXPECT_EQ(s, "fd[9]: OK");
    s = "4: fd[9]: OK";
    EXPECT_FALSE(clamd::stripSessionId(s, 3));
    s = "fd[9]: OK";
    EXPECT_FALSE(clamd::stripSessionId(s, 1));

    clamd::VersionInfo v;
    ASSERT_TRUE(clamd::parseVersion("ClamAV 1.4.6", v));
    EXPECT_EQ(v.engineVersion, "1.4.6");
    EXPECT_EQ(v.dbVersion, "");
    EXPECT_EQ(v.dbTime, 0);
    ASSERT_TRUE(clamd::parseVersion("ClamAV 1.4.6/27100/Sun Nov 22 09:00:00 2026", v));
    EXPECT_EQ(v.dbVersion, "27100");
    EXPECT_GT(v.dbTime, 1700000000);
    EXPECT_FALSE(clamd::parseVersion("hello", v));
    EXPECT_FALSE(clamd::parseVersion("ClamAV 1.0/x7/", v));
}

// ---- a real clamd ----

class ClamdReal : public ::testing::TestWithParam<bool> {
protected:
    ClamdOptions options() const
    {
        ClamdOptions o;
        o.sessions = GetParam();
        return o;
    }
    RealClamd m_clamd;
};

TEST_P(ClamdReal, InfoAndVerdicts)
{
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    const EngineInfo info = engine->info();
    EXPECT_EQ(info.engine, "clamd");
    EXPECT_TRUE(std::regex_match(info.engineVersion, std::regex("[0-9]+\\.[0-9]+.*"))) << info.engineVersion;
    EXPECT_EQ(info.dbError, "");

    UniqueFd bad = openRead(m_clamd.file("eicar.com", eicar()));
    ScanResult r = engine->scanFd(bad.get(), "eicar.com", ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Infected) << r.reason;
    EXPECT_EQ(r.signature.rfind("Kuv.Test.EICAR", 0), 0u) << r.signature;

    const std::string text = "just some text\n";
    UniqueFd good = openRead(m_clamd.file("clean.txt", text));
    r = engine->scanFd(good.get(), "clean.txt", ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Clean) << r.reason;
    EXPECT_EQ(r.bytesScanned, text.size());

    // The same session again, and the infected file once more after the clean one.
    r = engine->scanFd(bad.get(), "eicar.com", ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Infected) << r.reason;
}

TEST_P(ClamdReal, ScansByDescriptorWhatClamdCannotOpenByPath)
{
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    const std::string path = m_clamd.file("gone.com", eicar() + "\n");
    UniqueFd fd = openRead(path);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    const ScanResult r = engine->scanFd(fd.get(), path, ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Infected) << r.reason;
}

TEST_P(ClamdReal, ScansByDescriptorInAFolderClamdCannotEnter)
{
    if (!m_clamd.otherUser()) {
        GTEST_SKIP() << "clamd runs as this user here; only root can start it as another";
    }
    kuvtest::TempDir mine("kuvprivate"); // 0700, ours
    const std::string path = mine.path() + "/inside.com";
    kuvtest::writeFile(path, eicar());
    // clamd itself is refused by path...
    const std::string byPath = rawCommand(m_clamd.socket(), "zSCAN " + path);
    EXPECT_NE(byPath.find("ERROR"), std::string::npos) << byPath;
    EXPECT_EQ(byPath.find("FOUND"), std::string::npos) << byPath;
    // ...and reads the file through the descriptor we opened.
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    UniqueFd fd = openRead(path);
    const ScanResult r = engine->scanFd(fd.get(), path, ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Infected) << r.reason;
}

TEST_P(ClamdReal, LimitsAreReportedAsPartial)
{
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    // Over clamd's own MaxFileSize (1M in its config).
    UniqueFd big = openRead(m_clamd.file("big.bin", std::string(2 * 1024 * 1024, 'A')));
    ScanResult r = engine->scanFd(big.get(), "big.bin", ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Partial);
    EXPECT_EQ(r.reason, "not fully scanned: MaxFileSize");
    // Over the job's own size limit.
    UniqueFd small = openRead(m_clamd.file("small.txt", "0123456789abcdef"));
    ScanLimits limits;
    limits.maxFileSize = 10;
    r = engine->scanFd(small.get(), "small.txt", limits, nullptr);
    EXPECT_EQ(r.verdict, Verdict::Partial);
    EXPECT_EQ(r.reason, "not fully scanned: MaxFileSize");
}

TEST_P(ClamdReal, ManyThreadsAtOnce)
{
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    const std::string bad = m_clamd.file("eicar.com", eicar());
    const std::string good = m_clamd.file("clean.txt", "nothing to see\n");
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 40; ++i) {
                const bool infected = (i + t) % 3 == 0;
                UniqueFd fd(::open((infected ? bad : good).c_str(), O_RDONLY | O_CLOEXEC));
                const ScanResult r = engine->scanFd(fd.get(), "f", ScanLimits(), nullptr);
                if (r.verdict != (infected ? Verdict::Infected : Verdict::Clean)) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

TEST_P(ClamdReal, RestartedClamdAndGoneClamd)
{
    auto engine = engineFor(m_clamd.socket(), options());
    ASSERT_TRUE(engine);
    UniqueFd bad = openRead(m_clamd.file("eicar.com", eicar()));
    EXPECT_EQ(engine->scanFd(bad.get(), "e", ScanLimits(), nullptr).verdict, Verdict::Infected);

    // Pooled sessions now point at a clamd that is gone; the next one must connect afresh.
    m_clamd.stop();
    m_clamd.start();
    ScanResult r = engine->scanFd(bad.get(), "e", ScanLimits(), nullptr);
    EXPECT_EQ(r.verdict, Verdict::Infected) << r.reason;

    m_clamd.stop();
    auto pending = std::async(std::launch::async, [&] { return engine->scanFd(bad.get(), "e", ScanLimits(), nullptr); });
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "scan hangs without clamd";
    r = pending.get();
    EXPECT_EQ(r.verdict, Verdict::Error);
    EXPECT_NE(r.reason.find("clamd unavailable"), std::string::npos) << r.reason;
}

INSTANTIATE_TEST_SUITE_P(Modes, ClamdReal, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& i) { return i.param ? "Sessions" : "PerFile"; });

TEST(ClamdFactory, NoClamd)
{
    kuvtest::TempDir dir("kuvclamd");
    std::string error;
    auto engine = makeClamdEngine(dir.path() + "/none.sock", error);
    EXPECT_FALSE(engine);
    EXPECT_NE(error.find("none.sock"), std::string::npos) << error;
}

// ---- a fake clamd for the answers a healthy one never gives ----

namespace {

enum class FakeMode { NotClamd, Stall, LongReply, Junk, CloseAfterFd };

// Serves one connection at a time on a private socket until destroyed.
class FakeClamd {
public:
    explicit FakeClamd(FakeMode mode) : m_dir("kuvfake"), m_mode(mode)
    {
        int p[2];
        if (::pipe2(p, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        m_stopRead.reset(p[0]);
        m_stopWrite.reset(p[1]);
        m_listen.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socket().c_str(), sizeof addr.sun_path - 1);
        if (::bind(m_listen.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            ::listen(m_listen.get(), 8) != 0) {
            throw std::runtime_error("bind");
        }
        m_thread = std::thread([this] { serve(); });
    }
    ~FakeClamd()
    {
        const char c = 'x';
        (void)!::write(m_stopWrite.get(), &c, 1);
        m_thread.join();
    }
    std::string socket() const { return m_dir.path() + "/fake.sock"; }

private:
    bool waitReadable(int fd)
    {
        pollfd p[2] = {{fd, POLLIN, 0}, {m_stopRead.get(), POLLIN, 0}};
        while (::poll(p, 2, -1) < 0) {
        }
        return (p[1].revents & POLLIN) == 0;
    }
    void serve()
    {
        while (waitReadable(m_listen.get())) {
            UniqueFd conn(::accept4(m_listen.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (conn.valid()) {
                handle(conn.get());
            }
        }
    }
    static void sendText(int fd, const std::string& s) { ::send(fd, s.data(), s.size(), MSG_NOSIGNAL); }
    // Like clamd, a FILDES is served once its descriptor has arrived (it comes in a packet of its own).
    void handle(int fd)
    {
        bool session = false;
        unsigned id = 0;
        int fdsReceived = 0;
        std::string pending;
        std::string waitingPrefix; // a FILDES waiting for its descriptor
        bool waiting = false;
        while (waitReadable(fd)) {
            char buf[256];
            alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
            iovec iov = {buf, sizeof buf};
            msghdr msg = {};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            const ssize_t n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
            if (n <= 0) {
                return;
            }
            for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm; cm = CMSG_NXTHDR(&msg, cm)) {
                if (cm->cmsg_level == SOL_SOCKET && cm->cmsg_type == SCM_RIGHTS) {
                    const size_t count = (cm->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                    for (size_t i = 0; i < count; ++i) {
                        int passed;
                        std::memcpy(&passed, CMSG_DATA(cm) + i * sizeof(int), sizeof passed);
                        ::close(passed);
                        ++fdsReceived;
                    }
                }
            }
            pending.append(buf, static_cast<size_t>(n));
            for (;;) {
                if (waiting) {
                    if (fdsReceived == 0) {
                        break;
                    }
                    --fdsReceived;
                    waiting = false;
                    if (!serveFildes(fd, waitingPrefix)) {
                        return;
                    }
                    if (!session && m_mode != FakeMode::Stall) {
                        return;
                    }
                    continue;
                }
                const size_t nul = pending.find('\0');
                if (nul == std::string::npos) {
                    break;
                }
                const std::string cmd = pending.substr(0, nul);
                pending.erase(0, nul + 1);
                if (cmd.empty()) {
                    continue;
                }
                if (cmd == "zIDSESSION") {
                    session = true;
                    continue;
                }
                const std::string prefix = session ? std::to_string(++id) + ": " : "";
                if (cmd == "zFILDES") {
                    waiting = true;
                    waitingPrefix = prefix;
                    continue;
                }
                if (cmd == "zVERSION") {
                    sendText(fd, prefix + (m_mode == FakeMode::NotClamd ? "hello" : "ClamAV 9.9.9") +
                                     std::string(1, '\0'));
                }
                if (!session && m_mode != FakeMode::Stall) {
                    return;
                }
            }
        }
    }
    // false: hang up.
    bool serveFildes(int fd, const std::string& prefix)
    {
        switch (m_mode) {
        case FakeMode::Stall:
        case FakeMode::NotClamd:
            return true;
        case FakeMode::LongReply:
            sendText(fd, prefix + std::string(20000, 'x'));
            return true;
        case FakeMode::Junk:
            sendText(fd, prefix + "fd[3]: something odd" + std::string(1, '\0'));
            return true;
        case FakeMode::CloseAfterFd:
            return false;
        }
        return false;
    }

    kuvtest::TempDir m_dir;
    FakeMode m_mode;
    UniqueFd m_listen, m_stopRead, m_stopWrite;
    std::thread m_thread;
};

ScanResult scanVia(const std::string& sock, const ClamdOptions& opt, const std::atomic<bool>* cancel)
{
    auto engine = engineFor(sock, opt);
    if (!engine) {
        return ScanResult();
    }
    UniqueFd fd(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    return engine->scanFd(fd.get(), "exe", ScanLimits(), cancel);
}

} // namespace

TEST(ClamdFake, RefusesWhatIsNotClamd)
{
    FakeClamd fake(FakeMode::NotClamd);
    std::string error;
    EXPECT_FALSE(makeClamdEngine(fake.socket(), error));
    EXPECT_NE(error.find("not a clamd"), std::string::npos) << error;
}

TEST(ClamdFake, CancelStopsTheWait)
{
    FakeClamd fake(FakeMode::Stall);
    std::atomic<bool> cancel{false};
    const auto start = Clock::now();
    auto pending = std::async(std::launch::async, [&] { return scanVia(fake.socket(), ClamdOptions(), &cancel); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    cancel = true;
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "cancel ignored";
    const ScanResult r = pending.get();
    EXPECT_EQ(r.verdict, Verdict::Error);
    EXPECT_EQ(r.reason, "cancelled");
    // Well inside the default scan timeout: it was the flag, not the timeout, that ended the wait.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));

    std::atomic<bool> already{true};
    EXPECT_EQ(scanVia(fake.socket(), ClamdOptions(), &already).reason, "cancelled");
}

TEST(ClamdFake, SilenceTimesOut)
{
    FakeClamd fake(FakeMode::Stall);
    ClamdOptions opt;
    opt.scanTimeoutMs = 300;
    const ScanResult r = scanVia(fake.socket(), opt, nullptr);
    EXPECT_EQ(r.verdict, Verdict::Error);
    EXPECT_NE(r.reason.find("did not answer"), std::string::npos) << r.reason;
}

struct BadAnswer {
    FakeMode mode;
    const char* reason;
    bool exact; // reason is the whole reason, else a part of it
};

class ClamdBadAnswer : public ::testing::TestWithParam<std::tuple<bool, BadAnswer>> {};

TEST_P(ClamdBadAnswer, IsAnError)
{
    ClamdOptions opt;
    opt.sessions = std::get<0>(GetParam());
    const BadAnswer& bad = std::get<1>(GetParam());
    FakeClamd fake(bad.mode);
    const ScanResult r = scanVia(fake.socket(), opt, nullptr);
    EXPECT_EQ(r.verdict, Verdict::Error);
    if (bad.exact) {
        EXPECT_EQ(r.reason, bad.reason);
    } else {
        EXPECT_NE(r.reason.find(bad.reason), std::string::npos) << r.reason;
    }
}

INSTANTIATE_TEST_SUITE_P(
    ClamdFake, ClamdBadAnswer,
    ::testing::Combine(::testing::Bool(),
                       ::testing::Values(BadAnswer{FakeMode::LongReply, "engine: clamd reply too long", true},
                                         BadAnswer{FakeMode::Junk, "unexpected clamd reply", false},
                                         BadAnswer{FakeMode::CloseAfterFd, "engine: clamd closed the connection", true})));

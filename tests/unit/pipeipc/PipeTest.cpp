// SPDX-License-Identifier: GPL-2.0-or-later
// The command socket end to end: framing, many clients, refused peers and sizes, stop, stale sockets.
#include <signal.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "AfxPipe.h"
#include "CLogDebug.h"
#include "FileUtils.h"
#include "KuvTestDir.h"
#include "TempDir.h"
#include "PipeWire.h"

using kuvtest::eventually;
using kuvtest::ScopedEnv;
using kuv::test::TempDir;
using namespace std::chrono_literals;

namespace {

const char* kName = "/tmp/kuv-gui";

std::string frame(unsigned long type, const std::string& payload)
{
    sPipeFrameHead head{type, payload.size()};
    std::string out(reinterpret_cast<const char*>(&head), sizeof head);
    return out + payload;
}

struct Received {
    std::string bytes;
    bool nulAfter = false;
    long kind = 0;
    void* context = nullptr;
    unsigned long pid = 0;
};

class Receiver : public IRemoteCallNotify {
public:
    void RecvData(CCharVector& data, long kind, void* context, unsigned long peerPid) override
    {
        if (inside.exchange(true)) {
            overlapped = true;
        }
        Received r;
        r.bytes.assign(data.data(), data.length());
        r.nulAfter = data.data()[data.length()] == '\0';
        r.kind = kind;
        r.context = context;
        r.pid = peerPid;
        {
            std::unique_lock<std::mutex> lock(mutex);
            messages.push_back(std::move(r));
            changed.notify_all();
            if (hold) {
                held = true;
                changed.notify_all();
                changed.wait(lock, [this] { return !hold; });
            }
        }
        inside = false;
    }

    size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.size();
    }
    bool waitFor(size_t n, std::chrono::seconds limit = 60s)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return messages.size() >= n; });
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Received> messages;
    bool hold = false;
    bool held = false;
    std::atomic<bool> inside{false};
    std::atomic<bool> overlapped{false};
};

// A socket of our own to the server, for what the client class would never send.
int rawConnect(const std::string& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    struct timeval tv {30, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

bool sendAll(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// The next byte from the server: the receipt; -1 once the server closed the connection; -2 when
// nothing came within the receive timeout.
int nextByte(int fd)
{
    char c;
    const ssize_t n = ::recv(fd, &c, 1, 0);
    if (n == 1) {
        return static_cast<unsigned char>(c);
    }
    return (n == 0 || errno == ECONNRESET) ? -1 : -2;
}

class PipeTest : public ::testing::Test {
protected:
    TempDir base;
    ScopedEnv env{"XDG_RUNTIME_DIR", base.path().c_str()};
    Receiver receiver;
    int context = 0;
    std::unique_ptr<CAfxPipeServer> server;

    void SetUp() override
    {
        ::chmod(base.path().c_str(), 0700);
        server = std::make_unique<CAfxPipeServer>();
        server->setName(kName);
        server->registerMonitor(&receiver, 2, &context, true);
    }
    void TearDown() override
    {
        if (server) {
            server->stop();
        }
        server.reset();
        CLogDebug::Close();
    }
    std::string socketPath() const { return base / "kuv/kuv-gui"; }
    // The process log goes to logs/kuvgui.log from warnings up.
    static CLogDebug* logInto(const TempDir& logs)
    {
        CLogDebug* log = CLogDebug::Instance();
        log->SetProperty(LOG_PROPERTY_PATH, logs.path().c_str());
        log->SetProperty(LOG_PROPERTY_NAME, "kuvgui");
        log->SetProperty(LOG_PROPERTY_LEVEL, "3");
        return log;
    }
};

} // namespace

TEST_F(PipeTest, OneMegabyteArrivesIntactWithNulAfter)
{
    ASSERT_EQ(server->start(), 1);
    struct stat st;
    ASSERT_EQ(::lstat(socketPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    std::string payload(1024 * 1024, '\0');
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>((i * 131 + 7) & 0xff);
    }
    const std::string message = frame(4, payload);
    CAfxPipeClient client(kName);
    ASSERT_NE(client.async(message.data(), message.size()), 0);
    ASSERT_TRUE(receiver.waitFor(1));
    std::lock_guard<std::mutex> lock(receiver.mutex);
    ASSERT_EQ(receiver.messages.size(), 1u);
    const Received& r = receiver.messages[0];
    EXPECT_TRUE(r.bytes == message);
    EXPECT_TRUE(r.nulAfter);
    EXPECT_EQ(r.kind, 2);
    EXPECT_EQ(r.context, &context);
    EXPECT_EQ(r.pid, static_cast<unsigned long>(::getpid()));
}

TEST_F(PipeTest, HeaderOnlyAndLargestMessage)
{
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient client(kName);
    const std::string empty = frame(1, "");
    ASSERT_NE(client.async(empty.data(), empty.size()), 0);
    const std::string largest = frame(9, std::string(CAfxPipeServer::kMaxMessage, 'z'));
    ASSERT_NE(client.async(largest.data(), largest.size()), 0);
    ASSERT_TRUE(receiver.waitFor(2));
    std::lock_guard<std::mutex> lock(receiver.mutex);
    EXPECT_EQ(receiver.messages[0].bytes, empty);
    EXPECT_TRUE(receiver.messages[1].bytes == largest);
}

TEST_F(PipeTest, TenThousandMessagesFromSixteenClientsArriveExactlyOnce)
{
    ASSERT_EQ(server->start(), 1);
    constexpr int kThreads = 16;
    constexpr int kEach = 625;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            // Half keep one connection, half connect anew for every message.
            std::unique_ptr<CAfxPipeClient> kept;
            if (t % 2 == 0) {
                kept = std::make_unique<CAfxPipeClient>(kName);
            }
            for (int i = 0; i < kEach; ++i) {
                const std::string m = frame(4, "{\"paths\":[\"/t" + std::to_string(t) + "/" + std::to_string(i) + "\"]}");
                int rc;
                if (kept) {
                    rc = kept->async(m.data(), m.size());
                } else {
                    CAfxPipeClient once(kName);
                    rc = once.async(m.data(), m.size());
                }
                if (rc == 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(failures, 0);
    ASSERT_TRUE(receiver.waitFor(kThreads * kEach));
    std::this_thread::sleep_for(100ms);
    std::lock_guard<std::mutex> lock(receiver.mutex);
    EXPECT_EQ(receiver.messages.size(), static_cast<size_t>(kThreads * kEach));
    std::map<std::string, int> seen;
    for (const Received& r : receiver.messages) {
        ++seen[r.bytes];
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kEach));
    for (const auto& kv : seen) {
        EXPECT_EQ(kv.second, 1);
    }
    EXPECT_FALSE(receiver.overlapped);
}

TEST_F(PipeTest, ConnectionFromAnotherUidIsRefused)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    ASSERT_EQ(server->start(), 1);
    // Open the way on purpose (a second name for the socket, writable by all), so that only the
    // peer credential check stands between the other user and the server.
    TempDir open;
    ::chmod(open.path().c_str(), 0755);
    const std::string alias = open / "sock";
    ASSERT_EQ(::link(socketPath().c_str(), alias.c_str()), 0);
    ASSERT_EQ(::chmod(socketPath().c_str(), 0666), 0);
    const std::string message = frame(5, "{}");

    const pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            _exit(10);
        }
        const int fd = rawConnect(alias);
        if (fd < 0) {
            _exit(11); // not even reachable: the test would prove nothing
        }
        const bool sent = sendAll(fd, message);
        const int reply = nextByte(fd);
        _exit(reply == -1 ? (sent ? 0 : 1) : 12);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_LE(WEXITSTATUS(status), 1) << "exit " << WEXITSTATUS(status);

    // The server still serves its own user, and it never saw the stranger's message.
    CAfxPipeClient client(kName);
    const std::string mine = frame(1, "");
    ASSERT_NE(client.async(mine.data(), mine.size()), 0);
    ASSERT_TRUE(receiver.waitFor(1));
    std::lock_guard<std::mutex> lock(receiver.mutex);
    ASSERT_EQ(receiver.messages.size(), 1u);
    EXPECT_EQ(receiver.messages[0].bytes, mine);
}

TEST_F(PipeTest, OversizedHeaderDropsThatConnectionWithOneWarning)
{
    TempDir logs;
    CLogDebug* log = logInto(logs);
    ASSERT_EQ(server->start(), 1);

    const int fd = rawConnect(socketPath());
    ASSERT_GE(fd, 0);
    sPipeFrameHead head{4, 17ul * 1024 * 1024};
    ASSERT_TRUE(sendAll(fd, std::string(reinterpret_cast<const char*>(&head), sizeof head) + "{\"paths\":[]}"));
    EXPECT_EQ(nextByte(fd), -1);
    ::close(fd);

    CAfxPipeClient client(kName);
    const std::string next = frame(1, "");
    ASSERT_NE(client.async(next.data(), next.size()), 0);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(receiver.count(), 1u);

    // The client itself never sends such a frame.
    std::string lying = frame(4, "abc");
    EXPECT_EQ(client.async(lying.data(), lying.size() - 1), 0);
    EXPECT_EQ(client.async(lying.data(), 15), 0);
    EXPECT_EQ(client.async(nullptr, 16), 0);

    log->Flush();
    int warnings = 0;
    for (const std::string& line : kuvtest::lines(kuvtest::readFile(logs / "kuvgui.log"))) {
        if (line.find("[WARN]") != std::string::npos && line.find("17825792") != std::string::npos) {
            ++warnings;
        }
    }
    EXPECT_EQ(warnings, 1);
}

TEST_F(PipeTest, PartialWritesPipelinedFramesAndReceipts)
{
    ASSERT_EQ(server->start(), 1);
    const int fd = rawConnect(socketPath());
    ASSERT_GE(fd, 0);
    const std::string slow = frame(4, "{\"paths\":[\"/slow\"]}");
    for (char c : slow) {
        ASSERT_TRUE(sendAll(fd, std::string(1, c)));
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(nextByte(fd), kuvpipe::kAck);
    const std::string three = frame(1, "") + frame(5, "{}") + frame(4, "x");
    ASSERT_TRUE(sendAll(fd, three));
    EXPECT_EQ(nextByte(fd), kuvpipe::kAck);
    EXPECT_EQ(nextByte(fd), kuvpipe::kAck);
    EXPECT_EQ(nextByte(fd), kuvpipe::kAck);
    ::close(fd);
    ASSERT_TRUE(receiver.waitFor(4));
    std::lock_guard<std::mutex> lock(receiver.mutex);
    EXPECT_EQ(receiver.messages[0].bytes, slow);
    EXPECT_EQ(receiver.messages[1].bytes, frame(1, ""));
    EXPECT_EQ(receiver.messages[2].bytes, frame(5, "{}"));
    EXPECT_EQ(receiver.messages[3].bytes, frame(4, "x"));
}

TEST_F(PipeTest, SilentAndHalfFinishedClientsBlockNobodyAndAreCutOff)
{
    ASSERT_EQ(server->start(), 1);
    std::vector<int> idle;
    for (int i = 0; i < 40; ++i) {
        const int fd = rawConnect(socketPath());
        ASSERT_GE(fd, 0);
        if (i % 2 == 1) {
            sPipeFrameHead head{4, 1000};
            ASSERT_TRUE(sendAll(fd, std::string(reinterpret_cast<const char*>(&head), sizeof head) + "half"));
        }
        idle.push_back(fd);
    }
    CAfxPipeClient client(kName);
    for (int i = 0; i < 100; ++i) {
        const std::string m = frame(4, std::to_string(i));
        ASSERT_NE(client.async(m.data(), m.size()), 0);
    }
    ASSERT_TRUE(receiver.waitFor(100));
    // Each idle connection is closed by the server after its deadline, without a receipt.
    for (int fd : idle) {
        EXPECT_EQ(nextByte(fd), -1);
        ::close(fd);
    }
    EXPECT_EQ(receiver.count(), 100u);
}

TEST_F(PipeTest, StopWaitsForARunningDelivery)
{
    ASSERT_EQ(server->start(), 1);
    {
        std::lock_guard<std::mutex> lock(receiver.mutex);
        receiver.hold = true;
    }
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    {
        std::unique_lock<std::mutex> lock(receiver.mutex);
        ASSERT_TRUE(receiver.changed.wait_for(lock, 60s, [&] { return receiver.held; }));
    }
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        server->stop();
        stopped = true;
    });
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(stopped);
    EXPECT_TRUE(receiver.inside);
    {
        std::lock_guard<std::mutex> lock(receiver.mutex);
        receiver.hold = false;
        receiver.changed.notify_all();
    }
    stopper.join();
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(receiver.inside);
    EXPECT_FALSE(kuvtest::exists(socketPath()));
    // Nobody listens any more.
    EXPECT_EQ(client.async(m.data(), m.size()), 0);
    EXPECT_EQ(receiver.count(), 1u);
    // And it starts again.
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient again(kName);
    ASSERT_NE(again.async(m.data(), m.size()), 0);
    ASSERT_TRUE(receiver.waitFor(2));
}

TEST_F(PipeTest, StopFromInsideTheReceiver)
{
    struct Stopper : IRemoteCallNotify {
        CAfxPipeServer* server = nullptr;
        std::atomic<int> calls{0};
        void RecvData(CCharVector&, long, void*, unsigned long) override
        {
            ++calls;
            server->stop();
        }
    } stopper;
    stopper.server = server.get();
    server->registerMonitor(&stopper, 2, nullptr, true);
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient client(kName);
    const std::string m = frame(5, "{}");
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    ASSERT_TRUE(eventually([&] { return !kuvtest::exists(socketPath()); }));
    EXPECT_EQ(stopper.calls, 1);
}

TEST_F(PipeTest, StaleSocketIsReplacedLiveOneIsNot)
{
    ASSERT_FALSE(kuv::runtimeDir().empty());
    // A socket file whose holder is gone.
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socketPath().c_str(), sizeof addr.sun_path - 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    ASSERT_TRUE(receiver.waitFor(1));

    // A second server of the same name is refused and leaves the first one alone.
    CAfxPipeServer second;
    second.setName(kName);
    EXPECT_EQ(second.start(), 0);
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    ASSERT_TRUE(receiver.waitFor(2));
    server->stop();

    // A live listener that is not one of ours is not stolen either.
    const int live = ::socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath().c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(live, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(live, 4), 0);
    struct stat before;
    ASSERT_EQ(::stat(socketPath().c_str(), &before), 0);
    EXPECT_EQ(server->start(), 0);
    struct stat after;
    ASSERT_EQ(::stat(socketPath().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    ::close(live);

    // Not a socket at all: left for a person to look at.
    ::unlink(socketPath().c_str());
    kuvtest::writeFile(socketPath(), "x");
    EXPECT_EQ(server->start(), 0);
    EXPECT_EQ(kuvtest::readFile(socketPath()), "x");
}

TEST_F(PipeTest, ClientWaitsForAServerThatIsStarting)
{
    std::thread late([&] {
        std::this_thread::sleep_for(300ms);
        server->start();
    });
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    const int rc = client.async(m.data(), m.size());
    late.join();
    EXPECT_NE(rc, 0);
    ASSERT_TRUE(receiver.waitFor(1));
}

TEST_F(PipeTest, ClientGivesUpWhenNobodyListens)
{
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    EXPECT_EQ(client.async(m.data(), m.size()), 0);
}

TEST_F(PipeTest, KeptConnectionSurvivesTheServersIdleClose)
{
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    // Past the server's idle deadline the kept connection is gone; the client connects anew.
    std::this_thread::sleep_for(kuvpipe::kConnectionDeadline + 500ms);
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    ASSERT_TRUE(receiver.waitFor(2));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(receiver.count(), 2u);
}

TEST_F(PipeTest, RefusedRuntimeDirectoryMeansNoServer)
{
    ::mkdir((base / "kuv").c_str(), 0755);
    ::chmod((base / "kuv").c_str(), 0755);
    EXPECT_EQ(server->start(), 0);
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    EXPECT_EQ(client.async(m.data(), m.size()), 0);
}

TEST_F(PipeTest, OutOfDescriptorsTurnsConnectionsAwayAndRecovers)
{
    ASSERT_EQ(server->start(), 1);
    int open = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (::readdir(d) != nullptr) {
            ++open;
        }
        ::closedir(d);
    }
    struct rlimit old;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    struct rlimit tight = old;
    tight.rlim_cur = static_cast<rlim_t>(open + 32);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::vector<int> fillers;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
        fillers.push_back(fd);
    }
    // Room for the client's socket only; the server has none left for accepting it.
    ::close(fillers.back());
    fillers.pop_back();
    const int fd = rawConnect(socketPath());
    int reply = -2;
    if (fd >= 0) {
        const std::string m = frame(1, "");
        sendAll(fd, m);
        reply = nextByte(fd);
        ::close(fd);
    }
    for (int f : fillers) {
        ::close(f);
    }
    ::setrlimit(RLIMIT_NOFILE, &old);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(reply, -1); // closed, not left hanging
    // The server notices descriptors are back on its next accept; a connection that arrives while
    // it still turns them away is closed unanswered, so recovery is awaited, not assumed at once.
    const std::string m = frame(1, "");
    bool sent = false;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!sent && std::chrono::steady_clock::now() < deadline) {
        CAfxPipeClient client(kName);
        sent = client.async(m.data(), m.size()) != 0;
        if (!sent) {
            std::this_thread::sleep_for(50ms);
        }
    }
    ASSERT_TRUE(sent);
    ASSERT_TRUE(receiver.waitFor(1));
    // Turned-away messages were never read: only the acknowledged one arrived.
    EXPECT_EQ(receiver.count(), 1u);
}

TEST_F(PipeTest, ConcurrentStopsWaitAndTheReceiverMayCallBackIn)
{
    struct CallingBack : IRemoteCallNotify {
        CAfxPipeServer* server = nullptr;
        std::mutex mutex;
        std::condition_variable cv;
        bool entered = false;
        bool release = false;
        std::atomic<bool> inside{false};
        void RecvData(CCharVector&, long, void*, unsigned long) override
        {
            inside = true;
            std::unique_lock<std::mutex> lock(mutex);
            entered = true;
            cv.notify_all();
            cv.wait(lock, [this] { return release; });
            lock.unlock();
            // Both come back at once, even while other threads are stopping this server.
            server->registerMonitor(this, 2, nullptr, true);
            server->stop();
            inside = false;
        }
    } receiver2;
    receiver2.server = server.get();
    server->registerMonitor(&receiver2, 2, nullptr, true);
    ASSERT_EQ(server->start(), 1);
    CAfxPipeClient client(kName);
    const std::string m = frame(1, "");
    ASSERT_NE(client.async(m.data(), m.size()), 0);
    {
        std::unique_lock<std::mutex> lock(receiver2.mutex);
        ASSERT_TRUE(receiver2.cv.wait_for(lock, 60s, [&] { return receiver2.entered; }));
    }
    std::atomic<int> returned{0};
    std::atomic<bool> insideAtReturn{false};
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 2; ++i) {
        stoppers.emplace_back([&] {
            server->stop();
            insideAtReturn = insideAtReturn || receiver2.inside;
            ++returned;
        });
    }
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(returned, 0);
    {
        std::lock_guard<std::mutex> lock(receiver2.mutex);
        receiver2.release = true;
        receiver2.cv.notify_all();
    }
    for (auto& t : stoppers) {
        t.join();
    }
    EXPECT_EQ(returned, 2);
    EXPECT_FALSE(insideAtReturn);
    ASSERT_EQ(server->start(), 1); // and it comes back
}

// Frames still arriving hold their buffers; all of them together are capped, not just each one.
TEST_F(PipeTest, HalfSentFramesAreCappedInTotal)
{
    TempDir logs;
    CLogDebug* log = logInto(logs);
    ASSERT_EQ(server->start(), 1);

    // Five largest messages begun and never finished: room for four.
    std::vector<int> fds;
    for (int i = 0; i < 5; ++i) {
        const int fd = rawConnect(socketPath());
        ASSERT_GE(fd, 0);
        sPipeFrameHead head{4, CAfxPipeServer::kMaxMessage};
        ASSERT_TRUE(sendAll(fd, std::string(reinterpret_cast<const char*>(&head), sizeof head) + "{\"paths\""));
        fds.push_back(fd);
    }
    const auto refusals = [&] {
        log->Flush();
        const std::string text = kuvtest::readFile(logs / "kuvgui.log");
        int n = 0;
        for (size_t at = text.find("bytes of unfinished messages held already"); at != std::string::npos;
             at = text.find("bytes of unfinished messages held already", at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_TRUE(eventually([&] { return refusals() == 1; }, 60s)) << kuvtest::readFile(logs / "kuvgui.log");
    for (int fd : fds) {
        ::close(fd);
    }
    // The user's own next command still gets through.
    CAfxPipeClient client(kName);
    const std::string next = frame(1, "");
    ASSERT_NE(client.async(next.data(), next.size()), 0);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(refusals(), 1);
}

// With every connection slot taken by idle connections, the longest idle one gives way.
TEST_F(PipeTest, AFullConnectionTableDropsTheOldestIdleConnection)
{
    struct rlimit lim;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &lim), 0);
    const struct rlimit saved = lim;
    if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max < 2300) {
        GTEST_SKIP() << "needs 2300 descriptors";
    }
    lim.rlim_cur = lim.rlim_max == RLIM_INFINITY ? 4096 : std::min<rlim_t>(lim.rlim_max, 4096);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lim), 0);
    TempDir logs;
    CLogDebug* log = logInto(logs);
    ASSERT_EQ(server->start(), 1);

    std::vector<int> idle;
    for (int i = 0; i < 1024; ++i) {
        const int fd = rawConnect(socketPath());
        ASSERT_GE(fd, 0) << i;
        idle.push_back(fd);
        if (i == 0) {
            // The first one is certainly accepted before the others.
            const std::string one = frame(1, "");
            ASSERT_TRUE(sendAll(fd, one));
            ASSERT_EQ(nextByte(fd), kuvpipe::kAck);
            ASSERT_TRUE(receiver.waitFor(1));
        }
    }
    CAfxPipeClient client(kName);
    const std::string next = frame(5, "{}");
    ASSERT_NE(client.async(next.data(), next.size()), 0);
    ASSERT_TRUE(receiver.waitFor(2));
    // The connection idle longest was closed to make room.
    EXPECT_EQ(nextByte(idle[0]), -1);
    log->Flush();
    EXPECT_NE(kuvtest::readFile(logs / "kuvgui.log").find("1024 connections open; the one idle longest is closed"),
              std::string::npos);
    for (int fd : idle) {
        ::close(fd);
    }
    server->stop();
    ::setrlimit(RLIMIT_NOFILE, &saved);
}

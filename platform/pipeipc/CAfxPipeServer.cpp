// SPDX-License-Identifier: GPL-2.0-or-later
// CAfxPipeServer: one epoll thread reads framed messages from many connections; one delivery thread
// hands them to the monitor in arrival order.
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "AfxPipe.h"
#include "FileUtils.h"
#include "KuvLog.h"
#include "PipeWire.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;

KUV_LOG_SOURCE("platform/pipeipc/CAfxPipeServer");
constexpr size_t kMaxConnections = 1024;
constexpr size_t kQueueBytes = 64ul * 1024 * 1024; // beyond this reading pauses until delivery catches up
constexpr size_t kQueueMessages = 8192;
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kReadPerEvent = 1024 * 1024; // fairness between busy connections
constexpr int kBacklog = 512;
// All half-received frames together hold at most this much; a frame that would pass it is refused.
constexpr size_t kHeldBytes = 4 * (CAfxPipeServer::kMaxMessage + 64);

using Fd = kuv::UniqueFd;

// At most one warning a minute of one kind.
class RateLimit {
public:
    bool due()
    {
        const auto now = Clock::now();
        if (m_any && now - m_last < std::chrono::minutes(1)) {
            return false;
        }
        m_any = true;
        m_last = now;
        return true;
    }

private:
    bool m_any = false;
    Clock::time_point m_last;
};

struct Message {
    CCharVector data;
    unsigned long pid = 0;
};

struct Connection {
    Fd fd;
    unsigned long pid = 0;
    char head[sizeof(sPipeFrameHead)];
    size_t headGot = 0;
    std::unique_ptr<char[]> body; // header + payload + NUL once the header is known
    size_t total = 0;             // header + payload
    size_t got = 0;
    Clock::time_point deadline;
    Clock::time_point lastFrame; // accepted, or last whole frame: the oldest idle one goes first
    bool idle() const { return !body && headGot == 0; }
};

// Everything the two threads use; they keep it alive even past the server object.
struct Runtime {
    // Set before the threads start, read-only afterwards.
    Fd listener;
    Fd epoll;
    Fd wake;
    Fd lock;
    std::string path;
    dev_t sockDev = 0;
    ino_t sockIno = 0;

    // I/O thread only.
    std::unordered_map<int, std::unique_ptr<Connection>> conns;
    RateLimit fullWarning;
    RateLimit acceptWarning;
    RateLimit heldWarning;
    size_t heldBytes = 0; // buffers of frames still arriving, all connections together
    Fd spare; // given up when descriptors run out, to turn a waiting connection away

    // Shared, under mutex.
    std::mutex mutex;
    std::condition_variable ready; // the delivery thread: a message or stop
    std::condition_variable space; // the I/O thread: the queue shrank or stop
    std::deque<Message> queue;
    size_t queuedBytes = 0;
    bool stopping = false;
    IRemoteCallNotify* notify = nullptr;
    long kind = 0;
    void* context = nullptr;

    std::thread io;
    std::thread delivery;
};

void closeConnection(Runtime& rt, int fd)
{
    ::epoll_ctl(rt.epoll.get(), EPOLL_CTL_DEL, fd, nullptr);
    auto it = rt.conns.find(fd);
    if (it != rt.conns.end()) {
        if (it->second->body) {
            rt.heldBytes -= it->second->total + 1;
        }
        rt.conns.erase(it);
    }
}

// Queues one whole message; false when stopping. Waits while the queue is full.
bool enqueue(Runtime& rt, Message&& message)
{
    std::unique_lock<std::mutex> lock(rt.mutex);
    rt.space.wait(lock, [&] {
        return rt.stopping || (rt.queuedBytes < kQueueBytes && rt.queue.size() < kQueueMessages);
    });
    if (rt.stopping) {
        return false;
    }
    rt.queuedBytes += message.data.length();
    rt.queue.push_back(std::move(message));
    rt.ready.notify_one();
    return true;
}

// A whole frame arrived: queue it and confirm it. false when the connection must go.
bool completeFrame(Runtime& rt, Connection& c)
{
    Message m;
    c.body[c.total] = '\0';
    rt.heldBytes -= c.total + 1;
    m.data.adopt(std::move(c.body), c.total);
    m.pid = c.pid;
    c.headGot = 0;
    c.total = c.got = 0;
    if (!enqueue(rt, std::move(m))) {
        return false;
    }
    const char ack = kuvpipe::kAck;
    if (kuv::retryEintr([&] { return ::send(c.fd.get(), &ack, 1, MSG_NOSIGNAL | MSG_DONTWAIT); }) != 1) {
        return false;
    }
    c.deadline = Clock::now() + kuvpipe::kConnectionDeadline;
    c.lastFrame = Clock::now();
    return true;
}

// Takes bytes for the current frame (and any frames after it); false when the connection must go.
bool consume(Runtime& rt, Connection& c, const char* p, size_t n)
{
    while (n > 0) {
        if (!c.body) {
            const size_t take = std::min(n, sizeof c.head - c.headGot);
            std::memcpy(c.head + c.headGot, p, take);
            c.headGot += take;
            p += take;
            n -= take;
            if (c.headGot < sizeof c.head) {
                return true;
            }
            sPipeFrameHead head;
            std::memcpy(&head, c.head, sizeof head);
            // Checked before anything is allocated.
            if (head.length > CAfxPipeServer::kMaxMessage) {
                KUV_LOG(kuv::LogLevel::Warn, "message of %lu bytes from pid %lu refused (limit %lu), connection dropped", head.length,
                         c.pid, CAfxPipeServer::kMaxMessage);
                return false;
            }
            const size_t total = sizeof head + head.length;
            if (rt.heldBytes + total + 1 > kHeldBytes) {
                if (rt.heldWarning.due()) {
                    KUV_LOG(kuv::LogLevel::Warn, "message of %lu bytes from pid %lu refused: %zu bytes of unfinished messages held "
                             "already, connection dropped",
                             head.length, c.pid, rt.heldBytes);
                }
                return false;
            }
            c.total = total;
            c.body.reset(new char[c.total + 1]);
            rt.heldBytes += c.total + 1;
            std::memcpy(c.body.get(), c.head, sizeof head);
            c.got = sizeof head;
        }
        const size_t take = std::min(n, c.total - c.got);
        std::memcpy(c.body.get() + c.got, p, take);
        c.got += take;
        p += take;
        n -= take;
        if (c.got == c.total && !completeFrame(rt, c)) {
            return false;
        }
    }
    return true;
}

// Reads what the connection has; false when it is finished (closed, broken or refused).
bool readFrom(Runtime& rt, Connection& c)
{
    static thread_local std::vector<char> scratch(kReadChunk);
    size_t budget = kReadPerEvent;
    while (budget > 0) {
        ssize_t n;
        const bool direct = c.body && c.total - c.got >= kReadChunk;
        if (direct) {
            // Large payload: straight into place, never past this frame.
            n = kuv::retryEintr([&] { return ::recv(c.fd.get(), c.body.get() + c.got, std::min(c.total - c.got, budget), 0); });
        } else {
            n = kuv::retryEintr([&] { return ::recv(c.fd.get(), scratch.data(), scratch.size(), 0); });
        }
        if (n > 0) {
            budget -= std::min(budget, static_cast<size_t>(n));
            if (direct) {
                c.got += static_cast<size_t>(n);
                if (c.got == c.total && !completeFrame(rt, c)) {
                    return false;
                }
            } else if (!consume(rt, c, scratch.data(), static_cast<size_t>(n))) {
                return false;
            }
            continue;
        }
        if (n == 0) {
            return false; // peer closed; a half frame is dropped
        }
        return errno == EAGAIN || errno == EWOULDBLOCK;
    }
    return true;
}

void acceptAll(Runtime& rt)
{
    const uid_t self = ::geteuid();
    for (int i = 0; i < 256; ++i) {
        Fd fd(kuv::retryEintr([&] { return ::accept4(rt.listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); }));
        if (fd.get() < 0) {
            const int err = errno;
            if (err == ECONNABORTED) {
                continue;
            }
            if (err == EAGAIN || err == EWOULDBLOCK) {
                return;
            }
            if (rt.acceptWarning.due()) {
                KUV_LOG(kuv::LogLevel::Warn, "accept on %s failed: %s", rt.path.c_str(), std::strerror(err));
            }
            if ((err == EMFILE || err == ENFILE) && rt.spare.get() >= 0) {
                // Out of descriptors: take the waiting connection with the spare one and close it, so the
                // listener does not stay readable forever.
                rt.spare.reset();
                Fd drop(::accept4(rt.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
                drop.reset();
                rt.spare.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
                continue;
            }
            return;
        }
        struct ucred cred;
        socklen_t len = sizeof cred;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) {
            KUV_LOG(kuv::LogLevel::Warn, "connection without peer credentials refused");
            continue;
        }
        if (cred.uid != self) {
            KUV_LOG(kuv::LogLevel::Warn, "connection from uid %u (pid %d) refused: not uid %u",
                     static_cast<unsigned>(cred.uid), static_cast<int>(cred.pid), static_cast<unsigned>(self));
            continue;
        }
        if (rt.conns.size() >= kMaxConnections) {
            // The newest caller is most likely the user's own command: make room by dropping the
            // connection that has been idle longest (or, with none idle, the one silent longest).
            int oldest = -1;
            bool oldestIdle = false;
            Clock::time_point oldestTime = Clock::time_point::max();
            for (const auto& kv : rt.conns) {
                const Connection& other = *kv.second;
                const bool better = (other.idle() && !oldestIdle) ||
                                    (other.idle() == oldestIdle && other.lastFrame < oldestTime);
                if (oldest < 0 || better) {
                    oldest = kv.first;
                    oldestIdle = other.idle();
                    oldestTime = other.lastFrame;
                }
            }
            if (rt.fullWarning.due()) {
                KUV_LOG(kuv::LogLevel::Warn, "%zu connections open; the one %s longest is closed",
                         rt.conns.size(), oldestIdle ? "idle" : "silent");
            }
            if (oldest >= 0) {
                closeConnection(rt, oldest);
            }
        }
        auto c = std::make_unique<Connection>();
        c->pid = static_cast<unsigned long>(cred.pid);
        c->deadline = Clock::now() + kuvpipe::kConnectionDeadline;
        c->lastFrame = Clock::now();
        struct epoll_event ev {};
        ev.events = EPOLLIN | EPOLLRDHUP;
        ev.data.fd = fd.get();
        if (::epoll_ctl(rt.epoll.get(), EPOLL_CTL_ADD, fd.get(), &ev) != 0) {
            continue;
        }
        const int key = fd.get();
        c->fd = std::move(fd);
        rt.conns[key] = std::move(c);
    }
}

void ioLoop(std::shared_ptr<Runtime> rt)
{
    pthread_setname_np(pthread_self(), "kuv-pipe-io");
    std::vector<struct epoll_event> events(64);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(rt->mutex);
            if (rt->stopping) {
                break;
            }
        }
        int timeout = -1;
        if (!rt->conns.empty()) {
            auto next = Clock::time_point::max();
            for (const auto& kv : rt->conns) {
                next = std::min(next, kv.second->deadline);
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count() + 1;
            timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(left, 60000)));
        }
        const int n = ::epoll_wait(rt->epoll.get(), events.data(), static_cast<int>(events.size()), timeout);
        if (n < 0 && errno != EINTR) {
            KUV_LOG(kuv::LogLevel::Error, "epoll_wait failed: %s", std::strerror(errno));
            break;
        }
        const auto before = Clock::now();
        for (int i = 0; i < n; ++i) {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == rt->wake.get()) {
                continue; // the loop head sees the stop
            }
            if (fd == rt->listener.get()) {
                acceptAll(*rt);
                continue;
            }
            auto it = rt->conns.find(fd);
            if (it != rt->conns.end() && !readFrom(*rt, *it->second)) {
                closeConnection(*rt, fd);
            }
        }
        // A wait for queue space stalls everyone alike; it does not count against the connections.
        const auto stalled = Clock::now() - before;
        const auto now = Clock::now();
        std::vector<int> expired;
        for (auto& kv : rt->conns) {
            if (stalled > std::chrono::milliseconds(100)) {
                kv.second->deadline += stalled;
            }
            if (kv.second->deadline <= now) {
                expired.push_back(kv.first);
            }
        }
        for (int fd : expired) {
            closeConnection(*rt, fd);
        }
    }
    rt->conns.clear();
    rt->heldBytes = 0;
}

thread_local const Runtime* tl_delivering = nullptr;

void deliveryLoop(std::shared_ptr<Runtime> rt)
{
    pthread_setname_np(pthread_self(), "kuv-pipe-recv");
    tl_delivering = rt.get();
    std::unique_lock<std::mutex> lock(rt->mutex);
    for (;;) {
        rt->ready.wait(lock, [&] { return rt->stopping || !rt->queue.empty(); });
        if (rt->stopping) {
            break;
        }
        Message m = std::move(rt->queue.front());
        rt->queue.pop_front();
        rt->queuedBytes -= m.data.length();
        rt->space.notify_one();
        IRemoteCallNotify* notify = rt->notify;
        const long kind = rt->kind;
        void* context = rt->context;
        lock.unlock();
        if (notify != nullptr) {
            try {
                notify->RecvData(m.data, kind, context, m.pid);
            } catch (...) {
                KUV_LOG(kuv::LogLevel::Error, "message receiver threw; message dropped");
            }
        }
        lock.lock();
    }
    tl_delivering = nullptr;
}

// Binds the socket, replacing a file left by a holder that is gone; never one that still answers.
bool bindSocket(Runtime& rt)
{
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, rt.path.c_str(), rt.path.size());
    const auto* sa = reinterpret_cast<const struct sockaddr*>(&addr);
    // The socket's own mode becomes the file's mode at bind.
    ::fchmod(rt.listener.get(), 0600);
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (::bind(rt.listener.get(), sa, sizeof addr) == 0) {
            ::chmod(rt.path.c_str(), 0600);
            struct stat st;
            if (::stat(rt.path.c_str(), &st) == 0) {
                rt.sockDev = st.st_dev;
                rt.sockIno = st.st_ino;
            }
            return true;
        }
        if (errno != EADDRINUSE) {
            KUV_LOG(kuv::LogLevel::Error, "bind %s failed: %s", rt.path.c_str(), std::strerror(errno));
            return false;
        }
        struct stat st;
        if (::lstat(rt.path.c_str(), &st) != 0) {
            continue; // gone meanwhile
        }
        if (!S_ISSOCK(st.st_mode)) {
            KUV_LOG(kuv::LogLevel::Error, "%s exists and is not a socket; not replaced", rt.path.c_str());
            return false;
        }
        Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (probe.get() < 0) {
            return false;
        }
        if (::connect(probe.get(), sa, sizeof addr) == 0 || errno == EAGAIN || errno == EINPROGRESS) {
            KUV_LOG(kuv::LogLevel::Error, "%s is served by a running process", rt.path.c_str());
            return false;
        }
        if (errno != ECONNREFUSED) {
            KUV_LOG(kuv::LogLevel::Error, "%s cannot be probed: %s", rt.path.c_str(), std::strerror(errno));
            return false;
        }
        KUV_LOG(kuv::LogLevel::Info, "replacing stale socket %s", rt.path.c_str());
        ::unlink(rt.path.c_str());
    }
    KUV_LOG(kuv::LogLevel::Error, "bind %s failed: address stays in use", rt.path.c_str());
    return false;
}

} // namespace

CCharVector::CCharVector(const char* data, size_t size)
{
    assign(data, size);
}

void CCharVector::adopt(std::unique_ptr<char[]> data, size_t size)
{
    if (!data) {
        assign(nullptr, 0);
        return;
    }
    m_pData = std::move(data);
    m_size = size;
}

void CCharVector::assign(const char* data, size_t size)
{
    std::unique_ptr<char[]> fresh(new char[size + 1]);
    if (size != 0 && data != nullptr) {
        std::memcpy(fresh.get(), data, size);
    }
    fresh[size] = '\0';
    m_pData = std::move(fresh);
    m_size = size;
}

// The control mutex is never held while waiting for the threads, so a receiver may call back in.
struct CAfxPipeServer::Impl {
    std::mutex control;
    std::condition_variable stopped; // a stop finished
    std::string name;
    IRemoteCallNotify* notify = nullptr;
    long kind = 0;
    void* context = nullptr;
    std::shared_ptr<Runtime> rt;       // the running server
    std::shared_ptr<Runtime> stopping; // the server a stop() is taking down

    // Waits for a stop under way, unless this thread is a receiver of that very server.
    void waitForStop(std::unique_lock<std::mutex>& lock)
    {
        stopped.wait(lock, [this] { return !stopping || tl_delivering == stopping.get(); });
    }
};

CAfxPipeServer::CAfxPipeServer() : m_impl(std::make_unique<Impl>()) {}

CAfxPipeServer::~CAfxPipeServer()
{
    stop();
}

void CAfxPipeServer::setName(std::string name)
{
    std::lock_guard<std::mutex> lock(m_impl->control);
    m_impl->name = std::move(name);
}

void CAfxPipeServer::registerMonitor(IRemoteCallNotify* notify, long kind, void* context, bool /*flag*/)
{
    std::lock_guard<std::mutex> lock(m_impl->control);
    m_impl->notify = notify;
    m_impl->kind = kind;
    m_impl->context = context;
    if (m_impl->rt) {
        std::lock_guard<std::mutex> rtLock(m_impl->rt->mutex);
        m_impl->rt->notify = notify;
        m_impl->rt->kind = kind;
        m_impl->rt->context = context;
    }
}

int CAfxPipeServer::start()
{
    std::unique_lock<std::mutex> lock(m_impl->control);
    m_impl->waitForStop(lock);
    if (m_impl->rt) {
        return 1;
    }
    if (m_impl->stopping) {
        return 0; // called by a receiver of the server being stopped
    }
    try {
        auto rt = std::make_shared<Runtime>();
        std::string error;
        rt->path = kuv::runtimePath(m_impl->name, &error);
        if (rt->path.empty()) {
            KUV_LOG(kuv::LogLevel::Error, "no socket for \"%s\": %s", m_impl->name.c_str(),
                     error.c_str());
            return 0;
        }
        const std::string runtimeNotice = kuv::runtimeDirNotice();
        if (!runtimeNotice.empty()) {
            KUV_LOG(kuv::LogLevel::Warn, "%s", runtimeNotice.c_str());
        }
        if (rt->path.size() >= sizeof(sockaddr_un::sun_path)) {
            KUV_LOG(kuv::LogLevel::Error, "socket path %s is too long", rt->path.c_str());
            return 0;
        }
        // Held while serving: a second server of the same name is refused before touching the socket.
        const std::string lockPath = rt->path + ".lock";
        rt->lock.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (rt->lock.get() < 0) {
            KUV_LOG(kuv::LogLevel::Error, "cannot open %s: %s", lockPath.c_str(), std::strerror(errno));
            return 0;
        }
        if (::flock(rt->lock.get(), LOCK_EX | LOCK_NB) != 0) {
            KUV_LOG(kuv::LogLevel::Error, "%s is served by a running process", rt->path.c_str());
            return 0;
        }
        rt->listener.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        rt->epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
        rt->wake.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (rt->listener.get() < 0 || rt->epoll.get() < 0 || rt->wake.get() < 0) {
            KUV_LOG(kuv::LogLevel::Error, "cannot create descriptors: %s", std::strerror(errno));
            return 0;
        }
        rt->spare.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!bindSocket(*rt)) {
            return 0;
        }
        if (::listen(rt->listener.get(), kBacklog) != 0) {
            KUV_LOG(kuv::LogLevel::Error, "listen on %s failed: %s", rt->path.c_str(), std::strerror(errno));
            ::unlink(rt->path.c_str());
            return 0;
        }
        struct epoll_event ev {};
        ev.events = EPOLLIN;
        ev.data.fd = rt->listener.get();
        ::epoll_ctl(rt->epoll.get(), EPOLL_CTL_ADD, rt->listener.get(), &ev);
        ev.data.fd = rt->wake.get();
        ::epoll_ctl(rt->epoll.get(), EPOLL_CTL_ADD, rt->wake.get(), &ev);
        rt->notify = m_impl->notify;
        rt->kind = m_impl->kind;
        rt->context = m_impl->context;
        rt->delivery = std::thread(&deliveryLoop, rt);
        rt->io = std::thread(&ioLoop, rt);
        m_impl->rt = rt;
        KUV_LOG(kuv::LogLevel::Info, "listening on %s", rt->path.c_str());
        return 1;
    } catch (const std::exception& e) {
        KUV_LOG(kuv::LogLevel::Error, "start failed: %s", e.what());
        return 0;
    }
}

void CAfxPipeServer::stop()
{
    std::shared_ptr<Runtime> rt;
    {
        std::unique_lock<std::mutex> lock(m_impl->control);
        if (!m_impl->rt) {
            m_impl->waitForStop(lock); // another caller is stopping it: return when that is done
            return;
        }
        rt = std::move(m_impl->rt);
        m_impl->rt.reset();
        m_impl->stopping = rt;
    }
    {
        std::lock_guard<std::mutex> rtLock(rt->mutex);
        rt->stopping = true;
        rt->queue.clear();
        rt->queuedBytes = 0;
        rt->ready.notify_all();
        rt->space.notify_all();
    }
    const uint64_t one = 1;
    // The eventfd cannot be full with one write; the loop sees the flag at its next wake anyway.
    (void)kuv::safeWrite(rt->wake.get(), &one, sizeof one);
    if (rt->io.joinable()) {
        rt->io.join();
    }
    if (rt->delivery.joinable()) {
        // From inside RecvData the running call is our own; the thread ends right after it.
        if (tl_delivering == rt.get()) {
            rt->delivery.detach();
        } else {
            rt->delivery.join();
        }
    }
    // Remove the socket only while it is still the one we bound, then give up the name.
    struct stat st;
    if (::lstat(rt->path.c_str(), &st) == 0 && st.st_dev == rt->sockDev && st.st_ino == rt->sockIno) {
        ::unlink(rt->path.c_str());
    }
    rt->listener.reset();
    rt->lock.reset();
    {
        std::lock_guard<std::mutex> lock(m_impl->control);
        m_impl->stopping.reset();
        m_impl->stopped.notify_all();
    }
}

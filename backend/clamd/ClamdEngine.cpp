// SPDX-License-Identifier: GPL-2.0-or-later
// IScanEngine over clamd: each file travels as a descriptor (zFILDES + SCM_RIGHTS), so clamd reads only
// what the caller opened, with the caller's rights, and never resolves the path itself.
//
// clamd answers one command per connection unless the connection opens an IDSESSION. By default every
// file gets a connection of its own: clamd serves those faster than commands inside a session. With
// ClamdOptions::sessions, sessions are pooled instead: a worker takes an idle one, sends one FILDES,
// waits for its numbered answer and gives the session back; a session that clamd closed while it sat
// idle is noticed before use, and a stale one is retried once on a fresh connection.
#include "ClamdEngine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "ClamdReply.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace kuv {
namespace scan {

namespace {

using Clock = std::chrono::steady_clock;

// How often a waiting scan looks at its cancel flag: the flag is a plain atomic, it cannot wake poll().
constexpr int kCancelSliceMs = 20;
// Cached answer of VERSION, so that status reports do not cost a round trip each.
constexpr auto kInfoTtl = std::chrono::seconds(5);

std::string errnoText(int err) { return std::strerror(err); }

ScanResult errorResult(const std::string& reason)
{
    ScanResult r;
    r.verdict = Verdict::Error;
    r.reason = reason;
    return r;
}

enum class Io { Ok, Cancelled, TimedOut, Closed, Failed, TooLong };

struct Conn {
    UniqueFd fd;
    bool session = false;
    unsigned nextId = 1;         // clamd numbers the commands of a session from 1
    Clock::time_point lastUsed;
};

class ClamdEngine final : public IScanEngine {
public:
    ClamdEngine(std::string socketPath, const ClamdOptions& options)
        : m_path(std::move(socketPath)), m_opt(options)
    {
    }

    ~ClamdEngine() override
    {
        std::lock_guard<std::mutex> lock(m_poolMutex);
        for (Conn& c : m_pool) {
            static const char kEnd[] = "zEND";
            ::send(c.fd.get(), kEnd, sizeof kEnd, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }

    // Connects and asks VERSION once, so a socket that is not clamd is refused at creation.
    bool probe(std::string& error)
    {
        EngineInfo info;
        if (!queryVersion(info, error)) {
            return false;
        }
        std::lock_guard<std::mutex> lock(m_infoMutex);
        m_info = info;
        m_infoTime = Clock::now();
        return true;
    }

    ScanResult scanFd(int fd, const std::string& /*path*/, const ScanLimits& limits,
                      const std::atomic<bool>* cancel) override
    {
        struct stat st;
        if (::fstat(fd, &st) != 0) {
            return errorResult("engine: " + errnoText(errno));
        }
        if (!S_ISREG(st.st_mode)) {
            return errorResult("engine: not a regular file");
        }
        // clamd's limits are its own configuration; a tighter per-job size limit is applied here.
        if (limits.maxFileSize != 0 && static_cast<uint64_t>(st.st_size) > limits.maxFileSize) {
            ScanResult r;
            r.verdict = Verdict::Partial;
            r.reason = "not fully scanned: MaxFileSize";
            return r;
        }
        if (isCancelled(cancel)) {
            return errorResult("cancelled");
        }

        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_opt.scanTimeoutMs);
        std::string err;
        for (int attempt = 0; attempt < 2; ++attempt) {
            bool reused = false;
            Conn conn;
            if (!takeConn(conn, reused, err)) {
                return errorResult("engine: clamd unavailable: " + err);
            }
            std::string reply;
            const Io io = command(conn, "zFILDES", fd, deadline, cancel, reply);
            if (io == Io::Ok) {
                ScanResult r = clamd::parseScanReply(reply);
                if (r.verdict != Verdict::Error) {
                    r.bytesScanned = static_cast<uint64_t>(st.st_size);
                }
                giveConn(std::move(conn));
                return r;
            }
            // A session that clamd ended while it sat in the pool fails before any answer: retry once.
            if (!(reused && (io == Io::Closed || io == Io::Failed))) {
                return ioError(io);
            }
        }
        return errorResult("engine: clamd closed the connection");
    }

    ScanResult ioError(Io io) const
    {
        switch (io) {
        case Io::Cancelled:
            return errorResult("cancelled");
        case Io::TimedOut:
            return errorResult("engine: clamd did not answer within " + std::to_string(m_opt.scanTimeoutMs / 1000) +
                               " s");
        case Io::TooLong:
            return errorResult("engine: clamd reply too long");
        case Io::Closed:
            return errorResult("engine: clamd closed the connection");
        default:
            return errorResult("engine: clamd connection failed");
        }
    }

    EngineInfo info() const override
    {
        std::lock_guard<std::mutex> lock(m_infoMutex);
        if (Clock::now() - m_infoTime >= kInfoTtl) {
            EngineInfo fresh;
            std::string error;
            if (queryVersion(fresh, error)) {
                m_info = fresh;
            } else {
                m_info.dbError = "clamd unavailable: " + error;
            }
            m_infoTime = Clock::now();
        }
        return m_info;
    }

private:
    static bool isCancelled(const std::atomic<bool>* cancel)
    {
        return cancel != nullptr && cancel->load(std::memory_order_relaxed);
    }

    bool connectNew(Conn& conn, bool session, std::string& error) const
    {
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        if (m_path.empty() || m_path.size() >= sizeof addr.sun_path) {
            error = "bad socket path";
            return false;
        }
        std::memcpy(addr.sun_path, m_path.c_str(), m_path.size() + 1);
        UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!fd.valid()) {
            error = errnoText(errno);
            return false;
        }
        // A blocking connect bounded by the send timeout: it only waits when clamd's backlog is full.
        timeval tv = {};
        tv.tv_sec = m_opt.connectTimeoutMs / 1000;
        tv.tv_usec = (m_opt.connectTimeoutMs % 1000) * 1000;
        ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        const int rc = kuv::retryEintr(
            [&] { return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr); });
        if (rc != 0) {
            error = m_path + ": " + errnoText(errno);
            return false;
        }
        const int flags = ::fcntl(fd.get(), F_GETFL);
        if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
            error = errnoText(errno);
            return false;
        }
        conn.fd = std::move(fd);
        conn.session = session;
        conn.nextId = 1;
        if (session) {
            static const char kSession[] = "zIDSESSION";
            if (!sendAll(conn.fd.get(), kSession, sizeof kSession, -1)) {
                error = "IDSESSION: " + errnoText(errno);
                return false;
            }
        }
        return true;
    }

    bool takeConn(Conn& conn, bool& reused, std::string& error)
    {
        if (m_opt.sessions) {
            std::lock_guard<std::mutex> lock(m_poolMutex);
            const Clock::time_point now = Clock::now();
            while (!m_pool.empty()) {
                Conn c = std::move(m_pool.back());
                m_pool.pop_back();
                if (now - c.lastUsed > std::chrono::milliseconds(m_opt.idleReuseMs)) {
                    continue;
                }
                // Anything readable on an idle session is clamd's goodbye (EOF or a timeout notice).
                pollfd p = {c.fd.get(), POLLIN, 0};
                if (::poll(&p, 1, 0) != 0) {
                    continue;
                }
                conn = std::move(c);
                reused = true;
                return true;
            }
        }
        reused = false;
        return connectNew(conn, m_opt.sessions, error);
    }

    void giveConn(Conn&& conn)
    {
        if (!conn.session) {
            return;
        }
        conn.lastUsed = Clock::now();
        std::lock_guard<std::mutex> lock(m_poolMutex);
        if (m_pool.size() < m_opt.maxPooled) {
            m_pool.push_back(std::move(conn));
        }
    }

    // Writes everything, or the descriptor passFd with a one-byte message; false with errno set.
    static bool sendAll(int sock, const char* data, size_t size, int passFd)
    {
        while (size > 0) {
            msghdr msg = {};
            iovec iov = {const_cast<char*>(data), size};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
            if (passFd >= 0) {
                std::memset(control, 0, sizeof control);
                msg.msg_control = control;
                msg.msg_controllen = sizeof control;
                cmsghdr* cm = CMSG_FIRSTHDR(&msg);
                cm->cmsg_level = SOL_SOCKET;
                cm->cmsg_type = SCM_RIGHTS;
                cm->cmsg_len = CMSG_LEN(sizeof(int));
                std::memcpy(CMSG_DATA(cm), &passFd, sizeof(int));
            }
            const ssize_t n = kuv::retryEintr([&] { return ::sendmsg(sock, &msg, MSG_NOSIGNAL); });
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    // A command is a few bytes: a full buffer means clamd stopped reading; wait briefly.
                    pollfd p = {sock, POLLOUT, 0};
                    if (::poll(&p, 1, 1000) <= 0) {
                        errno = ETIMEDOUT;
                        return false;
                    }
                    continue;
                }
                return false;
            }
            passFd = -1;
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    static Io sendFailure()
    {
        if (errno == ETIMEDOUT) {
            return Io::TimedOut;
        }
        return errno == EPIPE || errno == ECONNRESET ? Io::Closed : Io::Failed;
    }

    // Sends name (with its NUL) and, for FILDES, the descriptor in a packet of its own; then reads one
    // NUL-terminated answer, without the session prefix.
    Io command(Conn& conn, const std::string& name, int passFd, Clock::time_point deadline,
               const std::atomic<bool>* cancel, std::string& reply) const
    {
        if (!sendAll(conn.fd.get(), name.c_str(), name.size() + 1, -1)) {
            return sendFailure();
        }
        if (passFd >= 0) {
            static const char kDummy[1] = {'\0'};
            if (!sendAll(conn.fd.get(), kDummy, 1, passFd)) {
                return sendFailure();
            }
        }
        const unsigned id = conn.nextId++;
        const Io io = readAnswer(conn.fd.get(), deadline, cancel, reply);
        if (io != Io::Ok) {
            return io;
        }
        if (conn.session && !clamd::stripSessionId(reply, id)) {
            // An answer that is not ours (or clamd's session error): the session cannot be trusted.
            conn.session = false;
            if (reply.find("ERROR") == std::string::npos) {
                reply = "unexpected session answer ERROR";
            }
        }
        return Io::Ok;
    }

    // One NUL-terminated answer (without the NUL) by deadline, waiting in slices that notice cancel.
    static Io readAnswer(int sock, Clock::time_point deadline, const std::atomic<bool>* cancel, std::string& reply)
    {
        reply.clear();
        char buf[512];
        for (;;) {
            if (isCancelled(cancel)) {
                return Io::Cancelled;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return Io::TimedOut;
            }
            const int slice = cancel != nullptr ? std::min<int>(kCancelSliceMs, static_cast<int>(left.count()))
                                                : static_cast<int>(std::min<int64_t>(left.count(), 60000));
            pollfd p = {sock, POLLIN, 0};
            const int pr = kuv::retryEintr([&] { return ::poll(&p, 1, slice); });
            if (pr < 0) {
                return Io::Failed;
            }
            if (pr == 0) {
                continue;
            }
            // Read only up to the NUL: a session's next answer must stay in the socket.
            const ssize_t n = kuv::retryEintr([&] { return ::recv(sock, buf, sizeof buf, MSG_PEEK); });
            if (n == 0) {
                return Io::Closed;
            }
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) {
                    continue;
                }
                return errno == ECONNRESET ? Io::Closed : Io::Failed;
            }
            const void* nul = std::memchr(buf, '\0', static_cast<size_t>(n));
            const size_t take = nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - buf) + 1
                                               : static_cast<size_t>(n);
            const ssize_t got = kuv::retryEintr([&] { return ::recv(sock, buf, take, 0); });
            if (got != static_cast<ssize_t>(take)) {
                return Io::Failed;
            }
            if (reply.size() + take > clamd::kMaxReply) {
                return Io::TooLong;
            }
            reply.append(buf, nul != nullptr ? take - 1 : take);
            if (nul != nullptr) {
                return Io::Ok;
            }
        }
    }

    bool queryVersion(EngineInfo& info, std::string& error) const
    {
        Conn conn;
        if (!connectNew(conn, false, error)) {
            return false;
        }
        std::string reply;
        const Io io = command(conn, "zVERSION", -1,
                              Clock::now() + std::chrono::milliseconds(m_opt.connectTimeoutMs), nullptr, reply);
        if (io != Io::Ok) {
            error = io == Io::TimedOut ? "no answer to VERSION" : "VERSION failed";
            return false;
        }
        clamd::VersionInfo v;
        if (!clamd::parseVersion(reply, v)) {
            error = "not a clamd answer to VERSION";
            return false;
        }
        info = EngineInfo();
        info.engine = "clamd";
        info.engineVersion = v.engineVersion;
        info.dbVersion = v.dbVersion;
        info.dbTime = v.dbTime;
        // clamd does not tell how many signatures it holds; 0 means unknown.
        info.signatures = 0;
        return true;
    }

    const std::string m_path;
    const ClamdOptions m_opt;

    std::mutex m_poolMutex;
    std::vector<Conn> m_pool;

    mutable std::mutex m_infoMutex;
    mutable EngineInfo m_info;
    mutable Clock::time_point m_infoTime;
};

} // namespace

std::unique_ptr<IScanEngine> makeClamdEngine(const std::string& socketPath, std::string& error)
{
    return makeClamdEngine(socketPath, ClamdOptions(), error);
}

std::unique_ptr<IScanEngine> makeClamdEngine(const std::string& socketPath, const ClamdOptions& options,
                                             std::string& error)
{
    auto engine = std::make_unique<ClamdEngine>(socketPath, options);
    if (!engine->probe(error)) {
        error = "clamd at " + socketPath + ": " + error;
        return nullptr;
    }
    return engine;
}

} // namespace scan
} // namespace kuv

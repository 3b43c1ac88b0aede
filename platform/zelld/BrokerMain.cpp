// SPDX-License-Identifier: GPL-2.0-or-later
// kuv-zelld: the per-user message-bus broker. Clients (libZellClientMgr.so) connect over a ZMQ ipc socket in
// the private runtime directory and register endpoint GUIDs; the broker routes each message to the
// connection that owns its destination GUID.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <zmq.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <random>
#include <string>

#include "Daemon.h"
#include "FileUtils.h"
#include "KuvLogFile.h"
#include "PathWatch.h"
#include "PeerCredZmq.h"
#include "SafeIo.h"
#include "UniqueFd.h"
#include "WriteSignals.h"
#include "ZellAddress.h"
#include "ZellRouter.h"

namespace {

KUV_LOG_SOURCE("platform/zelld/BrokerMain");

using namespace zell;
using namespace zell::wire;
using kuv::LogLevel;
using kuv::UniqueFd;

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitRunning = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 3;

constexpr const char* kUsage =
    "Usage: kuv-zelld [options]\n"
    "The per-user message-bus broker of kuvgui.\n"
    "\n"
    "Options:\n"
    "  --socket ADDR     bus address (default ./kuv_zell); only its last component is used, the\n"
    "                    socket is created in the private runtime directory\n"
    "  --foreground      stay in the foreground and log to stderr (default: run as a daemon)\n"
    "  --log FILE        log file of the daemon (default DIR/log/kuv-zelld.log)\n"
    "  --log-level N     lowest level logged: 0 trace, 1 debug, 2 info (default), 3 warning, 4 error\n"
    "  --hwm N           messages queued per client before further ones are dropped (default 100000)\n"
    "  --help            this text\n"
    "\n"
    "SIGTERM or SIGINT stops the broker cleanly.\n"
    "Exit status: 0 stopped cleanly, 1 another broker already serves the address, 2 usage error,\n"
    "3 could not start (runtime directory, socket or lock).\n";

constexpr uint64_t kLogSize = 10u * 1024 * 1024;
constexpr size_t kLogBackups = 3;
// Inbound, a short queue is enough: a sender that outruns us waits in its own client.
constexpr int kInboundQueue = 10000;
constexpr const char* kMonitorAddress = "inproc://kuv-zelld-monitor";

struct Options {
    std::string socket = "./kuv_zell";
    bool foreground = false;
    std::string logFile;
    int logLevel = static_cast<int>(LogLevel::Info);
    int hwm = 100000;
};

kuv::LogFile g_log;

// Lets a burst of the same complaint through, then stays quiet for a while.
class RateLimit {
public:
    bool allow(int64_t nowMs)
    {
        if (nowMs - m_windowStart > 10000) {
            m_windowStart = nowMs;
            m_count = 0;
        }
        return ++m_count <= 20;
    }

private:
    int64_t m_windowStart = INT64_MIN / 2;
    int m_count = 0;
};

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool parseInt(const char* text, int min, int max, int& out)
{
    if (text == nullptr) {
        return false;
    }
    const char* end = text + std::strlen(text);
    int value = 0;
    const auto [stop, ec] = std::from_chars(text, end, value);
    if (text == end || ec != std::errc() || stop != end || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

// The exit status when the broker must not start (--help, a usage error), nothing when it may.
std::optional<int> parseOptions(int argc, char** argv, Options& options)
{
    enum { kSocket = 1000, kLog, kLogLevel, kHwm };
    static const struct option longOptions[] = {
        {"help", no_argument, nullptr, 'h'},         {"foreground", no_argument, nullptr, 'f'},
        {"socket", required_argument, nullptr, kSocket}, {"log", required_argument, nullptr, kLog},
        {"log-level", required_argument, nullptr, kLogLevel}, {"hwm", required_argument, nullptr, kHwm},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0; // the messages below name the broker
    int option;
    while ((option = getopt_long(argc, argv, ":hf", longOptions, nullptr)) != -1) {
        switch (option) {
        case 'h':
            fputs(kUsage, stdout);
            return kExitOk;
        case 'f':
            options.foreground = true;
            break;
        case kSocket:
            options.socket = optarg;
            break;
        case kLog:
            options.logFile = optarg;
            break;
        case kLogLevel:
            if (!parseInt(optarg, static_cast<int>(LogLevel::Trace), static_cast<int>(LogLevel::Error),
                          options.logLevel)) {
                fprintf(stderr, "kuv-zelld: --log-level takes 0..4\n");
                return kExitUsage;
            }
            break;
        case kHwm:
            if (!parseInt(optarg, 1, 10000000, options.hwm)) {
                fprintf(stderr, "kuv-zelld: --hwm takes 1..10000000\n");
                return kExitUsage;
            }
            break;
        case ':':
            fprintf(stderr, "kuv-zelld: %s needs a value\n", kuv::escapeControl(argv[optind - 1]).c_str());
            fputs("Try 'kuv-zelld --help'.\n", stderr);
            return kExitUsage;
        default:
            fprintf(stderr, "kuv-zelld: unknown argument '%s'\n", kuv::escapeControl(argv[optind - 1]).c_str());
            fputs("Try 'kuv-zelld --help'.\n", stderr);
            return kExitUsage;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "kuv-zelld: unknown argument '%s'\n", kuv::escapeControl(argv[optind]).c_str());
        fputs("Try 'kuv-zelld --help'.\n", stderr);
        return kExitUsage;
    }
    return std::nullopt;
}

// The one-broker-per-address lock: a flock on "<socket>.lock" beside the socket.
bool takeLock(const std::string& lockPath, UniqueFd& lock, std::string& holder)
{
    lock.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.get() < 0) {
        holder = std::string("cannot open ") + lockPath + ": " + strerror(errno);
        return false;
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = {0};
        const ssize_t n = ::pread(lock.get(), pid, sizeof(pid) - 1, 0);
        std::string text = n > 0 ? std::string(pid, static_cast<size_t>(n)) : std::string();
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
            text.pop_back();
        }
        holder = text.empty() ? std::string("?") : kuv::escapeControl(text);
        lock.reset();
        return false;
    }
    return true;
}

// kExitOk with the lock held, else the exit status (told on stderr).
int lockAddress(const BusAddress& address, UniqueFd& lock)
{
    std::string holder;
    if (takeLock(address.path + ".lock", lock, holder)) {
        return kExitOk;
    }
    if (holder.rfind("cannot open", 0) == 0) {
        fprintf(stderr, "kuv-zelld: %s\n", holder.c_str());
        return kExitFailure;
    }
    fprintf(stderr, "kuv-zelld: a broker already serves %s (pid %s)\n", address.path.c_str(), holder.c_str());
    return kExitRunning;
}

void writePid(int fd)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        (void)!::pwrite(fd, text.data(), text.size(), 0);
    }
}

void openLog(const Options& options)
{
    g_log.setLevel(static_cast<LogLevel>(options.logLevel));
    if (options.foreground && options.logFile.empty()) {
        g_log.openStderr();
        return;
    }
    const std::string path = options.logFile.empty() ? kuv::installDir() + "log/kuv-zelld.log" : options.logFile;
    std::string why;
    if (!g_log.open(path, std::string(), kLogSize, kLogBackups, &why) && options.foreground) {
        fprintf(stderr, "kuv-zelld: no log: %s\n", why.c_str());
    }
}

// Stop signals are taken through a descriptor; blocked before ZMQ starts its threads so none sees them.
UniqueFd stopSignals()
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGHUP, SIG_IGN);
    return UniqueFd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
}

// The socket file of the bus: a leftover of a dead broker is replaced (we hold the lock), anything else is
// left alone; on the way out it is removed, but only if it is still the one this broker made.
class SocketFile {
public:
    explicit SocketFile(std::string path) : m_path(std::move(path)) {}
    ~SocketFile()
    {
        struct stat now {};
        if (m_bound && ::stat(m_path.c_str(), &now) == 0 && now.st_ino == m_ino && now.st_dev == m_dev) {
            ::unlink(m_path.c_str());
        }
    }
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    bool clearStale(bool foreground) const
    {
        struct stat st {};
        if (::lstat(m_path.c_str(), &st) != 0) {
            return true;
        }
        if (!S_ISSOCK(st.st_mode)) {
            KUV_LOG_TO(&g_log, LogLevel::Error, "%s exists and is not a socket; not touching it", m_path.c_str());
            if (foreground) {
                fprintf(stderr, "kuv-zelld: %s exists and is not a socket\n", m_path.c_str());
            }
            return false;
        }
        ::unlink(m_path.c_str());
        KUV_LOG_TO(&g_log, LogLevel::Info, "replaced the socket of a broker that is gone");
        return true;
    }

    // The socket was just bound: private to the user, and remembered to be removed.
    void bound()
    {
        ::chmod(m_path.c_str(), 0600);
        struct stat st {};
        m_bound = ::stat(m_path.c_str(), &st) == 0;
        m_dev = st.st_dev;
        m_ino = st.st_ino;
    }

private:
    std::string m_path;
    bool m_bound = false;
    dev_t m_dev = 0;
    ino_t m_ino = 0;
};

// false when the router cannot listen (logged, and told on stderr in the foreground).
bool listen(zmq::socket_t& router, const BusAddress& address, const Options& options)
{
    router.set(zmq::sockopt::router_mandatory, 1);
    router.set(zmq::sockopt::router_handover, 1);
    router.set(zmq::sockopt::linger, 0);
    router.set(zmq::sockopt::sndhwm, options.hwm);
    router.set(zmq::sockopt::rcvhwm, kInboundQueue);
    router.set(zmq::sockopt::maxmsgsize, static_cast<int64_t>(kMaxFrameSize));
    const mode_t oldMask = ::umask(0077);
    const int bound = zmq_bind(router.handle(), address.endpoint.c_str());
    const int bindErrno = zmq_errno();
    ::umask(oldMask);
    if (bound == 0) {
        return true;
    }
    KUV_LOG_TO(&g_log, LogLevel::Error, "cannot listen on %s: %s", address.endpoint.c_str(), zmq_strerror(bindErrno));
    if (options.foreground) {
        fprintf(stderr, "kuv-zelld: cannot listen on %s: %s\n", address.endpoint.c_str(), zmq_strerror(bindErrno));
    }
    return false;
}

// A PAIR socket that receives the router's disconnect events. cppzmq's monitor_t keeps its socket to itself
// and waits on it alone; the broker waits on the router, the monitor and its signals in one poll.
zmq::socket_t watchDisconnects(zmq::context_t& context, zmq::socket_t& router)
{
    if (zmq_socket_monitor(router.handle(), kMonitorAddress, ZMQ_EVENT_DISCONNECTED) != 0) {
        throw zmq::error_t();
    }
    zmq::socket_t monitor(context, zmq::socket_type::pair);
    monitor.set(zmq::sockopt::linger, 0);
    monitor.connect(kMonitorAddress);
    return monitor;
}

bool processAlive(int32_t pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

// Whether descriptor fd (a client connection as libzmq numbers it) is still an open connection of pid.
// By the time a close is reported the number may be closed, or reused for another connection.
bool connectionOpen(int fd, int32_t pid)
{
    struct ucred peer {};
    socklen_t length = sizeof(peer);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return false;
    }
    if (pid > 0 && peer.pid != pid) {
        return false;
    }
    struct pollfd p {fd, POLLRDHUP, 0};
    if (::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0) {
        return false;
    }
    return true;
}

uint64_t randomInstance()
{
    std::random_device device;
    const uint64_t value = (uint64_t(device()) << 32) ^ device() ^ uint64_t(getpid()) ^
                           static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    return value == 0 ? 1 : value;
}

class Broker {
public:
    Broker(zmq::socket_t& socket, zmq::socket_t& monitor, int signalFd, kuv::PathWatch& socketWatch)
        : m_socket(socket), m_monitor(monitor), m_signalFd(signalFd), m_socketWatch(socketWatch),
          m_router(static_cast<uint32_t>(geteuid()), randomInstance(), Router::Limits{}, processAlive)
    {
        m_router.setConnectionCheck(connectionOpen);
    }

    int run();
    const Router& router() const { return m_router; }

private:
    bool stopRequested();
    bool socketGone();
    bool drainRouter();
    bool receiveOne();
    size_t readFrames(bool& tooLong);
    bool rejected(const Router::Decision& decision, const PeerCred& cred, size_t count, bool tooLong, int64_t now);
    void act(const std::string& peer, const PeerCred& cred, Router::Decision& decision);
    void readMonitor();
    void sendSmall(const std::string& peer, const std::string& message);
    void forward(const std::string& sender, Router::Decision& decision);

    zmq::socket_t& m_socket;
    zmq::socket_t& m_monitor; // PAIR socket with the router's disconnect events
    int m_signalFd;
    kuv::PathWatch& m_socketWatch; // the socket file: clients find the broker only through it
    Router m_router;
    // Routing id + the message; a few more are kept only to report them (a message is one frame).
    std::array<zmq::message_t, 4> m_frames;
    RateLimit m_badLimit;
    RateLimit m_dropLimit;
};

void Broker::sendSmall(const std::string& peer, const std::string& message)
{
    if (message.empty()) {
        return;
    }
    try {
        if (m_socket.send(zmq::buffer(peer), zmq::send_flags::sndmore | zmq::send_flags::dontwait)) {
            m_socket.send(zmq::buffer(message), zmq::send_flags::dontwait);
        }
        // Not sent: a client that does not read its replies only loses them.
    } catch (const zmq::error_t& e) {
        if (e.num() == EHOSTUNREACH) {
            m_router.dropPeer(peer);
        }
    }
}

void Broker::forward(const std::string& sender, Router::Decision& decision)
{
    const std::string& dest = decision.forwardTo;
    uint32_t failure = 0;
    try {
        // Not sent: the destination's queue is full (we never wait for a slow client).
        if (!m_socket.send(zmq::buffer(dest), zmq::send_flags::sndmore | zmq::send_flags::dontwait)) {
            failure = kErrCongested;
        } else {
            // The Send goes on as it came, without a copy; only its command byte changes.
            static_cast<uint8_t*>(m_frames[1].data())[3] = static_cast<uint8_t>(Cmd::Deliver);
            m_socket.send(m_frames[1], zmq::send_flags::dontwait);
        }
    } catch (const zmq::error_t& e) {
        // EHOSTUNREACH: the destination's connection is gone.
        if (e.num() == EHOSTUNREACH) {
            m_router.dropPeer(dest);
            failure = kErrUnknownDest;
        } else {
            failure = kErrCongested;
        }
    }
    if (failure == 0) {
        sendSmall(sender, m_router.routed(decision.msg));
        return;
    }
    if (m_dropLimit.allow(nowMs())) {
        KUV_LOG_TO(&g_log, LogLevel::Warn, "message %s -> %s type %lld not routed: %s",
                   guidText(decision.msg.src).c_str(), guidText(decision.msg.dest).c_str(),
                   static_cast<long long>(decision.msg.meta.type),
                   failure == kErrCongested ? "destination congested" : "destination gone");
    }
    sendSmall(sender, m_router.notRouted(sender, decision.msg, failure, nowMs()));
}

// Reads one whole multipart message into m_frames; its frame count, 0 when none is waiting.
size_t Broker::readFrames(bool& tooLong)
{
    size_t count = 0;
    tooLong = false;
    for (;;) {
        zmq::message_t spill;
        zmq::message_t& target = count < m_frames.size() ? m_frames[count] : spill;
        if (count < m_frames.size()) {
            target.rebuild();
        }
        const auto flags = count == 0 ? zmq::recv_flags::dontwait : zmq::recv_flags::none;
        if (!m_socket.recv(target, flags)) {
            return count; // cannot happen mid-message; what we have is the message
        }
        if (count >= m_frames.size()) {
            tooLong = true;
        }
        ++count;
        if (!target.more()) {
            return count;
        }
    }
}

// Whether the message goes no further: malformed or from a foreign sender (logged, rate limited).
bool Broker::rejected(const Router::Decision& decision, const PeerCred& cred, size_t count, bool tooLong,
                      int64_t now)
{
    if (!tooLong && decision.error == ParseError::None && !decision.foreign) {
        return false;
    }
    if (!m_badLimit.allow(now)) {
        return true;
    }
    if (!decision.foreign) {
        KUV_LOG_TO(&g_log, LogLevel::Warn, "dropped a malformed message from pid %d (%zu frames): %s",
                   cred.known ? cred.pid : 0, count, tooLong ? "too many frames" : parseErrorText(decision.error));
    } else if (cred.known) {
        KUV_LOG_TO(&g_log, LogLevel::Warn, "dropped a message from uid %u pid %d: not our user", cred.uid, cred.pid);
    } else {
        KUV_LOG_TO(&g_log, LogLevel::Warn, "dropped a message whose sender is unknown");
    }
    return true;
}

void Broker::act(const std::string& peer, const PeerCred& cred, Router::Decision& decision)
{
    switch (decision.action) {
    case Router::Action::Drop:
        if (decision.refusedUnregister && m_badLimit.allow(nowMs())) {
            KUV_LOG_TO(&g_log, LogLevel::Warn, "refused unregister of %s by pid %d: not its owner",
                       guidText(decision.msg.dest).c_str(), cred.pid);
        }
        break;
    case Router::Action::Reply:
        if (decision.msg.cmd == Cmd::Register) {
            const bool ok = decision.reply.size() == kHeaderSize + kGuidSize + 4 &&
                            getU32(reinterpret_cast<const uint8_t*>(decision.reply.data()) + kHeaderSize + kGuidSize) ==
                                kRegOk;
            KUV_LOG_TO(&g_log, LogLevel::Debug, "register %s by pid %d: %s", guidText(decision.msg.dest).c_str(),
                       cred.pid, ok ? "ok" : "refused");
        }
        sendSmall(peer, decision.reply);
        break;
    case Router::Action::Forward:
        forward(peer, decision);
        break;
    }
}

// Handles one whole multipart message; false when none is waiting.
bool Broker::receiveOne()
{
    bool tooLong = false;
    const size_t count = readFrames(tooLong);
    if (count == 0) {
        return false;
    }
    const int64_t now = nowMs();
    const std::string peer(static_cast<const char*>(m_frames[0].data()), m_frames[0].size());
    // Every message is checked on its own credentials, the first one after a poll wake-up included.
    const PeerCred cred = peerCredOf(m_frames.data(), std::min(count, m_frames.size()));

    Router::Decision decision;
    if (tooLong) {
        m_router.noteMalformed();
    } else {
        std::array<FrameView, 4> views;
        for (size_t i = 1; i < count; ++i) {
            views[i - 1] = FrameView{m_frames[i].data(), m_frames[i].size()};
        }
        decision = m_router.handle(peer, cred, views.data(), count - 1, now);
        // The connection's descriptor rides on the payload: a routing id prefetched by zmq_poll has none.
        const int fd = zmq_msg_get(m_frames[count > 1 ? 1 : 0].handle(), ZMQ_SRCFD);
        if (!m_router.noteConnection(peer, fd)) {
            KUV_LOG_TO(&g_log, LogLevel::Debug, "pid %d: its connection had already closed; dropped",
                       cred.known ? cred.pid : 0);
        }
    }
    if (!rejected(decision, cred, count, tooLong, now)) {
        act(peer, cred, decision);
    }
    return true;
}

// A client's connection closed: its endpoints go at once, so a restarted client gets its GUIDs back.
void Broker::readMonitor()
{
    for (;;) {
        zmq::message_t event;
        if (!m_monitor.recv(event, zmq::recv_flags::dontwait)) {
            return;
        }
        uint16_t id = 0;
        uint32_t value = 0;
        if (event.size() >= 6) {
            memcpy(&id, event.data(), sizeof(id));
            memcpy(&value, static_cast<const char*>(event.data()) + 2, sizeof(value));
        }
        for (bool more = event.more(); more;) { // the endpoint address
            zmq::message_t part;
            if (!m_monitor.recv(part)) {
                return;
            }
            more = part.more();
        }
        if (id == ZMQ_EVENT_DISCONNECTED) {
            const size_t gone = m_router.connectionClosed(static_cast<int>(value));
            if (gone > 0) {
                KUV_LOG_TO(&g_log, LogLevel::Info, "connection %u closed: dropped %zu client(s) and their endpoints",
                           value, gone);
            }
        }
    }
}

bool Broker::stopRequested()
{
    signalfd_siginfo info;
    if (kuv::safeRead(m_signalFd, &info, sizeof(info)) != sizeof(info)) {
        return false;
    }
    KUV_LOG_TO(&g_log, LogLevel::Info, "signal %u: stopping", info.ssi_signo);
    return true;
}

// Without its socket file no client can reach the broker again, and a new one may already listen at
// the path; at logout the runtime directory goes with it.
bool Broker::socketGone()
{
    if (!m_socketWatch.gone()) {
        return false;
    }
    KUV_LOG_TO(&g_log, LogLevel::Info, "%s: stopping", m_socketWatch.why().c_str());
    return true;
}

// Drains the router until it has nothing more (true) or a batch is done (false: more may be waiting).
// Bounded, so signals and connection events are looked at under constant load too.
bool Broker::drainRouter()
{
    for (int i = 0; i < 4096; ++i) {
        if (!receiveOne()) {
            return true;
        }
    }
    return false;
}

int Broker::run()
{
    // A plain poll on the sockets' own descriptors: zmq_poll would ask every socket for its events
    // before and after each wait, a system call each, for every message. A socket's descriptor only
    // wakes us for what arrives after it was last read to EAGAIN, so each socket is drained to EAGAIN
    // (the router by receiveOne, the monitor by readMonitor) before we sleep again.
    const int routerFd = m_socket.get(zmq::sockopt::fd);
    const int monitorFd = m_monitor.get(zmq::sockopt::fd);
    bool routerIdle = false; // drained to EAGAIN since its last use
    bool monitorIdle = false;
    for (;;) {
        struct pollfd items[4] = {{routerFd, POLLIN, 0},
                                  {monitorFd, POLLIN, 0},
                                  {m_signalFd, POLLIN, 0},
                                  {m_socketWatch.fd(), POLLIN, 0}};
        // No timeout while both sockets are drained: the broker sleeps until a message, a connection
        // event or a signal arrives.
        const int timeout = routerIdle && monitorIdle ? -1 : 0;
        if (kuv::retryEintr([&] { return ::poll(items, std::size(items), timeout); }) < 0) {
            KUV_LOG_TO(&g_log, LogLevel::Error, "poll: %s", strerror(errno));
            return kExitFailure;
        }
        try {
            if ((items[2].revents & POLLIN) && stopRequested()) {
                return kExitOk;
            }
            if ((items[3].revents & POLLIN) && socketGone()) {
                return kExitOk;
            }
            if (!routerIdle || (items[0].revents & POLLIN)) {
                routerIdle = drainRouter();
            }
            if (!monitorIdle || (items[1].revents & POLLIN)) {
                readMonitor();
                monitorIdle = true;
            }
        } catch (const zmq::error_t& e) {
            if (e.num() == EINTR) {
                routerIdle = monitorIdle = false;
                continue;
            }
            KUV_LOG_TO(&g_log, LogLevel::Error, "bus socket failed: %s", e.what());
            return kExitFailure;
        }
    }
}

void logCounters(const Router::Counters& c)
{
    KUV_LOG_TO(&g_log, LogLevel::Info,
               "stopped: received %llu, routed %llu, unknown destination %llu, congested %llu, malformed %llu, "
               "foreign %llu, registrations %llu, refused %llu, closed clients %llu",
               (unsigned long long)c.received, (unsigned long long)c.routed, (unsigned long long)c.unknownDest,
               (unsigned long long)c.congested, (unsigned long long)c.malformed, (unsigned long long)c.foreignPeer,
               (unsigned long long)c.registered, (unsigned long long)c.refused, (unsigned long long)c.closedPeers);
}

// Listens on the bus address and routes until a stop signal; the exit status. The start-up status goes to
// ready (the process waiting for the daemon) once the broker listens, or failed to.
int serve(const Options& options, const BusAddress& address, UniqueFd& ready)
{
    const std::string runtimeNotice = kuv::runtimeDirNotice();
    if (!runtimeNotice.empty()) {
        KUV_LOG_TO(&g_log, LogLevel::Warn, "%s", runtimeNotice.c_str());
    }
    const UniqueFd signals = stopSignals();
    if (!signals.valid()) {
        KUV_LOG_TO(&g_log, LogLevel::Error, "signalfd: %s", strerror(errno));
        kuv::reportReady(ready, kExitFailure);
        return kExitFailure;
    }
    SocketFile socketFile(address.path);
    if (!socketFile.clearStale(options.foreground)) {
        kuv::reportReady(ready, kExitFailure);
        return kExitFailure;
    }
    try {
        zmq::context_t context;
        zmq::socket_t router(context, zmq::socket_type::router);
        if (!listen(router, address, options)) {
            kuv::reportReady(ready, kExitFailure);
            return kExitFailure;
        }
        socketFile.bound();
        zmq::socket_t monitor = watchDisconnects(context, router);
        kuv::PathWatch socketWatch;
        if (!socketWatch.watch(address.path)) {
            // Serving goes on; only a removed socket would go unnoticed.
            KUV_LOG_TO(&g_log, LogLevel::Warn, "cannot watch %s: %s", address.path.c_str(), strerror(errno));
        }

        Broker broker(router, monitor, signals.get(), socketWatch);
        KUV_LOG_TO(&g_log, LogLevel::Info, "kuv-zelld %s serving %s (pid %d, instance %016llx)", KUV_VERSION,
                   address.endpoint.c_str(), static_cast<int>(getpid()),
                   static_cast<unsigned long long>(broker.router().instance()));
        kuv::reportReady(ready, kExitOk);
        const int result = broker.run();
        logCounters(broker.router().counters());
        return result;
    } catch (const zmq::error_t& e) {
        KUV_LOG_TO(&g_log, LogLevel::Error, "cannot serve the bus: %s", e.what());
        kuv::reportReady(ready, kExitFailure);
        return kExitFailure;
    }
}

} // namespace

int main(int argc, char** argv)
{
    kuv::ignoreWriteSignals();
    Options options;
    if (const std::optional<int> status = parseOptions(argc, argv, options)) {
        return *status;
    }
    BusAddress address;
    std::string error;
    if (!resolveAddress(options.socket, address, &error)) {
        fprintf(stderr, "kuv-zelld: %s\n", error.c_str());
        return kExitFailure;
    }
    UniqueFd lock;
    if (const int status = lockAddress(address, lock); status != kExitOk) {
        return status;
    }
    UniqueFd ready;
    if (!options.foreground &&
        !kuv::daemonize(ready, kExitFailure, "kuv-zelld: the daemon could not start; see its log\n")) {
        fprintf(stderr, "kuv-zelld: cannot go to the background: %s\n", strerror(errno));
        return kExitFailure;
    }
    writePid(lock.get());
    openLog(options);
    return serve(options, address, ready);
}

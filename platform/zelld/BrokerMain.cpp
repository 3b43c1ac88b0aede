// kuv-zelld: the per-user message-bus broker. Clients (libZellClientMgr.so) connect over a ZMQ ipc socket in
// the private runtime directory and register endpoint GUIDs; the broker routes each message to the
// connection that owns its destination GUID.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zmq.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "FileUtils.h"
#include "ZellAddress.h"
#include "PeerCredZmq.h"
#include "ZellLogFile.h"
#include "ZellRouter.h"
#include "UniqueFd.h"
#include "WriteSignals.h"

namespace {

using namespace zell;
using namespace zell::wire;

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

struct Options {
    std::string socket = "./kuv_zell";
    bool foreground = false;
    std::string logFile;
    int logLevel = 2;
    int hwm = 100000;
};

using Fd = kuv::UniqueFd;

// Levels as in the project log: 0 trace .. 4 error.
class Log {
public:
    void setLevel(int level) { m_level = level; }
    LogFile& file() { return m_file; }
    void print(int level, const char* function, int line, const char* format, ...) __attribute__((format(printf, 5, 6)))
    {
        if (level < m_level) {
            return;
        }
        static const char* const names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR"};
        char text[1024];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof(text), format, args);
        va_end(args);
        m_file.write(names[level < 0 ? 0 : (level > 4 ? 4 : level)], "platform/zelld/BrokerMain", function, line, text);
    }

private:
    LogFile m_file;
    int m_level = 2;
};

Log g_log;
#define LOGT(level, ...) g_log.print(level, __func__, __LINE__, __VA_ARGS__)

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

bool parseInt(const char* text, long min, long max, int& out)
{
    if (text == nullptr || *text == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) {
        return false;
    }
    out = static_cast<int>(value);
    return true;
}

// 0: parsed; 1: --help; -1: usage error (message printed).
int parseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                fprintf(stderr, "kuv-zelld: %s needs a value\n", name);
                return nullptr;
            }
            return argv[++i];
        };
        if (arg == "--help" || arg == "-h") {
            return 1;
        } else if (arg == "--foreground" || arg == "-f") {
            options.foreground = true;
        } else if (arg == "--socket") {
            const char* v = value("--socket");
            if (v == nullptr) {
                return -1;
            }
            options.socket = v;
        } else if (arg == "--log") {
            const char* v = value("--log");
            if (v == nullptr) {
                return -1;
            }
            options.logFile = v;
        } else if (arg == "--log-level") {
            const char* v = value("--log-level");
            if (v == nullptr || !parseInt(v, 0, 4, options.logLevel)) {
                fprintf(stderr, "kuv-zelld: --log-level takes 0..4\n");
                return -1;
            }
        } else if (arg == "--hwm") {
            const char* v = value("--hwm");
            if (v == nullptr || !parseInt(v, 1, 10000000, options.hwm)) {
                fprintf(stderr, "kuv-zelld: --hwm takes 1..10000000\n");
                return -1;
            }
        } else {
            fprintf(stderr, "kuv-zelld: unknown argument '%s'\n", kuv::escapeControl(arg).c_str());
            return -1;
        }
    }
    return 0;
}

std::string installDir()
{
    const char* env = getenv("KUV_INSTALL_DIR");
    if (env != nullptr && *env != '\0') {
        std::string dir = env;
        if (dir.back() != '/') {
            dir += '/';
        }
        return dir;
    }
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n <= 0) {
        return std::string();
    }
    std::string path(exe, static_cast<size_t>(n));
    for (int i = 0; i < 2; ++i) {
        const size_t slash = path.find_last_of('/');
        if (slash == std::string::npos) {
            return std::string();
        }
        path.resize(slash);
    }
    return path + "/";
}

// The one-broker-per-address lock: a flock on "<socket>.lock" beside the socket.
bool takeLock(const std::string& lockPath, Fd& lock, std::string& holder)
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

void writePid(int fd)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        (void)!::pwrite(fd, text.data(), text.size(), 0);
    }
}

// Forks into the background; the parent waits for the child's report on `ready` and exits with it.
// Returns in the daemon only; ready is the write end the daemon reports through.
bool daemonize(Fd& ready)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    if (child > 0) {
        ::close(fds[1]);
        unsigned char status = kExitFailure;
        ssize_t n;
        do {
            n = ::read(fds[0], &status, 1);
        } while (n < 0 && errno == EINTR);
        ::waitpid(child, nullptr, 0);
        if (n != 1 || status != kExitOk) {
            fprintf(stderr, "kuv-zelld: the daemon could not start; see its log\n");
        }
        _exit(n == 1 ? status : kExitFailure);
    }
    ::close(fds[0]);
    ::setsid();
    const pid_t grandchild = ::fork();
    if (grandchild < 0) {
        _exit(kExitFailure);
    }
    if (grandchild > 0) {
        _exit(0); // the first parent reads the report from the grandchild through the same pipe
    }
    ready.reset(fds[1]);
    if (::chdir("/") != 0) {
        // Staying in the start directory is harmless.
    }
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        if (null > STDERR_FILENO) {
            ::close(null);
        }
    }
    return true;
}

void report(Fd& ready, unsigned char status)
{
    if (ready.get() >= 0) {
        (void)!::write(ready.get(), &status, 1);
        ready.reset();
    }
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

// RAII for the ZMQ context and socket, so every exit path closes them.
struct ZmqContext {
    void* ctx = zmq_ctx_new();
    ~ZmqContext()
    {
        if (ctx != nullptr) {
            zmq_ctx_term(ctx);
        }
    }
};
struct ZmqSocket {
    void* sock = nullptr;
    ~ZmqSocket()
    {
        if (sock != nullptr) {
            zmq_close(sock);
        }
    }
};
struct ZmqMsg {
    zmq_msg_t msg;
    ZmqMsg() { zmq_msg_init(&msg); }
    ~ZmqMsg() { zmq_msg_close(&msg); }
    ZmqMsg(const ZmqMsg&) = delete;
    ZmqMsg& operator=(const ZmqMsg&) = delete;
    void reset()
    {
        zmq_msg_close(&msg);
        zmq_msg_init(&msg);
    }
};

class Broker {
public:
    Broker(void* socket, void* monitor, int signalFd)
        : m_socket(socket), m_monitor(monitor), m_signalFd(signalFd),
          m_router(static_cast<uint32_t>(geteuid()), randomInstance(), Router::Limits{}, processAlive)
    {
        m_router.setConnectionCheck(connectionOpen);
    }

    int run();
    const Router& router() const { return m_router; }

private:
    bool receiveOne();
    void readMonitor();
    void sendSmall(const std::string& peer, const std::string& message);
    void forward(const std::string& sender, Router::Decision& decision);

    void* m_socket;
    void* m_monitor; // PAIR socket with the router's disconnect events
    int m_signalFd;
    Router m_router;
    // Routing id + the message; a few more are kept only to report them (a message is one frame).
    std::array<ZmqMsg, 4> m_frames;
    RateLimit m_badLimit;
    RateLimit m_dropLimit;
};

void Broker::sendSmall(const std::string& peer, const std::string& message)
{
    if (message.empty()) {
        return;
    }
    if (zmq_send(m_socket, peer.data(), peer.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0) {
        if (errno == EHOSTUNREACH) {
            m_router.dropPeer(peer);
        }
        return; // a client that does not read its replies only loses them
    }
    zmq_send(m_socket, message.data(), message.size(), ZMQ_DONTWAIT);
}

void Broker::forward(const std::string& sender, Router::Decision& decision)
{
    const std::string& dest = decision.forwardTo;
    uint32_t failure = 0;
    if (zmq_send(m_socket, dest.data(), dest.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) < 0) {
        // EAGAIN: the destination's queue is full (we never wait for a slow client);
        // EHOSTUNREACH: its connection is gone.
        if (errno == EHOSTUNREACH) {
            m_router.dropPeer(dest);
            failure = kErrUnknownDest;
        } else {
            failure = kErrCongested;
        }
    } else {
        // The Send goes on as it came, without a copy; only its command byte changes.
        static_cast<uint8_t*>(zmq_msg_data(&m_frames[1].msg))[3] = static_cast<uint8_t>(Cmd::Deliver);
        zmq_msg_send(&m_frames[1].msg, m_socket, ZMQ_DONTWAIT);
    }
    if (failure == 0) {
        sendSmall(sender, m_router.routed(decision.msg));
        return;
    }
    if (m_dropLimit.allow(nowMs())) {
        LOGT(3, "message %s -> %s type %lld not routed: %s", guidText(decision.msg.src).c_str(),
             guidText(decision.msg.dest).c_str(), static_cast<long long>(decision.msg.meta.type),
             failure == kErrCongested ? "destination congested" : "destination gone");
    }
    sendSmall(sender, m_router.notRouted(sender, decision.msg, failure, nowMs()));
}

// Reads one whole multipart message; false when none is waiting.
bool Broker::receiveOne()
{
    size_t count = 0;
    bool tooLong = false;
    for (;;) {
        ZmqMsg spill;
        zmq_msg_t* target = count < m_frames.size() ? &m_frames[count].msg : &spill.msg;
        if (count < m_frames.size()) {
            m_frames[count].reset();
        }
        const int flags = count == 0 ? ZMQ_DONTWAIT : 0;
        if (zmq_msg_recv(target, m_socket, flags) < 0) {
            if (count == 0) {
                return false;
            }
            break; // cannot happen mid-message; treat what we have as the message
        }
        if (count >= m_frames.size()) {
            tooLong = true;
        }
        ++count;
        if (!zmq_msg_more(target)) {
            break;
        }
    }
    const int64_t now = nowMs();
    const std::string peer(static_cast<const char*>(zmq_msg_data(&m_frames[0].msg)), zmq_msg_size(&m_frames[0].msg));
    // Every message is checked on its own credentials, the first one after a poll wake-up included.
    std::array<zmq_msg_t*, 4> held{};
    for (size_t i = 0; i < count && i < m_frames.size(); ++i) {
        held[i] = &m_frames[i].msg;
    }
    const PeerCred cred = peerCredOf(held.data(), count < held.size() ? count : held.size());

    std::array<FrameView, 4> views;
    size_t viewCount = 0;
    if (!tooLong) {
        for (size_t i = 1; i < count; ++i) {
            views[viewCount++] = FrameView{zmq_msg_data(&m_frames[i].msg), zmq_msg_size(&m_frames[i].msg)};
        }
    }
    Router::Decision decision;
    if (tooLong) {
        m_router.noteMalformed();
    } else {
        decision = m_router.handle(peer, cred, views.data(), viewCount, now);
        // The connection's descriptor rides on the payload: a routing id prefetched by zmq_poll has none.
        const int fd = zmq_msg_get(&m_frames[count > 1 ? 1 : 0].msg, ZMQ_SRCFD);
        if (!m_router.noteConnection(peer, fd)) {
            LOGT(1, "pid %d: its connection had already closed; dropped", cred.known ? cred.pid : 0);
        }
    }
    if (tooLong || decision.error != ParseError::None || decision.foreign) {
        if (m_badLimit.allow(now)) {
            if (decision.foreign) {
                if (cred.known) {
                    LOGT(3, "dropped a message from uid %u pid %d: not our user", cred.uid, cred.pid);
                } else {
                    LOGT(3, "dropped a message whose sender is unknown");
                }
            } else {
                LOGT(3, "dropped a malformed message from pid %d (%zu frames): %s", cred.known ? cred.pid : 0,
                     count, tooLong ? "too many frames" : parseErrorText(decision.error));
            }
        }
        return true;
    }
    switch (decision.action) {
    case Router::Action::Drop:
        if (decision.refusedUnregister && m_badLimit.allow(now)) {
            LOGT(3, "refused unregister of %s by pid %d: not its owner", guidText(decision.msg.dest).c_str(), cred.pid);
        }
        break;
    case Router::Action::Reply:
        if (decision.msg.cmd == Cmd::Register) {
            const bool ok = decision.reply.size() == kHeaderSize + kGuidSize + 4 &&
                            getU32(reinterpret_cast<const uint8_t*>(decision.reply.data()) + kHeaderSize + kGuidSize) == kRegOk;
            LOGT(1, "register %s by pid %d: %s", guidText(decision.msg.dest).c_str(), cred.pid, ok ? "ok" : "refused");
        }
        sendSmall(peer, decision.reply);
        break;
    case Router::Action::Forward:
        forward(peer, decision);
        break;
    }
    return true;
}

// A client's connection closed: its endpoints go at once, so a restarted client gets its GUIDs back.
void Broker::readMonitor()
{
    for (;;) {
        ZmqMsg event;
        if (zmq_msg_recv(&event.msg, m_monitor, ZMQ_DONTWAIT) < 0) {
            return;
        }
        uint16_t id = 0;
        uint32_t value = 0;
        if (zmq_msg_size(&event.msg) >= 6) {
            memcpy(&id, zmq_msg_data(&event.msg), sizeof(id));
            memcpy(&value, static_cast<const char*>(zmq_msg_data(&event.msg)) + 2, sizeof(value));
        }
        while (zmq_msg_more(&event.msg)) { // the endpoint address
            event.reset();
            if (zmq_msg_recv(&event.msg, m_monitor, 0) < 0) {
                return;
            }
        }
        if (id == ZMQ_EVENT_DISCONNECTED) {
            const size_t gone = m_router.connectionClosed(static_cast<int>(value));
            if (gone > 0) {
                LOGT(2, "connection %u closed: dropped %zu client(s) and their endpoints", value, gone);
            }
        }
    }
}

int Broker::run()
{
    // No timeout: the broker sleeps until a message, a connection event or a signal arrives.
    for (;;) {
        zmq_pollitem_t items[3] = {{m_socket, 0, ZMQ_POLLIN, 0},
                                   {m_monitor, 0, ZMQ_POLLIN, 0},
                                   {nullptr, m_signalFd, ZMQ_POLLIN, 0}};
        if (zmq_poll(items, 3, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            LOGT(4, "poll failed: %s", zmq_strerror(errno));
            return kExitFailure;
        }
        if (items[2].revents & ZMQ_POLLIN) {
            signalfd_siginfo info;
            if (::read(m_signalFd, &info, sizeof(info)) == sizeof(info)) {
                LOGT(2, "signal %u: stopping", info.ssi_signo);
                return kExitOk;
            }
        }
        if (items[0].revents & ZMQ_POLLIN) {
            // Bounded batch, so signals and connection events are looked at under constant load too.
            for (int i = 0; i < 4096 && receiveOne(); ++i) {
            }
        }
        if (items[1].revents & ZMQ_POLLIN) {
            readMonitor();
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    kuv::ignoreWriteSignals();
    Options options;
    const int parsed = parseOptions(argc, argv, options);
    if (parsed == 1) {
        fputs(kUsage, stdout);
        return kExitOk;
    }
    if (parsed < 0) {
        fputs("Try 'kuv-zelld --help'.\n", stderr);
        return kExitUsage;
    }

    BusAddress address;
    std::string error;
    if (!resolveAddress(options.socket, address, &error)) {
        fprintf(stderr, "kuv-zelld: %s\n", error.c_str());
        return kExitFailure;
    }
    Fd lock;
    std::string holder;
    if (!takeLock(address.path + ".lock", lock, holder)) {
        if (lock.get() < 0 && holder.rfind("cannot open", 0) == 0) {
            fprintf(stderr, "kuv-zelld: %s\n", holder.c_str());
            return kExitFailure;
        }
        fprintf(stderr, "kuv-zelld: a broker already serves %s (pid %s)\n", address.path.c_str(), holder.c_str());
        return kExitRunning;
    }

    Fd ready;
    if (!options.foreground) {
        if (!daemonize(ready)) {
            fprintf(stderr, "kuv-zelld: cannot go to the background: %s\n", strerror(errno));
            return kExitFailure;
        }
    }
    writePid(lock.get());

    g_log.setLevel(options.logLevel);
    if (options.foreground && options.logFile.empty()) {
        g_log.file().openStderr();
    } else {
        const std::string path = options.logFile.empty() ? installDir() + "log/kuv-zelld.log" : options.logFile;
        std::string why;
        if (!g_log.file().open(path, std::string(), 10u * 1024 * 1024, 3, &why) && options.foreground) {
            fprintf(stderr, "kuv-zelld: no log: %s\n", why.c_str());
        }
    }
    const std::string runtimeNotice = kuv::runtimeDirNotice();
    if (!runtimeNotice.empty()) {
        LOGT(3, "%s", runtimeNotice.c_str());
    }

    // Signals are taken through a descriptor; blocked before ZMQ starts its threads so none sees them.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGHUP, SIG_IGN);
    Fd signals(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signals.get() < 0) {
        LOGT(4, "signalfd: %s", strerror(errno));
        report(ready, kExitFailure);
        return kExitFailure;
    }

    // We hold the lock, so a socket file left here belongs to a broker that died.
    struct stat st;
    if (::lstat(address.path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            LOGT(4, "%s exists and is not a socket; not touching it", address.path.c_str());
            if (options.foreground) {
                fprintf(stderr, "kuv-zelld: %s exists and is not a socket\n", address.path.c_str());
            }
            report(ready, kExitFailure);
            return kExitFailure;
        }
        ::unlink(address.path.c_str());
        LOGT(2, "replaced the socket of a broker that is gone");
    }

    int result = kExitOk;
    {
        ZmqContext context;
        ZmqSocket router;
        router.sock = context.ctx != nullptr ? zmq_socket(context.ctx, ZMQ_ROUTER) : nullptr;
        if (router.sock == nullptr) {
            LOGT(4, "zmq socket: %s", zmq_strerror(errno));
            report(ready, kExitFailure);
            return kExitFailure;
        }
        const int one = 1;
        const int zero = 0;
        const int64_t maxSize = kMaxFrameSize;
        zmq_setsockopt(router.sock, ZMQ_ROUTER_MANDATORY, &one, sizeof(one));
        zmq_setsockopt(router.sock, ZMQ_ROUTER_HANDOVER, &one, sizeof(one));
        zmq_setsockopt(router.sock, ZMQ_LINGER, &zero, sizeof(zero));
        zmq_setsockopt(router.sock, ZMQ_SNDHWM, &options.hwm, sizeof(options.hwm));
        // Inbound, a short queue is enough: a sender that outruns us waits in its own client.
        const int inbound = 10000;
        zmq_setsockopt(router.sock, ZMQ_RCVHWM, &inbound, sizeof(inbound));
        zmq_setsockopt(router.sock, ZMQ_MAXMSGSIZE, &maxSize, sizeof(maxSize));
        const mode_t oldMask = ::umask(0077);
        const int bound = zmq_bind(router.sock, address.endpoint.c_str());
        const int bindErrno = errno;
        ::umask(oldMask);
        if (bound != 0) {
            LOGT(4, "cannot listen on %s: %s", address.endpoint.c_str(), zmq_strerror(bindErrno));
            if (options.foreground) {
                fprintf(stderr, "kuv-zelld: cannot listen on %s: %s\n", address.endpoint.c_str(),
                        zmq_strerror(bindErrno));
            }
            report(ready, kExitFailure);
            return kExitFailure;
        }
        ::chmod(address.path.c_str(), 0600);
        struct stat bound_st;
        const bool haveInode = ::stat(address.path.c_str(), &bound_st) == 0;

        ZmqSocket monitor;
        if (zmq_socket_monitor(router.sock, "inproc://kuv-zelld-monitor", ZMQ_EVENT_DISCONNECTED) == 0) {
            monitor.sock = zmq_socket(context.ctx, ZMQ_PAIR);
        }
        if (monitor.sock == nullptr || zmq_setsockopt(monitor.sock, ZMQ_LINGER, &zero, sizeof(zero)) != 0 ||
            zmq_connect(monitor.sock, "inproc://kuv-zelld-monitor") != 0) {
            LOGT(4, "cannot watch client connections: %s", zmq_strerror(errno));
            report(ready, kExitFailure);
            return kExitFailure;
        }

        Broker broker(router.sock, monitor.sock, signals.get());
        LOGT(2, "kuv-zelld %s serving %s (pid %d, instance %016llx)", KUV_VERSION, address.endpoint.c_str(),
             static_cast<int>(getpid()), static_cast<unsigned long long>(broker.router().instance()));
        report(ready, kExitOk);
        result = broker.run();

        const Router::Counters& c = broker.router().counters();
        LOGT(2,
             "stopped: received %llu, routed %llu, unknown destination %llu, congested %llu, malformed %llu, "
             "foreign %llu, registrations %llu, refused %llu, closed clients %llu",
             (unsigned long long)c.received, (unsigned long long)c.routed, (unsigned long long)c.unknownDest,
             (unsigned long long)c.congested, (unsigned long long)c.malformed, (unsigned long long)c.foreignPeer,
             (unsigned long long)c.registered, (unsigned long long)c.refused, (unsigned long long)c.closedPeers);
        // Remove the socket only if it is still the one we made.
        struct stat now_st;
        if (haveInode && ::stat(address.path.c_str(), &now_st) == 0 && now_st.st_ino == bound_st.st_ino &&
            now_st.st_dev == bound_st.st_dev) {
            ::unlink(address.path.c_str());
        }
    }
    return result;
}

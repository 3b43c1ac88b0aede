// SPDX-License-Identifier: GPL-2.0-or-later
// Internals of the bus client module: the client manager, its endpoints, the socket side (Io) and the
// client's threads (Workers), which take turns polling the socket and calling receivers.
#pragma once

#include <zmq.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "IZellClientMgr.h"
#include "UniqueFd.h"
#include "ZellAddress.h"
#include "ZellLogFile.h"
#include "ZellSettings.h"
#include "ZellWire.h"

namespace zell {

class ClientMgr;
class Io;

// Levels of the log callback and the module log: 0 most severe .. 4 least.
enum LogLevel { kLogError = 0, kLogWarn = 1, kLogInfo = 2, kLogDebug = 3, kLogTrace = 4 };

// Module log: file (optional) plus the owner's callback, filtered by level and category mask.
class Logger {
public:
    void setCallback(PFN_ZELL_LOG_CALLBACK callback) { m_callback.store(callback); }
    void setLevel(int level) { m_level.store(level); }
    void setMask(uint32_t mask) { m_mask.store(mask); }
    int level() const { return m_level.load(); }
    bool openFile(const std::string& path, const std::string& backupDir, uint64_t size, std::string* error);
    void closeFile() { m_file.close(); }
    bool enabled(int level, uint32_t category) const
    {
        return level <= m_level.load(std::memory_order_relaxed) && (m_mask.load(std::memory_order_relaxed) & category);
    }
    void print(int level, uint32_t category, const char* source, const char* function, int line, const char* format,
               ...) __attribute__((format(printf, 7, 8)));
    // The last line of level 0, kept whatever the level, mask and callback (print() keeps its own).
    void keepError(const char* text);
    std::string lastError() const;

private:
    std::atomic<PFN_ZELL_LOG_CALLBACK> m_callback{nullptr};
    std::atomic<int> m_level{kLogInfo};
    std::atomic<uint32_t> m_mask{0xFFFFFFFFu};
    LogFile m_file;
    mutable std::mutex m_errorMutex;
    std::string m_lastError;
};

#define ZLOG(logger, level, category, ...)                                                                       \
    do {                                                                                                         \
        if ((logger).enabled(level, category)) {                                                                 \
            (logger).print(level, category, kKuvLogSource, __func__, __LINE__, __VA_ARGS__);                     \
        }                                                                                                        \
    } while (0)

// A message waiting for its receiver.
struct Delivery {
    std::shared_ptr<class EndPoint> endpoint;
    uint64_t generation = 0;
    GUID src{};
    int64_t type = 0;
    uint64_t sequence = 0;
    zmq::message_t message; // the whole Deliver; the body starts at wire::kRoutedSize
};

class EndPoint final : public IZellMREndPoint4, public std::enable_shared_from_this<EndPoint> {
public:
    explicit EndPoint(ClientMgr& mgr) : m_mgr(mgr) {}
    ~EndPoint() = default;

    int init(const GUID& guid) override;
    int uninit() override;
    int registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int flags) override;
    int unregisterRecvNotify(int64_t msgType) override;
    int sendMsg(const GUID& dest, int64_t msgType, const char* body, int length) override;
    int sendMsgWait(const GUID& dest, int64_t msgType, const char* body, int length, int timeoutMs) override;
    int isRegistered() override;
    void setRegisteredNotify(void (*notify)(void* context), void* context) override;

    // Called on a worker thread, one delivery of this endpoint at a time.
    void dispatch(Delivery& delivery);

    enum class Reg { None, Pending, Ok, Refused };
    // I/O thread: the broker's answer for guid (ignored when the endpoint has moved on).
    void registrationAnswer(const GUID& guid, bool accepted);
    // I/O thread: the connection to the broker was lost; registrations must be confirmed again.
    void connectionLost();
    // I/O thread: whether a message for dest is wanted now, and the generation it belongs to.
    bool acceptFor(const GUID& dest, uint64_t& generation);
    // Current GUID when initialised; false otherwise. refusedOnly: only if the broker refused it.
    bool currentGuid(GUID& out, bool refusedOnly = false);
    // Manager, under its lock: deactivates and returns whether the endpoint had been initialised.
    bool deactivateLocked(GUID& guid);

private:
    void notifyRegistered();
    // Names the endpoint in this client's table; 0, or init's result when that fails.
    int bind(const GUID& guid, uint64_t& generation);
    // Waits (briefly) for the broker's answer; 2 when another live endpoint has the GUID.
    int awaitRegistration(const GUID& guid, uint64_t generation);
    friend class ClientMgr;
    int send(const GUID& dest, int64_t msgType, const char* body, int length, bool wantAck, uint64_t& sequence);
    void waitIdle(std::unique_lock<std::mutex>& lock);

    ClientMgr& m_mgr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_active = false;
    GUID m_guid{};
    uint64_t m_generation = 0;
    Reg m_reg = Reg::None;
    std::map<int64_t, IMRReceiveComplete*> m_receivers;
    int m_running = 0; // receiver and notify calls in progress
    void (*m_registeredNotify)(void*) = nullptr;
    void* m_registeredContext = nullptr;
    std::atomic<uint64_t> m_sequence{0};

    // Guarded by the Workers' mutex: messages read for this endpoint, and whether a thread has it in hand
    // (queued or running), which keeps its receivers one at a time and in order.
    friend class Workers;
    std::deque<Delivery> m_inbox;
    bool m_scheduled = false;
};

// The client's threads, thread_nums + 1 of them, in two roles. At most one is the poller: it waits on the
// socket and the wake fd and puts what it reads into the endpoints' inboxes. A poller that found work calls
// the receivers itself and leaves the role vacant, so a message reaches its receiver on the thread that
// read it and no other thread is woken for it. Whoever then needs the socket watched (a thread waiting for
// the broker's answer, a send that had to queue) calls ensurePoller(), which wakes an idle thread into the
// role; at most thread_nums threads call receivers at once, so one is always there to take it. Idle: the
// poller sleeps in zmq_poll without a timeout, the others on a condition variable.
class Workers {
public:
    Workers(ClientMgr& mgr, Io& io, int runners);
    ~Workers();
    void start(); // throws std::system_error
    // Joins; messages not delivered yet are dropped.
    void stop();
    // Poller: hands each delivery to its endpoint's inbox.
    void enqueue(std::vector<Delivery>& batch);
    // Wakes an idle thread into the poller's role when nobody holds it.
    void ensurePoller();

private:
    void run(int index);
    // Calls the receivers of endpoint until its inbox is empty.
    void drain(const std::shared_ptr<EndPoint>& endpoint);
    void dropAll();

    ClientMgr& m_mgr;
    Io& m_io;
    const int m_maxRunners;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::shared_ptr<EndPoint>> m_ready; // endpoints with an inbox and no thread on them
    bool m_pollerTaken = false;
    int m_runners = 0; // threads calling receivers
    int m_idle = 0;    // threads waiting on m_cv
    bool m_stop = false;
    std::vector<std::thread> m_threads;
};

class ClientMgr final : public IZellClientMgr {
public:
    explicit ClientMgr(std::string instanceGuid);
    ~ClientMgr();

    const char* version() override;
    int isConnected() override;
    int endPointCount() override;
    IZellMREndPoint4* createEndPoint() override;
    int64_t destroyEndPoint(IZellMREndPoint4* endPoint) override;
    int init(const char* settings, const char* module) override;
    void setLogCallback(PFN_ZELL_LOG_CALLBACK callback) override;
    void setLogLevel(int level) override;
    void setLogMask(uint32_t mask) override;
    void release() override;
    void stop() override;
    const char* lastError() override;
    int waitConnected(int timeoutMs) override;

    bool released() const;
    bool runningLocked() const { return m_state == State::Running; }
    const std::string& instanceGuid() const { return m_instanceGuid; }
    Logger& log() { return m_log; }
    Io* io() { return m_ioPtr.load(); }

    // Endpoint table, used by endpoints and the I/O thread.
    std::mutex& tableMutex() { return m_mutex; }
    bool bindLocked(const wire::GuidKey& key, const std::shared_ptr<EndPoint>& endpoint);
    void unbindLocked(const wire::GuidKey& key, const EndPoint* endpoint);
    std::shared_ptr<EndPoint> findByGuid(const GUID& guid);
    std::vector<std::shared_ptr<EndPoint>> boundEndPoints();
    std::shared_ptr<EndPoint> self(EndPoint* endpoint);

    // Poller: received messages go to their endpoints' inboxes, a batch at a time.
    void deliver(std::vector<Delivery>& batch);
    // Someone waits on the socket side: make sure a thread watches it.
    void ensurePoller();
    // Threads waiting for the broker (a verdict, a registration, room in the send queue); while there are
    // any, the poller's role is never left vacant.
    std::atomic<int> socketWaiters{0};
    class SocketWait {
    public:
        explicit SocketWait(ClientMgr& mgr) : m_mgr(mgr)
        {
            ++m_mgr.socketWaiters;
            m_mgr.ensurePoller();
        }
        ~SocketWait() { --m_mgr.socketWaiters; }
        SocketWait(const SocketWait&) = delete;
        SocketWait& operator=(const SocketWait&) = delete;

    private:
        ClientMgr& m_mgr;
    };
    // Messages and bytes waiting for receivers; the poller stops reading above the limits.
    std::atomic<uint64_t> backlogMessages{0};
    std::atomic<uint64_t> backlogBytes{0};
    std::atomic<bool> readPaused{false};
    bool backlogFull() const;
    void backlogDrained(uint64_t messages, uint64_t bytes);
    bool onDispatchThread() const;

private:
    enum class State { Created, Running, Stopped, Released };

    int failInit(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int startThreads(const Settings& settings, const BusAddress& address);

    const std::string m_instanceGuid;
    mutable std::mutex m_mutex;
    State m_state = State::Created;
    std::string m_module;
    Settings m_settings;
    BusAddress m_address;
    Logger m_log;
    // Keyed by the pointer handed out, which is never dereferenced before it is found here.
    std::unordered_map<const IZellMREndPoint4*, std::shared_ptr<EndPoint>> m_endpoints;
    std::unordered_map<wire::GuidKey, std::shared_ptr<EndPoint>, wire::GuidKeyHash> m_byGuid;
    std::unique_ptr<Io> m_io;
    std::atomic<Io*> m_ioPtr{nullptr};
    std::unique_ptr<Workers> m_workers;
    std::atomic<Workers*> m_workersPtr{nullptr};
    std::mutex m_lifecycle; // serialises init/stop/release
};

// Owns the ZMQ context and the DEALER socket. The poller (one worker at a time) reads and keeps the session;
// senders put data on the socket themselves when nothing is queued ahead of them, so a message leaves on the
// thread that sends it. m_outMutex serialises every use of the DEALER socket.
class Io {
public:
    Io(ClientMgr& mgr, std::string endpoint);
    ~Io();
    bool open(std::string& error);
    // Poller: one round of flushing, waiting and reading.
    void pollOnce();
    // Refuses new messages and wakes everyone who waits on the socket side.
    void shutdown();
    // After the workers are joined: says goodbye to the broker (best effort) and closes the sockets.
    void close();
    bool connected() const { return m_connected.load(); }
    bool waitConnected(int timeoutMs);

    // From any thread. 0 sent or queued; 1 stopped; 2 the queue stayed full for waitMs.
    int postData(zmq::message_t&& message, int waitMs);
    void postRegister(const GUID& guid);
    // expectAnswer: the caller will awaitUnregistered() for the broker's confirmation.
    void postUnregister(const GUID& guid, bool expectAnswer = false);
    // true once the broker confirmed the GUID is free, false after timeoutMs or when the session ends.
    bool awaitUnregistered(const GUID& guid, int timeoutMs);
    // Waits for the broker's verdict on (src, sequence), sent with kFlagWantAck.
    int awaitVerdict(const GUID& src, uint64_t sequence, int timeoutMs);
    void expectVerdict(const GUID& src, uint64_t sequence);
    void forgetVerdict(const GUID& src, uint64_t sequence);
    void wake();

private:
    struct Verdict {
        bool done = false;
        int result = ZELL_SEND_NO_BROKER;
    };
    struct Outgoing {
        zmq::message_t message; // one frame
        bool data = false;
    };

    void setupSocket();
    void postControl(zmq::message_t&& message, bool front = false);
    bool trySendLocked(Outgoing& out);
    bool sendDirectLocked(zmq::message_t& message);
    void sendControl(const std::string& message);
    void flushLocked();
    bool takeNextLocked();
    void sendTimedControl(int64_t now);
    long pollTimeout() const;
    void readSocket();
    void readMonitor();
    void handle(zmq::message_t& message);
    void handleDeliver(const wire::Message& msg, zmq::message_t& message);
    void handleError(const wire::Message& msg);
    void handleRegisterAck(const wire::Message& msg);
    void sessionUp(uint64_t instance);
    void sessionDown(const char* why);
    void setConnected(bool connected);
    // Answers the broker owes, by key: a verdict on a sent message, or the confirmation that a GUID left.
    void expect(const std::string& key);
    int await(const std::string& key, int timeoutMs);
    void complete(const std::string& key, int result);
    void failAllVerdicts();
    static std::string verdictKey(const GUID& src, uint64_t sequence);
    static std::string unregisterKey(const GUID& guid);

    ClientMgr& m_mgr;
    Logger& m_log;
    const std::string m_endpoint;
    zmq::context_t m_context;
    std::unique_ptr<zmq::socket_t> m_socket;
    std::unique_ptr<zmq::socket_t> m_monitor;
    int m_socketFd = -1; // the DEALER's ZMQ_FD: readable when its events may have changed
    kuv::UniqueFd m_wakeFd;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::mutex m_connMutex; // with m_connCv: waiting for m_connected
    std::condition_variable m_connCv;

    // Guarded by m_outMutex, shared with sending threads.
    std::mutex m_outMutex;
    std::condition_variable m_outCv;
    std::deque<Outgoing> m_control;
    std::deque<Outgoing> m_data;
    size_t m_dataBytes = 0;
    int m_spaceWaiters = 0;
    bool m_session = false;            // the broker welcomed this client
    std::optional<Outgoing> m_stalled; // taken from a queue, not accepted by the socket yet

    std::mutex m_verdictMutex;
    std::condition_variable m_verdictCv;
    std::unordered_map<std::string, Verdict> m_verdicts;

    // Poller only (the role moves between threads under the Workers' mutex).
    uint64_t m_instance = 0;
    bool m_linkUp = false;          // a connection to the broker is established (monitor events)
    bool m_refusedPending = false;  // some endpoint stands refused; ask again now and then
    int64_t m_nextHello = 0;
    int64_t m_nextRetry = 0;
    std::vector<Delivery> m_outbox; // filled while reading a batch
    wire::GuidKey m_lastDest;       // the last destination looked up in this batch
    std::shared_ptr<EndPoint> m_lastEndpoint;
    uint64_t m_lastGeneration = 0;
    uint64_t m_errorsLogged = 0;
    int64_t m_errorWindow = 0;
};

int64_t monotonicMs();

} // namespace zell

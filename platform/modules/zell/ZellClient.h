// Internals of the bus client module: the client manager, its endpoints, the I/O thread that owns the ZMQ
// socket and the dispatch threads that call receivers.
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

private:
    std::atomic<PFN_ZELL_LOG_CALLBACK> m_callback{nullptr};
    std::atomic<int> m_level{kLogInfo};
    std::atomic<uint32_t> m_mask{0xFFFFFFFFu};
    LogFile m_file;
};

#define ZLOG(logger, level, category, ...)                                                                       \
    do {                                                                                                         \
        if ((logger).enabled(level, category)) {                                                                 \
            (logger).print(level, category, kKuvLogSource, __func__, __LINE__, __VA_ARGS__);                     \
        }                                                                                                        \
    } while (0)

// A message waiting for a dispatch thread.
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

    // Called on a dispatch thread.
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
    int m_running = 0; // receiver calls in progress
    std::atomic<uint64_t> m_sequence{0};
};

// One dispatch thread with its own queue; an endpoint always lands on the same one, so its messages are
// delivered in order and never concurrently.
class Dispatcher {
public:
    Dispatcher(ClientMgr& mgr, int index);
    ~Dispatcher();
    void start();
    void stop(); // joins; queued deliveries are dropped
    // Moves every delivery of batch to this thread's queue (one lock, at most one wake-up).
    void pushBatch(std::vector<Delivery>& batch);
    bool onThisThread() const { return std::this_thread::get_id() == m_threadId.load(); }

private:
    void run();

    ClientMgr& m_mgr;
    int m_index;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Delivery> m_queue;
    bool m_stop = false;
    bool m_waiting = false;
    std::thread m_thread;
    std::atomic<std::thread::id> m_threadId{};
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

    // I/O thread: received messages go to the dispatch thread of their endpoint, a batch at a time.
    size_t shardCount() const { return m_dispatchers.size(); }
    size_t shardOf(const EndPoint* endpoint) const;
    void deliverBatch(size_t shard, std::vector<Delivery>& batch);
    // Messages and bytes waiting for dispatch threads; the I/O thread stops reading above the limits.
    std::atomic<uint64_t> backlogMessages{0};
    std::atomic<uint64_t> backlogBytes{0};
    std::atomic<bool> readPaused{false};
    bool backlogFull() const;
    void backlogDrained(uint64_t messages, uint64_t bytes);
    bool onDispatchThread() const;

private:
    enum class State { Created, Running, Stopped, Released };

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
    std::vector<std::unique_ptr<Dispatcher>> m_dispatchers;
    std::mutex m_lifecycle; // serialises init/stop/release
};

// Owns the ZMQ context and the DEALER socket; every socket operation happens on its thread.
class Io {
public:
    Io(ClientMgr& mgr, std::string endpoint);
    ~Io();
    bool start(std::string& error);
    // Says goodbye to the broker (best effort) and joins the thread.
    void stop();
    bool connected() const { return m_connected.load(); }

    // From any thread. 0 queued; 1 stopped; 2 the queue stayed full for waitMs.
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

    void run();
    void loopOnce(bool& stop);
    void setupSocket();
    bool trySend(Outgoing& out);
    void sendControl(const std::string& message);
    void flush();
    void readSocket();
    void readMonitor();
    void handle(zmq::message_t& message);
    void flushOutbox();
    void sessionUp(uint64_t instance);
    void sessionDown(const char* why);
    void completeVerdict(const GUID& src, uint64_t sequence, int result);
    void failAllVerdicts();
    static std::string verdictKey(const GUID& src, uint64_t sequence);

    ClientMgr& m_mgr;
    Logger& m_log;
    const std::string m_endpoint;
    zmq::context_t m_context;
    std::unique_ptr<zmq::socket_t> m_socket;
    std::unique_ptr<zmq::socket_t> m_monitor;
    std::string m_monitorAddress;
    int m_wakeFd = -1;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};

    // Shared with posting threads.
    std::mutex m_outMutex;
    std::condition_variable m_outCv;
    std::deque<Outgoing> m_control;
    std::deque<Outgoing> m_data;
    size_t m_dataBytes = 0;
    int m_spaceWaiters = 0;

    std::mutex m_verdictMutex;
    std::condition_variable m_verdictCv;
    std::unordered_map<std::string, Verdict> m_verdicts;
    std::unordered_map<wire::GuidKey, Verdict, wire::GuidKeyHash> m_unregistered;

    // I/O thread only.
    bool m_session = false;
    uint64_t m_instance = 0;
    std::optional<Outgoing> m_stalled; // taken from a queue, not accepted by the socket yet
    bool m_linkUp = false;          // a connection to the broker is established (monitor events)
    bool m_refusedPending = false;  // some endpoint stands refused; ask again now and then
    int64_t m_nextHello = 0;
    int64_t m_nextRetry = 0;
    bool m_paused = false;
    std::vector<std::vector<Delivery>> m_outbox; // per dispatch thread, filled while reading a batch
    wire::GuidKey m_lastDest;                    // the last destination looked up in this batch
    std::shared_ptr<EndPoint> m_lastEndpoint;
    uint64_t m_lastGeneration = 0;
    uint64_t m_errorsLogged = 0;
    uint64_t m_undelivered = 0;
    int64_t m_errorWindow = 0;
};

int64_t monotonicMs();

} // namespace zell

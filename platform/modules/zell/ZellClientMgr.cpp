// The client manager: settings, the module log, the endpoint table, and the life cycle of the I/O and
// dispatch threads.
#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "FileUtils.h"
#include "ZellClient.h"

namespace zell {

using namespace zell::wire;

namespace {

KUV_LOG_SOURCE("platform/modules/zell/ZellClientMgr");
constexpr uint64_t kBacklogMessages = 100000;
constexpr uint64_t kBacklogBytes = 256u * 1024 * 1024;

thread_local const ClientMgr* tl_dispatchOwner = nullptr;

} // namespace

// ---- Logger ----

bool Logger::openFile(const std::string& path, const std::string& backupDir, uint64_t size, std::string* error)
{
    return m_file.open(path, backupDir, size, 5, error);
}

void Logger::print(int level, uint32_t category, const char* source, const char* function, int line,
                   const char* format, ...)
{
    char text[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    // Both the file and the receiver of the callback escape the text by the log rule themselves.
    static const char* const names[] = {"ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
    m_file.write(names[level < 0 ? 0 : (level > 4 ? 4 : level)], source, function, line, text);
    if (PFN_ZELL_LOG_CALLBACK callback = m_callback.load()) {
        callback(level, text, static_cast<int>(category));
    }
}

// ---- Dispatcher ----

Dispatcher::Dispatcher(ClientMgr& mgr, int index) : m_mgr(mgr), m_index(index) {}

Dispatcher::~Dispatcher() { stop(); }

void Dispatcher::start() { m_thread = std::thread(&Dispatcher::run, this); }

void Dispatcher::stop()
{
    if (!m_thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_cv.notify_all();
    m_thread.join();
    std::deque<Delivery> dropped;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        dropped.swap(m_queue);
    }
    uint64_t bytes = 0;
    for (const auto& delivery : dropped) {
        bytes += delivery.message.size();
    }
    m_mgr.backlogDrained(dropped.size(), bytes);
}

void Dispatcher::pushBatch(std::vector<Delivery>& batch)
{
    bool notify = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& delivery : batch) {
            m_queue.push_back(std::move(delivery));
        }
        notify = m_waiting;
    }
    batch.clear();
    if (notify) {
        m_cv.notify_one();
    }
}

void Dispatcher::run()
{
    char name[16];
    snprintf(name, sizeof(name), "zell-disp-%d", m_index);
    pthread_setname_np(pthread_self(), name);
    m_threadId.store(std::this_thread::get_id());
    tl_dispatchOwner = &m_mgr;
    std::deque<Delivery> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            while (m_queue.empty() && !m_stop) {
                m_waiting = true;
                m_cv.wait(lock);
                m_waiting = false;
            }
            if (m_stop) {
                break;
            }
            batch.swap(m_queue);
        }
        uint64_t bytes = 0;
        const uint64_t count = batch.size();
        for (auto& delivery : batch) {
            bytes += delivery.message.size();
            delivery.endpoint->dispatch(delivery);
        }
        batch.clear();
        m_mgr.backlogDrained(count, bytes);
    }
    tl_dispatchOwner = nullptr;
}

// ---- ClientMgr ----

ClientMgr::ClientMgr(std::string instanceGuid) : m_instanceGuid(std::move(instanceGuid)) {}

ClientMgr::~ClientMgr() { release(); }

const char* ClientMgr::version() { return KUV_VERSION; }

int ClientMgr::isConnected()
{
    Io* io = m_ioPtr.load();
    return io != nullptr && io->connected() ? 1 : 0;
}

int ClientMgr::endPointCount()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_endpoints.size());
}

bool ClientMgr::released() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state == State::Released;
}

IZellMREndPoint4* ClientMgr::createEndPoint()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Stopped || m_state == State::Released) {
        return nullptr;
    }
    std::shared_ptr<EndPoint> endpoint;
    try {
        endpoint = std::make_shared<EndPoint>(*this);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    IZellMREndPoint4* handle = endpoint.get();
    m_endpoints.emplace(handle, std::move(endpoint));
    return handle;
}

int64_t ClientMgr::destroyEndPoint(IZellMREndPoint4* endPoint)
{
    std::shared_ptr<EndPoint> endpoint;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto found = m_endpoints.find(endPoint);
        if (endPoint != nullptr && found != m_endpoints.end()) {
            endpoint = found->second;
        }
    }
    if (!endpoint) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_ENDPOINT, "destroyEndPoint: %p is not an endpoint of this client",
             static_cast<void*>(endPoint));
        return -1;
    }
    endpoint->uninit();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_endpoints.erase(endPoint);
    }
    // A dispatch thread may still hold the endpoint (when a receiver destroys its own endpoint); the
    // object goes when the last reference does.
    return 0;
}

int ClientMgr::init(const char* settingsText, const char* module)
{
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::Created) {
            return 3;
        }
    }
    Settings settings;
    std::string error;
    if (!parseSettings(settingsText, settings, error)) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "unusable settings: %s", error.c_str());
        return 1;
    }
    BusAddress address;
    if (!resolveAddress(settings.socketAddr, address, &error)) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "unusable bus address: %s", error.c_str());
        return 2;
    }
    m_log.setLevel(settings.logLevel);
    if (!settings.logPath.empty()) {
        std::string why;
        if (!m_log.openFile(settings.logPath, settings.logBackupPath, settings.logSize, &why)) {
            // The bus works without its own log.
            ZLOG(m_log, kLogWarn, ZELL_LOG_INTERNAL, "no module log: %s", why.c_str());
        }
    }
    m_module = module != nullptr ? std::string(module, strnlen(module, 64)) : std::string();
    m_settings = settings;
    m_address = address;

    try {
        for (int i = 0; i < settings.threadNums; ++i) {
            m_dispatchers.push_back(std::make_unique<Dispatcher>(*this, i));
        }
        for (auto& dispatcher : m_dispatchers) {
            dispatcher->start();
        }
    } catch (const std::system_error& e) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "cannot start dispatch threads: %s", e.what());
        m_dispatchers.clear();
        return 4;
    }
    auto io = std::make_unique<Io>(*this, address.endpoint);
    {
        // The I/O thread looks endpoints up from its first moment.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::Running;
    }
    if (!io->start(error)) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "%s", error.c_str());
        m_dispatchers.clear();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::Created;
        return 4;
    }
    m_io = std::move(io);
    m_ioPtr.store(m_io.get());
    ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "zell client %s (module \"%s\", %d dispatch thread(s)) using %s",
         KUV_VERSION, m_module.c_str(), settings.threadNums, address.endpoint.c_str());
    return 0;
}

void ClientMgr::setLogCallback(PFN_ZELL_LOG_CALLBACK callback) { m_log.setCallback(callback); }

void ClientMgr::setLogLevel(int level) { m_log.setLevel(level < 0 ? 0 : (level > 4 ? 4 : level)); }

void ClientMgr::setLogMask(uint32_t mask) { m_log.setMask(mask); }

bool ClientMgr::onDispatchThread() const { return tl_dispatchOwner == this; }

void ClientMgr::stop()
{
    if (onDispatchThread()) {
        // Joining our own thread would never end; the owner must stop us from elsewhere.
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "stop() called from a receiver; ignored");
        return;
    }
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::Running) {
            if (m_state == State::Created) {
                m_state = State::Stopped;
            }
            return;
        }
        m_state = State::Stopped;
    }
    if (m_io) {
        m_io->stop();
    }
    for (auto& dispatcher : m_dispatchers) {
        dispatcher->stop();
    }
    ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "zell client stopped");
}

void ClientMgr::release()
{
    if (onDispatchThread()) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "release() called from a receiver; ignored");
        return;
    }
    stop();
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    std::unordered_map<const IZellMREndPoint4*, std::shared_ptr<EndPoint>> endpoints;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == State::Released) {
            return;
        }
        m_state = State::Released;
        endpoints.swap(m_endpoints);
    }
    for (auto& entry : endpoints) {
        entry.second->uninit();
    }
    endpoints.clear();
    m_dispatchers.clear();
    m_log.closeFile();
    m_log.setCallback(nullptr);
}

bool ClientMgr::bindLocked(const GuidKey& key, const std::shared_ptr<EndPoint>& endpoint)
{
    return m_byGuid.emplace(key, endpoint).second;
}

void ClientMgr::unbindLocked(const GuidKey& key, const EndPoint* endpoint)
{
    auto found = m_byGuid.find(key);
    if (found != m_byGuid.end() && found->second.get() == endpoint) {
        m_byGuid.erase(found);
    }
}

std::shared_ptr<EndPoint> ClientMgr::findByGuid(const GUID& guid)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_byGuid.find(guidKey(guid));
    return found == m_byGuid.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<EndPoint>> ClientMgr::boundEndPoints()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::shared_ptr<EndPoint>> out;
    out.reserve(m_byGuid.size());
    for (const auto& entry : m_byGuid) {
        out.push_back(entry.second);
    }
    return out;
}

size_t ClientMgr::shardOf(const EndPoint* endpoint) const
{
    // By endpoint, so one endpoint's messages stay in order on one thread.
    return m_dispatchers.empty() ? 0 : (reinterpret_cast<uintptr_t>(endpoint) >> 4) % m_dispatchers.size();
}

void ClientMgr::deliverBatch(size_t shard, std::vector<Delivery>& batch)
{
    if (batch.empty() || shard >= m_dispatchers.size()) {
        batch.clear();
        return;
    }
    uint64_t bytes = 0;
    for (const auto& delivery : batch) {
        bytes += delivery.message.size();
    }
    backlogMessages.fetch_add(batch.size(), std::memory_order_relaxed);
    backlogBytes.fetch_add(bytes, std::memory_order_relaxed);
    m_dispatchers[shard]->pushBatch(batch);
}

bool ClientMgr::backlogFull() const
{
    return backlogMessages.load(std::memory_order_relaxed) >= kBacklogMessages ||
           backlogBytes.load(std::memory_order_relaxed) >= kBacklogBytes;
}

void ClientMgr::backlogDrained(uint64_t messages, uint64_t bytes)
{
    if (messages == 0) {
        return;
    }
    backlogMessages.fetch_sub(messages, std::memory_order_relaxed);
    backlogBytes.fetch_sub(bytes, std::memory_order_relaxed);
    if (readPaused.load() && !backlogFull()) {
        readPaused.store(false);
        if (Io* io = m_ioPtr.load()) {
            io->wake();
        }
    }
}

} // namespace zell

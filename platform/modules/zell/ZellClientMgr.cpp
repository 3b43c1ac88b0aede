// SPDX-License-Identifier: GPL-2.0-or-later
// The client manager: settings, the module log, the endpoint table, and the life cycle of the socket and
// the worker threads.
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
    m_file.write(kuv::fromBusLevel(level), source, function, static_cast<unsigned>(line), text);
    if (level <= kLogError) {
        keepError(text);
    }
    if (PFN_ZELL_LOG_CALLBACK callback = m_callback.load()) {
        callback(level, text, static_cast<int>(category));
    }
}

void Logger::keepError(const char* text)
{
    std::lock_guard<std::mutex> lock(m_errorMutex);
    m_lastError = text;
}

std::string Logger::lastError() const
{
    std::lock_guard<std::mutex> lock(m_errorMutex);
    return m_lastError;
}

// ---- Workers ----

Workers::Workers(ClientMgr& mgr, Io& io, int runners) : m_mgr(mgr), m_io(io), m_maxRunners(runners) {}

Workers::~Workers() { stop(); }

void Workers::start()
{
    for (int i = 0; i <= m_maxRunners; ++i) {
        m_threads.emplace_back(&Workers::run, this, i);
    }
}

void Workers::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_cv.notify_all();
    m_io.wake();
    for (auto& thread : m_threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    m_threads.clear();
    dropAll();
}

void Workers::dropAll()
{
    std::deque<std::shared_ptr<EndPoint>> ready;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ready.swap(m_ready);
    }
    uint64_t messages = 0;
    uint64_t bytes = 0;
    for (const auto& endpoint : ready) {
        std::deque<Delivery> dropped;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            dropped.swap(endpoint->m_inbox);
            endpoint->m_scheduled = false;
        }
        for (const auto& delivery : dropped) {
            bytes += delivery.message.size();
        }
        messages += dropped.size();
    }
    m_mgr.backlogDrained(messages, bytes);
}

void Workers::enqueue(std::vector<Delivery>& batch)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& delivery : batch) {
            EndPoint& endpoint = *delivery.endpoint;
            if (!endpoint.m_scheduled) {
                endpoint.m_scheduled = true;
                m_ready.push_back(delivery.endpoint);
            }
            endpoint.m_inbox.push_back(std::move(delivery));
        }
    }
    batch.clear();
}

void Workers::ensurePoller()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_pollerTaken && !m_stop && m_idle > 0) {
        m_cv.notify_one();
    }
}

void Workers::drain(const std::shared_ptr<EndPoint>& endpoint)
{
    std::deque<Delivery> batch;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (endpoint->m_inbox.empty() || m_stop) {
                endpoint->m_scheduled = !endpoint->m_inbox.empty(); // left for dropAll() when stopping
                if (endpoint->m_scheduled) {
                    m_ready.push_back(endpoint);
                }
                return;
            }
            batch.swap(endpoint->m_inbox);
        }
        uint64_t bytes = 0;
        const uint64_t count = batch.size();
        for (auto& delivery : batch) {
            bytes += delivery.message.size();
            endpoint->dispatch(delivery);
        }
        batch.clear();
        m_mgr.backlogDrained(count, bytes);
    }
}

void Workers::run(int index)
{
    char name[16];
    snprintf(name, sizeof(name), "zell-%d", index);
    pthread_setname_np(pthread_self(), name);
    tl_dispatchOwner = &m_mgr;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        if (!m_ready.empty() && m_runners < m_maxRunners) {
            std::shared_ptr<EndPoint> endpoint = std::move(m_ready.front());
            m_ready.pop_front();
            ++m_runners;
            // Wake another thread when other endpoints can run beside this one, or when the socket must stay
            // watched: another receiver is running (it may wait for the broker) or some thread waits for it.
            const bool moreToRun = !m_ready.empty() && m_runners < m_maxRunners;
            const bool watchNeeded = !m_pollerTaken && (m_runners > 1 || m_mgr.socketWaiters.load() > 0);
            if (m_idle > 0 && (moreToRun || watchNeeded)) {
                m_cv.notify_one();
            }
            lock.unlock();
            drain(endpoint);
            endpoint.reset();
            lock.lock();
            --m_runners;
            continue;
        }
        if (!m_pollerTaken) {
            m_pollerTaken = true;
            lock.unlock();
            m_io.pollOnce();
            lock.lock();
            m_pollerTaken = false;
            continue;
        }
        ++m_idle;
        m_cv.wait(lock);
        --m_idle;
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

int ClientMgr::failInit(int code, const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    m_log.keepError(text);
    ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "%s", text);
    return code;
}

int ClientMgr::init(const char* settingsText, const char* module)
{
    std::lock_guard<std::mutex> lifecycle(m_lifecycle);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::Created) {
            return failInit(ZELL_INIT_NOT_FRESH, "init: the client was initialised or stopped before");
        }
    }
    Settings settings;
    std::string error;
    if (!parseSettings(settingsText, settings, error)) {
        return failInit(ZELL_INIT_BAD_SETTINGS, "unusable settings: %s", error.c_str());
    }
    BusAddress address;
    if (!resolveAddress(settings.socketAddr, address, &error)) {
        return failInit(ZELL_INIT_BAD_ADDRESS, "unusable bus address: %s", error.c_str());
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
    const int rc = startThreads(settings, address);
    if (rc == ZELL_INIT_OK) {
        ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "zell client %s (module \"%s\", %d dispatch thread(s)) using %s",
             KUV_VERSION, m_module.c_str(), settings.threadNums, address.endpoint.c_str());
    }
    return rc;
}

int ClientMgr::startThreads(const Settings& settings, const BusAddress& address)
{
    auto io = std::make_unique<Io>(*this, address.endpoint);
    std::string error;
    if (!io->open(error)) {
        return failInit(ZELL_INIT_NO_RESOURCES, "%s", error.c_str());
    }
    {
        // The poller looks endpoints up from its first moment.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::Running;
    }
    m_io = std::move(io);
    m_ioPtr.store(m_io.get());
    // In place before the threads start: the poller hands its first messages to it.
    m_workers = std::make_unique<Workers>(*this, *m_io, settings.threadNums);
    m_workersPtr.store(m_workers.get());
    try {
        m_workers->start();
    } catch (const std::system_error& e) {
        m_workersPtr.store(nullptr);
        m_workers.reset(); // joins what started
        m_ioPtr.store(nullptr);
        m_io.reset();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::Created;
        return failInit(ZELL_INIT_NO_RESOURCES, "cannot start the bus threads: %s", e.what());
    }
    return ZELL_INIT_OK;
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
        m_io->shutdown();
    }
    if (m_workers) {
        m_workers->stop();
    }
    if (m_io) {
        m_io->close(); // the threads are gone: the socket is ours
    }
    ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "zell client stopped");
}

int ClientMgr::waitConnected(int timeoutMs)
{
    Io* io = m_ioPtr.load();
    return io != nullptr && io->waitConnected(timeoutMs) ? 1 : 0;
}

const char* ClientMgr::lastError()
{
    // A copy per calling thread, so the text stays put while the module goes on logging.
    thread_local std::string copy;
    copy = m_log.lastError();
    return copy.c_str();
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
    m_workersPtr.store(nullptr);
    m_workers.reset();
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

void ClientMgr::ensurePoller()
{
    if (Workers* workers = m_workersPtr.load()) {
        workers->ensurePoller();
    }
}

void ClientMgr::deliver(std::vector<Delivery>& batch)
{
    if (batch.empty() || !m_workers) {
        batch.clear();
        return;
    }
    uint64_t bytes = 0;
    for (const auto& delivery : batch) {
        bytes += delivery.message.size();
    }
    backlogMessages.fetch_add(batch.size(), std::memory_order_relaxed);
    backlogBytes.fetch_add(bytes, std::memory_order_relaxed);
    m_workers->enqueue(batch);
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

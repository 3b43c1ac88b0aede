// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <QDateTime>
#include <QFileInfo>
#include <QPointer>
#include <QProcess>
#include <QSocketNotifier>

#include "BusModule.h"
#include "KuvLog.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"
#include "Guid.h"
#include "IZellClientMgr.h"
#include "KuvScanProtocol.h"
#include "KuvScanSupport.h"
#include "ScanPaths.h"
#include "ShellSettings.h"

namespace kuv {
namespace shell {

namespace {

KUV_LOG_SOURCE("platform/guishell/ScanClient");

// How long a send waits for the broker's verdict (on the bus worker, never the GUI thread).
constexpr int kSendWaitMs = 3000;
// How long joining waits for the broker before reporting it missing.
constexpr int kConnectWaitMs = 2000;
// While a job runs and the back end says nothing for this long, it is asked whether it is still there.
constexpr int kWatchdogMs = 4000;
// After the back end's process ended, how long its last messages may still take through the broker.
constexpr int kExitGraceMs = 250;
// Bodies from the back end beyond this are not read (a result batch is far smaller).
constexpr int kMaxBodyBytes = 8 * 1024 * 1024;
// The subscriber list is a few lines; anything bigger is rewritten.

int timerScale()
{
    const char* v = std::getenv("KUV_TIMER_SCALE");
    const int k = v != nullptr ? std::atoi(v) : 1;
    return k > 0 ? k : 1;
}

int scaled(int ms)
{
    return std::max(1, ms / timerScale());
}

std::string compact(const Json::Value& v)
{
    std::string out;
    CppJson::WriteJsonToString(v, out, true);
    if (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

qint64 num(const Json::Value& o, const char* key, qint64 fallback = 0)
{
    const Json::Value& v = o[key];
    if (v.isIntegral()) {
        return static_cast<qint64>(v.asInt64());
    }
    if (v.isDouble()) {
        return static_cast<qint64>(v.asDouble());
    }
    return fallback;
}

QString text(const Json::Value& o, const char* key)
{
    const Json::Value& v = o[key];
    return v.isString() ? QString::fromStdString(v.asString()) : QString();
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

// The back end's bus address, parsed once rather than for every message.
const GUID& scandGuid()
{
    static const GUID guid = [] {
        GUID g{};
        stringToGuid(g, kuvscan::kScandGuid);
        return g;
    }();
    return guid;
}

} // namespace

QString displayPath(const std::string& bytes)
{
    return kuvsdk::displayBytes(QByteArray::fromStdString(bytes));
}

bool addScanSubscriber(const std::string& guid)
{
    return kuvsdk::addScanSubscriberIn(kuv::runtimeDir(), QString::fromStdString(guid));
}

// The bus side of the client: one worker thread makes every call that can wait (joining, sends with
// the broker's verdict), and the bus's receive threads hand messages over. Nothing here touches Qt
// widgets; results reach the ScanClient through queued calls.
class ScanBus final : public IMRReceiveComplete {
public:
    // Takes the body over: it is handed on to the GUI thread, not copied.
    using Message = std::function<void(int64_t type, Json::Value&& body)>;

    explicit ScanBus(Message onMessage) : m_onMessage(std::move(onMessage)) {}

    ~ScanBus() override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
            m_cv.notify_all();
        }
        if (m_thread.joinable()) {
            m_thread.join();
        }
        // Leaves the bus and joins its threads: no receive callback runs after this.
        if (m_module && m_endpoint != nullptr) {
            m_module->mgr()->destroyEndPoint(m_endpoint);
        }
        m_module.reset();
    }

    void post(std::function<void()> task)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_thread.joinable()) {
            m_thread = std::thread([this] { run(); });
        }
        m_tasks.push_back(std::move(task));
        m_cv.notify_all();
    }

    // Worker thread: joins once; 0 when on the bus, ZELL_SEND_NO_BROKER while the broker is missing,
    // -1 when the bus cannot be used at all (error says why).
    int connect(std::string& error)
    {
        if (!m_module) {
            auto module = std::make_unique<kuv::BusModule>();
            if (!module->open("./kuv_zell", false, error, "kuvgui-scan")) {
                return -1;
            }
            IZellMREndPoint4* ep = module->mgr()->createEndPoint();
            if (ep == nullptr) {
                error = "the bus module gave no endpoint";
                return -1;
            }
            ep->registerRecvNotify(kZellAnyMsgType, this, 0);
            GUID guid{};
            stringToGuid(guid, kShellScanGuid);
            const int rc = ep->init(guid);
            if (rc != 0) {
                module->mgr()->destroyEndPoint(ep);
                error = std::string("the bus address ") + kShellScanGuid + " is in use (" + std::to_string(rc) + ")";
                return -1;
            }
            m_module = std::move(module);
            m_endpoint = ep;
        }
        // A one-off wait for the broker's confirmation, on this worker only.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kConnectWaitMs);
        for (;;) {
            const int reg = m_endpoint->isRegistered();
            if (reg == 1) {
                return 0;
            }
            if (reg < 0) {
                error = std::string("the bus address ") + kShellScanGuid + " is in use";
                return -1;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                error = "the bus broker is not reachable";
                return ZELL_SEND_NO_BROKER;
            }
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_cv.wait_for(lock, std::chrono::milliseconds(10), [this] { return m_stop; })) {
                return ZELL_SEND_NO_BROKER;
            }
        }
    }

    // Worker thread: one of _ZELL_SEND_RESULT.
    int send(int64_t type, const std::string& body)
    {
        std::string error;
        const int rc = connect(error);
        if (rc != 0) {
            return rc < 0 ? ZELL_SEND_BAD_ARGS : ZELL_SEND_NO_BROKER;
        }
        return m_endpoint->sendMsgWait(scandGuid(), type, body.data(), static_cast<int>(body.size()), kSendWaitMs);
    }

    void ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t) override
    {
        if (sender == 0 || content == nullptr || length <= 0 || length > kMaxBodyBytes) {
            return;
        }
        const GUID* from = reinterpret_cast<const GUID*>(static_cast<uintptr_t>(sender));
        if (memcmp(from, &scandGuid(), sizeof(GUID)) != 0) {
            return; // only the back end speaks this protocol to us
        }
        Json::Value body;
        if (!CppJson::LoadJsonString(std::string(content, static_cast<size_t>(length)), body) || !body.isObject()) {
            KUV_LOG(kuv::LogLevel::Warn, "unreadable message of type %lld from the back end", static_cast<long long>(msgType));
            return;
        }
        m_onMessage(msgType, std::move(body));
    }

private:
    void run()
    {
        for (;;) {
            std::function<void()> task;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait(lock, [this] { return m_stop || !m_tasks.empty(); });
                if (m_stop) {
                    return;
                }
                task = std::move(m_tasks.front());
                m_tasks.pop_front();
            }
            task();
        }
    }

    const Message m_onMessage;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::function<void()>> m_tasks;
    bool m_stop = false;
    std::thread m_thread;
    std::unique_ptr<kuv::BusModule> m_module; // worker thread, then the destructor
    IZellMREndPoint4* m_endpoint = nullptr;
};

ScanClient::ScanClient(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<kuv::shell::ScanProgress>();
    qRegisterMetaType<kuv::shell::ScanEnd>();
    m_watchdog.setSingleShot(true);
    connect(&m_watchdog, &QTimer::timeout, this, &ScanClient::onWatchdog);
}

ScanClient::~ScanClient()
{
    m_watchdog.stop();
    watchBackend(0);
    m_bus.reset();
}

void ScanClient::watchBackend(int64_t pid)
{
    if (pid == m_watchedPid && (pid == 0 || m_pidfd >= 0)) {
        return;
    }
    m_pidNotifier.reset();
    if (m_pidfd >= 0) {
        ::close(m_pidfd);
        m_pidfd = -1;
    }
    m_watchedPid = pid;
    if (pid <= 0) {
        return;
    }
#ifdef SYS_pidfd_open
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
#else
    const int fd = -1;
    errno = ENOSYS;
#endif
    if (fd < 0) {
        if (errno == ESRCH) {
            // Gone between its report and now.
            QMetaObject::invokeMethod(this, [this]() { onBackendExit(); }, Qt::QueuedConnection);
        }
        // Otherwise (no pidfd here, or another pid namespace) the watchdog alone notices a death.
        return;
    }
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    m_pidfd = fd;
    m_pidNotifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    connect(m_pidNotifier.get(), &QSocketNotifier::activated, this, &ScanClient::onBackendExit);
}

void ScanClient::onBackendExit()
{
    const int64_t pid = m_watchedPid;
    KUV_LOG(kuv::LogLevel::Warn, "the back end (pid %lld) ended", static_cast<long long>(pid));
    watchBackend(0);
    // What it sent before it ended may still be on its way through the broker: a moment's grace.
    QTimer::singleShot(scaled(kExitGraceMs), this, [this, pid]() {
        if (m_backendPid != pid) {
            return; // another back end reported meanwhile
        }
        m_backendPid = 0;
        setBackend(BACKEND_NOT_RUNNING);
        failAll(QStringLiteral("back end stopped during the scan"));
    });
}

ScanBus& ScanClient::bus()
{
    if (!m_bus) {
        m_bus = std::make_unique<ScanBus>([this](int64_t type, Json::Value&& body) {
            // Bus thread: the client outlives every callback (its destructor leaves the bus first).
            QMetaObject::invokeMethod(
                this, [this, type, body = std::move(body)]() mutable { onMessage(type, std::move(body)); },
                Qt::QueuedConnection);
        });
    }
    return *m_bus;
}

void ScanClient::setBackend(BackendState state, const QString& error)
{
    const bool changed = state != m_backend || error != m_lastError;
    m_backend = state;
    m_lastError = error;
    if (changed) {
        emit backendChanged();
    }
}

void ScanClient::ensureConnected()
{
    const bool fresh = !m_bus;
    if (fresh) {
        addScanSubscriber(kShellScanGuid);
        ScanBus& b = bus();
        b.post([this, &b]() {
            std::string error;
            const int rc = b.connect(error);
            const QString why = QString::fromStdString(error);
            QMetaObject::invokeMethod(
                this, [this, rc, why]() { onConnected(rc, why); }, Qt::QueuedConnection);
        });
    }
    if (fresh || m_backend == BACKEND_UNKNOWN || m_backend == BACKEND_NO_BUS || m_backend == BACKEND_NOT_RUNNING) {
        if (m_backend != BACKEND_STARTING) {
            setBackend(BACKEND_CONNECTING);
        }
        subscribe();
    }
}

void ScanClient::onConnected(int result, const QString& error)
{
    if (result == 0) {
        return; // the subscription's answer tells the rest
    }
    KUV_LOG(kuv::LogLevel::Warn, "scan client not on the bus: %s", kuv::escapeControl(error.toStdString()).c_str());
    if (result < 0) {
        setBackend(BACKEND_NO_BUS, error);
    }
}

void ScanClient::subscribe()
{
    ScanBus& b = bus();
    b.post([this, &b]() {
        const int rc = b.send(kuvscan::KUV_SCAN_MSG_STATUS_REQUEST, R"({"subscribe":true})");
        QMetaObject::invokeMethod(
            this,
            [this, rc]() {
                if (rc == ZELL_SEND_ROUTED) {
                    if (m_backend != BACKEND_RUNNING && m_backend != BACKEND_STARTING) {
                        setBackend(BACKEND_CONNECTING);
                    }
                } else if (rc == ZELL_SEND_UNKNOWN_DEST) {
                    if (m_backend != BACKEND_STARTING) {
                        setBackend(BACKEND_NOT_RUNNING);
                    }
                } else if (rc == ZELL_SEND_NO_BROKER) {
                    if (m_backend != BACKEND_STARTING) {
                        setBackend(BACKEND_NO_BUS);
                    }
                } else if (rc == ZELL_SEND_BAD_ARGS && m_backend != BACKEND_NO_BUS) {
                    setBackend(BACKEND_NO_BUS, m_lastError);
                }
            },
            Qt::QueuedConnection);
    });
}

QString ScanClient::startJob(const std::vector<std::string>& paths, bool reportClean, const char* origin)
{
    const QString id = QStringLiteral("gui-%1-%2").arg(::getpid()).arg(++m_counter);
    Job job;
    job.paths = paths;
    job.reportClean = reportClean;
    m_jobs[id] = job;
    KUV_LOG(kuv::LogLevel::Info, "scan job %s (%s): %d path(s)", id.toStdString().c_str(), origin,
           static_cast<int>(paths.size()));
    emit jobCreated(id, static_cast<int>(paths.size()));

    ensureConnected();
    Json::Value body(Json::objectValue);
    body["job"] = id.toStdString();
    Json::Value list(Json::arrayValue);
    for (const std::string& p : paths) {
        list.append(kuvscan::pathToJson(p));
    }
    body["paths"] = list;
    body["options"]["report_clean"] = reportClean;
    const std::string text = compact(body);
    if (text.size() > static_cast<size_t>(kuvscan::kMaxRequestBytes) ||
        paths.size() > static_cast<size_t>(kuvscan::kMaxRequestPaths)) {
        failJob(id, tr("Too many paths for one scan."), false);
        return id;
    }
    ScanBus& b = bus();
    b.post([this, &b, id, text]() {
        const int rc = b.send(kuvscan::KUV_SCAN_MSG_REQUEST, text);
        QMetaObject::invokeMethod(
            this, [this, id, rc]() { onRequestSent(id, rc); }, Qt::QueuedConnection);
    });
    armWatchdog();
    return id;
}

void ScanClient::onRequestSent(const QString& job, int result)
{
    if (m_jobs.count(job) == 0) {
        return;
    }
    if (result == ZELL_SEND_ROUTED) {
        return;
    }
    const Job j = m_jobs[job];
    QString reason;
    if (result == ZELL_SEND_UNKNOWN_DEST) {
        setBackend(BACKEND_NOT_RUNNING);
        reason = QStringLiteral("back end not running");
        m_retryPaths = j.paths;
        m_retryReportClean = j.reportClean;
    } else if (result == ZELL_SEND_CONGESTED) {
        reason = QStringLiteral("back end busy");
    } else {
        if (m_backend != BACKEND_NO_BUS) {
            setBackend(BACKEND_NO_BUS, m_lastError);
        }
        reason = QStringLiteral("message bus not reachable");
        m_retryPaths = j.paths;
        m_retryReportClean = j.reportClean;
    }
    failJob(job, reason, true);
}

void ScanClient::cancel(const QString& job)
{
    if (m_jobs.count(job) == 0) {
        return;
    }
    Json::Value body(Json::objectValue);
    body["job"] = job.toStdString();
    const std::string text = compact(body);
    ScanBus& b = bus();
    b.post([this, &b, job, text]() {
        const int rc = b.send(kuvscan::KUV_SCAN_MSG_CANCEL, text);
        QMetaObject::invokeMethod(
            this,
            [this, job, rc]() {
                if (rc == ZELL_SEND_UNKNOWN_DEST || rc == ZELL_SEND_NO_BROKER) {
                    failJob(job, QStringLiteral("back end stopped"), true);
                }
            },
            Qt::QueuedConnection);
    });
    KUV_LOG(kuv::LogLevel::Info, "cancel requested for scan job %s", job.toStdString().c_str());
}

void ScanClient::armWatchdog()
{
    if (m_jobs.empty()) {
        m_watchdog.stop();
        return;
    }
    m_watchdog.start(scaled(kWatchdogMs));
}

void ScanClient::onWatchdog()
{
    if (m_jobs.empty() || m_probing) {
        return;
    }
    // Silence during a job: ask whether the back end is still there (its answer is a STATUS).
    m_probing = true;
    ScanBus& b = bus();
    b.post([this, &b]() {
        const int rc = b.send(kuvscan::KUV_SCAN_MSG_STATUS_REQUEST, R"({"subscribe":true})");
        QMetaObject::invokeMethod(
            this,
            [this, rc]() {
                m_probing = false;
                if (rc == ZELL_SEND_UNKNOWN_DEST || rc == ZELL_SEND_NO_BROKER) {
                    KUV_LOG(kuv::LogLevel::Warn, "the back end left the bus during a scan (%d)", rc);
                    setBackend(rc == ZELL_SEND_UNKNOWN_DEST ? BACKEND_NOT_RUNNING : BACKEND_NO_BUS);
                    failAll(QStringLiteral("back end stopped during the scan"));
                } else {
                    armWatchdog();
                }
            },
            Qt::QueuedConnection);
    });
}

void ScanClient::failJob(const QString& job, const QString& reason, bool backendGone)
{
    auto it = m_jobs.find(job);
    if (it == m_jobs.end()) {
        return;
    }
    m_jobs.erase(it);
    ScanEnd end;
    end.state = QStringLiteral("failed");
    end.reason = reason;
    end.backendGone = backendGone;
    KUV_LOG(kuv::LogLevel::Warn, "scan job %s failed: %s", job.toStdString().c_str(),
           kuv::escapeControl(reason.toStdString()).c_str());
    emit jobEnded(job, end);
    if (!journalling()) {
        armWatchdog();
        return;
    }
    Json::Value rec(Json::objectValue);
    rec["event"] = "scan-end";
    rec["job"] = job.toStdString();
    rec["state"] = "failed";
    rec["reason"] = reason.toStdString();
    rec["time_ms"] = static_cast<Json::Int64>(nowMs());
    journal(rec);
    armWatchdog();
}

void ScanClient::failAll(const QString& reason)
{
    std::vector<QString> ids;
    for (const auto& kv : m_jobs) {
        ids.push_back(kv.first);
    }
    for (const QString& id : ids) {
        failJob(id, reason, true);
    }
}

void ScanClient::onMessage(int64_t type, Json::Value message)
{
    // Read only from here on: a missing member is not added by a lookup.
    const Json::Value& body = message;
    if (type == kuvscan::KUV_SCAN_MSG_STATUS) {
        onStatus(std::move(message));
        return;
    }
    if (type == kuvscan::KUV_SCAN_MSG_EVENT) {
        emit eventReceived(body);
        return;
    }
    const QString job = text(body, "job");
    auto it = m_jobs.find(job);
    if (it == m_jobs.end()) {
        if (type == kuvscan::KUV_SCAN_MSG_ERROR) {
            KUV_LOG(kuv::LogLevel::Warn, "back end error for request type %lld: %s",
                   static_cast<long long>(num(body, "request_type")),
                   kuv::escapeControl(compact(body)).c_str());
        }
        return; // a job of an earlier instance, or not ours
    }
    if (m_backend != BACKEND_RUNNING) {
        setBackend(BACKEND_RUNNING);
    }
    switch (type) {
    case kuvscan::KUV_SCAN_MSG_ACCEPTED:
        it->second.accepted = true;
        it->second.backendPid = m_backendPid;
        emit jobAccepted(job, static_cast<int>(num(body, "position")));
        break;
    case kuvscan::KUV_SCAN_MSG_PROGRESS: {
        ScanProgress p;
        p.state = text(body, "state");
        p.filesTotal = num(body, "files_total", -1);
        p.filesScanned = num(body, "files_scanned");
        p.bytesScanned = num(body, "bytes_scanned");
        p.bytesTotal = num(body, "bytes_total", -1);
        p.threats = num(body, "threats");
        p.elapsedMs = num(body, "elapsed_ms");
        kuvscan::pathFromJson(body["current"], p.current);
        emit jobProgress(job, p);
        break;
    }
    case kuvscan::KUV_SCAN_MSG_RESULTS: {
        const Json::Value& list = body["results"];
        if (!list.isArray()) {
            break;
        }
        QVector<ScanResultRow> rows;
        rows.reserve(static_cast<int>(list.size()));
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            const Json::Value& r = list[i];
            ScanResultRow row;
            if (!r.isObject() || !kuvscan::pathFromJson(r["path"], row.path)) {
                continue;
            }
            row.verdict = text(r, "verdict");
            row.signature = text(r, "signature");
            row.reason = text(r, "reason");
            rows.push_back(row);
        }
        emit jobResults(job, rows);
        if (!journalling()) {
            break;
        }
        // Written after the page took them, so the record's time is when the verdict shows.
        const qint64 t = nowMs();
        for (const ScanResultRow& row : rows) {
            Json::Value rec(Json::objectValue);
            rec["event"] = "scan-result";
            rec["job"] = job.toStdString();
            rec["path"] = kuvscan::pathToJson(row.path);
            rec["verdict"] = row.verdict.toStdString();
            rec["signature"] = row.signature.toStdString();
            rec["reason"] = row.reason.toStdString();
            rec["time_ms"] = static_cast<Json::Int64>(t);
            journal(rec);
        }
        break;
    }
    case kuvscan::KUV_SCAN_MSG_JOB_END: {
        ScanEnd end;
        end.state = text(body, "state");
        end.reason = text(body, "reason");
        end.files = num(body, "files");
        end.bytes = num(body, "bytes");
        end.infected = num(body, "infected");
        end.errors = num(body, "errors");
        end.skipped = num(body, "skipped");
        end.partial = num(body, "partial");
        end.durationMs = num(body, "duration_ms");
        m_jobs.erase(it);
        KUV_LOG(kuv::LogLevel::Info, "scan job %s ended %s: %lld file(s), %lld infected", job.toStdString().c_str(),
               kuv::escapeControl(end.state.toStdString()).c_str(), static_cast<long long>(end.files),
               static_cast<long long>(end.infected));
        emit jobEnded(job, end);
        if (!journalling()) {
            break;
        }
        Json::Value rec(Json::objectValue);
        rec["event"] = "scan-end";
        rec["job"] = job.toStdString();
        rec["state"] = end.state.toStdString();
        rec["reason"] = end.reason.toStdString();
        rec["files"] = static_cast<Json::Int64>(end.files);
        rec["infected"] = static_cast<Json::Int64>(end.infected);
        rec["errors"] = static_cast<Json::Int64>(end.errors);
        rec["time_ms"] = static_cast<Json::Int64>(nowMs());
        journal(rec);
        break;
    }
    case kuvscan::KUV_SCAN_MSG_ERROR: {
        const QString why = text(body, "error") +
                            (text(body, "detail").isEmpty() ? QString() : QStringLiteral(": ") + text(body, "detail"));
        failJob(job, why.isEmpty() ? QStringLiteral("refused by the back end") : why, false);
        return;
    }
    default:
        return;
    }
    armWatchdog();
}

void ScanClient::onStatus(Json::Value status)
{
    const Json::Value& body = status;
    const int64_t pid = num(body, "pid");
    const QString state = text(body, "state");
    const bool newInstance = pid != 0 && pid != m_backendPid;
    if (newInstance && m_backendPid != 0) {
        // Another back end answers: jobs the previous one accepted are lost with it.
        std::vector<QString> lost;
        for (const auto& kv : m_jobs) {
            if (kv.second.accepted && kv.second.backendPid != 0 && kv.second.backendPid != pid) {
                lost.push_back(kv.first);
            }
        }
        for (const QString& id : lost) {
            failJob(id, QStringLiteral("back end stopped during the scan"), true);
        }
    }
    m_status = std::move(status);
    if (pid != 0) {
        m_backendPid = pid;
        watchBackend(pid);
    }
    if (state == QLatin1String("stopping")) {
        // Its jobs end with their own JOB_END; the process end is what tells it has gone.
        setBackend(BACKEND_NOT_RUNNING);
        emit backendChanged();
        return;
    }
    setBackend(BACKEND_RUNNING);
    emit backendChanged();
    if (newInstance) {
        // A back end that announced itself has us as a subscriber; asking again costs one message.
        subscribe();
    }
    if (m_retryArmed && state != QLatin1String("starting")) {
        m_retryArmed = false;
        if (!m_retryPaths.empty()) {
            const std::vector<std::string> paths = std::move(m_retryPaths);
            m_retryPaths.clear();
            startJob(paths, m_retryReportClean, "retry after start");
        }
    }
}

void ScanClient::startBackend()
{
    m_retryArmed = !m_retryPaths.empty();
    setBackend(BACKEND_STARTING);
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    const bool userManager =
        !runtime.isEmpty() && QFileInfo(QString::fromLocal8Bit(runtime) + QStringLiteral("/systemd/private")).exists();
    if (!userManager) {
        startDirect();
        return;
    }
    auto* proc = new QProcess(this);
    connect(proc, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this, proc](int code, QProcess::ExitStatus status) {
                proc->deleteLater();
                if (status == QProcess::NormalExit && code == 0) {
                    KUV_LOG(kuv::LogLevel::Info, "back end started by the user's service manager");
                    probeAfterStart(0);
                } else {
                    KUV_LOG(kuv::LogLevel::Warn, "systemctl --user start kuv-scand failed (%d); starting it directly", code);
                    startDirect();
                }
            });
    connect(proc, &QProcess::errorOccurred, this, [this, proc](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            proc->deleteLater();
            startDirect();
        }
    });
    proc->start(QStringLiteral("systemctl"), {QStringLiteral("--user"), QStringLiteral("start"),
                                              QStringLiteral("kuv-scand.service")});
}

void ScanClient::startDirect()
{
    const QString program =
        QString::fromStdString(ConstConfig::singleInstance()->getInstallDir()) + QStringLiteral("bin/kuv-scand");
    if (!QFileInfo(program).isExecutable()) {
        setBackend(BACKEND_NOT_RUNNING, tr("%1 is not installed.").arg(program));
        m_retryArmed = false;
        return;
    }
    qint64 pid = 0;
    if (!QProcess::startDetached(program, {}, QString(), &pid)) {
        setBackend(BACKEND_NOT_RUNNING, tr("%1 could not be started.").arg(program));
        m_retryArmed = false;
        return;
    }
    KUV_LOG(kuv::LogLevel::Info, "started the back end %s (pid %lld)", kuv::escapeControl(program.toStdString()).c_str(),
           static_cast<long long>(pid));
    probeAfterStart(0);
}

void ScanClient::probeAfterStart(int attempt)
{
    // The back end announces itself to the subscriber list once ready; these few asks cover one that
    // came up before we listened. They stop at the first status.
    static const int kDelays[] = {300, 700, 1500, 3000, 6000};
    const int generation = ++m_startGeneration;
    if (attempt >= static_cast<int>(sizeof(kDelays) / sizeof(kDelays[0]))) {
        if (m_backend == BACKEND_STARTING) {
            setBackend(BACKEND_NOT_RUNNING, tr("The back end did not report after starting."));
            m_retryArmed = false;
        }
        return;
    }
    QTimer::singleShot(scaled(kDelays[attempt]), this, [this, attempt, generation]() {
        if (generation != m_startGeneration || m_backend != BACKEND_STARTING) {
            return;
        }
        ensureConnected();
        if (m_backend == BACKEND_STARTING) {
            subscribe();
        }
        probeAfterStart(attempt + 1);
    });
}

} // namespace shell
} // namespace kuv

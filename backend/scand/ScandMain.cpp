// kuv-scand: the per-user scan service. It joins the user's bus as the back end's endpoint, scans what it
// is asked to with the user's own rights, reports to subscribers, and stops when the user chose to stop
// the back end (the marker data/pubcfg/.guiexit).
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "BusModule.h"
#include "CLogDebug.h"
#include "ClamEngine.h"
#include "ClamdEngine.h"
#include "ConstConfig.h"
#include "FileUtils.h"
#include "JobLog.h"
#include "Jobs.h"
#include "KuvScanProtocol.h"
#include "ScanPaths.h"
#include "ScanRequest.h"
#include "ScanSettings.h"
#include "StorePaths.h"
#include "Settings.h"
#include "UniqueFd.h"
#include "WriteSignals.h"
#include "ZellWire.h"

namespace {

using kuv::UniqueFd;
using kuv::scand::Settings;

constexpr int kExitOk = 0;
constexpr int kExitRunning = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 3;

constexpr size_t kMaxSubscribers = 64;
constexpr int kSendWaitMs = 5000;

const char* const kUsage =
    "Usage: kuv-scand [options]\n"
    "The per-user scan service of kuvgui: scans files on request over the user's message bus with\n"
    "ClamAV's engine (libclamav), or hands them to the system's clamd.\n"
    "\n"
    "Options:\n"
    "  --foreground       stay in the foreground (as a systemd unit runs it); otherwise it goes to the\n"
    "                     background and restarts itself after a crash\n"
    "  --config FILE      settings (default DIR/etc/kuv-scand.conf, JSON; see the manual page)\n"
    "  --clamd SOCKET     hand files to the clamd listening on SOCKET instead of loading an engine\n"
    "  --db-dir DIR       one more signature database directory (may be repeated)\n"
    "  --log-level N      lowest level logged: 0 trace .. 4 error (default 2)\n"
    "  --version          print the version\n"
    "  --help             this text\n"
    "\n"
    "It stops on SIGTERM or SIGINT, and when the file data/pubcfg/.guiexit appears (the user chose to\n"
    "stop the back end when quitting kuvgui); a start while that file exists does nothing.\n"
    "Exit status: 0 stopped, or not started because of that file; 1 another kuv-scand serves this\n"
    "user; 2 usage error; 3 could not start.\n";

struct Options {
    std::string config;
    std::string clamd;
    std::vector<std::string> dbDirs;
    bool foreground = false;
    int logLevel = -1;
};

CLogDebug* g_log = nullptr;
#define SLOG(level, ...) g_log->LogPrint(level, "backend/scand/ScandMain", __func__, __LINE__, __VA_ARGS__)

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, value);
}

int64_t unixMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Per-user places in the installation: the log folder and the folder of the stop marker.
std::string userDir(const std::string& installDir, const std::string& relative)
{
    return installDir + relative;
}

bool readFile(const std::string& path, std::string& content, size_t cap)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    content = text.str();
    return content.size() <= cap;
}

// The engine jobs scan with. The user's choice of engine swaps it whole; a file being scanned keeps the
// engine it started with, which goes when its last scan ends.
class EngineSwitch final : public kuv::scan::IScanEngine {
public:
    void set(std::shared_ptr<kuv::scan::IScanEngine> engine)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_engine = std::move(engine);
    }
    std::shared_ptr<kuv::scan::IScanEngine> get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_engine;
    }
    kuv::scan::ScanResult scanFd(int fd, const std::string& path, const kuv::scan::ScanLimits& limits,
                                 const std::atomic<bool>* cancel) override
    {
        const auto engine = get();
        if (!engine) {
            kuv::scan::ScanResult none;
            none.reason = "engine: none";
            return none;
        }
        return engine->scanFd(fd, path, limits, cancel);
    }
    kuv::scan::EngineInfo info() const override
    {
        const auto engine = get();
        return engine ? engine->info() : kuv::scan::EngineInfo();
    }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<kuv::scan::IScanEngine> m_engine;
};

class Service final : public IMRReceiveComplete, public kuv::scand::IJobReporter {
public:
    Service(Settings settings, std::string installDir)
        : m_settings(std::move(settings)), m_installDir(std::move(installDir))
    {
        m_markerDir = userDir(m_installDir, "data/pubcfg/");
        m_marker = m_markerDir + ".guiexit";
    }
    ~Service() override { shutdown(); }

    // Returns the exit status; ready() is called once the service serves (or decided not to).
    int run(const std::function<void(int)>& ready);

    void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override;
    bool toRequester(const std::string& requester, int64_t type, const Json::Value& body) override;
    void event(const Json::Value& event) override;
    void jobsChanged() override { broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody()); }
    // Into the user's history; onlyIfOpen: quietly nothing when the job was recorded already.
    void recordJob(const Json::Value& end, bool onlyIfOpen = false)
    {
        std::string why;
        if (!m_jobLog.ended(end["job"].asString(), end, &why) && !(onlyIfOpen && why == "unknown job")) {
            SLOG(LOG_LEVEL_WARN, "job %s not kept in the history: %s", end["job"].asString().c_str(), why.c_str());
        }
        for (const std::string& notice : m_jobLog.takeNotices()) {
            SLOG(LOG_LEVEL_WARN, "%s", notice.c_str());
        }
    }

private:
    bool makeEngine(std::string& error);
    kuv::scan::ClamSettings clamSettings() const;
    bool wantedEngine(std::string& kind, std::string& socket) const;
    std::shared_ptr<kuv::scan::ClamEngine> clam();
    void watchConfigDir();
    void checkUserEngine();
    void switchFinished();
    bool setUpWatches(std::string& error);
    void watchDbDir(const std::string& dir);
    void reloadSoon();
    void startReload();
    void reloadFinished();
    void handleInotify();
    void subscribeListed();
    void sendError(const GUID& to, int64_t type, const kuv::scand::RequestError& error);
    int send(const GUID& to, int64_t type, const std::string& body, int timeoutMs);
    Json::Value statusBody();
    void broadcast(int64_t type, const Json::Value& body);
    void notifierLoop();
    void shutdown();

    Settings m_settings;
    std::string m_installDir;
    std::string m_markerDir;
    std::string m_marker;
    std::vector<std::string> m_dbDirs;

    EngineSwitch m_engine;
    std::shared_ptr<kuv::scan::ClamEngine> m_clam; // the engine, when it is libclamav's (m_stateMutex)
    std::string m_engineKind;                      // what m_engine is: "libclamav" or "clamd"
    std::string m_clamdSocket;                     // with "clamd"
    std::string m_switchError;                     // why the user's engine is not in use (m_stateMutex)
    std::unique_ptr<kuv::scand::JobManager> m_jobs;
    // Every job into the user's history; findings into the quarantine when a request asks for it.
    kuv::store::JobLog m_jobLog;

    kuv::BusModule m_bus;
    IZellMREndPoint4* m_endpoint = nullptr;
    GUID m_guid{};

    std::mutex m_stateMutex;
    std::string m_state = "starting";
    bool m_firstLoadDone = false;

    UniqueFd m_inotify;
    int m_markerWatch = -1;
    std::string m_stopWhy; // set on the main thread when the service is to stop
    std::map<int, std::string> m_dbWatches;                // watch -> database directory (final "/")
    std::map<int, std::vector<std::string>> m_dbParents;   // watch -> database directories still to appear
    UniqueFd m_timer;
    UniqueFd m_wake;
    std::thread m_reloadThread;
    std::atomic<bool> m_reloadBusy{false};
    std::atomic<bool> m_reloadResult{false};
    bool m_reloadAgain = false;

    // The user's scan.json, for the choice of engine; a new engine is built on m_switchThread.
    std::string m_configDir;
    int m_configWatch = -1;
    std::thread m_switchThread;
    std::atomic<bool> m_switchBusy{false};
    bool m_switchAgain = false;
    std::string m_switchKind;
    std::string m_switchSocket;
    std::shared_ptr<kuv::scan::IScanEngine> m_switchEngine; // published by m_switchBusy going false
    std::shared_ptr<kuv::scan::ClamEngine> m_switchClam;
    std::string m_switchWhy;

    std::mutex m_outMutex; // subscribers and what waits to go to them
    std::condition_variable m_outCv;
    std::deque<std::pair<int64_t, std::string>> m_outbox;
    std::vector<GUID> m_subscribers;
    bool m_outStop = false;
    std::thread m_notifier;
    bool m_shutDown = false;
};

kuv::scan::ClamSettings Service::clamSettings() const
{
    kuv::scan::ClamSettings clam;
    if (!m_settings.systemDbDir.empty()) {
        clam.dbDirs.push_back(m_settings.systemDbDir);
    }
    for (const std::string& dir : m_settings.extraDbDirs) {
        clam.dbDirs.push_back(dir);
    }
    clam.dbDirs.push_back(m_installDir + "data/signatures/");
    clam.maxFileSize = m_settings.maxFileSize;
    clam.maxScanSize = m_settings.maxScanSize;
    clam.maxRecursion = m_settings.maxRecursion;
    clam.maxFiles = m_settings.maxFiles;
    clam.maxScanTimeMs = m_settings.maxScanTimeMs;
    return clam;
}

// The engine to use: the system's clamd when the user chose it in scan.json (true), else the
// installation's choice (kuv-scand.conf or --clamd).
bool Service::wantedEngine(std::string& kind, std::string& socket) const
{
    kuv::store::ScanSettings user;
    std::string why;
    if (!kuv::store::loadScanSettings(user, &why)) {
        SLOG(LOG_LEVEL_WARN, "scan settings: %s", why.c_str());
    }
    if (user.useClamd) {
        kind = "clamd";
        socket = user.clamdSocket;
        return true;
    }
    kind = m_settings.engine;
    socket = m_settings.clamdSocket;
    return false;
}

std::shared_ptr<kuv::scan::ClamEngine> Service::clam()
{
    std::lock_guard<std::mutex> lock(m_stateMutex);
    return m_clam;
}

bool Service::makeEngine(std::string& error)
{
    kuv::scan::setClamLogSink([](int level, const std::string& text) {
        g_log->LogPrintStr(static_cast<_LOG_LEVEL>(level), "backend/engine/ClamEngine", "libclamav", 0, text.c_str());
    });
    const kuv::scan::ClamSettings clamSet = clamSettings();
    m_dbDirs = clamSet.dbDirs;
    std::string kind;
    std::string socket;
    if (wantedEngine(kind, socket)) {
        std::string why;
        std::shared_ptr<kuv::scan::IScanEngine> engine = kuv::scan::makeClamdEngine(socket, why);
        if (engine) {
            m_engine.set(std::move(engine));
            m_engineKind = kind;
            m_clamdSocket = socket;
            return true;
        }
        m_switchError = "clamd at " + socket + " cannot be used: " + why + "; " + m_settings.engine + " is used instead";
        SLOG(LOG_LEVEL_WARN, "%s", m_switchError.c_str());
    }
    if (m_settings.engine == "clamd") {
        // Files go to the system's clamd by descriptor passing instead of a libclamav engine of our own.
        std::shared_ptr<kuv::scan::IScanEngine> engine = kuv::scan::makeClamdEngine(m_settings.clamdSocket, error);
        if (!engine) {
            return false;
        }
        m_engine.set(std::move(engine));
        m_engineKind = "clamd";
        m_clamdSocket = m_settings.clamdSocket;
        return true;
    }
    std::shared_ptr<kuv::scan::ClamEngine> engine = kuv::scan::makeClamEngine(clamSet, error);
    if (!engine) {
        return false;
    }
    m_clam = engine;
    m_engine.set(std::move(engine));
    m_engineKind = "libclamav";
    m_clamdSocket.clear();
    return true;
}

bool Service::setUpWatches(std::string& error)
{
    m_inotify.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_inotify.valid()) {
        error = std::string("inotify: ") + strerror(errno);
        return false;
    }
    if (!CDir::mkpath(m_markerDir, 0700)) {
        error = "cannot create " + m_markerDir;
        return false;
    }
    m_markerWatch = inotify_add_watch(m_inotify.get(), m_markerDir.c_str(),
                                      IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_ONLYDIR |
                                          IN_DELETE_SELF | IN_MOVE_SELF);
    if (m_markerWatch < 0) {
        error = "cannot watch " + m_markerDir + ": " + strerror(errno);
        return false;
    }
    // Also while clamd is in use: the user may come back to our own engine.
    for (const std::string& dir : m_dbDirs) {
        watchDbDir(dir);
    }
    watchConfigDir();
    return true;
}

// The user's configuration directory, for scan.json (written whole and renamed into place by the GUI).
void Service::watchConfigDir()
{
    std::string why;
    m_configDir = kuv::store::userConfigDir();
    if (!kuv::store::openPrivateDir(m_configDir, 1, &why).valid()) {
        SLOG(LOG_LEVEL_WARN, "cannot follow the scan settings in %s: %s", m_configDir.c_str(), why.c_str());
        return;
    }
    m_configWatch = inotify_add_watch(m_inotify.get(), m_configDir.c_str(),
                                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR |
                                          IN_DELETE_SELF | IN_MOVE_SELF);
    if (m_configWatch < 0) {
        SLOG(LOG_LEVEL_WARN, "cannot watch %s: %s", m_configDir.c_str(), strerror(errno));
    }
}

// scan.json changed: when it changes the engine, the new one is built in the background (connecting to
// clamd, or loading the databases) and swapped in when it works; until then jobs keep the current one.
void Service::checkUserEngine()
{
    if (m_switchBusy.load()) {
        m_switchAgain = true;
        return;
    }
    if (m_switchThread.joinable()) {
        m_switchThread.join();
    }
    std::string kind;
    std::string socket;
    wantedEngine(kind, socket);
    if (kind == m_engineKind && (kind != "clamd" || socket == m_clamdSocket)) {
        bool cleared = false;
        {
            std::lock_guard<std::mutex> lock(m_stateMutex);
            cleared = !m_switchError.empty();
            m_switchError.clear();
        }
        if (cleared) {
            broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
        }
        return;
    }
    SLOG(LOG_LEVEL_INFO, "the scan settings ask for %s%s%s; preparing it", kind.c_str(), kind == "clamd" ? " at " : "",
         kind == "clamd" ? socket.c_str() : "");
    m_switchKind = kind;
    m_switchSocket = socket;
    m_switchBusy = true;
    const kuv::scan::ClamSettings clamSet = clamSettings();
    m_switchThread = std::thread([this, kind, socket, clamSet] {
        std::string why;
        std::shared_ptr<kuv::scan::IScanEngine> engine;
        std::shared_ptr<kuv::scan::ClamEngine> clamEngine;
        if (kind == "clamd") {
            engine = kuv::scan::makeClamdEngine(socket, why);
        } else {
            clamEngine = kuv::scan::makeClamEngine(clamSet, why);
            if (clamEngine) {
                clamEngine->reload();
                if (clamEngine->ready()) {
                    engine = clamEngine;
                } else {
                    why = clamEngine->info().dbError;
                    clamEngine.reset();
                }
            }
        }
        m_switchEngine = std::move(engine);
        m_switchClam = std::move(clamEngine);
        m_switchWhy = why;
        m_switchBusy = false;
        const uint64_t one = 1;
        (void)!::write(m_wake.get(), &one, sizeof(one));
    });
}

void Service::switchFinished()
{
    const std::string what = m_switchKind == "clamd" ? "clamd at " + m_switchSocket : m_switchKind;
    Json::Value ev(Json::objectValue);
    ev["time"] = Json::Int64(unixMs());
    ev["kind"] = "engine";
    if (m_switchEngine) {
        m_engine.set(std::move(m_switchEngine));
        {
            std::lock_guard<std::mutex> lock(m_stateMutex);
            m_clam = std::move(m_switchClam);
            m_switchError.clear();
            m_state = "ready";
            m_firstLoadDone = true;
        }
        m_engineKind = m_switchKind;
        m_clamdSocket = m_switchKind == "clamd" ? m_switchSocket : std::string();
        m_jobs->setEngineReady();
        const kuv::scan::EngineInfo info = m_engine.info();
        SLOG(LOG_LEVEL_INFO, "now scanning with %s (engine %s, %llu signatures)", what.c_str(),
             info.engineVersion.c_str(), static_cast<unsigned long long>(info.signatures));
        ev["severity"] = "info";
        ev["action"] = "switched";
        ev["detail"] = "now scanning with " + what;
    } else {
        const std::string why = what + " cannot be used: " + m_switchWhy + "; " + m_engineKind + " stays in use";
        {
            std::lock_guard<std::mutex> lock(m_stateMutex);
            m_switchError = why;
        }
        m_switchClam.reset();
        SLOG(LOG_LEVEL_WARN, "%s", why.c_str());
        ev["severity"] = "warning";
        ev["action"] = "kept";
        ev["detail"] = why;
    }
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    broadcast(kuvscan::KUV_SCAN_MSG_EVENT, ev);
    if (m_switchAgain) {
        m_switchAgain = false;
        checkUserEngine();
    }
}

// A database directory is watched for its files; one that does not exist yet (no freshclam installed so
// far) through its parent, until it appears.
void Service::watchDbDir(const std::string& rawDir)
{
    std::string dir = rawDir;
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    const int wd = inotify_add_watch(m_inotify.get(), dir.c_str(),
                                     IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE |
                                         IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    if (wd >= 0) {
        m_dbWatches[wd] = dir + "/";
        return;
    }
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        return;
    }
    const std::string parent = dir.substr(0, slash);
    const int pwd = inotify_add_watch(m_inotify.get(), parent.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    if (pwd >= 0) {
        m_dbParents[pwd].push_back(dir);
    } else {
        SLOG(LOG_LEVEL_WARN, "cannot watch the database directory %s: %s", dir.c_str(), strerror(errno));
    }
}

void Service::reloadSoon()
{
    itimerspec when{};
    const int delay = std::max(m_settings.reloadDelayMs, 1);
    when.it_value.tv_sec = delay / 1000;
    when.it_value.tv_nsec = static_cast<long>(delay % 1000) * 1000000L;
    timerfd_settime(m_timer.get(), 0, &when, nullptr);
}

void Service::startReload()
{
    const std::shared_ptr<kuv::scan::ClamEngine> engine = clam();
    if (!engine) {
        return;
    }
    if (m_reloadBusy.load()) {
        m_reloadAgain = true;
        return;
    }
    if (m_reloadThread.joinable()) {
        m_reloadThread.join();
    }
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        if (m_firstLoadDone) {
            m_state = "reloading";
        }
    }
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    m_reloadBusy = true;
    m_reloadThread = std::thread([this, engine] {
        const auto start = std::chrono::steady_clock::now();
        m_reloadResult = engine->reload();
        SLOG(LOG_LEVEL_INFO, "database load took %lld ms",
             static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count()));
        m_reloadBusy = false;
        const uint64_t one = 1;
        (void)!::write(m_wake.get(), &one, sizeof(one));
    });
}

void Service::reloadFinished()
{
    const std::shared_ptr<kuv::scan::ClamEngine> engine = clam();
    if (!engine) {
        m_reloadAgain = false; // the user moved to clamd meanwhile: that engine is no longer used
        return;
    }
    const kuv::scan::EngineInfo info = m_engine.info();
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        first = !m_firstLoadDone;
        m_firstLoadDone = true;
        m_state = engine->ready() ? "ready" : "error";
    }
    Json::Value ev(Json::objectValue);
    ev["time"] = Json::Int64(unixMs());
    ev["kind"] = "engine";
    if (m_reloadResult.load()) {
        SLOG(LOG_LEVEL_INFO, "engine %s loaded: %llu signatures, database version %s%s%s",
             info.engineVersion.c_str(), static_cast<unsigned long long>(info.signatures),
             info.dbVersion.empty() ? "-" : info.dbVersion.c_str(), info.dbError.empty() ? "" : "; not loaded: ",
             info.dbError.c_str());
        ev["severity"] = info.dbError.empty() ? "info" : "warning";
        ev["action"] = first ? "loaded" : "reloaded";
        ev["detail"] = std::to_string(info.signatures) + " signatures" +
                       (info.dbError.empty() ? std::string() : "; not loaded: " + info.dbError);
    } else {
        SLOG(LOG_LEVEL_ERROR, "the signature databases did not load%s: %s",
             engine->ready() ? " (the previous engine stays in use)" : "", info.dbError.c_str());
        ev["severity"] = engine->ready() ? "warning" : "critical";
        ev["action"] = engine->ready() ? "kept" : "failed";
        ev["detail"] = info.dbError;
    }
    if (first) {
        m_jobs->setEngineReady();
    }
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    broadcast(kuvscan::KUV_SCAN_MSG_EVENT, ev);
    if (m_reloadAgain) {
        m_reloadAgain = false;
        startReload();
    }
}

Json::Value Service::statusBody()
{
    Json::Value status(Json::objectValue);
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        status["state"] = m_state;
    }
    const kuv::scan::EngineInfo info = m_engine.info();
    std::string dbError = info.dbError;
    bool ownEngine = false;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        ownEngine = m_clam != nullptr;
        if (!m_switchError.empty()) {
            dbError = dbError.empty() ? m_switchError : dbError + "; " + m_switchError;
        }
    }
    status["engine"] = info.engine;
    status["engine_version"] = info.engineVersion;
    status["db_version"] = info.dbVersion;
    status["signatures"] = Json::UInt64(info.signatures);
    status["db_time"] = Json::Int64(info.dbTime);
    Json::Value& dirs = status["db_dirs"] = Json::Value(Json::arrayValue);
    for (const std::string& dir : m_dbDirs) {
        if (ownEngine) {
            dirs.append(kuvscan::pathToJson(dir));
        }
    }
    status["db_error"] = dbError;
    if (m_jobs) {
        const kuv::scand::LastScan last = m_jobs->lastScan();
        if (last.valid) {
            Json::Value& l = status["last_scan"] = Json::Value(Json::objectValue);
            l["job"] = last.job;
            l["state"] = last.state;
            l["end_time"] = Json::Int64(last.endTime);
            l["files"] = Json::UInt64(last.files);
            l["infected"] = Json::UInt64(last.infected);
        } else {
            status["last_scan"] = Json::Value(Json::nullValue);
        }
        status["jobs_running"] = m_jobs->running();
        status["jobs_queued"] = m_jobs->queued();
    }
    status["pid"] = static_cast<int>(getpid());
    return status;
}

int Service::send(const GUID& to, int64_t type, const std::string& body, int timeoutMs)
{
    if (m_endpoint == nullptr) {
        return ZELL_SEND_NO_BROKER;
    }
    int rc = ZELL_SEND_NO_BROKER;
    for (int attempt = 0; attempt < 4; ++attempt) {
        rc = m_endpoint->sendMsgWait(to, type, body.data(), static_cast<int>(body.size()), timeoutMs);
        if (rc != ZELL_SEND_CONGESTED) {
            break;
        }
        // The receiver is behind; give it a moment rather than lose results.
        std::this_thread::sleep_for(std::chrono::milliseconds(50 * (attempt + 1)));
    }
    return rc;
}

bool Service::toRequester(const std::string& requester, int64_t type, const Json::Value& body)
{
    GUID to{};
    if (requester.size() != sizeof(GUID)) {
        return false;
    }
    memcpy(&to, requester.data(), sizeof(GUID));
    // Found files go into the quarantine when the job asked for it, and every job into the history,
    // before the requester hears of it.
    Json::Value withActions;
    const Json::Value* out = &body;
    if (type == kuvscan::KUV_SCAN_MSG_RESULTS) {
        withActions = body;
        m_jobLog.results(body["job"].asString(), withActions);
        out = &withActions;
    } else if (type == kuvscan::KUV_SCAN_MSG_JOB_END) {
        recordJob(body);
    }
    const int rc = send(to, type, compact(*out), kSendWaitMs);
    if (rc == ZELL_SEND_UNKNOWN_DEST || rc == ZELL_SEND_NO_BROKER) {
        SLOG(LOG_LEVEL_WARN, "requester %s is gone (type %lld not delivered)", zell::wire::guidText(to).c_str(),
             static_cast<long long>(type));
        return false;
    }
    return true;
}

void Service::event(const Json::Value& ev)
{
    const std::string kind = ev["kind"].asString();
    if (kind == "detection") {
        std::string path;
        kuvscan::pathFromJson(ev["path"], path);
        SLOG(LOG_LEVEL_WARN, "job %s: %s found in %s", ev["job"].asString().c_str(), ev["signature"].asString().c_str(),
             path.c_str());
    } else if (kind == "job") {
        SLOG(LOG_LEVEL_INFO, "job %s %s: %s", ev["job"].asString().c_str(), ev["action"].asString().c_str(),
             ev["detail"].asString().c_str());
        // A job whose requester left ends without JOB_END: it still goes into the history.
        Json::Value end(Json::objectValue);
        end["job"] = ev["job"];
        end["state"] = ev["action"];
        recordJob(end, true);
    }
    broadcast(kuvscan::KUV_SCAN_MSG_EVENT, ev);
}

void Service::broadcast(int64_t type, const Json::Value& body)
{
    std::lock_guard<std::mutex> lock(m_outMutex);
    if (m_subscribers.empty() || m_outStop) {
        return;
    }
    if (m_outbox.size() >= 10000) {
        m_outbox.pop_front(); // a subscriber this far behind loses the oldest news, never the service
    }
    m_outbox.emplace_back(type, compact(body));
    m_outCv.notify_one();
}

void Service::notifierLoop()
{
    // A one-off wait at start for the broker to confirm our endpoint: only then can the subscribers
    // listed in the runtime directory be reached. The endpoint wakes us when its registration changes.
    m_endpoint->setRegisteredNotify(
        [](void* self) {
            auto* service = static_cast<Service*>(self);
            std::lock_guard<std::mutex> lock(service->m_outMutex);
            service->m_outCv.notify_all();
        },
        this);
    std::unique_lock<std::mutex> lock(m_outMutex);
    m_outCv.wait_for(lock, std::chrono::seconds(30), [&] { return m_outStop || m_endpoint->isRegistered() == 1; });
    lock.unlock();
    m_endpoint->setRegisteredNotify(nullptr, nullptr);
    lock.lock();
    if (!m_outStop) {
        lock.unlock();
        subscribeListed();
        lock.lock();
    }
    for (;;) {
        m_outCv.wait(lock, [&] { return m_outStop || !m_outbox.empty(); });
        if (m_outbox.empty() && m_outStop) {
            return;
        }
        const auto message = std::move(m_outbox.front());
        m_outbox.pop_front();
        const std::vector<GUID> targets = m_subscribers;
        lock.unlock();
        std::vector<GUID> gone;
        for (const GUID& to : targets) {
            const int rc = send(to, message.first, message.second, 2000);
            if (rc == ZELL_SEND_UNKNOWN_DEST) {
                gone.push_back(to);
            }
        }
        lock.lock();
        for (const GUID& g : gone) {
            m_subscribers.erase(std::remove_if(m_subscribers.begin(), m_subscribers.end(),
                                               [&](const GUID& s) { return memcmp(&s, &g, sizeof(GUID)) == 0; }),
                                m_subscribers.end());
        }
    }
}

void Service::sendError(const GUID& to, int64_t type, const kuv::scand::RequestError& error)
{
    Json::Value body(Json::objectValue);
    body["request_type"] = Json::Int64(type);
    if (!error.job.empty()) {
        body["job"] = error.job;
    }
    body["error"] = error.error;
    body["detail"] = error.detail;
    SLOG(LOG_LEVEL_WARN, "request of type %lld from %s refused: %s: %s", static_cast<long long>(type),
         zell::wire::guidText(to).c_str(), error.error.c_str(), error.detail.c_str());
    const std::string text = compact(body);
    m_endpoint->sendMsg(to, kuvscan::KUV_SCAN_MSG_ERROR, text.data(), static_cast<int>(text.size()));
}

// The user's scan settings (scan.json), read afresh for every job so a change needs no restart; what
// the request itself asks for wins.
static void applyUserSettings(kuv::scand::ScanRequest& request)
{
    kuv::store::ScanSettings user;
    std::string why;
    if (!kuv::store::loadScanSettings(user, &why)) {
        SLOG(LOG_LEVEL_WARN, "scan settings: %s", why.c_str());
    }
    for (const std::string& folder : user.excluded) {
        if (request.options.exclude.size() >= kuv::scand::kMaxExcludes) {
            break;
        }
        request.options.exclude.push_back(folder);
    }
    if (request.options.maxFileSize == 0) {
        request.options.maxFileSize = user.maxFileSize;
    }
    request.options.scanArchives = request.options.scanArchives && user.scanArchives;
}

void Service::ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t sender,
                              uint64_t)
{
    if (sender == 0 || length < 0) {
        return;
    }
    const GUID from = *reinterpret_cast<const GUID*>(sender);
    const size_t size = static_cast<size_t>(length);
    kuv::scand::RequestError error;
    switch (msgType) {
    case kuvscan::KUV_SCAN_MSG_REQUEST: {
        kuv::scand::ScanRequest request;
        if (!kuv::scand::parseScanRequest(content, size, request, error)) {
            sendError(from, msgType, error);
            return;
        }
        const std::string job = request.job;
        const size_t paths = request.paths.size();
        applyUserSettings(request);
        m_jobLog.started(job, request.paths, request.options.quarantine);
        const auto result =
            m_jobs->submit(std::move(request), std::string(reinterpret_cast<const char*>(&from), sizeof(GUID)));
        if (result == kuv::scand::JobManager::Submit::QueueFull || result == kuv::scand::JobManager::Submit::Stopping) {
            m_jobLog.forget(job);
        }
        switch (result) {
        case kuv::scand::JobManager::Submit::Accepted:
            SLOG(LOG_LEVEL_INFO, "job %s from %s accepted: %zu path(s)", job.c_str(),
                 zell::wire::guidText(from).c_str(), paths);
            return;
        case kuv::scand::JobManager::Submit::Duplicate:
            error = {"duplicate_job", "a job with this id is running or waiting", job};
            break;
        case kuv::scand::JobManager::Submit::QueueFull:
            error = {"queue_full", "too many jobs are waiting; try again later", job};
            break;
        case kuv::scand::JobManager::Submit::Stopping:
            error = {"stopping", "the back end is stopping", job};
            break;
        }
        sendError(from, msgType, error);
        return;
    }
    case kuvscan::KUV_SCAN_MSG_CANCEL: {
        std::string job;
        if (!kuv::scand::parseCancel(content, size, job, error)) {
            sendError(from, msgType, error);
        } else if (!m_jobs->cancel(job)) {
            sendError(from, msgType, {"unknown_job", "no job with this id is running or waiting", job});
        } else {
            SLOG(LOG_LEVEL_INFO, "job %s: cancel asked by %s", job.c_str(), zell::wire::guidText(from).c_str());
        }
        return;
    }
    case kuvscan::KUV_SCAN_MSG_STATUS_REQUEST: {
        bool subscribe = false;
        if (!kuv::scand::parseStatusRequest(content, size, subscribe, error)) {
            sendError(from, msgType, error);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_outMutex);
            auto same = [&](const GUID& s) { return memcmp(&s, &from, sizeof(GUID)) == 0; };
            const bool known = std::any_of(m_subscribers.begin(), m_subscribers.end(), same);
            if (subscribe && !known) {
                if (m_subscribers.size() >= kMaxSubscribers) {
                    error = {"too_many_subscribers", "at most 64 subscribers", std::string()};
                } else {
                    m_subscribers.push_back(from);
                }
            } else if (!subscribe && known && size > 0) {
                m_subscribers.erase(std::remove_if(m_subscribers.begin(), m_subscribers.end(), same),
                                    m_subscribers.end());
            }
        }
        if (!error.error.empty()) {
            sendError(from, msgType, error);
        }
        const std::string text = compact(statusBody());
        m_endpoint->sendMsg(from, kuvscan::KUV_SCAN_MSG_STATUS, text.data(), static_cast<int>(text.size()));
        return;
    }
    case kuvscan::KUV_SCAN_MSG_ERROR:
        return; // never answer an error with an error
    default:
        sendError(from, msgType,
                  {"unknown_type", "the back end takes types 4001 (scan), 4006 (cancel) and 4007 (status)",
                   std::string()});
        return;
    }
}

// Clients that were there before us list their GUIDs in the runtime directory's subscriber file: each
// one gets a status now and later news, as if it had asked with {"subscribe": true}.
void Service::subscribeListed()
{
    std::string why;
    const std::string path = kuv::runtimePath(std::string("./") + kuvscan::kSubscribersFile, &why);
    if (path.empty()) {
        return;
    }
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno != ENOENT) {
            SLOG(LOG_LEVEL_WARN, "cannot read %s: %s", path.c_str(), strerror(errno));
        }
        return;
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        SLOG(LOG_LEVEL_WARN, "%s is not a regular file; ignored", path.c_str());
        return;
    }
    std::string all(static_cast<size_t>(kuvscan::kMaxSubscriberFileBytes), '\0');
    size_t have = 0;
    while (have < all.size()) {
        const ssize_t n = ::read(fd.get(), &all[have], all.size() - have);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        have += static_cast<size_t>(n);
    }
    all.resize(have);
    std::vector<GUID> listed;
    std::istringstream lines(all);
    std::string line;
    while (std::getline(lines, line)) {
        GUID g{};
        if (line.size() != 36 || !zell::wire::parseGuidText(line, g)) {
            continue; // not a GUID (or cut by the cap)
        }
        if (std::none_of(listed.begin(), listed.end(), [&](const GUID& o) { return memcmp(&o, &g, sizeof(GUID)) == 0; })) {
            listed.push_back(g);
        }
    }
    const std::string text = compact(statusBody());
    for (const GUID& g : listed) {
        const int rc = send(g, kuvscan::KUV_SCAN_MSG_STATUS, text, 2000);
        if (rc != ZELL_SEND_ROUTED) {
            SLOG(LOG_LEVEL_INFO, "listed subscriber %s not reached (%d); dropped", zell::wire::guidText(g).c_str(), rc);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_outMutex);
        const bool known = std::any_of(m_subscribers.begin(), m_subscribers.end(),
                                       [&](const GUID& s) { return memcmp(&s, &g, sizeof(GUID)) == 0; });
        if (!known && m_subscribers.size() < kMaxSubscribers) {
            m_subscribers.push_back(g);
            SLOG(LOG_LEVEL_INFO, "listed subscriber %s subscribed", zell::wire::guidText(g).c_str());
        }
    }
}

void Service::handleInotify()
{
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(m_inotify.get(), buffer, sizeof(buffer));
        if (n <= 0) {
            return;
        }
        for (ssize_t off = 0; off < n;) {
            const auto* e = reinterpret_cast<const inotify_event*>(buffer + off);
            off += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            const std::string name = e->len > 0 ? std::string(e->name) : std::string();
            if (m_configWatch >= 0 && e->wd == m_configWatch) {
                if (e->mask & IN_MOVE_SELF) {
                    inotify_rm_watch(m_inotify.get(), e->wd); // answered by IN_IGNORED
                } else if (e->mask & IN_IGNORED) {
                    m_configWatch = -1;
                    watchConfigDir();
                    checkUserEngine();
                } else if (name == "scan.json") {
                    checkUserEngine();
                }
                continue;
            }
            if (e->wd == m_markerWatch) {
                if (name == ".guiexit") {
                    m_stopWhy = "the stop marker " + m_marker + " appeared";
                } else if (e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
                    // The installation (or the user's state) was removed: nothing is left to serve.
                    m_stopWhy = m_markerDir + " went away";
                }
                continue;
            }
            auto parent = m_dbParents.find(e->wd);
            if (parent != m_dbParents.end()) {
                std::vector<std::string> waiting;
                for (const std::string& dir : parent->second) {
                    if (dir.substr(dir.rfind('/') + 1) == name) {
                        SLOG(LOG_LEVEL_INFO, "the database directory %s appeared; loading it soon", dir.c_str());
                        watchDbDir(dir);
                        reloadSoon();
                    } else {
                        waiting.push_back(dir);
                    }
                }
                if (waiting.empty()) {
                    inotify_rm_watch(m_inotify.get(), e->wd);
                    m_dbParents.erase(e->wd);
                } else {
                    parent->second = waiting;
                }
                continue;
            }
            auto dir = m_dbWatches.find(e->wd);
            if (dir == m_dbWatches.end()) {
                continue;
            }
            if (e->mask & IN_MOVE_SELF) {
                inotify_rm_watch(m_inotify.get(), e->wd); // answered by IN_IGNORED, handled below
                continue;
            }
            if (e->mask & IN_IGNORED) {
                // Its signatures are gone with it; wait for it to come back.
                SLOG(LOG_LEVEL_WARN, "the database directory %s went away", dir->second.c_str());
                const std::string gone = dir->second;
                m_dbWatches.erase(dir);
                watchDbDir(gone);
                reloadSoon();
                continue;
            }
            if (kuv::scan::ClamEngine::isDatabaseFile(name)) {
                SLOG(LOG_LEVEL_INFO, "database %s%s changed; reloading soon", dir->second.c_str(), name.c_str());
                reloadSoon();
            }
        }
    }
}

int Service::run(const std::function<void(int)>& ready)
{
    std::string error;
    if (::access(m_marker.c_str(), F_OK) == 0) {
        fprintf(stderr, "kuv-scand: not started: the user chose to stop the back end (%s exists)\n", m_marker.c_str());
        SLOG(LOG_LEVEL_INFO, "not started: %s exists (the user chose to stop the back end)", m_marker.c_str());
        ready(kExitOk);
        return kExitOk;
    }
    if (!makeEngine(error)) {
        SLOG(LOG_LEVEL_ERROR, "no scan engine: %s", error.c_str());
        fprintf(stderr, "kuv-scand: no scan engine: %s\n", error.c_str());
        ready(kExitFailure);
        return kExitFailure;
    }
    m_jobs = std::make_unique<kuv::scand::JobManager>(m_engine, *this, m_settings.workers);
    m_jobs->setEngineCheck([this]() -> std::string {
        const std::shared_ptr<kuv::scan::ClamEngine> engine = clam();
        return !engine || engine->ready() ? std::string() : "no signature database is loaded: " + engine->info().dbError;
    });
    if (!m_clam) {
        m_jobs->setEngineReady();
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_state = "ready";
        m_firstLoadDone = true;
    }

    m_wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!m_wake.valid() || !m_timer.valid() || !setUpWatches(error)) {
        if (error.empty()) {
            error = strerror(errno);
        }
        SLOG(LOG_LEVEL_ERROR, "cannot start: %s", error.c_str());
        fprintf(stderr, "kuv-scand: cannot start: %s\n", error.c_str());
        ready(kExitFailure);
        return kExitFailure;
    }

    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    UniqueFd signals(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));

    if (!m_bus.open(m_settings.socket, false, error, "kuv-scand")) {
        SLOG(LOG_LEVEL_ERROR, "cannot join the bus: %s", error.c_str());
        fprintf(stderr, "kuv-scand: cannot join the bus: %s\n", error.c_str());
        ready(kExitFailure);
        return kExitFailure;
    }
    zell::wire::parseGuidText(kuvscan::kScandGuid, m_guid);
    m_endpoint = m_bus.mgr()->createEndPoint();
    if (m_endpoint == nullptr || m_endpoint->registerRecvNotify(kZellAnyMsgType, this, 0) != 0 ||
        m_endpoint->init(m_guid) != 0) {
        SLOG(LOG_LEVEL_ERROR, "cannot take the endpoint %s on the bus", kuvscan::kScandGuid);
        fprintf(stderr, "kuv-scand: the endpoint %s is taken on the bus\n", kuvscan::kScandGuid);
        ready(kExitFailure);
        return kExitFailure;
    }
    // The marker may have appeared between the first look and the watch.
    if (::access(m_marker.c_str(), F_OK) == 0) {
        m_stopWhy = "the stop marker " + m_marker + " appeared";
    }
    m_notifier = std::thread([this] { notifierLoop(); });
    SLOG(LOG_LEVEL_INFO, "kuv-scand %s serving as %s (pid %d, engine %s, %u workers)", KUV_VERSION,
         kuvscan::kScandGuid, static_cast<int>(getpid()), m_engineKind.c_str(), m_jobs->workers());
    ready(kExitOk);
    startReload();

    UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    auto add = [&](int fd) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &ev);
    };
    add(signals.get());
    add(m_inotify.get());
    add(m_wake.get());
    add(m_timer.get());
    std::string why;
    for (;;) {
        if (!m_stopWhy.empty()) {
            why = m_stopWhy;
            break;
        }
        epoll_event events[8];
        const int n = epoll_wait(epoll.get(), events, 8, -1);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            why = std::string("epoll: ") + strerror(errno);
            break;
        }
        bool stop = false;
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == signals.get()) {
                signalfd_siginfo info;
                if (::read(fd, &info, sizeof(info)) == sizeof(info)) {
                    why = "signal " + std::to_string(info.ssi_signo);
                    stop = true;
                }
            } else if (fd == m_inotify.get()) {
                handleInotify();
            } else if (fd == m_timer.get()) {
                uint64_t expirations = 0;
                (void)!::read(fd, &expirations, sizeof(expirations));
                startReload();
            } else if (fd == m_wake.get()) {
                uint64_t count = 0;
                (void)!::read(fd, &count, sizeof(count));
                if (!m_reloadBusy.load() && m_reloadThread.joinable()) {
                    m_reloadThread.join();
                    reloadFinished();
                }
                if (!m_switchBusy.load() && m_switchThread.joinable()) {
                    m_switchThread.join();
                    switchFinished();
                }
            }
        }
        if (stop) {
            break;
        }
    }
    SLOG(LOG_LEVEL_INFO, "stopping: %s", why.c_str());
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_state = "stopping";
    }
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    shutdown();
    SLOG(LOG_LEVEL_INFO, "stopped");
    return kExitOk;
}

void Service::shutdown()
{
    if (m_shutDown) {
        return;
    }
    m_shutDown = true;
    if (m_jobs) {
        m_jobs->stop("the back end is stopping");
    }
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        m_outStop = true;
    }
    m_outCv.notify_all();
    if (m_notifier.joinable()) {
        m_notifier.join();
    }
    if (m_endpoint != nullptr) {
        m_bus.mgr()->destroyEndPoint(m_endpoint);
        m_endpoint = nullptr;
    }
    if (m_reloadThread.joinable()) {
        m_reloadThread.join();
    }
    if (m_switchThread.joinable()) {
        m_switchThread.join();
    }
    m_jobs.reset();
}

// ---- process: options, lock, background, supervision ----

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                fprintf(stderr, "kuv-scand: %s needs a value\nTry 'kuv-scand --help'.\n", arg.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string v;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            exitCode = kExitOk;
            return false;
        } else if (arg == "--version") {
            printf("kuv-scand %s\n", KUV_VERSION);
            exitCode = kExitOk;
            return false;
        } else if (arg == "--foreground" || arg == "-f") {
            options.foreground = true;
        } else if (arg == "--config") {
            if (!value(options.config)) {
                exitCode = kExitUsage;
                return false;
            }
        } else if (arg == "--clamd") {
            if (!value(options.clamd)) {
                exitCode = kExitUsage;
                return false;
            }
        } else if (arg == "--db-dir") {
            if (!value(v)) {
                exitCode = kExitUsage;
                return false;
            }
            options.dbDirs.push_back(v);
        } else if (arg == "--log-level") {
            if (!value(v) || v.size() != 1 || v[0] < '0' || v[0] > '4') {
                fprintf(stderr, "kuv-scand: --log-level takes 0..4\n");
                exitCode = kExitUsage;
                return false;
            }
            options.logLevel = v[0] - '0';
        } else {
            fprintf(stderr, "kuv-scand: unknown argument '%s'\nTry 'kuv-scand --help'.\n",
                    kuv::escapeControl(arg).c_str());
            exitCode = kExitUsage;
            return false;
        }
    }
    return true;
}

bool takeLock(const std::string& path, UniqueFd& lock, std::string& why)
{
    lock.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock.valid()) {
        why = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = {0};
        const ssize_t n = ::pread(lock.get(), pid, sizeof(pid) - 1, 0);
        std::string text = n > 0 ? std::string(pid, static_cast<size_t>(n)) : std::string("?");
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
            text.pop_back();
        }
        why = "another kuv-scand serves this user (pid " + kuv::escapeControl(text) + ")";
        lock.reset();
        return false;
    }
    return true;
}

// The lock file names the process that serves, for people and scripts.
void writePid(int fd)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        (void)!::pwrite(fd, text.data(), text.size(), 0);
    }
}

void report(UniqueFd& ready, int status)
{
    if (ready.valid()) {
        const unsigned char byte = static_cast<unsigned char>(status);
        (void)!::write(ready.get(), &byte, 1);
        ready.reset();
    }
}

// Forks into the background; the first process exits with what the daemon reports on the pipe.
bool daemonize(UniqueFd& ready)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    const pid_t child = ::fork();
    if (child < 0) {
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
        _exit(n == 1 ? status : kExitFailure);
    }
    ::close(fds[0]);
    ::setsid();
    const pid_t grandchild = ::fork();
    if (grandchild < 0) {
        _exit(kExitFailure);
    }
    if (grandchild > 0) {
        _exit(0);
    }
    ready.reset(fds[1]);
    if (::chdir("/") != 0) {
        // harmless
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

volatile sig_atomic_t g_supervisorStop = 0;
volatile pid_t g_child = 0;

void forwardSignal(int sig)
{
    g_supervisorStop = 1;
    if (g_child > 0) {
        ::kill(g_child, sig);
    }
}

int serve(const Settings& settings, const std::string& installDir, UniqueFd& ready, int lockFd)
{
    writePid(lockFd);
    // Signals are taken through a descriptor; blocked before any thread starts so none sees them.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    kuv::ignoreWriteSignals();
    Service service(settings, installDir);
    return service.run([&](int status) { report(ready, status); });
}

// In the background the service runs in a child that is started again when it crashes (killed by a
// signal or failing), a few times in a row at most; the parent holds the per-user lock throughout.
int supervise(const Settings& settings, const std::string& installDir, UniqueFd& ready, int lockFd)
{
    struct sigaction sa{};
    sa.sa_handler = &forwardSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGHUP, SIG_IGN);
    kuv::ignoreWriteSignals();
    std::vector<std::chrono::steady_clock::time_point> crashes;
    int delay = 1;
    for (;;) {
        const pid_t child = ::fork();
        if (child < 0) {
            SLOG(LOG_LEVEL_ERROR, "fork: %s", strerror(errno));
            report(ready, kExitFailure);
            return kExitFailure;
        }
        if (child == 0) {
            signal(SIGTERM, SIG_DFL);
            signal(SIGINT, SIG_DFL);
            _exit(serve(settings, installDir, ready, lockFd));
        }
        g_child = child;
        ready.reset(); // the child reports; a restarted one has no one to report to
        int status = 0;
        pid_t done;
        do {
            done = ::waitpid(child, &status, 0);
        } while (done < 0 && errno == EINTR);
        g_child = 0;
        if (g_supervisorStop) {
            return kExitOk;
        }
        if (WIFEXITED(status) && (WEXITSTATUS(status) == kExitOk || WEXITSTATUS(status) == kExitRunning ||
                                  WEXITSTATUS(status) == kExitUsage)) {
            return WEXITSTATUS(status);
        }
        const auto now = std::chrono::steady_clock::now();
        crashes.erase(std::remove_if(crashes.begin(), crashes.end(),
                                     [&](const auto& t) { return now - t > std::chrono::minutes(5); }),
                      crashes.end());
        crashes.push_back(now);
        if (WIFSIGNALED(status)) {
            SLOG(LOG_LEVEL_ERROR, "kuv-scand pid %d was killed by signal %d", static_cast<int>(child),
                 WTERMSIG(status));
        } else {
            SLOG(LOG_LEVEL_ERROR, "kuv-scand pid %d failed with status %d", static_cast<int>(child),
                 WEXITSTATUS(status));
        }
        if (crashes.size() > 5) {
            SLOG(LOG_LEVEL_ERROR, "kuv-scand ended abnormally %zu times within 5 minutes; not starting it again",
                 crashes.size());
            return kExitFailure;
        }
        if (crashes.size() > 1) {
            // Back off only when it keeps failing; the first restart is immediate.
            sleep(static_cast<unsigned>(delay));
            delay = std::min(delay * 2, 30);
            if (g_supervisorStop) {
                return kExitOk;
            }
        }
        SLOG(LOG_LEVEL_INFO, "starting kuv-scand again");
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    int exitCode = kExitOk;
    if (!parseOptions(argc, argv, options, exitCode)) {
        return exitCode;
    }
    const std::string installDir = ConstConfig::singleInstance()->getInstallDir();

    Settings settings;
    const std::string configPath =
        options.config.empty() ? ConstConfig::singleInstance()->getConfigurationDir() + "kuv-scand.conf" : options.config;
    std::string text;
    if (readFile(configPath, text, 1 << 20)) {
        std::string error;
        if (!kuv::scand::parseSettings(text, settings, error)) {
            fprintf(stderr, "kuv-scand: %s: %s\n", configPath.c_str(), kuv::escapeControl(error).c_str());
            return kExitUsage;
        }
    } else if (!options.config.empty()) {
        fprintf(stderr, "kuv-scand: cannot read %s\n", configPath.c_str());
        return kExitUsage;
    }
    if (!options.clamd.empty()) {
        settings.engine = "clamd";
        settings.clamdSocket = options.clamd;
    }
    for (const std::string& dir : options.dbDirs) {
        settings.extraDbDirs.push_back(dir);
    }
    if (options.logLevel >= 0) {
        settings.logLevel = options.logLevel;
    }

    g_log = CLogDebug::Instance();
    g_log->SetProperty(LOG_PROPERTY_NAME, "kuv-scand");
    g_log->SetProperty(LOG_PROPERTY_PATH, userDir(installDir, "log/").c_str());
    g_log->SetProperty(LOG_PROPERTY_LEVEL, std::to_string(settings.logLevel).c_str());
    g_log->SetProperty(LOG_PROPERTY_SIZE, std::to_string(settings.logSize).c_str());
    g_log->SetProperty(LOG_PROPERTY_BACKUP, std::to_string(settings.logBackups).c_str());

    std::string error;
    const std::string runtime = kuv::runtimeDir(&error);
    if (runtime.empty()) {
        fprintf(stderr, "kuv-scand: %s\n", error.c_str());
        return kExitFailure;
    }
    UniqueFd lock;
    if (!takeLock(runtime + "kuv-scand.lock", lock, error)) {
        fprintf(stderr, "kuv-scand: %s\n", error.c_str());
        return lock.valid() || error.rfind("cannot open", 0) == 0 ? kExitFailure : kExitRunning;
    }
    UniqueFd ready;
    if (options.foreground) {
        const int status = serve(settings, installDir, ready, lock.get());
        CLogDebug::Close();
        return status;
    }
    if (!daemonize(ready)) {
        fprintf(stderr, "kuv-scand: cannot go to the background: %s\n", strerror(errno));
        return kExitFailure;
    }
    const int status = supervise(settings, installDir, ready, lock.get());
    CLogDebug::Close();
    return status;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Which engine scans: the installation's choice (libclamav or clamd) or the user's (scan.json), swapped
// whole when the user changes it; and the reloads of our own engine's signature databases.
#include <sys/timerfd.h>

#include <algorithm>
#include <chrono>

#include "ClamdEngine.h"
#include "KuvLog.h"
#include "KuvScanProtocol.h"
#include "ScanSettings.h"
#include "ScandService.h"

namespace kuv {
namespace scand {

KUV_LOG_SOURCE("backend/scand/ScandEngines");

namespace {

// Connects to clamd, or builds our own engine with its databases loaded; null with why when it cannot be
// used. clamEngine is the engine again when it is ours.
std::shared_ptr<kuv::scan::IScanEngine> buildEngine(const std::string& kind, const std::string& socket,
                                                    const kuv::scan::ClamSettings& clamSet,
                                                    std::shared_ptr<kuv::scan::ClamEngine>& clamEngine,
                                                    std::string& why)
{
    if (kind == "clamd") {
        return kuv::scan::makeClamdEngine(socket, why);
    }
    clamEngine = kuv::scan::makeClamEngine(clamSet, why);
    if (!clamEngine) {
        return nullptr;
    }
    clamEngine->reload();
    if (clamEngine->ready()) {
        return clamEngine;
    }
    why = clamEngine->info().dbError;
    clamEngine.reset();
    return nullptr;
}

Json::Value engineEvent()
{
    Json::Value ev(Json::objectValue);
    ev["time"] = Json::Int64(unixMs());
    ev["kind"] = "engine";
    return ev;
}

} // namespace

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
        KUV_LOG(kuv::LogLevel::Warn, "scan settings: %s", why.c_str());
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
    kuv::scan::setClamLogSink([](kuv::LogLevel level, const std::string& text) {
        CLogDebug::Instance()->LogPrintStr(kuv::toLogLevel(level), "backend/engine/ClamEngine", "libclamav", 0,
                                           text.c_str());
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
        KUV_LOG(kuv::LogLevel::Warn, "%s", m_switchError.c_str());
    }
    return useInstallationEngine(clamSet, error);
}

// The engine kuv-scand.conf (or --clamd) names.
bool Service::useInstallationEngine(const kuv::scan::ClamSettings& clamSet, std::string& error)
{
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

// true when the engine asked for is the one in use; a warning about an earlier failed switch then goes.
bool Service::userEngineInUse(const std::string& kind, const std::string& socket)
{
    if (kind != m_engineKind || (kind == "clamd" && socket != m_clamdSocket)) {
        return false;
    }
    bool cleared = false;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        cleared = !m_switchError.empty();
        m_switchError.clear();
    }
    if (cleared) {
        broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    }
    return true;
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
    if (userEngineInUse(kind, socket)) {
        return;
    }
    KUV_LOG(kuv::LogLevel::Info, "the scan settings ask for %s%s%s; preparing it", kind.c_str(),
            kind == "clamd" ? " at " : "", kind == "clamd" ? socket.c_str() : "");
    m_switchKind = kind;
    m_switchSocket = socket;
    m_switchBusy = true;
    const kuv::scan::ClamSettings clamSet = clamSettings();
    m_switchThread = std::thread([this, kind, socket, clamSet] {
        std::string why;
        std::shared_ptr<kuv::scan::ClamEngine> clamEngine;
        m_switchEngine = buildEngine(kind, socket, clamSet, clamEngine, why);
        m_switchClam = std::move(clamEngine);
        m_switchWhy = why;
        m_switchBusy = false;
        wake();
    });
}

void Service::switchFinished()
{
    const std::string what = m_switchKind == "clamd" ? "clamd at " + m_switchSocket : m_switchKind;
    const Json::Value ev = m_switchEngine ? adoptSwitchedEngine(what) : keepEngine(what);
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    broadcast(kuvscan::KUV_SCAN_MSG_EVENT, ev);
    if (m_switchAgain) {
        m_switchAgain = false;
        checkUserEngine();
    }
}

Json::Value Service::adoptSwitchedEngine(const std::string& what)
{
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
    KUV_LOG(kuv::LogLevel::Info, "now scanning with %s (engine %s, %llu signatures)", what.c_str(),
            info.engineVersion.c_str(), static_cast<unsigned long long>(info.signatures));
    Json::Value ev = engineEvent();
    ev["severity"] = "info";
    ev["action"] = "switched";
    ev["detail"] = "now scanning with " + what;
    return ev;
}

Json::Value Service::keepEngine(const std::string& what)
{
    const std::string why = what + " cannot be used: " + m_switchWhy + "; " + m_engineKind + " stays in use";
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_switchError = why;
    }
    m_switchClam.reset();
    KUV_LOG(kuv::LogLevel::Warn, "%s", why.c_str());
    Json::Value ev = engineEvent();
    ev["severity"] = "warning";
    ev["action"] = "kept";
    ev["detail"] = why;
    return ev;
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
        KUV_LOG(kuv::LogLevel::Info, "database load took %lld ms",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - start)
                                           .count()));
        m_reloadBusy = false;
        wake();
    });
}

void Service::reloadFinished()
{
    const std::shared_ptr<kuv::scan::ClamEngine> engine = clam();
    if (!engine) {
        m_reloadAgain = false; // the user moved to clamd meanwhile: that engine is no longer used
        return;
    }
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        first = !m_firstLoadDone;
        m_firstLoadDone = true;
        m_state = engine->ready() ? "ready" : "error";
    }
    const Json::Value ev = reloadEvent(*engine, first);
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

// Logs how the reload went and returns the event that tells the subscribers.
Json::Value Service::reloadEvent(const kuv::scan::ClamEngine& engine, bool first)
{
    const kuv::scan::EngineInfo info = m_engine.info();
    Json::Value ev = engineEvent();
    if (m_reloadResult.load()) {
        KUV_LOG(kuv::LogLevel::Info, "engine %s loaded: %llu signatures, database version %s%s%s",
                info.engineVersion.c_str(), static_cast<unsigned long long>(info.signatures),
                info.dbVersion.empty() ? "-" : info.dbVersion.c_str(), info.dbError.empty() ? "" : "; not loaded: ",
                info.dbError.c_str());
        ev["severity"] = info.dbError.empty() ? "info" : "warning";
        ev["action"] = first ? "loaded" : "reloaded";
        ev["detail"] = std::to_string(info.signatures) + " signatures" +
                       (info.dbError.empty() ? std::string() : "; not loaded: " + info.dbError);
    } else {
        KUV_LOG(kuv::LogLevel::Error, "the signature databases did not load%s: %s",
                engine.ready() ? " (the previous engine stays in use)" : "", info.dbError.c_str());
        ev["severity"] = engine.ready() ? "warning" : "critical";
        ev["action"] = engine.ready() ? "kept" : "failed";
        ev["detail"] = info.dbError;
    }
    return ev;
}

} // namespace scand
} // namespace kuv

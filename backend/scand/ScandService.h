// SPDX-License-Identifier: GPL-2.0-or-later
// The running back end: its bus endpoint and protocol, the engine in use and its databases, the jobs, and the
// watches that stop it or reload its signatures.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/inotify.h>

#include <json/value.h>

#include "BusModule.h"
#include "ClamEngine.h"
#include "EngineSwitch.h"
#include "JobLog.h"
#include "PathWatch.h"
#include "Jobs.h"
#include "NewsQueue.h"
#include "ScanRequest.h"
#include "Settings.h"
#include "UniqueFd.h"

namespace kuv {
namespace scand {

class Service final : public IMRReceiveComplete, public IJobReporter {
public:
    Service(Settings settings, std::string installDir);
    ~Service() override { shutdown(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // The per-user lock file: the service stops when it is removed (with the runtime directory, at
    // logout), since another kuv-scand may then take the user's place. Before run().
    void watchLock(const std::string& path) { m_lockPath = path; }
    // Returns the exit status; ready() is called once the service serves (or decided not to).
    int run(const std::function<void(int)>& ready);

    // The bus protocol (ScandProtocol.cpp).
    void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override;
    bool toRequester(const std::string& requester, int64_t type, const Json::Value& body) override;
    void event(const Json::Value& event) override;
    void jobsChanged() override;

private:
    // Start-up and the main loop (ScandService.cpp).
    int startFailed(const std::function<void(int)>& ready, const std::string& printed);
    void createJobs();
    bool openWakeAndTimer();
    bool joinBus(std::string& printed);
    std::string waitForStop(int signalFd);
    void wakeFinished();
    void wake();
    void shutdown();

    // The engine in use and its databases (ScandEngines.cpp).
    bool makeEngine(std::string& error);
    bool useInstallationEngine(const kuv::scan::ClamSettings& clamSet, std::string& error);
    kuv::scan::ClamSettings clamSettings() const;
    bool wantedEngine(std::string& kind, std::string& socket) const;
    std::shared_ptr<kuv::scan::ClamEngine> clam();
    void checkUserEngine();
    bool userEngineInUse(const std::string& kind, const std::string& socket);
    void switchFinished();
    Json::Value adoptSwitchedEngine(const std::string& what);
    Json::Value keepEngine(const std::string& what);
    void reloadSoon();
    void startReload();
    void reloadFinished();
    Json::Value reloadEvent(const kuv::scan::ClamEngine& engine, bool first);

    // What the service watches (ScandWatches.cpp).
    bool setUpWatches(std::string& error);
    void watchConfigDir();
    void watchDbDir(const std::string& dir);
    void handleInotify();
    void handleInotifyEvent(const inotify_event& e);
    bool handleConfigEvent(const inotify_event& e, const std::string& name);
    bool handleMarkerEvent(const inotify_event& e, const std::string& name);
    bool handleDbParentEvent(const inotify_event& e, const std::string& name);
    void handleDbDirEvent(const inotify_event& e, const std::string& name);

    // The bus protocol (ScandProtocol.cpp).
    void takeRequest(const GUID& from, int64_t msgType, const char* content, size_t size);
    void takeCancel(const GUID& from, int64_t msgType, const char* content, size_t size);
    void takeStatusRequest(const GUID& from, int64_t msgType, const char* content, size_t size);
    void recordJob(const Json::Value& end, bool onlyIfOpen = false);
    void subscribeListed();
    void sendError(const GUID& to, int64_t type, const RequestError& error);
    int send(const GUID& to, int64_t type, const std::string& body, int timeoutMs);
    Json::Value statusBody();
    void broadcast(int64_t type, const Json::Value& body);
    // Sends what broadcast() queued to the subscribers, on m_notifier (ScandMain.cpp).
    void notifierLoop();

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
    std::unique_ptr<JobManager> m_jobs;
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
    std::string m_lockPath;
    kuv::PathWatch m_lockWatch;
    std::string m_stopWhy; // set on the main thread when the service is to stop
    std::map<int, std::string> m_dbWatches;              // watch -> database directory (final "/")
    std::map<int, std::vector<std::string>> m_dbParents; // watch -> database directories still to appear
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
    NewsQueue m_outbox;
    std::vector<GUID> m_subscribers;
    bool m_outStop = false;
    std::thread m_notifier;
    bool m_shutDown = false;
};

// JSON on one line, as the bus protocol sends it.
std::string compact(const Json::Value& value);
int64_t unixMs();

} // namespace scand
} // namespace kuv

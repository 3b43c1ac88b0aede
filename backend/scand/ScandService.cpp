// SPDX-License-Identifier: GPL-2.0-or-later
// The service's life: start-up in steps (engine, jobs, watches, bus), the main loop on one epoll, and the
// orderly stop.
#include "ScandService.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include <json/json.h>

#include "KuvLog.h"
#include "KuvScanProtocol.h"
#include "SafeIo.h"
#include "ScandOptions.h"
#include "ZellWire.h"

namespace kuv {
namespace scand {

KUV_LOG_SOURCE("backend/scand/ScandService");

std::string compact(const Json::Value& value)
{
    // Built once: every message of every job goes through here. Only read afterwards, from any thread.
    static const Json::StreamWriterBuilder writer = [] {
        Json::StreamWriterBuilder w;
        w["indentation"] = "";
        w["emitUTF8"] = true;
        return w;
    }();
    return Json::writeString(writer, value);
}

int64_t unixMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Service::Service(Settings settings, std::string installDir)
    : m_settings(std::move(settings)), m_installDir(std::move(installDir))
{
    m_markerDir = m_installDir + "data/pubcfg/";
    m_marker = m_markerDir + ".guiexit";
}

int Service::startFailed(const std::function<void(int)>& ready, const std::string& printed)
{
    fprintf(stderr, "kuv-scand: %s\n", printed.c_str());
    ready(kExitFailure);
    return kExitFailure;
}

void Service::createJobs()
{
    m_jobs = std::make_unique<JobManager>(m_engine, *this, m_settings.workers);
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
}

// Engine builds and reloads end on their threads; they wake the main loop through m_wake.
bool Service::openWakeAndTimer()
{
    m_wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_timer.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    return m_wake.valid() && m_timer.valid();
}

bool Service::joinBus(std::string& printed)
{
    std::string error;
    if (!m_bus.open(m_settings.socket, false, error, "kuv-scand")) {
        KUV_LOG(kuv::LogLevel::Error, "cannot join the bus: %s", error.c_str());
        printed = "cannot join the bus: " + error;
        return false;
    }
    zell::wire::parseGuidText(kuvscan::kScandGuid, m_guid);
    m_endpoint = m_bus.mgr()->createEndPoint();
    if (m_endpoint == nullptr || m_endpoint->registerRecvNotify(kZellAnyMsgType, this, 0) != 0 ||
        m_endpoint->init(m_guid) != 0) {
        KUV_LOG(kuv::LogLevel::Error, "cannot take the endpoint %s on the bus", kuvscan::kScandGuid);
        printed = std::string("the endpoint ") + kuvscan::kScandGuid + " is taken on the bus";
        return false;
    }
    return true;
}

int Service::run(const std::function<void(int)>& ready)
{
    if (::access(m_marker.c_str(), F_OK) == 0) {
        fprintf(stderr, "kuv-scand: not started: the user chose to stop the back end (%s exists)\n", m_marker.c_str());
        KUV_LOG(kuv::LogLevel::Info, "not started: %s exists (the user chose to stop the back end)", m_marker.c_str());
        ready(kExitOk);
        return kExitOk;
    }
    std::string error;
    if (!makeEngine(error)) {
        KUV_LOG(kuv::LogLevel::Error, "no scan engine: %s", error.c_str());
        return startFailed(ready, "no scan engine: " + error);
    }
    createJobs();
    if (!openWakeAndTimer() || !setUpWatches(error)) {
        if (error.empty()) {
            error = strerror(errno);
        }
        KUV_LOG(kuv::LogLevel::Error, "cannot start: %s", error.c_str());
        return startFailed(ready, "cannot start: " + error);
    }
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    const UniqueFd signals(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
    std::string printed;
    if (!joinBus(printed)) {
        return startFailed(ready, printed);
    }
    // The marker may have appeared between the first look and the watch.
    if (::access(m_marker.c_str(), F_OK) == 0) {
        m_stopWhy = "the stop marker " + m_marker + " appeared";
    }
    m_notifier = std::thread([this] { notifierLoop(); });
    KUV_LOG(kuv::LogLevel::Info, "kuv-scand %s serving as %s (pid %d, engine %s, %u workers)", KUV_VERSION,
            kuvscan::kScandGuid, static_cast<int>(getpid()), m_engineKind.c_str(), m_jobs->workers());
    ready(kExitOk);
    startReload();

    const std::string why = waitForStop(signals.get());
    KUV_LOG(kuv::LogLevel::Info, "stopping: %s", why.c_str());
    {
        std::lock_guard<std::mutex> lock(m_stateMutex);
        m_state = "stopping";
    }
    broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody());
    shutdown();
    KUV_LOG(kuv::LogLevel::Info, "stopped");
    return kExitOk;
}

// The main loop: signals, the watches, the reload timer and the wake-ups of finished engine work.
// Returns why the service is to stop.
std::string Service::waitForStop(int signalFd)
{
    const UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    for (const int fd : {signalFd, m_inotify.get(), m_wake.get(), m_timer.get(), m_lockWatch.fd()}) {
        if (fd < 0) {
            continue;
        }
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &ev);
    }
    for (;;) {
        if (!m_stopWhy.empty()) {
            return m_stopWhy;
        }
        epoll_event events[8];
        const int n = kuv::retryEintr([&] { return epoll_wait(epoll.get(), events, 8, -1); });
        if (n < 0) {
            return std::string("epoll: ") + strerror(errno);
        }
        std::string why;
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == signalFd) {
                signalfd_siginfo info;
                if (kuv::safeRead(fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
                    why = "signal " + std::to_string(info.ssi_signo);
                }
            } else if (fd == m_inotify.get()) {
                handleInotify();
            } else if (fd == m_timer.get()) {
                uint64_t expirations = 0;
                (void)!kuv::safeRead(fd, &expirations, sizeof(expirations));
                startReload();
            } else if (fd == m_wake.get()) {
                wakeFinished();
            } else if (fd == m_lockWatch.fd() && m_lockWatch.gone()) {
                why = m_lockWatch.why();
            }
        }
        if (!why.empty()) {
            return why;
        }
    }
}

void Service::wake()
{
    const uint64_t one = 1;
    (void)!kuv::safeWrite(m_wake.get(), &one, sizeof(one));
}

// A reload or an engine switch ended on its thread.
void Service::wakeFinished()
{
    uint64_t count = 0;
    (void)!kuv::safeRead(m_wake.get(), &count, sizeof(count));
    if (!m_reloadBusy.load() && m_reloadThread.joinable()) {
        m_reloadThread.join();
        reloadFinished();
    }
    if (!m_switchBusy.load() && m_switchThread.joinable()) {
        m_switchThread.join();
        switchFinished();
    }
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

} // namespace scand
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// kuv-scand: the per-user scan service. It joins the user's bus as the back end's endpoint, scans what it
// is asked to with the user's own rights, reports to subscribers, and stops when the user chose to stop
// the back end (the marker data/pubcfg/.guiexit).
//
// This file is the process's start: options, settings and log, the per-user lock, then serving in the
// foreground or in the background. The service itself is in ScandService.cpp and its neighbours.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "CLogDebug.h"
#include "ConstConfig.h"
#include "Daemon.h"
#include "FileUtils.h"
#include "KuvScanProtocol.h"
#include "ScandOptions.h"
#include "ScandService.h"
#include "ScandSupervisor.h"
#include "Settings.h"
#include "UniqueFd.h"

namespace kuv {
namespace scand {

// The notifier thread: once the broker confirmed the endpoint, sends what broadcast() queued.
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
        const auto message = m_outbox.pop();
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

} // namespace scand
} // namespace kuv

namespace {

using kuv::UniqueFd;
using kuv::scand::kExitFailure;
using kuv::scand::kExitOk;
using kuv::scand::kExitRunning;
using kuv::scand::Options;
using kuv::scand::Settings;
using kuv::scand::serve;
using kuv::scand::supervise;
using kuv::scand::takeLock;

// Forks into the background; the first process exits with what the daemon reports on the pipe.
bool daemonize(UniqueFd& ready)
{
    return kuv::daemonize(ready, kExitFailure);
}

// The process log: DIR/log/kuv-scand.log, at the level and size the settings give.
void openLog(const Settings& settings, const std::string& installDir)
{
    CLogDebug* log = CLogDebug::Instance();
    // The supervisor forks the service again after a crash: no flusher thread may be running in it.
    log->SetStaged(false);
    log->SetProperty(LOG_PROPERTY_NAME, "kuv-scand");
    log->SetProperty(LOG_PROPERTY_PATH, (installDir + "log/").c_str());
    log->SetProperty(LOG_PROPERTY_LEVEL, std::to_string(settings.logLevel).c_str());
    log->SetProperty(LOG_PROPERTY_SIZE, std::to_string(settings.logSize).c_str());
    log->SetProperty(LOG_PROPERTY_BACKUP, std::to_string(settings.logBackups).c_str());
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    int exitCode = kExitOk;
    if (!kuv::scand::parseOptions(argc, argv, options, exitCode)) {
        return exitCode;
    }
    const std::string installDir = ConstConfig::singleInstance()->getInstallDir();
    Settings settings;
    if (!kuv::scand::loadSettings(options, settings, exitCode)) {
        return exitCode;
    }
    openLog(settings, installDir);

    std::string error;
    const std::string runtime = kuv::runtimeDir(&error);
    if (runtime.empty()) {
        fprintf(stderr, "kuv-scand: %s\n", error.c_str());
        return kExitFailure;
    }
    UniqueFd lock;
    const std::string lockPath = runtime + kuv::scand::kLockName;
    if (!takeLock(lockPath, lock, error)) {
        fprintf(stderr, "kuv-scand: %s\n", error.c_str());
        return lock.valid() || error.rfind("cannot open", 0) == 0 ? kExitFailure : kExitRunning;
    }
    UniqueFd ready;
    if (options.foreground) {
        const int status = serve(settings, installDir, ready, {lock.get(), lockPath});
        CLogDebug::Close();
        return status;
    }
    if (!daemonize(ready)) {
        fprintf(stderr, "kuv-scand: cannot go to the background: %s\n", strerror(errno));
        return kExitFailure;
    }
    const int status = supervise(settings, installDir, ready, {lock.get(), lockPath});
    CLogDebug::Close();
    return status;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// What the service watches with inotify: the stop marker's folder, the user's configuration folder
// (scan.json), the signature database folders, and its lock in the runtime directory.
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "FileUtils.h"
#include "KuvLog.h"
#include "ScandService.h"
#include "StorePaths.h"

namespace kuv {
namespace scand {

KUV_LOG_SOURCE("backend/scand/ScandWatches");

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
    if (!m_lockPath.empty() && !m_lockWatch.watch(m_lockPath)) {
        KUV_LOG(kuv::LogLevel::Warn, "cannot watch %s: %s", m_lockPath.c_str(), strerror(errno));
    }
    return true;
}

// The user's configuration directory, for scan.json (written whole and renamed into place by the GUI).
void Service::watchConfigDir()
{
    std::string why;
    m_configDir = kuv::store::userConfigDir();
    if (!kuv::store::openPrivateDir(m_configDir, 1, &why).valid()) {
        KUV_LOG(kuv::LogLevel::Warn, "cannot follow the scan settings in %s: %s", m_configDir.c_str(), why.c_str());
        return;
    }
    m_configWatch = inotify_add_watch(m_inotify.get(), m_configDir.c_str(),
                                      IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR |
                                          IN_DELETE_SELF | IN_MOVE_SELF);
    if (m_configWatch < 0) {
        KUV_LOG(kuv::LogLevel::Warn, "cannot watch %s: %s", m_configDir.c_str(), strerror(errno));
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
    const std::string parent = std::filesystem::path(dir).parent_path().string();
    if (parent.empty() || parent == "/") {
        return;
    }
    const int pwd = inotify_add_watch(m_inotify.get(), parent.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    if (pwd >= 0) {
        m_dbParents[pwd].push_back(dir);
    } else {
        KUV_LOG(kuv::LogLevel::Warn, "cannot watch the database directory %s: %s", dir.c_str(), strerror(errno));
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
            handleInotifyEvent(*e);
        }
    }
}

void Service::handleInotifyEvent(const inotify_event& e)
{
    const std::string name = e.len > 0 ? std::string(e.name) : std::string();
    if (handleConfigEvent(e, name) || handleMarkerEvent(e, name) || handleDbParentEvent(e, name)) {
        return;
    }
    handleDbDirEvent(e, name);
}

// scan.json written, or the configuration folder moved or removed (watched again where it is expected).
bool Service::handleConfigEvent(const inotify_event& e, const std::string& name)
{
    if (m_configWatch < 0 || e.wd != m_configWatch) {
        return false;
    }
    if (e.mask & IN_MOVE_SELF) {
        inotify_rm_watch(m_inotify.get(), e.wd); // answered by IN_IGNORED
    } else if (e.mask & IN_IGNORED) {
        m_configWatch = -1;
        watchConfigDir();
        checkUserEngine();
    } else if (name == "scan.json") {
        checkUserEngine();
    }
    return true;
}

bool Service::handleMarkerEvent(const inotify_event& e, const std::string& name)
{
    if (e.wd != m_markerWatch) {
        return false;
    }
    if (name == ".guiexit") {
        m_stopWhy = "the stop marker " + m_marker + " appeared";
    } else if (e.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
        // The installation (or the user's state) was removed: nothing is left to serve.
        m_stopWhy = m_markerDir + " went away";
    }
    return true;
}

// Something appeared in the parent of a database directory that does not exist yet.
bool Service::handleDbParentEvent(const inotify_event& e, const std::string& name)
{
    auto parent = m_dbParents.find(e.wd);
    if (parent == m_dbParents.end()) {
        return false;
    }
    std::vector<std::string> waiting;
    for (const std::string& dir : parent->second) {
        if (std::filesystem::path(dir).filename() == name) {
            KUV_LOG(kuv::LogLevel::Info, "the database directory %s appeared; loading it soon", dir.c_str());
            watchDbDir(dir);
            reloadSoon();
        } else {
            waiting.push_back(dir);
        }
    }
    if (waiting.empty()) {
        inotify_rm_watch(m_inotify.get(), e.wd);
        m_dbParents.erase(e.wd);
    } else {
        parent->second = waiting;
    }
    return true;
}

void Service::handleDbDirEvent(const inotify_event& e, const std::string& name)
{
    auto dir = m_dbWatches.find(e.wd);
    if (dir == m_dbWatches.end()) {
        return;
    }
    if (e.mask & IN_MOVE_SELF) {
        inotify_rm_watch(m_inotify.get(), e.wd); // answered by IN_IGNORED, handled below
        return;
    }
    if (e.mask & IN_IGNORED) {
        // Its signatures are gone with it; wait for it to come back.
        KUV_LOG(kuv::LogLevel::Warn, "the database directory %s went away", dir->second.c_str());
        const std::string gone = dir->second;
        m_dbWatches.erase(dir);
        watchDbDir(gone);
        reloadSoon();
        return;
    }
    if (kuv::scan::ClamEngine::isDatabaseFile(name)) {
        KUV_LOG(kuv::LogLevel::Info, "database %s%s changed; reloading soon", dir->second.c_str(), name.c_str());
        reloadSoon();
    }
}

} // namespace scand
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// The back end's side of the bus protocol: requests, cancels and status requests in; errors, status,
// events and the jobs' messages out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "FileUtils.h"
#include "KuvLog.h"
#include "KuvScanProtocol.h"
#include "SafeIo.h"
#include "ScanPaths.h"
#include "ScanSettings.h"
#include "ScandService.h"
#include "ZellWire.h"

namespace kuv {
namespace scand {

KUV_LOG_SOURCE("backend/scand/ScandProtocol");

namespace {

constexpr size_t kMaxSubscribers = 64;
constexpr int kSendWaitMs = 5000;
constexpr int kNewsWaitMs = 2000;

bool sameGuid(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }

bool contains(const std::vector<GUID>& list, const GUID& guid)
{
    return std::any_of(list.begin(), list.end(), [&](const GUID& g) { return sameGuid(g, guid); });
}

void remove(std::vector<GUID>& list, const GUID& guid)
{
    list.erase(std::remove_if(list.begin(), list.end(), [&](const GUID& g) { return sameGuid(g, guid); }), list.end());
}

// The user's scan settings (scan.json), read afresh for every job so a change needs no restart; what
// the request itself asks for wins.
void applyUserSettings(ScanRequest& request)
{
    kuv::store::ScanSettings user;
    std::string why;
    if (!kuv::store::loadScanSettings(user, &why)) {
        KUV_LOG(kuv::LogLevel::Warn, "scan settings: %s", why.c_str());
    }
    for (const std::string& folder : user.excluded) {
        if (request.options.exclude.size() >= kMaxExcludes) {
            break;
        }
        request.options.exclude.push_back(folder);
    }
    if (request.options.maxFileSize == 0) {
        request.options.maxFileSize = user.maxFileSize;
    }
    request.options.scanArchives = request.options.scanArchives && user.scanArchives;
}

// The GUIDs in the runtime directory's subscriber file, each once; none when there is no such file.
std::vector<GUID> readSubscriberFile()
{
    std::string why;
    const std::string path = kuv::runtimePath(std::string("./") + kuvscan::kSubscribersFile, &why);
    if (path.empty()) {
        return {};
    }
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        if (errno != ENOENT) {
            KUV_LOG(kuv::LogLevel::Warn, "cannot read %s: %s", path.c_str(), strerror(errno));
        }
        return {};
    }
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        KUV_LOG(kuv::LogLevel::Warn, "%s is not a regular file; ignored", path.c_str());
        return {};
    }
    std::string all(static_cast<size_t>(kuvscan::kMaxSubscriberFileBytes), '\0');
    const ssize_t have = kuv::safeRead(fd.get(), &all[0], all.size());
    all.resize(have > 0 ? static_cast<size_t>(have) : 0);
    std::vector<GUID> listed;
    std::istringstream lines(all);
    std::string line;
    while (std::getline(lines, line)) {
        GUID g{};
        if (line.size() != 36 || !zell::wire::parseGuidText(line, g)) {
            continue; // not a GUID (or cut by the cap)
        }
        if (!contains(listed, g)) {
            listed.push_back(g);
        }
    }
    return listed;
}

} // namespace

void Service::jobsChanged() { broadcast(kuvscan::KUV_SCAN_MSG_STATUS, statusBody()); }

// Into the user's history; onlyIfOpen: quietly nothing when the job was recorded already.
void Service::recordJob(const Json::Value& end, bool onlyIfOpen)
{
    std::string why;
    if (!m_jobLog.ended(end["job"].asString(), end, &why) && !(onlyIfOpen && why == "unknown job")) {
        KUV_LOG(kuv::LogLevel::Warn, "job %s not kept in the history: %s", end["job"].asString().c_str(), why.c_str());
    }
    for (const std::string& notice : m_jobLog.takeNotices()) {
        KUV_LOG(kuv::LogLevel::Warn, "%s", notice.c_str());
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
        const LastScan last = m_jobs->lastScan();
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
        KUV_LOG(kuv::LogLevel::Warn, "requester %s is gone (type %lld not delivered)", zell::wire::guidText(to).c_str(),
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
        KUV_LOG(kuv::LogLevel::Warn, "job %s: %s found in %s", ev["job"].asString().c_str(),
                ev["signature"].asString().c_str(), path.c_str());
    } else if (kind == "job") {
        KUV_LOG(kuv::LogLevel::Info, "job %s %s: %s", ev["job"].asString().c_str(), ev["action"].asString().c_str(),
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
    if (m_outbox.push(type, compact(body))) {
        m_outCv.notify_one();
    }
}

void Service::sendError(const GUID& to, int64_t type, const RequestError& error)
{
    Json::Value body(Json::objectValue);
    body["request_type"] = Json::Int64(type);
    if (!error.job.empty()) {
        body["job"] = error.job;
    }
    body["error"] = error.error;
    body["detail"] = error.detail;
    KUV_LOG(kuv::LogLevel::Warn, "request of type %lld from %s refused: %s: %s", static_cast<long long>(type),
            zell::wire::guidText(to).c_str(), error.error.c_str(), error.detail.c_str());
    const std::string text = compact(body);
    m_endpoint->sendMsg(to, kuvscan::KUV_SCAN_MSG_ERROR, text.data(), static_cast<int>(text.size()));
}

void Service::ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t sender, uint64_t)
{
    if (sender == 0 || length < 0) {
        return;
    }
    const GUID from = *reinterpret_cast<const GUID*>(sender);
    const size_t size = static_cast<size_t>(length);
    switch (msgType) {
    case kuvscan::KUV_SCAN_MSG_REQUEST:
        takeRequest(from, msgType, content, size);
        return;
    case kuvscan::KUV_SCAN_MSG_CANCEL:
        takeCancel(from, msgType, content, size);
        return;
    case kuvscan::KUV_SCAN_MSG_STATUS_REQUEST:
        takeStatusRequest(from, msgType, content, size);
        return;
    case kuvscan::KUV_SCAN_MSG_ERROR:
        return; // never answer an error with an error
    default:
        sendError(from, msgType,
                  {"unknown_type", "the back end takes types 4001 (scan), 4006 (cancel) and 4007 (status)",
                   std::string()});
        return;
    }
}

void Service::takeRequest(const GUID& from, int64_t msgType, const char* content, size_t size)
{
    RequestError error;
    ScanRequest request;
    if (!parseScanRequest(content, size, request, error)) {
        sendError(from, msgType, error);
        return;
    }
    const std::string job = request.job;
    const size_t paths = request.paths.size();
    applyUserSettings(request);
    m_jobLog.started(job, request.paths, request.options.quarantine);
    const auto result = m_jobs->submit(std::move(request), std::string(reinterpret_cast<const char*>(&from), sizeof(GUID)));
    if (result == JobManager::Submit::QueueFull || result == JobManager::Submit::Stopping) {
        m_jobLog.forget(job);
    }
    switch (result) {
    case JobManager::Submit::Accepted:
        KUV_LOG(kuv::LogLevel::Info, "job %s from %s accepted: %zu path(s)", job.c_str(),
                zell::wire::guidText(from).c_str(), paths);
        return;
    case JobManager::Submit::Duplicate:
        error = {"duplicate_job", "a job with this id is running or waiting", job};
        break;
    case JobManager::Submit::QueueFull:
        error = {"queue_full", "too many jobs are waiting; try again later", job};
        break;
    case JobManager::Submit::Stopping:
        error = {"stopping", "the back end is stopping", job};
        break;
    }
    sendError(from, msgType, error);
}

void Service::takeCancel(const GUID& from, int64_t msgType, const char* content, size_t size)
{
    RequestError error;
    std::string job;
    if (!parseCancel(content, size, job, error)) {
        sendError(from, msgType, error);
    } else if (!m_jobs->cancel(job)) {
        sendError(from, msgType, {"unknown_job", "no job with this id is running or waiting", job});
    } else {
        KUV_LOG(kuv::LogLevel::Info, "job %s: cancel asked by %s", job.c_str(), zell::wire::guidText(from).c_str());
    }
}

void Service::takeStatusRequest(const GUID& from, int64_t msgType, const char* content, size_t size)
{
    RequestError error;
    bool subscribe = false;
    if (!parseStatusRequest(content, size, subscribe, error)) {
        sendError(from, msgType, error);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        const bool known = contains(m_subscribers, from);
        if (subscribe && !known) {
            if (m_subscribers.size() >= kMaxSubscribers) {
                error = {"too_many_subscribers", "at most 64 subscribers", std::string()};
            } else {
                m_subscribers.push_back(from);
            }
        } else if (!subscribe && known && size > 0) {
            remove(m_subscribers, from);
        }
    }
    if (!error.error.empty()) {
        sendError(from, msgType, error);
    }
    const std::string text = compact(statusBody());
    m_endpoint->sendMsg(from, kuvscan::KUV_SCAN_MSG_STATUS, text.data(), static_cast<int>(text.size()));
}

// Clients that were there before us list their GUIDs in the runtime directory's subscriber file: each
// one gets a status now and later news, as if it had asked with {"subscribe": true}.
void Service::subscribeListed()
{
    const std::vector<GUID> listed = readSubscriberFile();
    if (listed.empty()) {
        return;
    }
    const std::string text = compact(statusBody());
    for (const GUID& g : listed) {
        const int rc = send(g, kuvscan::KUV_SCAN_MSG_STATUS, text, kNewsWaitMs);
        if (rc != ZELL_SEND_ROUTED) {
            KUV_LOG(kuv::LogLevel::Info, "listed subscriber %s not reached (%d); dropped",
                    zell::wire::guidText(g).c_str(), rc);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_outMutex);
        if (!contains(m_subscribers, g) && m_subscribers.size() < kMaxSubscribers) {
            m_subscribers.push_back(g);
            KUV_LOG(kuv::LogLevel::Info, "listed subscriber %s subscribed", zell::wire::guidText(g).c_str());
        }
    }
}

} // namespace scand
} // namespace kuv

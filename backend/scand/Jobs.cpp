// SPDX-License-Identifier: GPL-2.0-or-later
#include "Jobs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

#include "KuvScanProtocol.h"
#include "ScanPaths.h"
#include "UniqueFd.h"
#include "Walker.h"

namespace kuv {
namespace scand {

namespace {

using Clock = std::chrono::steady_clock;

int64_t unixMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Json::Value u64(uint64_t v) { return Json::Value(static_cast<Json::UInt64>(v)); }

} // namespace

struct JobManager::Job {
    ScanRequest request;
    std::string requester;
    Clock::time_point queuedAt = Clock::now();
    Clock::time_point start;

    std::atomic<bool> cancel{false};
    // What ends the job when cancel is set: "cancelled", or "failed" with a reason; silent when the
    // requester has left.
    std::string endState;
    std::string endReason;
    bool silent = false;

    std::mutex mutex; // everything below
    std::condition_variable cv;
    std::vector<Json::Value> results;
    std::vector<std::pair<std::string, std::string>> detections; // path, signature
    size_t pending = 0; // files handed to the workers and not finished
    bool walkDone = false;
    bool ended = false;
    std::string current;

    std::atomic<int64_t> filesSeen{0};
    std::atomic<uint64_t> bytesSeen{0};
    std::atomic<uint64_t> files{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> infected{0};
    std::atomic<uint64_t> errors{0};
    std::atomic<uint64_t> skipped{0};
    std::atomic<uint64_t> partial{0};

    // First come, first kept: the reason of the first stop wins.
    void requestEnd(const char* state, const std::string& reason, bool quiet)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!cancel.load()) {
            endState = state;
            endReason = reason;
            silent = quiet;
            cancel.store(true);
        }
        cv.notify_all();
    }
};

JobManager::JobManager(kuv::scan::IScanEngine& engine, IJobReporter& reporter, unsigned workers)
    : m_engine(engine), m_reporter(reporter)
{
    if (workers == 0) {
        workers = std::max(1u, std::thread::hardware_concurrency());
    }
    workers = std::min(workers, 64u);
    for (unsigned i = 0; i < workers; ++i) {
        m_workers.emplace_back([this] { workerLoop(); });
    }
    m_walker = std::thread([this] { walkerLoop(); });
    m_runner = std::thread([this] { runnerLoop(); });
}

JobManager::~JobManager() { stop("the back end is stopping"); }

JobManager::Submit JobManager::submit(ScanRequest request, const std::string& requester)
{
    auto job = std::make_shared<Job>();
    job->request = std::move(request);
    job->requester = requester;
    int position = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            return Submit::Stopping;
        }
        if (m_queue.size() >= kMaxQueuedJobs) {
            return Submit::QueueFull;
        }
        auto same = [&](const std::shared_ptr<Job>& other) {
            return other && other->request.job == job->request.job && other->requester == requester;
        };
        if (same(m_running) || std::any_of(m_queue.begin(), m_queue.end(), same)) {
            return Submit::Duplicate;
        }
        position = static_cast<int>(m_queue.size()) + (m_running ? 1 : 0);
    }
    // Accepted goes out before the job is queued, so it comes before anything the job reports.
    Json::Value accepted(Json::objectValue);
    accepted["job"] = job->request.job;
    accepted["position"] = position;
    m_reporter.toRequester(requester, kuvscan::KUV_SCAN_MSG_ACCEPTED, accepted);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            return Submit::Stopping;
        }
        m_queue.push_back(job);
    }
    m_jobsCv.notify_all();
    m_reporter.jobsChanged();
    return Submit::Accepted;
}

bool JobManager::cancel(const std::string& jobId)
{
    std::shared_ptr<Job> queuedJob;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_running && m_running->request.job == jobId) {
            {
                std::lock_guard<std::mutex> jobLock(m_running->mutex);
                if (m_running->ended) {
                    return false; // its end went out already
                }
            }
            m_running->requestEnd("cancelled", std::string(), false);
            m_spaceCv.notify_all();
            return true;
        }
        auto it = std::find_if(m_queue.begin(), m_queue.end(),
                               [&](const std::shared_ptr<Job>& j) { return j->request.job == jobId; });
        if (it == m_queue.end()) {
            return false;
        }
        queuedJob = *it;
        m_queue.erase(it);
    }
    // A job that never ran ends at once.
    queuedJob->requestEnd("cancelled", std::string(), false);
    queuedJob->start = Clock::now();
    finishJob(*queuedJob);
    m_reporter.jobsChanged();
    return true;
}

void JobManager::stop(const std::string& reason)
{
    std::deque<std::shared_ptr<Job>> queued;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            return;
        }
        m_stopping = true;
        m_stopReason = reason;
        queued.swap(m_queue);
        if (m_running) {
            m_running->requestEnd("failed", reason, false);
        }
    }
    m_jobsCv.notify_all();
    m_spaceCv.notify_all();
    for (auto& job : queued) {
        job->requestEnd("failed", reason, false);
        job->start = Clock::now();
        finishJob(*job);
    }
    if (m_runner.joinable()) {
        m_runner.join();
    }
    {
        std::lock_guard<std::mutex> lock(m_walkMutex);
        m_walkStop = true;
    }
    m_walkCv.notify_all();
    if (m_walker.joinable()) {
        m_walker.join();
    }
    {
        std::lock_guard<std::mutex> lock(m_workMutex);
        m_workStop = true;
        m_work.clear();
    }
    m_workCv.notify_all();
    m_spaceCv.notify_all();
    for (auto& worker : m_workers) {
        if (worker.joinable()) {
            worker.join();
        }
    }
}

void JobManager::setEngineReady()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_engineReady = true;
    }
    m_jobsCv.notify_all();
}

int JobManager::running() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_running ? 1 : 0;
}

int JobManager::queued() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<int>(m_queue.size());
}

LastScan JobManager::lastScan() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
}

void JobManager::runnerLoop()
{
    for (;;) {
        std::shared_ptr<Job> job;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            // Jobs wait until the engine has its databases.
            m_jobsCv.wait(lock, [&] { return m_stopping || (m_engineReady && !m_queue.empty()); });
            if (m_stopping) {
                return;
            }
            job = m_queue.front();
            m_queue.pop_front();
            m_running = job;
        }
        m_reporter.jobsChanged();
        runJob(job);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_running.reset();
        }
        m_reporter.jobsChanged();
    }
}

void JobManager::runJob(const std::shared_ptr<Job>& job)
{
    job->start = Clock::now();
    const std::string problem = m_engineProblem ? m_engineProblem() : std::string();
    if (!problem.empty()) {
        job->requestEnd("failed", problem, false);
        finishJob(*job);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_walkMutex);
        m_walkNext = job;
    }
    m_walkCv.notify_one();
    auto nextProgress = Clock::now();
    for (;;) {
        bool finished = false;
        {
            std::unique_lock<std::mutex> lock(job->mutex);
            job->cv.wait_until(lock, nextProgress, [&] {
                return job->cancel.load() || (job->walkDone && job->pending == 0);
            });
            finished = job->walkDone && job->pending == 0;
        }
        if (job->cancel.load()) {
            break;
        }
        if (!flush(*job, false)) {
            job->requestEnd("failed", "the requester left the bus", true);
            break;
        }
        const auto now = Clock::now();
        if (now >= nextProgress || finished) {
            if (!m_reporter.toRequester(job->requester, kuvscan::KUV_SCAN_MSG_PROGRESS, progressBody(*job))) {
                job->requestEnd("failed", "the requester left the bus", true);
                break;
            }
            nextProgress = now + std::chrono::milliseconds(kReportEveryMs);
        }
        if (finished) {
            break;
        }
    }
    // The job end does not wait for a walk or a scan still in progress: both notice the cancel on their
    // own, and what they find afterwards is dropped.
    m_spaceCv.notify_all();
    finishJob(*job);
    // The next job is handed to the walker only once it is done with this one.
    std::unique_lock<std::mutex> lock(job->mutex);
    job->cv.wait(lock, [&] { return job->walkDone; });
}

// One thread walks every job in turn (jobs run one at a time), instead of a thread started per job.
void JobManager::walkerLoop()
{
    for (;;) {
        std::shared_ptr<Job> job;
        {
            std::unique_lock<std::mutex> lock(m_walkMutex);
            m_walkCv.wait(lock, [&] { return m_walkStop || m_walkNext; });
            if (!m_walkNext) {
                return;
            }
            job = std::move(m_walkNext);
            m_walkNext.reset();
        }
        walkJob(job);
    }
}

void JobManager::finishJob(Job& job)
{
    if (!job.silent) {
        flush(job, true);
    }
    Json::Value end = endBody(job);
    {
        std::lock_guard<std::mutex> lock(job.mutex);
        job.ended = true;
    }
    if (!job.silent) {
        m_reporter.toRequester(job.requester, kuvscan::KUV_SCAN_MSG_JOB_END, end);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_last.valid = true;
        m_last.job = job.request.job;
        m_last.state = end["state"].asString();
        m_last.endTime = unixMs() / 1000;
        m_last.files = job.files.load();
        m_last.infected = job.infected.load();
    }
    Json::Value event(Json::objectValue);
    event["time"] = Json::Int64(unixMs());
    event["kind"] = "job";
    event["severity"] = job.infected.load() > 0 ? "critical" : (end["state"].asString() == "done" ? "info" : "warning");
    event["job"] = job.request.job;
    event["action"] = end["state"];
    event["detail"] = std::to_string(job.files.load()) + " files, " + std::to_string(job.infected.load()) +
                      " infected" + (end["reason"].asString().empty() ? "" : ": " + end["reason"].asString());
    m_reporter.event(event);
}

Json::Value JobManager::endBody(Job& job)
{
    Json::Value end(Json::objectValue);
    end["job"] = job.request.job;
    {
        std::lock_guard<std::mutex> lock(job.mutex);
        end["state"] = job.cancel.load() ? job.endState : "done";
        end["reason"] = job.cancel.load() ? job.endReason : std::string();
    }
    end["files"] = u64(job.files.load());
    end["bytes"] = u64(job.bytes.load());
    end["infected"] = u64(job.infected.load());
    end["errors"] = u64(job.errors.load());
    end["skipped"] = u64(job.skipped.load());
    end["partial"] = u64(job.partial.load());
    end["duration_ms"] = Json::Int64(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - job.start).count());
    return end;
}

Json::Value JobManager::progressBody(Job& job)
{
    Json::Value progress(Json::objectValue);
    progress["job"] = job.request.job;
    std::string current;
    bool walked = false;
    {
        std::lock_guard<std::mutex> lock(job.mutex);
        current = job.current;
        walked = job.walkDone;
    }
    progress["state"] = walked ? "scanning" : "counting";
    progress["files_total"] = Json::Int64(walked ? job.filesSeen.load() : -1);
    progress["bytes_total"] = Json::Int64(walked ? static_cast<int64_t>(job.bytesSeen.load()) : -1);
    progress["files_scanned"] = u64(job.files.load() + job.errors.load() + job.partial.load());
    progress["bytes_scanned"] = u64(job.bytes.load());
    progress["threats"] = u64(job.infected.load());
    progress["current"] = kuvscan::pathToJson(current);
    progress["elapsed_ms"] = Json::Int64(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - job.start).count());
    return progress;
}

bool JobManager::flush(Job& job, bool final)
{
    std::vector<Json::Value> results;
    std::vector<std::pair<std::string, std::string>> detections;
    {
        std::lock_guard<std::mutex> lock(job.mutex);
        results.swap(job.results);
        detections.swap(job.detections);
        if (final) {
            job.ended = true; // nothing found after this point is reported
        }
    }
    for (const auto& found : detections) {
        Json::Value event(Json::objectValue);
        event["time"] = Json::Int64(unixMs());
        event["kind"] = "detection";
        event["severity"] = "critical";
        event["path"] = kuvscan::pathToJson(found.first);
        event["signature"] = found.second;
        event["action"] = "none";
        event["detail"] = "found by a scan";
        event["job"] = job.request.job;
        m_reporter.event(event);
    }
    for (size_t i = 0; i < results.size(); i += kResultsPerMessage) {
        Json::Value body(Json::objectValue);
        body["job"] = job.request.job;
        Json::Value& list = body["results"] = Json::Value(Json::arrayValue);
        for (size_t k = i; k < results.size() && k < i + kResultsPerMessage; ++k) {
            list.append(std::move(results[k]));
        }
        if (!m_reporter.toRequester(job.requester, kuvscan::KUV_SCAN_MSG_RESULTS, body)) {
            return false;
        }
    }
    return true;
}

void JobManager::addResult(Job& job, const std::string& path, const char* verdict, const std::string& signature,
                           const std::string& reason)
{
    const std::string v = verdict;
    if (v == "clean" && !job.request.options.reportClean) {
        return;
    }
    Json::Value result(Json::objectValue);
    result["path"] = kuvscan::pathToJson(path);
    result["verdict"] = verdict;
    result["signature"] = signature;
    result["reason"] = reason;
    std::lock_guard<std::mutex> lock(job.mutex);
    if (job.ended) {
        return;
    }
    job.results.push_back(std::move(result));
    if (v == "infected") {
        job.detections.emplace_back(path, signature);
    }
}

void JobManager::walkJob(const std::shared_ptr<Job>& job)
{
    Walker walker(job->request.options.exclude, &job->cancel);
    walker.walk(job->request.paths, [&](WalkEntry&& entry) {
        if (job->cancel.load()) {
            return false;
        }
        if (entry.kind == WalkEntry::Kind::Skipped) {
            job->skipped.fetch_add(1);
            addResult(*job, entry.path, "skipped", std::string(), entry.reason);
            return true;
        }
        if (entry.kind == WalkEntry::Kind::Error) {
            job->errors.fetch_add(1);
            addResult(*job, entry.path, "error", std::string(), entry.reason);
            return true;
        }
        job->filesSeen.fetch_add(1);
        job->bytesSeen.fetch_add(entry.size);
        {
            std::lock_guard<std::mutex> lock(job->mutex);
            ++job->pending;
        }
        std::unique_lock<std::mutex> lock(m_workMutex);
        m_spaceCv.wait(lock, [&] { return m_workStop || job->cancel.load() || m_work.size() < kMaxQueuedFiles; });
        if (m_workStop || job->cancel.load()) {
            return false;
        }
        m_work.push_back(WorkItem{job, std::move(entry.path)});
        lock.unlock();
        m_workCv.notify_one();
        return true;
    });
    std::lock_guard<std::mutex> lock(job->mutex);
    job->walkDone = true;
    job->cv.notify_all();
}

void JobManager::workerLoop()
{
    for (;;) {
        WorkItem item;
        {
            std::unique_lock<std::mutex> lock(m_workMutex);
            m_workCv.wait(lock, [&] { return m_workStop || !m_work.empty(); });
            if (m_workStop) {
                return;
            }
            item = std::move(m_work.front());
            m_work.pop_front();
        }
        m_spaceCv.notify_one();
        if (!item.job->cancel.load()) {
            scanOne(item.job, item.path);
        }
        std::lock_guard<std::mutex> lock(item.job->mutex);
        --item.job->pending;
        if (item.job->pending == 0) {
            item.job->cv.notify_all();
        }
    }
}

void JobManager::scanOne(const std::shared_ptr<Job>& job, const std::string& path)
{
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        job->current = path;
    }
    // Never follows a link and never waits on a FIFO swapped in since the walk; the type is checked on the
    // open descriptor before anything is read.
    kuv::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd.valid()) {
        const int error = errno;
        if (error == ELOOP) {
            job->skipped.fetch_add(1);
            addResult(*job, path, "skipped", std::string(), "symbolic link");
        } else {
            job->errors.fetch_add(1);
            addResult(*job, path, "error", std::string(), errnoReason(error));
        }
        return;
    }
    struct stat st{};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        job->skipped.fetch_add(1);
        addResult(*job, path, "skipped", std::string(), Walker::kindName(st.st_mode));
        return;
    }
    kuv::scan::ScanLimits limits;
    limits.maxFileSize = job->request.options.maxFileSize;
    limits.scanArchives = job->request.options.scanArchives;
    const kuv::scan::ScanResult result = m_engine.scanFd(fd.get(), path, limits, &job->cancel);
    if (job->cancel.load()) {
        return;
    }
    switch (result.verdict) {
    case kuv::scan::Verdict::Clean:
        job->files.fetch_add(1);
        job->bytes.fetch_add(result.bytesScanned);
        addResult(*job, path, "clean", std::string(), std::string());
        break;
    case kuv::scan::Verdict::Infected:
        job->files.fetch_add(1);
        job->bytes.fetch_add(result.bytesScanned);
        job->infected.fetch_add(1);
        addResult(*job, path, "infected", result.signature, std::string());
        break;
    case kuv::scan::Verdict::Partial:
        job->partial.fetch_add(1);
        job->bytes.fetch_add(result.bytesScanned);
        addResult(*job, path, "partial", std::string(), result.reason);
        break;
    case kuv::scan::Verdict::Skipped:
        job->skipped.fetch_add(1);
        addResult(*job, path, "skipped", std::string(), result.reason);
        break;
    case kuv::scan::Verdict::Error:
        job->errors.fetch_add(1);
        addResult(*job, path, "error", std::string(), result.reason);
        break;
    }
}

} // namespace scand
} // namespace kuv

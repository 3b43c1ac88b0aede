// SPDX-License-Identifier: GPL-2.0-or-later
// Scan jobs: a queue of requests run one after another, each walked by the walker thread and scanned by a
// pool of workers sized to the cores; progress, batched results and the job end go to the requester.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/value.h>

#include "ScanEngine.h"
#include "ScanRequest.h"

namespace kuv {
namespace scand {

class IJobReporter {
public:
    virtual ~IJobReporter() = default;
    // A message for a job's requester (an opaque id given to submit); false once the requester has left the
    // bus, which ends its job without further messages.
    virtual bool toRequester(const std::string& requester, int64_t type, const Json::Value& body) = 0;
    // A security event for whoever subscribed.
    virtual void event(const Json::Value& event) = 0;
    // A job started or ended: the status changed.
    virtual void jobsChanged() = 0;
};

struct LastScan {
    bool valid = false;
    std::string job;
    std::string state;
    int64_t endTime = 0; // unix seconds
    uint64_t files = 0;
    uint64_t infected = 0;
};

class JobManager {
public:
    static constexpr size_t kMaxQueuedJobs = 64;
    static constexpr size_t kMaxQueuedFiles = 4096; // walked but not yet scanned, over all workers
    static constexpr int kReportEveryMs = 100;
    static constexpr size_t kResultsPerMessage = 256;

    // workers 0: one per core.
    JobManager(kuv::scan::IScanEngine& engine, IJobReporter& reporter, unsigned workers = 0);
    ~JobManager();
    JobManager(const JobManager&) = delete;
    JobManager& operator=(const JobManager&) = delete;

    enum class Submit { Accepted, Duplicate, QueueFull, Stopping };
    // Sends KUV_SCAN_MSG_ACCEPTED to the requester before the job can report anything else.
    Submit submit(ScanRequest request, const std::string& requester);
    // A running job ends as "cancelled" as soon as the walk and the workers notice; a queued one at once.
    // false when no job has that id.
    bool cancel(const std::string& job);
    // Ends every job as "failed" with reason and joins every thread. Idempotent.
    void stop(const std::string& reason);

    // Queued jobs start once the engine has loaded its databases.
    void setEngineReady();
    // Asked as each job starts: a non-empty text ends the job as "failed" with it (no usable engine).
    void setEngineCheck(std::function<std::string()> check) { m_engineProblem = std::move(check); }
    int running() const;
    int queued() const;
    LastScan lastScan() const;
    unsigned workers() const { return static_cast<unsigned>(m_workers.size()); }

private:
    struct Job;
    struct WorkItem {
        std::shared_ptr<Job> job;
        std::string path;
    };

    void runnerLoop();
    void walkerLoop();
    void workerLoop();
    void runJob(const std::shared_ptr<Job>& job);
    void walkJob(const std::shared_ptr<Job>& job);
    void scanOne(const std::shared_ptr<Job>& job, const std::string& path);
    void addResult(Job& job, const std::string& path, const char* verdict, const std::string& signature,
                   const std::string& reason);
    bool flush(Job& job, bool final);
    Json::Value progressBody(Job& job);
    Json::Value endBody(Job& job);
    void finishJob(Job& job);

    kuv::scan::IScanEngine& m_engine;
    IJobReporter& m_reporter;
    std::function<std::string()> m_engineProblem;

    mutable std::mutex m_mutex; // the job queue, the running job, stopping, last scan
    std::condition_variable m_jobsCv;
    std::deque<std::shared_ptr<Job>> m_queue;
    std::shared_ptr<Job> m_running;
    bool m_stopping = false;
    bool m_engineReady = false;
    std::string m_stopReason;
    LastScan m_last;

    std::mutex m_workMutex; // files waiting for a worker
    std::condition_variable m_workCv;
    std::condition_variable m_spaceCv;
    std::deque<WorkItem> m_work;
    bool m_workStop = false;

    std::mutex m_walkMutex; // the job handed to the walker thread
    std::condition_variable m_walkCv;
    std::shared_ptr<Job> m_walkNext;
    bool m_walkStop = false;

    std::thread m_runner;
    std::thread m_walker;
    std::vector<std::thread> m_workers;
};

} // namespace scand
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// What the back end keeps of its jobs: each job goes into the user's history when it ends (start,
// duration, paths, counts, findings and what was done), and a job that asked for it has its findings
// moved into the quarantine as they are reported. Safe to call from the job threads. The history stays
// open from one job to the next.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/value.h>

#include "HistoryDb.h"
#include "StoreDb.h"

namespace kuv {
namespace store {

class QuarantineStore;

class JobLog {
public:
    // dataDir: the user's kuv data folder (userDataDir() when empty).
    explicit JobLog(std::string dataDir = std::string());
    ~JobLog();

    // Before the job is submitted; a job id already open is left as it is (a duplicate request).
    void started(const std::string& job, const std::vector<std::string>& paths, bool quarantine);
    // A job that was not taken after all.
    void forget(const std::string& job);
    // A RESULTS body on its way to the requester: findings are remembered, and with quarantine asked
    // for, each "infected" file is moved into the quarantine and its verdict becomes "quarantined"
    // (a file that cannot be moved keeps "infected", with the reason why).
    void results(const std::string& job, Json::Value& body);
    // The JOB_END body: the job goes into the history. false with error when it could not be stored.
    bool ended(const std::string& job, const Json::Value& body, std::string* error = nullptr);
    // What the user should hear about (a database kept aside, ...), taken once.
    std::vector<std::string> takeNotices();

private:
    struct Open {
        JobRecord record;
        bool quarantine = false;
    };
    static constexpr size_t kMaxFindings = 100000;
    static constexpr size_t kMaxOpenJobs = 256;

    std::string m_dataDir;
    HistoryDb m_history; // one connection for every job this log records
    std::mutex m_mutex;
    std::map<std::string, Open> m_open;
    std::unique_ptr<QuarantineStore> m_store;
    std::vector<std::string> m_notices;
};

} // namespace store
} // namespace kuv

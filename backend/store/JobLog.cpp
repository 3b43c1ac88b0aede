// SPDX-License-Identifier: GPL-2.0-or-later
#include "JobLog.h"

#include <algorithm>

#include "KuvScanProtocol.h"
#include "Quarantine.h"
#include "ScanPaths.h"
#include "StorePaths.h"

namespace kuv {
namespace store {

JobLog::JobLog(std::string dataDir)
    : m_dataDir(dataDir.empty() ? userDataDir() : std::move(dataDir)), m_history(m_dataDir)
{
}

JobLog::~JobLog() = default;

void JobLog::started(const std::string& job, const std::vector<std::string>& paths, bool quarantine)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open.count(job) != 0) {
        return;
    }
    if (m_open.size() >= kMaxOpenJobs) {
        m_open.erase(m_open.begin());
    }
    Open& o = m_open[job];
    o.record = JobRecord();
    o.record.job = job;
    o.record.startMs = nowMs();
    o.record.paths = paths;
    o.quarantine = quarantine;
}

void JobLog::forget(const std::string& job)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open.erase(job);
}

void JobLog::results(const std::string& job, Json::Value& body)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_open.find(job);
    if (it == m_open.end() || !body["results"].isArray()) {
        return;
    }
    Open& o = it->second;
    for (Json::Value& r : body["results"]) {
        const std::string verdict = r["verdict"].asString();
        if (verdict == "clean" || verdict == "skipped") {
            continue;
        }
        FindingRecord f;
        if (!kuvscan::pathFromJson(r["path"], f.path)) {
            continue;
        }
        f.verdict = verdict;
        f.signature = r["signature"].asString();
        f.reason = r["reason"].asString();
        if (verdict == "infected" && o.quarantine) {
            if (!m_store) {
                std::string error;
                m_store = QuarantineStore::open(m_dataDir, error);
                if (!m_store) {
                    m_notices.push_back("quarantine: " + error);
                } else {
                    m_notices.insert(m_notices.end(), m_store->notices().begin(), m_store->notices().end());
                }
            }
            QuarantineEntry entry;
            const QResult q = m_store ? m_store->quarantine(f.path, f.signature, job, &entry)
                                      : QResult{QStatus::Failed, "the quarantine cannot be used"};
            if (q.ok()) {
                r["verdict"] = "quarantined";
                f.verdict = "quarantined";
                f.action = "quarantined " + entry.id;
            } else {
                r["reason"] = "not quarantined: " + q.message;
                f.reason = r["reason"].asString();
            }
        }
        if (o.record.findings.size() < kMaxFindings) {
            o.record.findings.push_back(std::move(f));
        }
    }
}

bool JobLog::ended(const std::string& job, const Json::Value& body, std::string* error)
{
    Open o;
    std::unique_ptr<QuarantineStore> idle;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_open.find(job);
        if (it == m_open.end()) {
            if (error != nullptr) {
                *error = "unknown job";
            }
            return false;
        }
        o = std::move(it->second);
        m_open.erase(it);
        // The quarantine's own connection lives only while a job may need it: between such jobs the
        // history's connection is the only one this process has on the database.
        if (std::none_of(m_open.begin(), m_open.end(), [](const auto& open) { return open.second.quarantine; })) {
            idle = std::move(m_store);
        }
    }
    idle.reset();
    JobRecord& r = o.record;
    r.state = body["state"].asString();
    r.durationMs = body.isMember("duration_ms") ? body["duration_ms"].asInt64() : nowMs() - r.startMs;
    r.files = body["files"].asInt64();
    r.bytes = body["bytes"].asInt64();
    // Quarantined files were found too: they count as found.
    r.infected = body["infected"].asInt64();
    r.errors = body["errors"].asInt64();
    r.skipped = body["skipped"].asInt64();
    r.partial = body["partial"].asInt64();
    std::vector<std::string> notices;
    std::string why;
    const bool ok = m_history.record(r, notices, why);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_notices.insert(m_notices.end(), notices.begin(), notices.end());
    if (!ok && error != nullptr) {
        *error = why;
    }
    return ok;
}

std::vector<std::string> JobLog::takeNotices()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    out.swap(m_notices);
    return out;
}

} // namespace store
} // namespace kuv

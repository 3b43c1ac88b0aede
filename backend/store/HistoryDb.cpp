// SPDX-License-Identifier: GPL-2.0-or-later
#include "HistoryDb.h"

#include "ScanSettings.h"

namespace kuv {
namespace store {

HistoryDb::HistoryDb(std::string dataDir) : m_dataDir(std::move(dataDir)) {}

HistoryDb::~HistoryDb() = default;

int HistoryDb::opens() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_opens;
}

// The open connection, or a new one when there is none or its file is no longer at the path. The old
// connection first puts its write-ahead log into its own file and empties it, so that nothing of the old
// database is lost or read as part of the new one.
StoreDb* HistoryDb::current(std::vector<std::string>& notices, std::string& error)
{
    if (m_db && !m_db->movedAway()) {
        return m_db.get();
    }
    if (m_db) {
        m_db->checkpoint();
        m_db.reset();
    }
    m_db = openUserDb(m_dataDir, notices, error);
    if (m_db) {
        ++m_opens;
        m_nextPrune = std::chrono::steady_clock::time_point(); // prune with the first job
    }
    return m_db.get();
}

bool HistoryDb::record(JobRecord& job, std::vector<std::string>& notices, std::string& error)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    StoreDb* db = current(notices, error);
    if (db == nullptr) {
        return false;
    }
    if (!db->addJob(job)) {
        if (!db->lastFailureWasDamage()) {
            error = db->lastError();
            return false;
        }
        // Damaged since it was opened: opened again, it is kept aside and a new one started.
        m_db.reset();
        db = current(notices, error);
        if (db == nullptr) {
            return false;
        }
        if (!db->addJob(job)) {
            error = db->lastError();
            return false;
        }
    }
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_nextPrune) {
        ScanSettings settings;
        std::string why;
        if (!loadScanSettings(settings, &why)) {
            notices.push_back(why);
        }
        db->pruneHistory(settings.historyDays, nowMs());
        m_nextPrune = now + kPruneEvery;
    }
    return true;
}

} // namespace store
} // namespace kuv

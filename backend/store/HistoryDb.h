// SPDX-License-Identifier: GPL-2.0-or-later
// The user's history database held open by a process that records many jobs: checked once when opened,
// opened again when its file was removed, renamed away or replaced. Safe to call from several threads.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StoreDb.h"

namespace kuv {
namespace store {

class HistoryDb {
public:
    // dataDir: the user's kuv data folder, as for openUserDb.
    explicit HistoryDb(std::string dataDir);
    ~HistoryDb();
    HistoryDb(const HistoryDb&) = delete;
    HistoryDb& operator=(const HistoryDb&) = delete;

    // What recordJob does, on the open connection: the job goes in, and history older than the user's
    // retention setting goes when the database was just opened and then at most once an hour.
    bool record(JobRecord& job, std::vector<std::string>& notices, std::string& error);
    // How many times the database was opened so far.
    int opens() const;

    static constexpr std::chrono::minutes kPruneEvery{60};

private:
    StoreDb* current(std::vector<std::string>& notices, std::string& error);

    const std::string m_dataDir;
    mutable std::mutex m_mutex; // everything below, and every use of the connection
    std::unique_ptr<StoreDb> m_db;
    std::chrono::steady_clock::time_point m_nextPrune;
    int m_opens = 0;
};

} // namespace store
} // namespace kuv

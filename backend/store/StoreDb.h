// SPDX-License-Identifier: GPL-2.0-or-later
// The user's history and quarantine index in one SQLite database (WAL), kept aside when damaged.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace kuv {
namespace store {

// One file in the quarantine, as recorded when it went in.
struct QuarantineEntry {
    std::string id;
    std::string originalPath; // exact bytes
    uint64_t size = 0;
    uint32_t mode = 0; // permission bits (07777)
    uint32_t uid = 0;
    uint32_t gid = 0;
    int64_t atimeNs = 0;
    int64_t mtimeNs = 0;
    std::string sha256; // hex, of the original content
    std::string signature;
    int64_t quarantinedAt = 0; // unix ms
    std::string job;           // scan job that found it, may be empty
};

struct FindingRecord {
    std::string path; // exact bytes
    std::string verdict;
    std::string signature;
    std::string reason;
    std::string action; // "", "quarantined <id>", "deleted", "ignored"
};

struct JobRecord {
    int64_t id = 0; // row id, assigned when stored
    std::string job;
    int64_t startMs = 0;
    int64_t durationMs = 0;
    std::string state; // "done" | "cancelled" | "failed"
    std::vector<std::string> paths;
    int64_t files = 0, bytes = 0, infected = 0, errors = 0, skipped = 0, partial = 0;
    std::vector<FindingRecord> findings; // only filled by job()
};

class StoreDb {
public:
    static constexpr int kSchemaVersion = 1;

    // Opens or creates the database at path (0600). A damaged file, or one written by a newer version,
    // is renamed to "<path>.corrupt-<UTC time>" with its journal files and a new one is started; the
    // reason goes to notices. nullptr with error when even a new database cannot be made.
    static std::unique_ptr<StoreDb> open(const std::string& path, std::vector<std::string>& notices,
                                         std::string& error);
    // The highest job row id and the findings nobody acted on, read through a short read-only
    // connection that sets nothing up and checks nothing: a quick look for a process that only wants
    // these two numbers. False (both 0) when the file is missing or cannot be read.
    static bool peek(const std::string& path, int64_t& lastJob, int64_t& pending);
    ~StoreDb();
    StoreDb(const StoreDb&) = delete;
    StoreDb& operator=(const StoreDb&) = delete;

    const std::string& path() const { return m_path; }
    const std::string& lastError() const { return m_error; }
    // Whether the last failure of addJob said that the file itself is damaged.
    bool lastFailureWasDamage() const { return m_damaged; }
    // Whether path() no longer leads to the file this connection has open: removed, renamed away or
    // replaced (one lstat against the device and inode found when it was opened).
    bool movedAway() const;
    // Copies the write-ahead log into the file this connection has and empties it. SQLite does not do
    // that on close once the file has moved, and a log left at the path would be read as part of
    // whatever database is opened there next.
    bool checkpoint();

    bool addQuarantine(const QuarantineEntry& entry);
    bool removeQuarantine(const std::string& id);
    std::vector<QuarantineEntry> quarantineEntries();
    bool quarantineEntry(const std::string& id, QuarantineEntry& out);

    // Stores a job with its paths and findings; its row id goes to job.id.
    bool addJob(JobRecord& job);
    // Newest first, without findings.
    std::vector<JobRecord> jobs(int limit = 1000);
    bool job(int64_t id, JobRecord& out);
    // Sets the action of the findings of job id at path.
    bool setFindingAction(int64_t id, const std::string& path, const std::string& action);
    // Findings with a threat that nobody acted on yet (no quarantine, delete or ignore).
    int64_t pendingFindings();
    // Highest job row id, 0 for none.
    int64_t lastJobId();
    // Drops jobs that started more than days ago; returns how many went, -1 on error.
    int pruneHistory(int days, int64_t nowMs);

private:
    StoreDb(sqlite3* db, std::string path, dev_t dev, ino_t ino)
        : m_db(db), m_path(std::move(path)), m_dev(dev), m_ino(ino)
    {
    }
    bool exec(const char* sql);

    sqlite3* m_db;
    std::string m_path;
    dev_t m_dev;
    ino_t m_ino;
    std::string m_error;
    bool m_damaged = false;
};

int64_t nowMs();

// The user's database in dataDir (created 0700 when missing): history.sqlite.
std::unique_ptr<StoreDb> openUserDb(const std::string& dataDir, std::vector<std::string>& notices, std::string& error);
// StoreDb::peek on the user's database in dataDir; nothing is created.
bool peekUserDb(const std::string& dataDir, int64_t& lastJob, int64_t& pending);
// Records a finished scan job and drops history older than the user's retention setting; what the
// back end calls at the end of every job. notices gets what the user should hear about.
bool recordJob(const std::string& dataDir, JobRecord& job, std::vector<std::string>& notices, std::string& error);

} // namespace store
} // namespace kuv

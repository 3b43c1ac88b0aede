// SPDX-License-Identifier: GPL-2.0-or-later
#include "StoreDb.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <type_traits>

#include "SafeIo.h"
#include "UniqueFd.h"

namespace kuv {
namespace store {

namespace {

// Bytes that go into a BLOB column (a path), not TEXT.
struct Blob {
    const std::string& bytes;
};

// One prepared statement, finalized on scope exit.
class Stmt {
public:
    Stmt(sqlite3* db, const char* sql)
    {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK) {
            m_stmt = nullptr;
        }
    }
    ~Stmt() { sqlite3_finalize(m_stmt); }
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;
    bool ok() const { return m_stmt != nullptr; }
    sqlite3_stmt* get() const { return m_stmt; }
    void text(int i, const std::string& s) { sqlite3_bind_text(m_stmt, i, s.data(), int(s.size()), SQLITE_TRANSIENT); }
    void blob(int i, const std::string& s) { sqlite3_bind_blob(m_stmt, i, s.data(), int(s.size()), SQLITE_TRANSIENT); }
    void i64(int i, int64_t v) { sqlite3_bind_int64(m_stmt, i, v); }
    // Binds the parameters 1, 2, ... in order: strings as TEXT, Blob as BLOB, integers as INTEGER.
    template <typename... Values>
    void bind(const Values&... values)
    {
        int i = 0;
        (bindOne(++i, values), ...);
    }
    int step() { return sqlite3_step(m_stmt); }
    int64_t col64(int i) const { return sqlite3_column_int64(m_stmt, i); }
    std::string colText(int i) const
    {
        const void* p = sqlite3_column_blob(m_stmt, i);
        const int n = sqlite3_column_bytes(m_stmt, i);
        return p != nullptr ? std::string(static_cast<const char*>(p), size_t(n)) : std::string();
    }

private:
    void bindOne(int i, const std::string& s) { text(i, s); }
    void bindOne(int i, const Blob& b) { blob(i, b.bytes); }
    template <typename T, typename = std::enable_if_t<std::is_integral<T>::value>>
    void bindOne(int i, T v)
    {
        i64(i, int64_t(v));
    }

    sqlite3_stmt* m_stmt = nullptr;
};

// An error code that says the database file itself is damaged (not the disk or the directory).
bool damageCode(int code) { return code == SQLITE_NOTADB || code == SQLITE_CORRUPT; }

// sqlite3_exec with the reason of a failure in why; returns SQLite's result code.
int execSql(sqlite3* db, const char* sql, std::string& why)
{
    char* msg = nullptr;
    const int rc = sqlite3_exec(db, sql, nullptr, nullptr, &msg);
    if (rc != SQLITE_OK) {
        why = msg != nullptr ? msg : sqlite3_errstr(rc);
    }
    sqlite3_free(msg);
    return rc;
}

// Runs sql with the parameters values to the end; false with error otherwise.
template <typename... Values>
bool runChange(sqlite3* db, const char* sql, std::string& error, const Values&... values)
{
    Stmt s(db, sql);
    if (!s.ok()) {
        error = sqlite3_errmsg(db);
        return false;
    }
    s.bind(values...);
    if (s.step() != SQLITE_DONE) {
        error = sqlite3_errmsg(db);
        return false;
    }
    return true;
}

// Runs the query sql with the parameters values and hands each row to row.
template <typename... Values>
void forEachRow(sqlite3* db, const std::string& sql, const std::function<void(const Stmt&)>& row,
                const Values&... values)
{
    Stmt s(db, sql.c_str());
    if (!s.ok()) {
        return;
    }
    s.bind(values...);
    while (s.step() == SQLITE_ROW) {
        row(s);
    }
}

// The query's row (the last, when there are several) made into out by from; false without a row.
template <typename T, typename... Values>
bool readRow(sqlite3* db, const std::string& sql, T (*from)(const Stmt&), T& out, const Values&... values)
{
    bool found = false;
    forEachRow(
        db, sql,
        [&](const Stmt& s) {
            out = from(s);
            found = true;
        },
        values...);
    return found;
}

// The first column of the query's one row; 0 without a row.
int64_t queryNumber(sqlite3* db, const char* sql)
{
    int64_t value = 0;
    forEachRow(db, sql, [&](const Stmt& s) { value = s.col64(0); });
    return value;
}

const char* const kPendingSql =
    "SELECT COUNT(*) FROM findings WHERE verdict='infected' AND (action IS NULL OR action='')";
const char* const kLastJobSql = "SELECT COALESCE(MAX(id), 0) FROM jobs";

const char* const kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS quarantine(
  id TEXT PRIMARY KEY, path BLOB NOT NULL, size INTEGER, mode INTEGER, uid INTEGER, gid INTEGER,
  atime_ns INTEGER, mtime_ns INTEGER, sha256 TEXT, signature TEXT, quarantined_at INTEGER, job TEXT);
CREATE TABLE IF NOT EXISTS jobs(
  id INTEGER PRIMARY KEY AUTOINCREMENT, job TEXT, start_ms INTEGER, duration_ms INTEGER, state TEXT,
  files INTEGER, bytes INTEGER, infected INTEGER, errors INTEGER, skipped INTEGER, partial INTEGER);
CREATE TABLE IF NOT EXISTS job_paths(job INTEGER NOT NULL REFERENCES jobs(id) ON DELETE CASCADE, path BLOB);
CREATE TABLE IF NOT EXISTS findings(
  job INTEGER NOT NULL REFERENCES jobs(id) ON DELETE CASCADE, path BLOB, verdict TEXT, signature TEXT,
  reason TEXT, action TEXT);
CREATE INDEX IF NOT EXISTS jobs_start ON jobs(start_ms);
CREATE INDEX IF NOT EXISTS job_paths_job ON job_paths(job);
CREATE INDEX IF NOT EXISTS findings_job ON findings(job);
)SQL";

std::string utcStamp()
{
    const std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return buf;
}

struct DbCloser {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using UniqueDb = std::unique_ptr<sqlite3, DbCloser>;

// Created here so the file is 0600 from the start (SQLite gives its journal files the same mode); an
// existing one is made private. "" or why it cannot be used, with damaged as for tryOpen. An existing file
// is looked at through an O_PATH descriptor: closing a descriptor that can read or write the file would drop
// the POSIX locks that another connection of this process holds on it. st: the file found.
std::string prepareFile(const std::string& path, bool& damaged, struct stat& st)
{
    kuv::UniqueFd fd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT) {
        const kuv::UniqueFd created(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (created.valid() || errno == EEXIST) {
            fd.reset(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        }
    }
    if (fd.valid() && ::fstat(fd.get(), &st) == 0 && S_ISLNK(st.st_mode)) {
        fd.reset();
        errno = ELOOP;
    }
    if (!fd.valid()) {
        damaged = errno == ELOOP;
        return std::string("cannot open: ") + std::strerror(errno);
    }
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        damaged = true;
        return "not a regular file";
    }
    if ((st.st_mode & 077) != 0) {
        const kuv::UniqueFd rw(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        if (rw.valid()) {
            ::fchmod(rw.get(), 0600);
        }
    }
    return std::string();
}

// Write-ahead log on, then the schema version of an intact file that this version can use; "" or why not.
std::string checkDb(sqlite3* db, int& version, bool& damaged)
{
    std::string why;
    const int rc = execSql(db, "PRAGMA journal_mode=WAL", why);
    if (rc != SQLITE_OK) {
        damaged = damageCode(rc);
        return why;
    }
    {
        Stmt s(db, "PRAGMA user_version");
        if (!s.ok() || s.step() != SQLITE_ROW) {
            damaged = damageCode(sqlite3_errcode(db));
            return sqlite3_errmsg(db);
        }
        version = int(s.col64(0));
    }
    damaged = true;
    if (version > StoreDb::kSchemaVersion) {
        return "written by a newer version (schema " + std::to_string(version) + ", this one knows " +
               std::to_string(StoreDb::kSchemaVersion) + ")";
    }
    Stmt s(db, "PRAGMA quick_check");
    const int step = s.ok() ? s.step() : SQLITE_ERROR;
    if (step != SQLITE_ROW || s.colText(0) != "ok") {
        return "damaged: " + (step == SQLITE_ROW ? s.colText(0) : std::string(sqlite3_errmsg(db)));
    }
    damaged = false;
    return std::string();
}

// Tries to open and set up the database; "" on success, else why the file cannot be used, with
// damaged true when the file itself is the problem (not the directory or the disk).
std::string tryOpen(const std::string& path, sqlite3** out, bool& damaged, struct stat& identity)
{
    damaged = false;
    *out = nullptr;
    // One opener at a time sets a database up (write-ahead log, schema): two at once on a new file (the
    // back end's job log and its quarantine, or the back end and the shell) race, and SQLite answers the
    // loser "database is locked" at once instead of waiting. The lock on the folder is held until the
    // setup is done and is never held while the database is in use.
    const std::string folder = std::filesystem::path(path).parent_path().string();
    const kuv::UniqueFd setupLock(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (setupLock.valid()) {
        kuv::retryEintr([&] { return ::flock(setupLock.get(), LOCK_EX); });
    }
    std::string why = prepareFile(path, damaged, identity);
    if (!why.empty()) {
        return why;
    }
    sqlite3* opened = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW, nullptr);
    UniqueDb db(opened);
    if (rc != SQLITE_OK) {
        damaged = damageCode(rc);
        return db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc);
    }
    sqlite3_busy_timeout(db.get(), 10000);
    int version = -1;
    why = checkDb(db.get(), version, damaged);
    if (!why.empty()) {
        return why;
    }
    sqlite3_exec(db.get(), "PRAGMA foreign_keys=ON; PRAGMA synchronous=FULL", nullptr, nullptr, nullptr);
    if (version < StoreDb::kSchemaVersion) {
        const int created = execSql(db.get(), kSchema, why);
        if (created != SQLITE_OK) {
            damaged = damageCode(created);
            return why;
        }
        const std::string set = "PRAGMA user_version=" + std::to_string(StoreDb::kSchemaVersion);
        sqlite3_exec(db.get(), set.c_str(), nullptr, nullptr, nullptr);
    }
    // The file this connection has, to tell later whether the path still leads to it: the one found
    // before SQLite opened the path, when the path still leads there now.
    struct stat now {};
    if (::lstat(path.c_str(), &now) != 0 || now.st_dev != identity.st_dev || now.st_ino != identity.st_ino) {
        return "moved while it was opened";
    }
    *out = db.release();
    return std::string();
}

} // namespace

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::unique_ptr<StoreDb> StoreDb::open(const std::string& path, std::vector<std::string>& notices,
                                       std::string& error)
{
    sqlite3* db = nullptr;
    bool damaged = false;
    struct stat identity {};
    std::string why = tryOpen(path, &db, damaged, identity);
    if (why.empty()) {
        return std::unique_ptr<StoreDb>(new StoreDb(db, path, identity.st_dev, identity.st_ino));
    }
    if (!damaged) {
        error = "history database " + path + ": " + why;
        return nullptr;
    }
    // Keep the old file (and its journal) for whoever wants to look at it; never delete it.
    std::string aside = path + ".corrupt-" + utcStamp();
    for (int n = 2; ::access(aside.c_str(), F_OK) == 0 && n < 1000; ++n) {
        aside = path + ".corrupt-" + utcStamp() + "-" + std::to_string(n);
    }
    if (::rename(path.c_str(), aside.c_str()) != 0) {
        error = "history database " + path + " cannot be used (" + why + ") nor moved aside: " + std::strerror(errno);
        return nullptr;
    }
    for (const char* suffix : {"-wal", "-shm"}) {
        const std::string from = path + suffix;
        if (::access(from.c_str(), F_OK) == 0) {
            ::rename(from.c_str(), (aside + suffix).c_str());
        }
    }
    notices.push_back("history database " + path + " cannot be used (" + why + "); kept it as " + aside +
                      " and started a new one");
    why = tryOpen(path, &db, damaged, identity);
    if (!why.empty()) {
        error = "history database " + path + ": " + why;
        return nullptr;
    }
    return std::unique_ptr<StoreDb>(new StoreDb(db, path, identity.st_dev, identity.st_ino));
}

bool StoreDb::peek(const std::string& path, int64_t& lastJob, int64_t& pending)
{
    lastJob = 0;
    pending = 0;
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return false;
    }
    sqlite3* opened = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr);
    UniqueDb db(opened);
    if (rc != SQLITE_OK) {
        return false;
    }
    sqlite3_busy_timeout(db.get(), 2000);
    bool ok = true;
    const auto number = [&db, &ok](const char* sql) {
        int64_t value = 0;
        Stmt s(db.get(), sql);
        if (!s.ok() || s.step() != SQLITE_ROW) {
            ok = false;
            return value;
        }
        return s.col64(0);
    };
    lastJob = number(kLastJobSql);
    pending = number(kPendingSql);
    if (!ok) {
        lastJob = 0;
        pending = 0;
    }
    return ok;
}

StoreDb::~StoreDb()
{
    sqlite3_close(m_db);
}

bool StoreDb::movedAway() const
{
    struct stat st {};
    return ::lstat(m_path.c_str(), &st) != 0 || st.st_dev != m_dev || st.st_ino != m_ino;
}

bool StoreDb::checkpoint()
{
    // Through sqlite3_exec, one of the few calls the shell's on-demand SQLite loader knows.
    return exec("PRAGMA wal_checkpoint(TRUNCATE)");
}

bool StoreDb::exec(const char* sql)
{
    const int rc = execSql(m_db, sql, m_error);
    m_damaged = damageCode(rc);
    return rc == SQLITE_OK;
}

bool StoreDb::addQuarantine(const QuarantineEntry& e)
{
    return runChange(m_db,
                     "INSERT OR REPLACE INTO quarantine(id, path, size, mode, uid, gid, atime_ns, mtime_ns, sha256, "
                     "signature, quarantined_at, job) VALUES(?,?,?,?,?,?,?,?,?,?,?,?)",
                     m_error, e.id, Blob{e.originalPath}, e.size, e.mode, e.uid, e.gid, e.atimeNs, e.mtimeNs,
                     e.sha256, e.signature, e.quarantinedAt, e.job);
}

bool StoreDb::removeQuarantine(const std::string& id)
{
    return runChange(m_db, "DELETE FROM quarantine WHERE id=?", m_error, id);
}

namespace {

QuarantineEntry entryFrom(const Stmt& s)
{
    QuarantineEntry e;
    e.id = s.colText(0);
    e.originalPath = s.colText(1);
    e.size = uint64_t(s.col64(2));
    e.mode = uint32_t(s.col64(3));
    e.uid = uint32_t(s.col64(4));
    e.gid = uint32_t(s.col64(5));
    e.atimeNs = s.col64(6);
    e.mtimeNs = s.col64(7);
    e.sha256 = s.colText(8);
    e.signature = s.colText(9);
    e.quarantinedAt = s.col64(10);
    e.job = s.colText(11);
    return e;
}

constexpr const char* kEntryColumns =
    "SELECT id, path, size, mode, uid, gid, atime_ns, mtime_ns, sha256, signature, quarantined_at, job FROM quarantine";

} // namespace

std::vector<QuarantineEntry> StoreDb::quarantineEntries()
{
    std::vector<QuarantineEntry> out;
    forEachRow(m_db, std::string(kEntryColumns) + " ORDER BY quarantined_at DESC, id",
               [&](const Stmt& s) { out.push_back(entryFrom(s)); });
    return out;
}

bool StoreDb::quarantineEntry(const std::string& id, QuarantineEntry& out)
{
    return readRow(m_db, std::string(kEntryColumns) + " WHERE id=?", entryFrom, out, id);
}

bool StoreDb::addJob(JobRecord& job)
{
    if (!exec("BEGIN IMMEDIATE")) {
        return false;
    }
    auto rollback = [&]() {
        m_error = sqlite3_errmsg(m_db);
        const bool damaged = damageCode(sqlite3_errcode(m_db));
        exec("ROLLBACK");
        m_damaged = damaged;
        return false;
    };
    if (!runChange(m_db,
                   "INSERT INTO jobs(job, start_ms, duration_ms, state, files, bytes, infected, errors, skipped, "
                   "partial) VALUES(?,?,?,?,?,?,?,?,?,?)",
                   m_error, job.job, job.startMs, job.durationMs, job.state, job.files, job.bytes, job.infected,
                   job.errors, job.skipped, job.partial)) {
        return rollback();
    }
    job.id = sqlite3_last_insert_rowid(m_db);
    for (const std::string& p : job.paths) {
        if (!runChange(m_db, "INSERT INTO job_paths(job, path) VALUES(?,?)", m_error, job.id, Blob{p})) {
            return rollback();
        }
    }
    for (const FindingRecord& f : job.findings) {
        if (!runChange(m_db, "INSERT INTO findings(job, path, verdict, signature, reason, action) VALUES(?,?,?,?,?,?)",
                       m_error, job.id, Blob{f.path}, f.verdict, f.signature, f.reason, f.action)) {
            return rollback();
        }
    }
    return exec("COMMIT") || rollback();
}

namespace {

JobRecord jobFrom(const Stmt& s)
{
    JobRecord j;
    j.id = s.col64(0);
    j.job = s.colText(1);
    j.startMs = s.col64(2);
    j.durationMs = s.col64(3);
    j.state = s.colText(4);
    j.files = s.col64(5);
    j.bytes = s.col64(6);
    j.infected = s.col64(7);
    j.errors = s.col64(8);
    j.skipped = s.col64(9);
    j.partial = s.col64(10);
    return j;
}

// The paths a job was asked to scan, in the order it was given them.
std::vector<std::string> jobPaths(sqlite3* db, int64_t id)
{
    std::vector<std::string> paths;
    forEachRow(
        db, "SELECT path FROM job_paths WHERE job=? ORDER BY rowid", [&](const Stmt& s) { paths.push_back(s.colText(0)); },
        id);
    return paths;
}

constexpr const char* kJobColumns =
    "SELECT id, job, start_ms, duration_ms, state, files, bytes, infected, errors, skipped, partial FROM jobs";

} // namespace

std::vector<JobRecord> StoreDb::jobs(int limit)
{
    std::vector<JobRecord> out;
    forEachRow(
        m_db, std::string(kJobColumns) + " ORDER BY start_ms DESC, id DESC LIMIT ?",
        [&](const Stmt& s) { out.push_back(jobFrom(s)); }, limit);
    for (JobRecord& j : out) {
        j.paths = jobPaths(m_db, j.id);
    }
    return out;
}

bool StoreDb::job(int64_t id, JobRecord& out)
{
    if (!readRow(m_db, std::string(kJobColumns) + " WHERE id=?", jobFrom, out, id)) {
        return false;
    }
    out.paths = jobPaths(m_db, id);
    forEachRow(
        m_db, "SELECT path, verdict, signature, reason, action FROM findings WHERE job=? ORDER BY rowid",
        [&](const Stmt& f) {
            out.findings.push_back({f.colText(0), f.colText(1), f.colText(2), f.colText(3), f.colText(4)});
        },
        id);
    return true;
}

bool StoreDb::setFindingAction(int64_t id, const std::string& path, const std::string& action)
{
    return runChange(m_db, "UPDATE findings SET action=? WHERE job=? AND path=?", m_error, action, id, Blob{path}) &&
           sqlite3_changes(m_db) > 0;
}

int64_t StoreDb::pendingFindings()
{
    return queryNumber(m_db, kPendingSql);
}

int64_t StoreDb::lastJobId()
{
    return queryNumber(m_db, kLastJobSql);
}

int StoreDb::pruneHistory(int days, int64_t now)
{
    if (days <= 0) {
        return 0;
    }
    const int64_t before = now - int64_t(days) * 86400000;
    if (!runChange(m_db, "DELETE FROM jobs WHERE start_ms < ?", m_error, before)) {
        return -1;
    }
    return sqlite3_changes(m_db);
}

} // namespace store
} // namespace kuv

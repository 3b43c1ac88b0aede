// SPDX-License-Identifier: GPL-2.0-or-later
#include "HistoryWatcher.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include <json/json.h>

#include <QFileInfo>

#include "CppJson.h"
#include "FileUtils.h"
#include "StoreDb.h"
#include "StorePaths.h"

namespace kuv {
namespace shell {

namespace {
// Writes come in bursts (job row, paths, findings); look once they settled.
constexpr int kSettleMs = 200;

// What the start remembers of the history database, beside it: its two numbers with the identity of
// the files they were read from. A start that finds the files as they were needs no SQLite at all.
const char* const kRememberedName = "/history.summary.json";

// Device, inode, size and modification time of path; "-" when it is missing.
std::string fileStamp(const std::string& path)
{
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) {
        return "-";
    }
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
           std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec);
}

struct DbStamp {
    std::string db;
    std::string wal;
    bool operator==(const DbStamp& o) const { return db == o.db && wal == o.wal; }
};

DbStamp dbStamp(const std::string& dataDir)
{
    return DbStamp{fileStamp(dataDir + "/history.sqlite"), fileStamp(dataDir + "/history.sqlite-wal")};
}

// The last job and the pending findings: remembered when the files are unchanged, else read (a
// read-only look) and remembered for the next start.
void startNumbers(int64_t& lastJob, int64_t& pending)
{
    lastJob = 0;
    pending = 0;
    const std::string dataDir = kuv::store::userDataDir();
    const DbStamp before = dbStamp(dataDir);
    if (before.db == "-") {
        // No history yet. The directory is made (0700) so that it can be watched for the first one.
        std::string error;
        kuv::store::openPrivateDir(dataDir, 1, &error);
        return;
    }
    const std::string remembered = dataDir + kRememberedName;
    Json::Value saved;
    if (CppJson::LoadJsonFile(remembered.c_str(), saved) && saved.isObject() &&
        saved["db"].isString() && saved["wal"].isString() && saved["last_job"].isInt64() &&
        saved["pending"].isInt64() && DbStamp{saved["db"].asString(), saved["wal"].asString()} == before) {
        lastJob = saved["last_job"].asInt64();
        pending = saved["pending"].asInt64();
        return;
    }
    if (!kuv::store::peekUserDb(dataDir, lastJob, pending)) {
        return;
    }
    // A read-only look leaves an empty journal behind when there was none; any other difference is a
    // writer that came in between, and then nothing is remembered.
    const DbStamp after = dbStamp(dataDir);
    struct stat wal{};
    const bool walOurs = before.wal == "-" && ::lstat((dataDir + "/history.sqlite-wal").c_str(), &wal) == 0 &&
                         S_ISREG(wal.st_mode) && wal.st_size == 0;
    if (after.db != before.db || (after.wal != before.wal && !walOurs)) {
        return;
    }
    Json::Value out(Json::objectValue);
    out["db"] = after.db;
    out["wal"] = after.wal;
    out["last_job"] = Json::Int64(lastJob);
    out["pending"] = Json::Int64(pending);
    kuv::writeFileAtomic(remembered, Json::FastWriter().write(out), 0600);
}

} // namespace

HistoryWatcher::HistoryWatcher(QObject* parent) : QObject(parent)
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(kSettleMs);
    connect(&m_settle, &QTimer::timeout, this, &HistoryWatcher::check);
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, [this]() { m_settle.start(); });
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, [this]() { m_settle.start(); });
    // Remembered numbers or a quick read-only look rather than a held connection: the full open
    // (schema, integrity check) waits until something changes. Read before the watches are set, so
    // that the look's own traces in the directory are not taken for a change.
    int64_t lastJob = 0;
    int64_t pending = 0;
    startNumbers(lastJob, pending);
    m_lastSeen = lastJob;
    m_startPending = pending;
    arm();
}

HistoryWatcher::~HistoryWatcher() = default;

void HistoryWatcher::arm()
{
    const QString dir = QString::fromStdString(kuv::store::userDataDir());
    QStringList want{dir + QStringLiteral("/history.sqlite-wal"), dir + QStringLiteral("/quarantine")};
    for (const QString& path : want) {
        if (QFileInfo::exists(path) && !m_watcher.files().contains(path) && !m_watcher.directories().contains(path)) {
            m_watcher.addPath(path);
        }
    }
    if (!m_watcher.directories().contains(dir) && QFileInfo::exists(dir)) {
        m_watcher.addPath(dir);
    }
}

qint64 HistoryWatcher::pendingFindings()
{
    if (m_checkPending >= 0) {
        return m_checkPending;
    }
    if (m_db) {
        return m_db->pendingFindings();
    }
    if (m_startPending >= 0) {
        const qint64 pending = m_startPending;
        m_startPending = -1;
        return pending;
    }
    // Asked again before any change was seen: look again.
    int64_t lastJob = 0;
    int64_t pending = 0;
    kuv::store::peekUserDb(kuv::store::userDataDir(), lastJob, pending);
    return pending;
}

void HistoryWatcher::check()
{
    arm();
    if (!m_db) {
        std::vector<std::string> notices;
        std::string error;
        m_db = kuv::store::openUserDb(kuv::store::userDataDir(), notices, error);
        if (!m_db) {
            return;
        }
    }
    std::vector<kuv::store::JobRecord> fresh;
    // A change without a new job (a finding acted on, the quarantine) needs one query, not the last jobs
    // with their paths.
    if (m_db->lastJobId() > m_lastSeen) {
        for (const kuv::store::JobRecord& j : m_db->jobs(50)) {
            if (j.id > m_lastSeen) {
                fresh.push_back(j);
            }
        }
    }
    // In the order they were recorded, which is not always the order they started in.
    std::sort(fresh.begin(), fresh.end(),
              [](const kuv::store::JobRecord& a, const kuv::store::JobRecord& b) { return a.id < b.id; });
    // Read once for everything this look reports: each recorded job and the change itself.
    m_checkPending = std::max<qint64>(0, m_db->pendingFindings());
    for (const kuv::store::JobRecord& j : fresh) {
        m_lastSeen = std::max<qint64>(m_lastSeen, j.id);
        emit jobRecorded(j.id, QString::fromStdString(j.state), j.files, j.infected, j.durationMs);
    }
    emit changed();
    m_checkPending = -1;
}

} // namespace shell
} // namespace kuv

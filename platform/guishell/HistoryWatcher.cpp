// SPDX-License-Identifier: GPL-2.0-or-later
#include "HistoryWatcher.h"

#include <algorithm>
#include <vector>

#include <QFileInfo>

#include "StoreDb.h"
#include "StorePaths.h"

namespace kuv {
namespace shell {

namespace {
// Writes come in bursts (job row, paths, findings); look once they settled.
constexpr int kSettleMs = 200;
} // namespace

HistoryWatcher::HistoryWatcher(QObject* parent) : QObject(parent)
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(kSettleMs);
    connect(&m_settle, &QTimer::timeout, this, &HistoryWatcher::check);
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, [this]() { m_settle.start(); });
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, [this]() { m_settle.start(); });
    // A quick read-only look rather than a held connection: the full open (schema, integrity check)
    // waits until something changes. Read before the watches are set, so that its own traces in the
    // directory are not taken for a change.
    int64_t lastJob = 0;
    int64_t pending = 0;
    kuv::store::peekUserDb(kuv::store::userDataDir(), lastJob, pending);
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
    for (const kuv::store::JobRecord& j : m_db->jobs(50)) {
        if (j.id > m_lastSeen) {
            fresh.push_back(j);
        }
    }
    // In the order they were recorded, which is not always the order they started in.
    std::sort(fresh.begin(), fresh.end(),
              [](const kuv::store::JobRecord& a, const kuv::store::JobRecord& b) { return a.id < b.id; });
    for (const kuv::store::JobRecord& j : fresh) {
        m_lastSeen = std::max<qint64>(m_lastSeen, j.id);
        emit jobRecorded(j.id, QString::fromStdString(j.state), j.files, j.infected, j.durationMs);
    }
    emit changed();
}

} // namespace shell
} // namespace kuv

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
    std::vector<std::string> notices;
    std::string error;
    m_db = kuv::store::openUserDb(kuv::store::userDataDir(), notices, error);
    if (m_db) {
        m_lastSeen = m_db->lastJobId();
    }
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
    return m_db ? m_db->pendingFindings() : 0;
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

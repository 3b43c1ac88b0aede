// SPDX-License-Identifier: GPL-2.0-or-later
// Learns of scan jobs recorded in the user's history, by any process, from file-change events.
#pragma once

#include <memory>

#include <QFileSystemWatcher>
#include <QObject>
#include <QTimer>

namespace kuv {
namespace store {
class StoreDb;
}
namespace shell {

class HistoryWatcher : public QObject {
    Q_OBJECT
public:
    explicit HistoryWatcher(QObject* parent = nullptr);
    ~HistoryWatcher() override;
    // Findings nobody acted on yet.
    qint64 pendingFindings();

signals:
    // A job finished and was recorded after the watcher started.
    void jobRecorded(qint64 id, const QString& state, qint64 files, qint64 infected, qint64 durationMs);
    // The history or the quarantine changed.
    void changed();

private:
    void arm();
    void check();

    QFileSystemWatcher m_watcher;
    QTimer m_settle;
    // Opened at the first change and then held, so that SQLite keeps its journal file, which is what
    // is watched. Until then the start's quick look answers, and the directory tells of changes.
    std::unique_ptr<kuv::store::StoreDb> m_db;
    qint64 m_lastSeen = 0;
    // From the quick look at start; -1 once used.
    qint64 m_startPending = -1;
    // The findings waiting, as read by the look that is reporting; -1 outside it.
    qint64 m_checkPending = -1;
};

} // namespace shell
} // namespace kuv

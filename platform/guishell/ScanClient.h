// SPDX-License-Identifier: GPL-2.0-or-later
// Scan jobs on the back end kuv-scand over the user's bus: requests, progress, results, cancel, status.
// With KUV_SHELL_JOURNAL set, every verdict and job end is journalled once the page has it:
//   {"event":"scan-result","job","path" (string, or {"b64"} when not UTF-8),"verdict","signature","reason","time_ms"}
//   {"event":"scan-end","job","state":"done"|"cancelled"|"failed","reason",...,"time_ms"}
// time_ms is the wall clock in milliseconds since the epoch.
#pragma once

#include "KuvExport.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

class QSocketNotifier;

namespace kuv {
namespace shell {

class ScanBus;


// The shell's own endpoint on the bus, used for scan jobs and back-end status.
constexpr const char* kShellScanGuid = "7E3B9C42-1D5A-4F86-B0E7-2A9C4D6F8E15";

// Bytes of a path for display: UTF-8 as is, control characters as \n, \t, \xHH, other bytes as \xHH.
QString displayPath(const std::string& bytes);
// Adds guid to the runtime directory's subscriber list (once); false when the list cannot be written.
bool addScanSubscriber(const std::string& guid);

struct ScanProgress {
    QString state; // "counting" | "scanning"
    qint64 filesTotal = -1;
    qint64 filesScanned = 0;
    qint64 bytesScanned = 0;
    qint64 bytesTotal = -1;
    qint64 threats = 0;
    qint64 elapsedMs = 0;
    std::string current;
};

struct ScanResultRow {
    std::string path;
    QString verdict;
    QString signature;
    QString reason;
};

struct ScanEnd {
    QString state; // "done" | "cancelled" | "failed"
    QString reason;
    qint64 files = 0;
    qint64 bytes = 0;
    qint64 infected = 0;
    qint64 errors = 0;
    qint64 skipped = 0;
    qint64 partial = 0;
    qint64 durationMs = 0;
    // The back end was not running, or went away during the job.
    bool backendGone = false;
};

class KUV_EXPORT ScanClient : public QObject {
    Q_OBJECT
public:
    enum BackendState {
        BACKEND_UNKNOWN,     // not asked yet
        BACKEND_CONNECTING,  // joining the bus or asking the back end
        BACKEND_NO_BUS,      // the bus broker is not reachable
        BACKEND_NOT_RUNNING, // the broker knows no back end
        BACKEND_STARTING,    // started from here, not reported yet
        BACKEND_RUNNING,     // answering; status() holds its last report
    };

    explicit ScanClient(QObject* parent = nullptr);
    ~ScanClient() override;

    // Joins the bus (once) and asks the back end for its status; never blocks.
    void ensureConnected();
    // A new job; returns its id. origin labels the log line ("context menu", "page").
    QString startJob(const std::vector<std::string>& paths, bool reportClean, const char* origin);
    void cancel(const QString& job);
    // Starts kuv-scand: through the user's systemd manager when it runs, else DIR/bin/kuv-scand detached.
    void startBackend();

    BackendState backendState() const { return m_backend; }
    // The back end's last STATUS body (empty object before one arrived).
    const Json::Value& status() const { return m_status; }
    QString lastError() const { return m_lastError; }
    bool jobOpen(const QString& job) const { return m_jobs.count(job) != 0; }
    int openJobs() const { return static_cast<int>(m_jobs.size()); }

signals:
    void backendChanged();
    void jobCreated(const QString& job, int pathCount);
    void jobAccepted(const QString& job, int position);
    void jobProgress(const QString& job, const kuv::shell::ScanProgress& progress);
    void jobResults(const QString& job, const QVector<kuv::shell::ScanResultRow>& rows);
    void jobEnded(const QString& job, const kuv::shell::ScanEnd& end);
    void eventReceived(const Json::Value& event);

private:
    struct Job {
        std::vector<std::string> paths;
        bool reportClean = false;
        bool accepted = false;
        int64_t backendPid = 0;
    };

    void onConnected(int result, const QString& error);
    void onMessage(int64_t type, Json::Value body);
    void onStatus(Json::Value body);
    void onRequestSent(const QString& job, int result);
    void subscribe();
    void armWatchdog();
    void onWatchdog();
    void failJob(const QString& job, const QString& reason, bool backendGone);
    void failAll(const QString& reason);
    void setBackend(BackendState state, const QString& error = QString());
    void startDirect();
    // Watches the back end's process (pidfd): its end fails the open jobs at once.
    void watchBackend(int64_t pid);
    void onBackendExit();
    void probeAfterStart(int attempt);
    ScanBus& bus();

    std::unique_ptr<ScanBus> m_bus;
    BackendState m_backend = BACKEND_UNKNOWN;
    Json::Value m_status{Json::objectValue};
    int64_t m_backendPid = 0;
    QString m_lastError;
    std::map<QString, Job> m_jobs;
    QTimer m_watchdog;
    int m_pidfd = -1;
    int64_t m_watchedPid = 0;
    std::unique_ptr<QSocketNotifier> m_pidNotifier;
    bool m_probing = false;
    int m_startGeneration = 0;
    // The request that found no back end; sent again once a back end started from here reports.
    std::vector<std::string> m_retryPaths;
    bool m_retryReportClean = false;
    bool m_retryArmed = false;
    unsigned m_counter = 0;
};

} // namespace shell
} // namespace kuv

Q_DECLARE_METATYPE(kuv::shell::ScanProgress)
Q_DECLARE_METATYPE(kuv::shell::ScanEnd)

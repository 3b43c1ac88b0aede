// SPDX-License-Identifier: GPL-2.0-or-later
// Scan page: scans started here or from the file manager, their live progress, results and the back end.
#pragma once

#include "KuvExport.h"

#include <string>
#include <vector>

#include <QElapsedTimer>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QWidget>

#include "ScanClient.h"

class QFrame;
class QLabel;
class QProgressBar;
class QPushButton;
class QTreeWidget;

namespace kuv {
namespace shell {

class KUV_EXPORT ScanPage : public QWidget {
    Q_OBJECT
public:
    explicit ScanPage(QWidget* parent = nullptr);

    // The client that runs the jobs (owned by the shell); null leaves the page without a back end.
    void setClient(ScanClient* client);
    // Starts a job for these exact path bytes. reportClean shows clean files in the list too.
    void scanPaths(const std::vector<std::string>& paths, bool reportClean, const char* origin);
    QString currentJob() const { return m_job; }
    int resultCount() const;

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    enum Phase { PHASE_IDLE, PHASE_SENDING, PHASE_WAITING, PHASE_RUNNING, PHASE_DONE, PHASE_CANCELLED, PHASE_FAILED };

    void retranslate();
    // The job's and the back end's state are drawn once for all the messages that arrive within a
    // short interval, and not at all while the page is hidden (it catches up when shown).
    void scheduleShow(bool job, bool backend);
    void flushShow();
    void showBackend();
    // What showBackend draws from, as one string.
    std::string backendInputs() const;
    void setBackendStyle(const char* style);
    void showJob();
    // The bar of a wait: busy once the wait has lasted, empty before.
    void showBusy();
    // Text colour (and weight) of a label, changed only when it differs from what it has.
    enum Tone { TONE_PLAIN, TONE_GOOD, TONE_BAD, TONE_BAD_BOLD };
    static void setTone(QLabel* label, Tone& current, Tone wanted);
    void tickElapsed();
    void onJobCreated(const QString& job, int pathCount);
    void onAccepted(const QString& job, int position);
    void onProgress(const QString& job, const ScanProgress& progress);
    void onResults(const QString& job, const QVector<ScanResultRow>& rows);
    void onEnded(const QString& job, const ScanEnd& end);
    void chooseFile();
    void chooseFolder();
    QString verdictText(const QString& verdict) const;
    QString formatBytes(qint64 bytes) const;

    QPointer<ScanClient> m_client;
    QString m_job;
    Phase m_phase = PHASE_IDLE;
    int m_position = 0;
    int m_pathCount = 0;
    ScanProgress m_progressData;
    ScanEnd m_end;
    qint64 m_threats = 0;
    bool m_backendGone = false;
    QElapsedTimer m_clock;
    qint64 m_elapsedMs = 0;
    // Ticks the elapsed time once a second, only while a job runs.
    QTimer m_elapsedTimer;
    bool m_jobDirty = false;
    bool m_backendDirty = false;
    // Runs the drawing once after the first change; what arrives meanwhile is drawn with it.
    QTimer m_showTimer;
    // What the back-end box shows was made from; the same inputs need no new texts or style.
    std::string m_backendShown;
    Tone m_stateTone = TONE_PLAIN;
    Tone m_threatsTone = TONE_PLAIN;
    // Since when the job waits (sending, queued, counting); invalid while it does not.
    QElapsedTimer m_busyClock;

    QLabel* m_title;
    QFrame* m_backendBox;
    QLabel* m_backendText;
    QPushButton* m_startBackend;
    QLabel* m_engineLine;
    QPushButton* m_scanFile;
    QPushButton* m_scanFolder;
    QPushButton* m_scanHome;
    QPushButton* m_cancel;
    QLabel* m_dropHint;
    QLabel* m_stateText;
    QProgressBar* m_progress;
    QLabel* m_filesCaption;
    QLabel* m_filesValue;
    QLabel* m_bytesCaption;
    QLabel* m_bytesValue;
    QLabel* m_threatsCaption;
    QLabel* m_threatsValue;
    QLabel* m_elapsedCaption;
    QLabel* m_elapsedValue;
    QLabel* m_currentCaption;
    QLabel* m_currentValue;
    QTreeWidget* m_list;
};

} // namespace shell
} // namespace kuv

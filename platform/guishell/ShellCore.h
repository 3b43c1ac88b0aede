// SPDX-License-Identifier: GPL-2.0-or-later
// The shell on the GUI thread: main window, tray, language, control requests and the quit sequence.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <QObject>
#include <QPointer>
#include <QSet>
#include <QStringList>
#include <QTimer>

#include "KuvGuiInterface.h"

class QLabel;
class QMenu;
class QSystemTrayIcon;
class QTranslator;

namespace kuv {
namespace shell {

class DesktopNotifier;
class HistoryWatcher;
class MainWindow;
class ScanClient;
class TrayController;

class ShellCore : public QObject {
    Q_OBJECT
public:
    ShellCore();
    ~ShellCore() override;

    // Builds the window and tray; GUI thread.
    void build(sUninstallFunc uninstall);
    // Drops the window and tray after the event loop ended; GUI thread.
    void teardown();
    // Whether control requests are taken (between build and teardown); any thread.
    bool isUp() const { return m_up.load(); }
    // The main window, built on first use while the shell is up; null otherwise. GUI thread.
    MainWindow* window();

public slots:
    void showMain();
    void scan(const std::vector<std::string>& paths);
    void quit();
    void applyLanguage();

    // The tray and the notifications; a test reaches them here.
    TrayController* tray() const { return m_tray.get(); }
    MainWindow* window() const { return m_window.get(); }

private:
    void onUnloadComplete();
    void onJobRecorded(qint64 id, const QString& state, qint64 files, qint64 infected, qint64 durationMs);
    void updateAttention();
    // The window's state line, from the tray's state now.
    void showStateLine();
    void finishQuit(bool timedOut);

    sUninstallFunc m_uninstall{nullptr, nullptr};
    std::unique_ptr<ScanClient> m_scanClient;
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<TrayController> m_tray;
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<HistoryWatcher> m_historyWatcher;
    std::vector<std::unique_ptr<QTranslator>> m_translators;
    QSet<QString> m_runningJobs;
    std::atomic<bool> m_up{false};
    bool m_quitting = false;
    QTimer m_quitTimer;
    // The state line in the window's status bar (null until the window is built), and what paces it.
    QPointer<QLabel> m_stateLine;
    QTimer m_stateLineTimer;
    QMetaObject::Connection m_unloadConnection;
};

} // namespace shell
} // namespace kuv

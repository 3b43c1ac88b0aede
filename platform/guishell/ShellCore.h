// The shell on the GUI thread: main window, tray, language, control requests and the quit sequence.
#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include <QObject>
#include <QStringList>
#include <QTimer>

#include "KuvGuiInterface.h"

class QMenu;
class QSystemTrayIcon;
class QTranslator;

namespace kuv {
namespace shell {

class DesktopNotifier;
class HistoryWatcher;
class MainWindow;
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

public slots:
    void showMain();
    void scan(const QStringList& paths);
    void quit();
    void applyLanguage();

    // The tray and the notifications; a test reaches them here.
    TrayController* tray() const { return m_tray.get(); }
    MainWindow* window() const { return m_window.get(); }

private:
    void onUnloadComplete();
    void onJobRecorded(qint64 id, const QString& state, qint64 files, qint64 infected, qint64 durationMs);
    void updateAttention();
    void finishQuit(bool timedOut);

    sUninstallFunc m_uninstall{nullptr, nullptr};
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<TrayController> m_tray;
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<HistoryWatcher> m_historyWatcher;
    std::vector<std::unique_ptr<QTranslator>> m_translators;
    std::atomic<bool> m_up{false};
    bool m_quitting = false;
    QTimer m_quitTimer;
    QMetaObject::Connection m_unloadConnection;
};

} // namespace shell
} // namespace kuv

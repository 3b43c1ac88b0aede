// SPDX-License-Identifier: GPL-2.0-or-later
// The tray icon: protection state (protected, scanning, attention needed) and a menu to open the
// window, scan a folder and quit. Without a system tray it stays hidden and nothing fails.
#pragma once

#include <memory>

#include <QIcon>
#include <QObject>
#include <QString>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace kuv {
namespace shell {

class TrayController : public QObject {
    Q_OBJECT
public:
    enum State { STATE_PROTECTED, STATE_SCANNING, STATE_ATTENTION };

    explicit TrayController(QObject* parent = nullptr);
    ~TrayController() override;

    bool shown() const;
    State state() const { return m_state; }
    // One line for the window's status bar, same as the tray's tooltip.
    QString stateText() const;
    static QIcon stateIcon(State state);
    void retranslate();

public slots:
    // Scans running (from the scan client) and findings waiting for a decision decide the state.
    void setScanning(bool scanning);
    void setPendingFindings(qint64 count);

signals:
    void openRequested();
    void scanFolderRequested(const QString& folder);
    void quitRequested();
    void stateChanged(kuv::shell::TrayController::State state);
    // stateText() changed: the state, or the number of findings waiting.
    void stateTextChanged();

private:
    void update();

    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QAction* m_open = nullptr;
    QAction* m_scanFolder = nullptr;
    QAction* m_quit = nullptr;
    State m_state = STATE_PROTECTED;
    bool m_iconSet = false;
    QString m_text;
    bool m_scanning = false;
    qint64 m_pending = 0;
};

} // namespace shell
} // namespace kuv

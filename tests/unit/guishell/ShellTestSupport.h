// SPDX-License-Identifier: GPL-2.0-or-later
// Shared set-up of the GUI shell tests: a private installation and runtime directory, the journal,
// and running code on the GUI thread from a worker.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QString>

class QAbstractButton;
class QWidget;

namespace shelltest {

// Creates DIR (install), DIR/etc, a private XDG_RUNTIME_DIR and the journal path; sets the environment.
struct Sandbox {
    Sandbox();
    ~Sandbox();
    std::string root;
    std::string installDir; // with a final "/"
    std::string journalPath;
    // The installation's gui_shell.conf.
    void writeShellConf(const std::string& json) const;
    // The user's own one ($XDG_CONFIG_HOME/kuv/gui_shell.conf), which overlays the installation's.
    void writeUserShellConf(const std::string& json) const;
    std::string userConfDir;
};

std::vector<Json::Value> readJournal(const std::string& path);
// Runs fn on the GUI thread and waits for it; for workers while exec() runs.
void onGui(const std::function<void()>& fn);
// Polls cond on the GUI thread (from a worker) until it holds; false after timeoutMs.
bool waitOnGui(const std::function<bool()>& cond, int timeoutMs = 30000);
// Polls cond while spinning the event loop on the calling (GUI) thread.
inline bool spinUntil(const std::function<bool()>& cond, int timeoutMs = 30000)
{
    QElapsedTimer t;
    t.start();
    while (!cond()) {
        if (t.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

QWidget* mainWindow();

// The window's navigation column ("kuvNavigation": exclusive checkable buttons, shell pages then plugin
// pages), read afresh on every call so that plugin entries that come and go are seen.
class Nav {
public:
    explicit Nav(QWidget* window) : m_window(window) {}
    bool valid() const;
    int count() const;
    QAbstractButton* button(int row) const;
    QString text(int row) const;
    // The checked entry's row, -1 when none is.
    int currentRow() const;
    // Chooses the entry as a click does.
    void setCurrentRow(int row) const;

private:
    QWidget* m_window;
};

// Pages other than the overview are built when first chosen: chooses the navigation row whose page is
// named pageName (building it) and returns that page, or null when no row leads to it. GUI thread.
QWidget* choosePage(QWidget* window, const char* pageName);

} // namespace shelltest

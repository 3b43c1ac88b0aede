// SPDX-License-Identifier: GPL-2.0-or-later
#include "ShellTestSupport.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QAbstractButton>
#include <QButtonGroup>
#include <QStackedWidget>
#include <QWidget>

#include "CppJson.h"

namespace kuv {
namespace shell {
QWidget* mainWindow();
}
} // namespace kuv

namespace shelltest {

namespace {
std::string makeTempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kuv-shelltest-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    const char* made = mkdtemp(buf.data());
    return made == nullptr ? std::string() : std::string(made);
}
} // namespace

Sandbox::Sandbox()
{
    root = makeTempDir();
    installDir = root + "/install/";
    QDir().mkpath(QString::fromStdString(installDir + "etc/plugins-gui/combo_plugin_map"));
    QDir().mkpath(QString::fromStdString(installDir + "etc/plugins-gui/plugins"));
    QDir().mkpath(QString::fromStdString(installDir + "log"));
    const std::string runtime = root + "/runtime";
    QDir().mkpath(QString::fromStdString(runtime));
    QFile::setPermissions(QString::fromStdString(runtime), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    journalPath = root + "/journal.jsonl";
    setenv("KUV_INSTALL_DIR", installDir.c_str(), 1);
    unsetenv("KUV_CONFIG_DIR");
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    setenv("KUV_SHELL_JOURNAL", journalPath.c_str(), 1);
    // Quarantine, history and scan settings of the shell stay in the sandbox too.
    setenv("XDG_DATA_HOME", (root + "/data").c_str(), 1);
    // The user's own settings live here; the locale is left out, so setLan decides unless a test says.
    userConfDir = root + "/config/kuv/";
    setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        unsetenv(name);
    }
}

Sandbox::~Sandbox()
{
    if (!root.empty()) {
        QDir(QString::fromStdString(root)).removeRecursively();
    }
}

void Sandbox::writeShellConf(const std::string& json) const
{
    std::ofstream out(installDir + "etc/gui_shell.conf", std::ios::trunc);
    out << json;
}

void Sandbox::writeUserShellConf(const std::string& json) const
{
    QDir().mkpath(QString::fromStdString(userConfDir));
    std::ofstream out(userConfDir + "gui_shell.conf", std::ios::trunc);
    out << json;
}

std::vector<Json::Value> readJournal(const std::string& path)
{
    std::vector<Json::Value> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        Json::Value v;
        if (CppJson::LoadJsonString(line, v)) {
            out.push_back(v);
        } else {
            Json::Value bad;
            bad["unparsable"] = line;
            out.push_back(bad);
        }
    }
    return out;
}

void onGui(const std::function<void()>& fn)
{
    QMetaObject::invokeMethod(qApp, fn, Qt::BlockingQueuedConnection);
}

bool waitOnGui(const std::function<bool()>& cond, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        bool ok = false;
        onGui([&] { ok = cond(); });
        if (ok) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

QWidget* mainWindow()
{
    for (QWidget* w : QApplication::topLevelWidgets()) {
        if (w->objectName() == QLatin1String("KuvMainWindow")) {
            return w;
        }
    }
    // The shell builds its window when it is first wanted.
    return kuv::shell::mainWindow();
}

namespace {
QList<QAbstractButton*> navButtons(QWidget* window)
{
    QWidget* nav = window != nullptr ? window->findChild<QWidget*>(QStringLiteral("kuvNavigation")) : nullptr;
    QButtonGroup* group = nav != nullptr ? nav->findChild<QButtonGroup*>() : nullptr;
    return group != nullptr ? group->buttons() : QList<QAbstractButton*>();
}
} // namespace

bool Nav::valid() const
{
    return m_window != nullptr && m_window->findChild<QWidget*>(QStringLiteral("kuvNavigation")) != nullptr &&
           !navButtons(m_window).isEmpty();
}

int Nav::count() const
{
    return navButtons(m_window).size();
}

QAbstractButton* Nav::button(int row) const
{
    const QList<QAbstractButton*> all = navButtons(m_window);
    return row >= 0 && row < all.size() ? all[row] : nullptr;
}

QString Nav::text(int row) const
{
    QAbstractButton* b = button(row);
    return b != nullptr ? b->text() : QString();
}

int Nav::currentRow() const
{
    const QList<QAbstractButton*> all = navButtons(m_window);
    for (int row = 0; row < all.size(); ++row) {
        if (all[row]->isChecked()) {
            return row;
        }
    }
    return -1;
}

void Nav::setCurrentRow(int row) const
{
    if (QAbstractButton* b = button(row)) {
        b->click();
    }
}

QWidget* choosePage(QWidget* window, const char* pageName)
{
    Nav nav(window);
    auto* stack = window != nullptr ? window->findChild<QStackedWidget*>(QStringLiteral("kuvPages")) : nullptr;
    if (!nav.valid() || stack == nullptr) {
        return nullptr;
    }
    for (int row = 0; row < nav.count(); ++row) {
        nav.setCurrentRow(row);
        QWidget* current = stack->currentWidget();
        if (current != nullptr && current->objectName() == QLatin1String(pageName)) {
            return current;
        }
    }
    return nullptr;
}

} // namespace shelltest

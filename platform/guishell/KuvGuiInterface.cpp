#include "KuvGuiInterface.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <string>

#include <QApplication>
#include <QThread>

#include "CLogDebug.h"
#include "FileUtils.h"
#include "MainWindow.h"
#include "ShellCore.h"
#include "ShellSettings.h"

namespace {

const char* const kSource = "platform/guishell/KuvGuiInterface";

#define SH_LOG(level, ...) CLogDebug::Instance()->LogPrint(level, kSource, __func__, __LINE__, __VA_ARGS__)

std::mutex g_mutex;
// Both live until the process ends: destroying a QApplication during static destruction races Qt's
// own global objects, and a plugin that missed the quit deadline may still hold widgets.
QApplication* g_app = nullptr;
kuv::shell::ShellCore* g_core = nullptr;
// Set by the first event the loop handles: from then on program launches run when asked for.
std::atomic<bool> g_loopUp{false};

// The platform Qt will pick: "-platform X" on the command line, else QT_QPA_PLATFORM, else xcb.
std::string platformName(int argc, char** argv)
{
    for (int i = 1; i + 1 < argc; ++i) {
        if (argv[i] != nullptr && std::strcmp(argv[i], "-platform") == 0 && argv[i + 1] != nullptr) {
            return argv[i + 1];
        }
    }
    const char* env = std::getenv("QT_QPA_PLATFORM");
    return env != nullptr && *env != '\0' ? std::string(env) : std::string("xcb");
}

bool envSet(const char* name)
{
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0';
}

// QApplication aborts the process when its platform cannot start; refuse before that can happen.
bool guiPossible(int argc, char** argv, std::string& reason)
{
    const std::string platform = platformName(argc, argv);
    const std::string base = platform.substr(0, platform.find(':'));
    if (base == "xcb" && !envSet("DISPLAY")) {
        reason = "platform xcb but DISPLAY is not set";
        return false;
    }
    if (base.rfind("wayland", 0) == 0 && !envSet("WAYLAND_DISPLAY")) {
        reason = "platform wayland but WAYLAND_DISPLAY is not set";
        return false;
    }
    return true;
}

// Runs fn on the GUI thread; false when the shell is not up.
template <typename Fn>
bool post(Fn fn)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_core == nullptr || !g_core->isUp()) {
        return false;
    }
    kuv::shell::ShellCore* core = g_core;
    return QMetaObject::invokeMethod(
        core, [core, fn]() { fn(core); }, Qt::QueuedConnection);
}

Json::Value ctrlRecord(int code)
{
    Json::Value v(Json::objectValue);
    v["event"] = "ctrl";
    v["code"] = code;
    return v;
}

} // namespace

int KuvGuiInterface::init(int& argc, char** argv, sUninstallFunc uninstall)
{
    Json::Value rec(Json::objectValue);
    rec["event"] = "init";
    kuv::shell::journal(rec);

    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_core != nullptr && g_core->isUp()) {
        SH_LOG(LOG_LEVEL_WARN, "GUI shell already initialised");
        return 0;
    }
    if (QCoreApplication::instance() == nullptr) {
        std::string reason;
        if (!guiPossible(argc, argv, reason)) {
            SH_LOG(LOG_LEVEL_ERROR, "no GUI: %s", kuv::escapeControl(reason).c_str());
            return 1;
        }
        // argc is kept by reference inside QApplication; the caller's lives as long as the process.
        g_app = new QApplication(argc, argv);
    } else if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr) {
        SH_LOG(LOG_LEVEL_ERROR, "no GUI: a non-GUI application object exists already");
        return 2;
    }
    if (QThread::currentThread() != QCoreApplication::instance()->thread()) {
        SH_LOG(LOG_LEVEL_ERROR, "no GUI: init called outside the application's thread");
        return 3;
    }
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setApplicationName(QStringLiteral("kuvgui"));
    if (g_core == nullptr) {
        g_core = new kuv::shell::ShellCore();
    }
    g_core->build(uninstall);
    // Launches asked for while the service is still starting (its guard script) wait for the event
    // loop: a start is over sooner without them.
    g_loopUp.store(false);
    QMetaObject::invokeMethod(qApp, []() { g_loopUp.store(true); }, Qt::QueuedConnection);
    kuv::setLaunchDeferral([](std::function<void()> launch) {
        QCoreApplication* app = QCoreApplication::instance();
        if (g_loopUp.load() || app == nullptr) {
            return false;
        }
        return QMetaObject::invokeMethod(app, [launch]() { launch(); }, Qt::QueuedConnection);
    });
    SH_LOG(LOG_LEVEL_INFO, "GUI shell initialised on platform %s",
           kuv::escapeControl(QApplication::platformName().toStdString()).c_str());
    return 0;
}

int KuvGuiInterface::exec()
{
    kuv::shell::ShellCore* core = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        core = g_core;
    }
    if (core == nullptr || !core->isUp()) {
        SH_LOG(LOG_LEVEL_ERROR, "exec without a successful init");
        return -1;
    }
    const int rc = QApplication::exec();
    kuv::setLaunchDeferral(nullptr);
    g_loopUp.store(true);
    Json::Value rec(Json::objectValue);
    rec["event"] = "exec-end";
    kuv::shell::journal(rec);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        core->teardown();
    }
    SH_LOG(LOG_LEVEL_INFO, "GUI event loop ended with %d", rc);
    return rc;
}

bool KuvGuiInterface::ctrl(_GUI_CTR_TYPE type, void* arg)
{
    switch (type) {
    case GUI_CTR_SHOW_MAIN:
        kuv::shell::journal(ctrlRecord(0));
        return post([](kuv::shell::ShellCore* core) { core->showMain(); });
    case GUI_CTR_CONTEXT_MENU_SCAN: {
        // The caller's list lives only for this call: copy it now.
        QStringList paths;
        Json::Value rec = ctrlRecord(1);
        Json::Value jpaths(Json::arrayValue);
        if (arg != nullptr) {
            for (const std::string& p : *static_cast<const std::list<std::string>*>(arg)) {
                paths << QString::fromStdString(p);
                jpaths.append(p);
            }
        }
        rec["paths"] = jpaths;
        kuv::shell::journal(rec);
        return post([paths](kuv::shell::ShellCore* core) { core->scan(paths); });
    }
    case GUI_CTR_STOP_BACKEND: {
        const bool answer = kuv::shell::stopBackendOnQuit();
        Json::Value rec = ctrlRecord(2);
        rec["answer"] = answer;
        kuv::shell::journal(rec);
        return answer;
    }
    case GUI_CTR_QUIT:
        kuv::shell::journal(ctrlRecord(3));
        return post([](kuv::shell::ShellCore* core) { core->quit(); });
    }
    kuv::shell::journal(ctrlRecord(static_cast<int>(type)));
    SH_LOG(LOG_LEVEL_WARN, "unknown control code %d", static_cast<int>(type));
    return false;
}

namespace kuv {
namespace shell {

// The main window, built now if the shell is up and has not built it yet; GUI thread. For tools and tests.
QWidget* mainWindow()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_core != nullptr ? g_core->window() : nullptr;
}

} // namespace shell
} // namespace kuv

namespace basegui {

void Common::setLan(const std::string& language)
{
    kuv::shell::setRequestedLanguage(language);
    // Already showing: switch now (the "language" key in gui_shell.conf still wins).
    post([](kuv::shell::ShellCore* core) { core->applyLanguage(); });
}

std::string Common::getLan()
{
    return kuv::shell::requestedLanguage();
}

} // namespace basegui

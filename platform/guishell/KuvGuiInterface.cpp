// SPDX-License-Identifier: GPL-2.0-or-later
#include "KuvGuiInterface.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include <QApplication>
#include <QPainter>
#include <QProxyStyle>
#include <QStyle>
#include <QStyleFactory>
#include <QStyleOption>
#include <QThread>

#include "AppIcon.h"
#include "KuvLog.h"
#include "FileUtils.h"
#include "MainWindow.h"
#include "QuitSignals.h"
#include "ScanPaths.h"
#include "Utf8.h"
#include "ShellCore.h"
#include "ShellSettings.h"

namespace {

KUV_LOG_SOURCE("platform/guishell/KuvGuiInterface");


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

// Qt's own messages belong in the service log, not on the terminal that started the service.
void qtMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    _LOG_LEVEL level = LOG_LEVEL_INFO;
    switch (type) {
    case QtDebugMsg:
        level = LOG_LEVEL_DEBUG;
        break;
    case QtInfoMsg:
        level = LOG_LEVEL_INFO;
        break;
    case QtWarningMsg:
        level = LOG_LEVEL_WARN;
        break;
    case QtCriticalMsg:
    case QtFatalMsg:
        level = LOG_LEVEL_ERROR;
        break;
    }
    const std::string text = message.toStdString();
    const char* category = context.category != nullptr ? context.category : "default";
    CLogDebug* log = CLogDebug::Instance();
    if (log != nullptr) {
        log->LogPrint(level, "platform/guishell/Qt", context.function != nullptr ? context.function : "qt",
                      context.line > 0 ? static_cast<unsigned>(context.line) : 0u, "[%s] %s", category, text.c_str());
    }
    // Qt aborts right after a fatal message: the terminal gets that one too.
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "kuvgui: Qt: %s\n", kuv::escapeControl(text).c_str());
    }
}

// The menu bar's overflow button asks the style for its icon when the bar is made, and the common
// style reads that from PNG files through Qt's image-format probing, which loads every image-format
// plugin (JPEG, GIF, ICO...) at start. Painted here instead; everything else is the chosen style's.
class ShellStyle final : public QProxyStyle {
public:
    using QProxyStyle::QProxyStyle;

    QIcon standardIcon(StandardPixmap icon, const QStyleOption* option, const QWidget* widget) const override
    {
        if (icon == SP_ToolBarHorizontalExtensionButton || icon == SP_ToolBarVerticalExtensionButton) {
            return kuv::shell::extensionIcon(icon == SP_ToolBarHorizontalExtensionButton);
        }
        return QProxyStyle::standardIcon(icon, option, widget);
    }

    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget) const override
    {
        // Fusion frames a group box with a PNG, loaded (with the same probing) at every paint.
        if (element == PE_FrameGroupBox && baseStyle()->objectName() == QLatin1String("fusion")) {
            painter->save();
            painter->setRenderHint(QPainter::Antialiasing);
            painter->setPen(QPen(QColor(0, 0, 0, 40), 1));
            painter->setBrush(QColor(0, 0, 0, 8));
            painter->drawRoundedRect(QRectF(option->rect).adjusted(0.5, 0.5, -0.5, -0.5), 2.5, 2.5);
            painter->restore();
            return;
        }
        QProxyStyle::drawPrimitive(element, option, painter, widget);
    }
};

void installShellStyle()
{
    QStyle* current = QApplication::style();
    if (current == nullptr || dynamic_cast<ShellStyle*>(current) != nullptr || current->objectName().isEmpty()) {
        return;
    }
    // A new instance of the same style (by its key) under the proxy; the application deletes the old one.
    QStyle* base = QStyleFactory::create(current->objectName());
    if (base != nullptr) {
        QApplication::setStyle(new ShellStyle(base));
    }
}

// A start that ends here says why where the person who started it looks, not only in the log.
void refuse(const std::string& reason)
{
    KUV_LOG(kuv::LogLevel::Error, "no GUI: %s", reason.c_str());
    std::fprintf(stderr, "kuvgui: no GUI: %s\n", kuv::escapeControl(reason).c_str());
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

namespace {

// The first start's own command line, as a later start would have forwarded it: "right PATHS" scans
// them, nothing at all shows the window, unless the session started the service (KUV_START_HIDDEN=1:
// the autostart entry, the user unit, and the restarts of such a service), when it stays in the tray.
// Runs once the shell takes control requests.
void runFirstStartCommand(const std::vector<std::string>& args)
{
    if (args.size() < 2) {
        const char* hidden = std::getenv("KUV_START_HIDDEN");
        if (hidden != nullptr && std::strcmp(hidden, "1") == 0) {
            KUV_LOG(kuv::LogLevel::Info, "started by the session (KUV_START_HIDDEN=1): the window stays hidden");
            return;
        }
        KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr);
        return;
    }
    if (args[1] == "right" && args.size() > 2) {
        std::list<std::string> paths(args.begin() + 2, args.end());
        KuvGuiInterface::ctrl(GUI_CTR_CONTEXT_MENU_SCAN, &paths);
    }
}

int initShell(int& argc, char** argv, sUninstallFunc uninstall, bool& firstStartCommand);

} // namespace

int KuvGuiInterface::init(int& argc, char** argv, sUninstallFunc uninstall)
{
    // Taken before Qt removes the words it knows (-style, -reverse...), so a path is kept as given.
    std::vector<std::string> args;
    for (int i = 0; argv != nullptr && i < argc && argv[i] != nullptr; ++i) {
        args.emplace_back(argv[i]);
    }
    bool firstStartCommand = false;
    const int rc = initShell(argc, argv, uninstall, firstStartCommand);
    if (rc == 0 && firstStartCommand) {
        runFirstStartCommand(args);
    }
    return rc;
}

namespace {

int initShell(int& argc, char** argv, sUninstallFunc uninstall, bool& firstStartCommand)
{
    Json::Value rec(Json::objectValue);
    rec["event"] = "init";
    kuv::shell::journal(rec);

    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_core != nullptr && g_core->isUp()) {
        KUV_LOG(kuv::LogLevel::Warn, "GUI shell already initialised");
        return 0;
    }
    // From here on SIGTERM, SIGINT and SIGHUP wait for the event loop and then quit like `kuvgui quit`.
    kuv::shell::installQuitSignals();
    qInstallMessageHandler(&qtMessage);
    if (QCoreApplication::instance() == nullptr) {
        std::string reason;
        if (!guiPossible(argc, argv, reason)) {
            refuse(reason);
            return 1;
        }
        // argc is kept by reference inside QApplication; the caller's lives as long as the process.
        g_app = new QApplication(argc, argv);
    } else if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr) {
        refuse("a non-GUI application object exists already");
        return 2;
    }
    if (QThread::currentThread() != QCoreApplication::instance()->thread()) {
        refuse("init called outside the application's thread");
        return 3;
    }
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setApplicationName(QStringLiteral("kuvgui"));
    installShellStyle();
    if (g_core == nullptr) {
        g_core = new kuv::shell::ShellCore();
    }
    g_core->build(uninstall);
    kuv::shell::watchQuitSignals();
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
    KUV_LOG(kuv::LogLevel::Info, "GUI shell initialised on platform %s",
           QApplication::platformName().toStdString().c_str());
    firstStartCommand = true;
    return 0;
}

} // namespace

int KuvGuiInterface::exec()
{
    kuv::shell::ShellCore* core = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        core = g_core;
    }
    if (core == nullptr || !core->isUp()) {
        KUV_LOG(kuv::LogLevel::Error, "exec without a successful init");
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
    KUV_LOG(kuv::LogLevel::Info, "GUI event loop ended with %d", rc);
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
        // Bytes as given: a file name need not be UTF-8.
        std::vector<std::string> paths;
        const bool journalling = kuv::shell::journalling();
        Json::Value jpaths(Json::arrayValue);
        if (arg != nullptr) {
            for (const std::string& p : *static_cast<const std::list<std::string>*>(arg)) {
                // Names that are not UTF-8 keep their bytes: in the list and in the journal, where
                // they are marked {"b64": ...}.
                paths.push_back(p);
                if (journalling) {
                    jpaths.append(kuvscan::pathToJson(p));
                }
                if (!kuv::isValidUtf8(p)) {
                    KUV_LOG(kuv::LogLevel::Warn, "scan request names %s, which is not UTF-8; kept byte for byte", p.c_str());
                }
            }
        }
        if (journalling) {
            Json::Value rec = ctrlRecord(1);
            rec["paths"] = jpaths;
            kuv::shell::journal(rec);
        }
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
    KUV_LOG(kuv::LogLevel::Warn, "unknown control code %d", static_cast<int>(type));
    return false;
}

namespace kuv {
namespace shell {

// The main window, built now if the shell is up and has not built it yet; GUI thread. For tools and tests.
KUV_EXPORT QWidget* mainWindow()
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

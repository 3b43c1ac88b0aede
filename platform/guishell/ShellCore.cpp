#include "ShellCore.h"

#include <QApplication>
#include <QDir>
#include <QLocale>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTranslator>

#include "AppIcon.h"
#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "FileUtils.h"
#include "MainWindow.h"
#include "ScanClient.h"
#include "ShellSettings.h"

namespace kuv {
namespace shell {

namespace {

const char* const kSource = "platform/guishell/ShellCore";
// How long quitting waits for the plugin loader to report the unloads it was asked for.
constexpr int kQuitWaitMs = 5000;

#define SH_LOG(level, ...) CLogDebug::Instance()->LogPrint(level, kSource, __func__, __LINE__, __VA_ARGS__)

// "zh-CN" -> "zh_CN"; the catalogs are named after the locale.
QString catalogSuffix(const std::string& language)
{
    return QLocale(QString::fromStdString(language).replace(QLatin1Char('-'), QLatin1Char('_'))).name();
}

QStringList catalogsFor(const std::string& language)
{
    // Source strings are English: no catalog needed.
    if (language.rfind("en", 0) == 0) {
        return {};
    }
    const QString suffix = catalogSuffix(language);
    QStringList out;
    const QDir dir(QStringLiteral(":/kuvgui/i18n"));
    for (const QString& name : dir.entryList({QStringLiteral("*_") + suffix + QStringLiteral(".qm")}, QDir::Files,
                                             QDir::Name)) {
        out << dir.filePath(name);
    }
    return out;
}

} // namespace

ShellCore::ShellCore()
{
    m_quitTimer.setSingleShot(true);
    m_quitTimer.setInterval(kQuitWaitMs);
    connect(&m_quitTimer, &QTimer::timeout, this, [this]() { finishQuit(true); });
}

ShellCore::~ShellCore() = default;

void ShellCore::build(sUninstallFunc uninstall)
{
    m_uninstall = uninstall;
    m_quitting = false;
    applyLanguage();
    if (!m_scanClient) {
        m_scanClient = std::make_unique<ScanClient>();
    }
    // The main window (its pages and the fonts they need) is built when it is first wanted.
    // Plugins bring their own catalogs; a newly loaded one needs the translators set up again.
    connect(CQPluginManager::singleInstance(), &CQPluginManager::sig_pluginStateChanged, this, [this]() {
        QStringList installed;
        for (const auto& t : m_translators) {
            installed << t->filePath();
        }
        if (catalogsFor(effectiveLanguage()) != installed) {
            applyLanguage();
        }
    });

    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        m_trayMenu = std::make_unique<QMenu>();
        QAction* show = m_trayMenu->addAction(tr("Show kuvgui"));
        QAction* quitAction = m_trayMenu->addAction(tr("Quit"));
        connect(show, &QAction::triggered, this, &ShellCore::showMain);
        connect(quitAction, &QAction::triggered, this, &ShellCore::quit);
        m_tray = std::make_unique<QSystemTrayIcon>(appIcon());
        m_tray->setToolTip(tr("kuvgui - endpoint protection"));
        m_tray->setContextMenu(m_trayMenu.get());
        connect(m_tray.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) {
                showMain();
            }
        });
        m_tray->show();
        SH_LOG(LOG_LEVEL_INFO, "tray icon shown");
    } else {
        // Without a tray the window is reached through control code 0 (a second start of kuvgui).
        SH_LOG(LOG_LEVEL_INFO, "no system tray; the main window is shown on request");
    }
    m_up.store(true);
}

void ShellCore::teardown()
{
    m_up.store(false);
    m_quitTimer.stop();
    disconnect(m_unloadConnection);
    disconnect(CQPluginManager::singleInstance(), nullptr, this, nullptr);
    if (m_window) {
        m_window->detachPluginPages();
    }
    m_tray.reset();
    m_trayMenu.reset();
    m_window.reset();
    // Leaves the bus; no back-end message is handled after this.
    m_scanClient.reset();
    m_quitting = false;
}

MainWindow* ShellCore::window()
{
    if (!m_window && m_up.load()) {
        m_window = std::make_unique<MainWindow>();
        m_window->setScanClient(m_scanClient.get());
        connect(m_window.get(), &MainWindow::quitRequested, this, &ShellCore::quit);
        connect(m_window.get(), &MainWindow::languageChosen, this, &ShellCore::applyLanguage);
        SH_LOG(LOG_LEVEL_INFO, "main window built");
    }
    return m_window.get();
}

void ShellCore::showMain()
{
    if (window() == nullptr) {
        return;
    }
    m_window->show();
    m_window->setWindowState((m_window->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    m_window->raise();
    m_window->activateWindow();
}

void ShellCore::scan(const std::vector<std::string>& paths)
{
    if (window() == nullptr) {
        return;
    }
    SH_LOG(LOG_LEVEL_INFO, "context-menu scan of %d path(s)", static_cast<int>(paths.size()));
    m_window->showScanRequest(paths);
    showMain();
}

void ShellCore::quit()
{
    if (m_quitting || !m_up.load()) {
        return;
    }
    m_quitting = true;
    SH_LOG(LOG_LEVEL_INFO, "quit requested");
    if (m_uninstall.pfnUninstall != nullptr) {
        try {
            const int rc = m_uninstall.pfnUninstall(m_uninstall.pContext);
            SH_LOG(LOG_LEVEL_INFO, "uninstall function returned %d", rc);
        } catch (...) {
            SH_LOG(LOG_LEVEL_ERROR, "uninstall function threw; quitting anyway");
        }
    }
    CQPluginManager* loader = CQPluginManager::singleInstance();
    if (loader->pendingUnloads() == 0) {
        finishQuit(false);
        return;
    }
    m_unloadConnection = connect(loader, &CQPluginManager::sig_unstallPluginComplete, this,
                                 &ShellCore::onUnloadComplete);
    m_quitTimer.start();
}

void ShellCore::onUnloadComplete()
{
    if (m_quitting && CQPluginManager::singleInstance()->pendingUnloads() == 0) {
        finishQuit(false);
    }
}

void ShellCore::finishQuit(bool timedOut)
{
    disconnect(m_unloadConnection);
    m_quitTimer.stop();
    if (timedOut) {
        SH_LOG(LOG_LEVEL_WARN, "%d plugin unload(s) still pending after %d ms; quitting anyway",
               CQPluginManager::singleInstance()->pendingUnloads(), kQuitWaitMs);
    }
    if (m_window) {
        m_window->hide();
    }
    // Queued behind whatever the unload signals queued (the service frees endpoints in those slots).
    QMetaObject::invokeMethod(qApp, []() { QCoreApplication::exit(0); }, Qt::QueuedConnection);
}

void ShellCore::applyLanguage()
{
    const std::string language = effectiveLanguage();
    for (const auto& t : m_translators) {
        QCoreApplication::removeTranslator(t.get());
    }
    m_translators.clear();
    QLocale::setDefault(QLocale(catalogSuffix(language)));
    for (const QString& path : catalogsFor(language)) {
        auto translator = std::make_unique<QTranslator>();
        if (translator->load(path)) {
            QCoreApplication::installTranslator(translator.get());
            m_translators.push_back(std::move(translator));
        } else {
            SH_LOG(LOG_LEVEL_WARN, "cannot load catalog %s", path.toStdString().c_str());
        }
    }
    if (m_tray) {
        m_tray->setToolTip(tr("kuvgui - endpoint protection"));
        const QList<QAction*> actions = m_trayMenu->actions();
        if (actions.size() == 2) {
            actions[0]->setText(tr("Show kuvgui"));
            actions[1]->setText(tr("Quit"));
        }
    }
    SH_LOG(LOG_LEVEL_INFO, "interface language %s, %d catalog(s)", language.c_str(),
           static_cast<int>(m_translators.size()));
}

} // namespace shell
} // namespace kuv

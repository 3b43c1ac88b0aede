// SPDX-License-Identifier: GPL-2.0-or-later
#include "ShellCore.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QStatusBar>
#include <QLocale>
#include <QMenu>
#include <QPixmapCache>
#include <QSystemTrayIcon>
#include <QTranslator>

#include "AppIcon.h"
#include "KuvLog.h"
#include "CQPluginManager.h"
#include "FileUtils.h"
#include "DesktopNotifier.h"
#include "HistoryPage.h"
#include "HistoryWatcher.h"
#include "MainWindow.h"
#include "QuarantinePage.h"
#include "ScanClient.h"
#include "TrayController.h"
#include "ShellSettings.h"

namespace kuv {
namespace shell {

namespace {

KUV_LOG_SOURCE("platform/guishell/ShellCore");
// A scan that took at least this long gets a notification even when it found nothing.
constexpr qint64 kLongScanMs = 60000;
// How long quitting waits for the plugin loader to report the unloads it was asked for.
constexpr int kQuitWaitMs = 5000;
// The window's state line follows the tray state at most this often: every scan job turns it to
// "scanning" and back within milliseconds, and each change lays out and paints the status bar.
constexpr int kStateLineEveryMs = 40;


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
    // "*_<suffix>.qm" by hand: a QDir name filter compiles a regular expression.
    const QString ending = QStringLiteral("_") + suffix + QStringLiteral(".qm");
    for (const QString& name : dir.entryList(QDir::Files, QDir::Name)) {
        if (name.endsWith(ending, Qt::CaseInsensitive)) {
            out << dir.filePath(name);
        }
    }
    return out;
}

// A folder from the tray, handed to scan() like a context-menu request.
struct FolderArg {
    QString folder;
    operator QStringList() const { return {folder}; }
    operator std::vector<std::string>() const
    {
        const QByteArray bytes = QFile::encodeName(folder);
        return {std::string(bytes.constData(), size_t(bytes.size()))};
    }
};

} // namespace

ShellCore::ShellCore()
{
    m_quitTimer.setSingleShot(true);
    m_quitTimer.setInterval(kQuitWaitMs);
    connect(&m_quitTimer, &QTimer::timeout, this, [this]() { finishQuit(true); });
    m_stateLineTimer.setSingleShot(true);
    m_stateLineTimer.setInterval(kStateLineEveryMs);
    connect(&m_stateLineTimer, &QTimer::timeout, this, &ShellCore::showStateLine);
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

    m_tray = std::make_unique<TrayController>();
    connect(m_tray.get(), &TrayController::openRequested, this, &ShellCore::showMain);
    connect(m_tray.get(), &TrayController::quitRequested, this, &ShellCore::quit);
    connect(m_tray.get(), &TrayController::scanFolderRequested, this,
            [this](const QString& folder) { scan(FolderArg{folder}); });
    if (m_tray->shown()) {
        KUV_LOG(kuv::LogLevel::Info, "tray icon shown");
    } else {
        // Without a tray the window is reached through control code 0 (a second start of kuvgui).
        KUV_LOG(kuv::LogLevel::Info, "no system tray; the main window is shown on request");
    }
    connect(m_tray.get(), &TrayController::stateChanged, this, [](TrayController::State state) {
        KUV_LOG(kuv::LogLevel::Info, "tray state: %s",
               state == TrayController::STATE_ATTENTION  ? "attention"
               : state == TrayController::STATE_SCANNING ? "scanning"
                                                         : "protected");
    });

    m_notifier = std::make_unique<DesktopNotifier>();
    connect(m_notifier.get(), &DesktopNotifier::openResults, this, [this](qint64 job) {
        KUV_LOG(kuv::LogLevel::Info, "notification action: opening the results of history job %lld",
               static_cast<long long>(job));
        if (window() != nullptr) {
            m_window->showHistoryJob(job);
            showMain();
        }
    });
    connect(m_notifier.get(), &DesktopNotifier::undelivered, this,
            [this](const QString& summary, const QString& body) {
                // The window says what the desktop could not.
                if (window() != nullptr) {
                    m_window->statusBar()->showMessage(summary + QStringLiteral(" - ") + body);
                }
            });
    m_historyWatcher = std::make_unique<HistoryWatcher>();
    connect(m_historyWatcher.get(), &HistoryWatcher::jobRecorded, this, &ShellCore::onJobRecorded);
    connect(m_historyWatcher.get(), &HistoryWatcher::changed, this, [this]() {
        updateAttention();
        // Pages not built yet read the store when they are.
        if (m_window && m_window->builtQuarantinePage() != nullptr && m_window->builtQuarantinePage()->isVisible()) {
            m_window->builtQuarantinePage()->refresh();
        }
        if (m_window && m_window->builtHistoryPage() != nullptr && m_window->builtHistoryPage()->isVisible()) {
            m_window->builtHistoryPage()->refresh();
        }
    });
    // The tray says "scanning" while any job of this shell runs on the back end.
    connect(m_scanClient.get(), &ScanClient::jobCreated, this, [this](const QString& job, int) {
        m_runningJobs.insert(job);
        m_tray->setScanning(true);
    });
    connect(m_scanClient.get(), &ScanClient::jobEnded, this, [this](const QString& job, const ScanEnd&) {
        m_runningJobs.remove(job);
        m_tray->setScanning(!m_runningJobs.isEmpty());
    });
    updateAttention();
    m_up.store(true);
}

void ShellCore::teardown()
{
    m_up.store(false);
    m_quitTimer.stop();
    m_stateLineTimer.stop();
    disconnect(m_unloadConnection);
    disconnect(CQPluginManager::singleInstance(), nullptr, this, nullptr);
    if (m_window) {
        m_window->detachPluginPages();
    }
    m_historyWatcher.reset();
    m_notifier.reset();
    m_tray.reset();
    m_window.reset();
    // Leaves the bus; no back-end message is handled after this.
    m_scanClient.reset();
    m_quitting = false;
}

MainWindow* ShellCore::window()
{
    if (!m_window && m_up.load()) {
        // Qt's pixmap cache trims itself on a 30 s timer for as long as it holds anything, which would
        // wake an idle window twice a minute (and holds up to 10 MiB); the few widgets here paint fast
        // enough without it.
        QPixmapCache::setCacheLimit(0);
        m_window = std::make_unique<MainWindow>();
        m_window->setScanClient(m_scanClient.get());
        connect(m_window.get(), &MainWindow::quitRequested, this, &ShellCore::quit);
        connect(m_window.get(), &MainWindow::languageChosen, this, &ShellCore::applyLanguage);
        connect(m_window.get(), &MainWindow::findingsHandled, this, &ShellCore::updateAttention);
        // The window shows what the tray and the notifications show, for desktops without them.
        auto* stateLabel = new QLabel(m_window->statusBar());
        stateLabel->setObjectName(QStringLiteral("kuvProtectionState"));
        m_window->statusBar()->addPermanentWidget(stateLabel);
        m_stateLine = stateLabel;
        connect(m_tray.get(), &TrayController::stateTextChanged, this, [this]() {
            if (!m_stateLineTimer.isActive()) {
                m_stateLineTimer.start();
            }
        });
        stateLabel->setText(m_tray->stateText());
        KUV_LOG(kuv::LogLevel::Info, "main window built");
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
    KUV_LOG(kuv::LogLevel::Info, "context-menu scan of %d path(s)", static_cast<int>(paths.size()));
    m_window->showScanRequest(paths);
    showMain();
}

void ShellCore::quit()
{
    if (m_quitting || !m_up.load()) {
        return;
    }
    m_quitting = true;
    KUV_LOG(kuv::LogLevel::Info, "quit requested");
    if (m_uninstall.pfnUninstall != nullptr) {
        try {
            const int rc = m_uninstall.pfnUninstall(m_uninstall.pContext);
            KUV_LOG(kuv::LogLevel::Info, "uninstall function returned %d", rc);
        } catch (...) {
            KUV_LOG(kuv::LogLevel::Error, "uninstall function threw; quitting anyway");
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
        KUV_LOG(kuv::LogLevel::Warn, "%d plugin unload(s) still pending after %d ms; quitting anyway",
               CQPluginManager::singleInstance()->pendingUnloads(), kQuitWaitMs);
    }
    if (m_window) {
        m_window->hide();
    }
    // Queued behind whatever the unload signals queued (the service frees endpoints in those slots).
    QMetaObject::invokeMethod(qApp, []() { QCoreApplication::exit(0); }, Qt::QueuedConnection);
}

void ShellCore::showStateLine()
{
    if (m_stateLine && m_tray) {
        m_stateLine->setText(m_tray->stateText());
    }
}

void ShellCore::updateAttention()
{
    if (m_tray && m_historyWatcher) {
        m_tray->setPendingFindings(m_historyWatcher->pendingFindings());
    }
}

void ShellCore::onJobRecorded(qint64 id, const QString& state, qint64 files, qint64 infected, qint64 durationMs)
{
    KUV_LOG(kuv::LogLevel::Info, "scan recorded: history job %lld, %s, %lld file(s), %lld found, %lld ms",
           static_cast<long long>(id), state.toStdString().c_str(), static_cast<long long>(files),
           static_cast<long long>(infected), static_cast<long long>(durationMs));
    updateAttention();
    if (!m_notifier) {
        return;
    }
    if (infected > 0) {
        m_notifier->notify(tr("Threats found"),
                           tr("The scan found %n threat(s) in %1 file(s). Choose what to do with them.", nullptr,
                              int(infected))
                               .arg(files),
                           true, id);
    } else if (durationMs >= kLongScanMs) {
        m_notifier->notify(tr("Scan finished"),
                           state == QLatin1String("done")
                               ? tr("%1 file(s) scanned, nothing found.").arg(files)
                               : tr("The scan ended early (%1) after %2 file(s).").arg(state).arg(files),
                           false, id);
    }
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
            KUV_LOG(kuv::LogLevel::Warn, "cannot load catalog %s", path.toStdString().c_str());
        }
    }
    if (m_tray) {
        m_tray->retranslate();
        showStateLine();
    }
    KUV_LOG(kuv::LogLevel::Info, "interface language %s, %d catalog(s)", language.c_str(),
           static_cast<int>(m_translators.size()));
}

} // namespace shell
} // namespace kuv

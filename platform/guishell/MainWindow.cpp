// SPDX-License-Identifier: GPL-2.0-or-later
#include "MainWindow.h"

#include <QAction>
#include <QCloseEvent>
#include <QEvent>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QStackedWidget>
#include <QStyle>

#include "AppIcon.h"
#include "CQPluginManager.h"
#include "HistoryPage.h"
#include "OverviewPage.h"
#include "QuarantinePage.h"
#include "ScanPage.h"
#include "SettingsPage.h"

namespace kuv {
namespace shell {

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent)
{
    setObjectName(QStringLiteral("KuvMainWindow"));
    setWindowIcon(appIcon());
    resize(900, 600);

    auto* central = new QWidget(this);
    auto* layout = new QHBoxLayout(central);
    m_nav = new QListWidget(central);
    m_nav->setObjectName(QStringLiteral("kuvNavigation"));
    m_nav->setFixedWidth(190);
    m_nav->setIconSize(QSize(20, 20));
    m_stack = new QStackedWidget(central);
    m_stack->setObjectName(QStringLiteral("kuvPages"));
    layout->addWidget(m_nav);
    layout->addWidget(m_stack, 1);
    setCentralWidget(central);

    m_overview = new OverviewPage(m_stack);
    m_scan = new ScanPage(m_stack);
    m_settings = new SettingsPage(m_stack);
    m_overviewItem = new QListWidgetItem(style()->standardIcon(QStyle::SP_ComputerIcon), QString());
    m_scanItem = new QListWidgetItem(style()->standardIcon(QStyle::SP_FileDialogContentsView), QString());
    m_settingsItem = new QListWidgetItem(style()->standardIcon(QStyle::SP_FileDialogDetailedView), QString());
    addPage(m_overview, m_overviewItem);
    addPage(m_scan, m_scanItem);
    addPage(m_settings, m_settingsItem);
    m_quarantine = new QuarantinePage(m_stack);
    m_history = new HistoryPage(m_stack);
    m_quarantineItem = new QListWidgetItem(style()->standardIcon(QStyle::SP_DirClosedIcon), QString());
    m_historyItem = new QListWidgetItem(style()->standardIcon(QStyle::SP_FileDialogListView), QString());
    // Before the settings page, after the scan page.
    m_quarantineItem->setData(Qt::UserRole, QVariant::fromValue<QWidget*>(m_quarantine));
    m_historyItem->setData(Qt::UserRole, QVariant::fromValue<QWidget*>(m_history));
    m_stack->addWidget(m_quarantine);
    m_stack->addWidget(m_history);
    m_nav->insertItem(m_nav->row(m_settingsItem), m_quarantineItem);
    m_nav->insertItem(m_nav->row(m_settingsItem), m_historyItem);
    connect(m_history, &HistoryPage::findingsHandled, m_quarantine, &QuarantinePage::refresh);

    connect(m_nav, &QListWidget::currentRowChanged, this, [this](int row) {
        QListWidgetItem* item = m_nav->item(row);
        if (item == nullptr) {
            return;
        }
        auto* page = item->data(Qt::UserRole).value<QWidget*>();
        if (page != nullptr && m_stack->indexOf(page) >= 0) {
            m_stack->setCurrentWidget(page);
        }
    });
    connect(m_settings, &SettingsPage::languageChosen, this, &MainWindow::languageChosen);

    m_fileMenu = menuBar()->addMenu(QString());
    m_quitAction = m_fileMenu->addAction(QString());
    m_quitAction->setObjectName(QStringLiteral("kuvQuitAction"));
    m_quitAction->setShortcut(QKeySequence::Quit);
    connect(m_quitAction, &QAction::triggered, this, &MainWindow::quitRequested);

    connect(CQPluginManager::singleInstance(), &CQPluginManager::sig_pluginStateChanged, this,
            &MainWindow::syncPluginPages);
    m_nav->setCurrentRow(0);
    syncPluginPages();
    retranslate();
}

MainWindow::~MainWindow()
{
    detachPluginPages();
}

void MainWindow::addPage(QWidget* page, QListWidgetItem* item)
{
    item->setData(Qt::UserRole, QVariant::fromValue<QWidget*>(page));
    m_stack->addWidget(page);
    m_nav->addItem(item);
}

void MainWindow::showScanRequest(const std::vector<std::string>& paths)
{
    m_scan->scanPaths(paths, true, "context menu");
    m_nav->setCurrentItem(m_scanItem);
}

void MainWindow::setScanClient(ScanClient* client)
{
    m_scan->setClient(client);
    m_overview->setScanClient(client);
}

void MainWindow::showHistoryJob(qint64 id)
{
    m_history->refresh();
    m_history->openJob(id);
    m_nav->setCurrentItem(m_historyItem);
}

void MainWindow::syncPluginPages()
{
    const QList<CQPluginManager::PluginStatus> status = CQPluginManager::singleInstance()->pluginStatus();
    // Drop entries whose plugin went or whose page was deleted with it.
    for (int i = m_pluginPages.size() - 1; i >= 0; --i) {
        PluginPage& pp = m_pluginPages[i];
        bool stillThere = false;
        for (const auto& s : status) {
            if (s.id == pp.id && s.state == CQPluginManager::PLUGIN_LOADED && s.page == pp.page && !pp.page.isNull()) {
                stillThere = true;
                break;
            }
        }
        if (!stillThere) {
            if (!pp.page.isNull()) {
                pp.page->removeEventFilter(this);
                m_stack->removeWidget(pp.page);
                pp.page->hide();
                pp.page->setParent(nullptr);
            }
            if (m_nav->currentItem() == pp.item) {
                m_nav->setCurrentItem(m_overviewItem);
            }
            delete pp.item;
            m_pluginPages.removeAt(i);
        }
    }
    for (const auto& s : status) {
        if (s.state != CQPluginManager::PLUGIN_LOADED || s.page.isNull()) {
            continue;
        }
        bool known = false;
        for (const PluginPage& pp : m_pluginPages) {
            if (pp.id == s.id) {
                known = true;
                break;
            }
        }
        if (known) {
            continue;
        }
        PluginPage pp;
        pp.id = s.id;
        pp.page = s.page;
        const QString own = s.page->windowTitle();
        pp.item = new QListWidgetItem(style()->standardIcon(QStyle::SP_FileDialogInfoView),
                                      !own.isEmpty() ? own : !s.pageTitle.isEmpty() ? s.pageTitle : s.id);
        pp.item->setData(Qt::UserRole + 1, s.id);
        addPage(s.page, pp.item);
        s.page->installEventFilter(this);
        m_pluginPages.append(pp);
    }
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::WindowTitleChange) {
        for (PluginPage& pp : m_pluginPages) {
            if (pp.page == watched && !pp.page->windowTitle().isEmpty()) {
                pp.item->setText(pp.page->windowTitle());
            }
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

void MainWindow::detachPluginPages()
{
    for (PluginPage& pp : m_pluginPages) {
        if (!pp.page.isNull()) {
            pp.page->removeEventFilter(this);
            m_stack->removeWidget(pp.page);
            pp.page->hide();
            pp.page->setParent(nullptr);
        }
        delete pp.item;
    }
    m_pluginPages.clear();
}

void MainWindow::retranslate()
{
    setWindowTitle(tr("kuvgui - endpoint protection"));
    m_overviewItem->setText(tr("Overview"));
    m_scanItem->setText(tr("Scan"));
    m_settingsItem->setText(tr("Settings"));
    m_quarantineItem->setText(tr("Quarantine"));
    m_historyItem->setText(tr("History"));
    m_fileMenu->setTitle(tr("&File"));
    m_quitAction->setText(tr("&Quit"));
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    // Closing only hides: the service keeps running and a second start (or the tray) shows it again.
    // Quitting is the explicit menu or tray action.
    hide();
    event->ignore();
}

void MainWindow::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QMainWindow::changeEvent(event);
}

} // namespace shell
} // namespace kuv

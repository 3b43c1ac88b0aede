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

#include "AppIcon.h"
#include "CQPluginManager.h"
#include "HistoryPage.h"
#include "OverviewPage.h"
#include "QuarantinePage.h"
#include "ScanPage.h"
#include "SettingsPage.h"

namespace kuv {
namespace shell {

namespace {
// Navigation items of the shell's own pages carry their page kind, and the page once it is built.
constexpr int kPageKindRole = Qt::UserRole + 2;
} // namespace

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

    for (int kind = 0; kind < PAGE_COUNT; ++kind) {
        addNavItem(static_cast<PageKind>(kind));
    }
    ensurePage(PAGE_OVERVIEW);

    connect(m_nav, &QListWidget::currentRowChanged, this, [this](int row) {
        QListWidgetItem* item = m_nav->item(row);
        if (item == nullptr) {
            return;
        }
        auto* page = item->data(Qt::UserRole).value<QWidget*>();
        const QVariant kind = item->data(kPageKindRole);
        if (page == nullptr && kind.isValid()) {
            page = ensurePage(static_cast<PageKind>(kind.toInt()));
        }
        if (page != nullptr && m_stack->indexOf(page) >= 0) {
            m_stack->setCurrentWidget(page);
        }
    });

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

QListWidgetItem* MainWindow::addNavItem(PageKind kind)
{
    static const NavGlyph glyphs[PAGE_COUNT] = {GLYPH_OVERVIEW, GLYPH_SCAN, GLYPH_QUARANTINE, GLYPH_HISTORY,
                                                GLYPH_SETTINGS};
    auto* item = new QListWidgetItem(navIcon(glyphs[kind]), QString());
    item->setData(kPageKindRole, int(kind));
    m_items[kind] = item;
    m_nav->addItem(item);
    return item;
}

QWidget* MainWindow::ensurePage(PageKind kind)
{
    QListWidgetItem* item = m_items[kind];
    if (auto* built = item->data(Qt::UserRole).value<QWidget*>()) {
        return built;
    }
    QWidget* page = nullptr;
    switch (kind) {
    case PAGE_OVERVIEW:
        m_overview = new OverviewPage(m_stack);
        m_overview->setScanClient(m_client);
        page = m_overview;
        break;
    case PAGE_SCAN:
        m_scan = new ScanPage(m_stack);
        m_scan->setClient(m_client);
        page = m_scan;
        break;
    case PAGE_QUARANTINE:
        m_quarantine = new QuarantinePage(m_stack);
        page = m_quarantine;
        break;
    case PAGE_HISTORY:
        m_history = new HistoryPage(m_stack);
        connect(m_history, &HistoryPage::findingsHandled, this, [this]() {
            if (m_quarantine != nullptr) {
                m_quarantine->refresh();
            }
        });
        connect(m_history, &HistoryPage::findingsHandled, this, &MainWindow::findingsHandled);
        page = m_history;
        break;
    case PAGE_SETTINGS:
        m_settings = new SettingsPage(m_stack);
        connect(m_settings, &SettingsPage::languageChosen, this, &MainWindow::languageChosen);
        page = m_settings;
        break;
    case PAGE_COUNT:
        return nullptr;
    }
    item->setData(Qt::UserRole, QVariant::fromValue<QWidget*>(page));
    m_stack->addWidget(page);
    return page;
}

ScanPage* MainWindow::scanPage()
{
    ensurePage(PAGE_SCAN);
    return m_scan;
}

QuarantinePage* MainWindow::quarantinePage()
{
    ensurePage(PAGE_QUARANTINE);
    return m_quarantine;
}

HistoryPage* MainWindow::historyPage()
{
    ensurePage(PAGE_HISTORY);
    return m_history;
}

SettingsPage* MainWindow::settingsPage()
{
    ensurePage(PAGE_SETTINGS);
    return m_settings;
}

void MainWindow::showScanRequest(const std::vector<std::string>& paths)
{
    scanPage()->scanPaths(paths, true, "context menu");
    m_nav->setCurrentItem(m_items[PAGE_SCAN]);
}

void MainWindow::setScanClient(ScanClient* client)
{
    m_client = client;
    if (m_scan != nullptr) {
        m_scan->setClient(client);
    }
    if (m_overview != nullptr) {
        m_overview->setScanClient(client);
    }
}

void MainWindow::showHistoryJob(qint64 id)
{
    HistoryPage* history = historyPage();
    history->refresh();
    history->openJob(id);
    m_nav->setCurrentItem(m_items[PAGE_HISTORY]);
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
                m_nav->setCurrentItem(m_items[PAGE_OVERVIEW]);
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
        pp.item = new QListWidgetItem(navIcon(GLYPH_PLUGIN),
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
    m_items[PAGE_OVERVIEW]->setText(tr("Overview"));
    m_items[PAGE_SCAN]->setText(tr("Scan"));
    m_items[PAGE_SETTINGS]->setText(tr("Settings"));
    m_items[PAGE_QUARANTINE]->setText(tr("Quarantine"));
    m_items[PAGE_HISTORY]->setText(tr("History"));
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

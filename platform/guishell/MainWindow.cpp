// SPDX-License-Identifier: GPL-2.0-or-later
#include "MainWindow.h"

#include <QAction>
#include <QButtonGroup>
#include <QCloseEvent>
#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMenu>
#include <QMenuBar>
#include <QStackedWidget>
#include <QToolButton>
#include <QVBoxLayout>

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
// A navigation entry: Up and Down choose the entry above or below, Enter and Return choose this one.
class NavButton : public QToolButton {
public:
    NavButton(QButtonGroup* group, QWidget* parent) : QToolButton(parent), m_group(group) {}

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        const int key = event->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter) {
            click();
            return;
        }
        if (key == Qt::Key_Up || key == Qt::Key_Down) {
            const QList<QAbstractButton*> all = m_group->buttons();
            const int next = all.indexOf(this) + (key == Qt::Key_Up ? -1 : 1);
            if (next >= 0 && next < all.size()) {
                all[next]->setFocus(Qt::TabFocusReason);
                all[next]->click();
            }
            return;
        }
        QToolButton::keyPressEvent(event);
    }

private:
    QButtonGroup* m_group;
};
} // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent)
{
    setObjectName(QStringLiteral("KuvMainWindow"));
    setWindowIcon(appIcon());
    resize(900, 600);

    auto* central = new QWidget(this);
    auto* layout = new QHBoxLayout(central);
    m_nav = new QWidget(central);
    m_nav->setObjectName(QStringLiteral("kuvNavigation"));
    m_nav->setFixedWidth(190);
    m_navLayout = new QVBoxLayout(m_nav);
    m_navLayout->setContentsMargins(0, 0, 0, 0);
    m_navLayout->setSpacing(2);
    m_navLayout->addStretch(1);
    m_navGroup = new QButtonGroup(m_nav);
    m_navGroup->setExclusive(true);
    m_stack = new QStackedWidget(central);
    m_stack->setObjectName(QStringLiteral("kuvPages"));
    layout->addWidget(m_nav);
    layout->addWidget(m_stack, 1);
    setCentralWidget(central);

    static const NavGlyph glyphs[PAGE_COUNT] = {GLYPH_OVERVIEW, GLYPH_SCAN, GLYPH_QUARANTINE, GLYPH_HISTORY,
                                                GLYPH_SETTINGS};
    for (int kind = 0; kind < PAGE_COUNT; ++kind) {
        m_items[kind] = addNavButton(navIcon(glyphs[kind]), nullptr);
    }
    ensurePage(PAGE_OVERVIEW);

    connect(m_navGroup, QOverload<QAbstractButton*, bool>::of(&QButtonGroup::buttonToggled), this,
            [this](QAbstractButton* button, bool checked) {
                if (checked) {
                    showPageOf(button);
                }
            });

    m_fileMenu = menuBar()->addMenu(QString());
    m_quitAction = m_fileMenu->addAction(QString());
    m_quitAction->setObjectName(QStringLiteral("kuvQuitAction"));
    m_quitAction->setShortcut(QKeySequence::Quit);
    connect(m_quitAction, &QAction::triggered, this, &MainWindow::quitRequested);

    connect(CQPluginManager::singleInstance(), &CQPluginManager::sig_pluginStateChanged, this,
            &MainWindow::syncPluginPages);
    choose(m_items[PAGE_OVERVIEW]);
    syncPluginPages();
    retranslate();
}

MainWindow::~MainWindow()
{
    detachPluginPages();
}

QAbstractButton* MainWindow::addNavButton(const QIcon& icon, QWidget* page)
{
    auto* button = new NavButton(m_navGroup, m_nav);
    button->setCheckable(true);
    button->setAutoRaise(true);
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setIcon(icon);
    button->setIconSize(QSize(20, 20));
    button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    button->setFocusPolicy(Qt::StrongFocus);
    m_navGroup->addButton(button);
    // Before the stretch that keeps the column at the top.
    m_navLayout->insertWidget(m_navLayout->count() - 1, button);
    if (page != nullptr) {
        m_stack->addWidget(page);
    }
    return button;
}

void MainWindow::setNavText(QAbstractButton* button, const QString& text)
{
    button->setText(text);
    button->setAccessibleName(text);
}

void MainWindow::choose(QAbstractButton* button)
{
    if (button->isChecked()) {
        showPageOf(button);
    } else {
        button->setChecked(true);
    }
}

void MainWindow::showPageOf(QAbstractButton* button)
{
    // Looked up in the window's own lists: a button's properties are searched by name through its whole
    // class chain, and every context-menu scan chooses the scan page.
    QWidget* page = nullptr;
    for (int kind = 0; kind < PAGE_COUNT && page == nullptr; ++kind) {
        if (m_items[kind] == button) {
            page = ensurePage(static_cast<PageKind>(kind));
        }
    }
    for (int i = 0; i < m_pluginPages.size() && page == nullptr; ++i) {
        if (m_pluginPages[i].item == button) {
            page = m_pluginPages[i].page;
        }
    }
    if (page != nullptr && m_stack->indexOf(page) >= 0) {
        m_stack->setCurrentWidget(page);
    }
}

QWidget* MainWindow::ensurePage(PageKind kind)
{
    if (kind >= PAGE_COUNT) {
        return nullptr;
    }
    if (m_pages[kind] != nullptr) {
        return m_pages[kind];
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
    m_pages[kind] = page;
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
    choose(m_items[PAGE_SCAN]);
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
    choose(m_items[PAGE_HISTORY]);
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
            if (pp.item->isChecked()) {
                choose(m_items[PAGE_OVERVIEW]);
            }
            m_navGroup->removeButton(pp.item);
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
        pp.item = addNavButton(navIcon(GLYPH_PLUGIN), s.page);
        setNavText(pp.item, !own.isEmpty() ? own : !s.pageTitle.isEmpty() ? s.pageTitle : s.id);
        pp.item->setProperty("kuvPluginId", s.id);
        s.page->installEventFilter(this);
        m_pluginPages.append(pp);
    }
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::WindowTitleChange) {
        for (PluginPage& pp : m_pluginPages) {
            if (pp.page == watched && !pp.page->windowTitle().isEmpty()) {
                setNavText(pp.item, pp.page->windowTitle());
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
        m_navGroup->removeButton(pp.item);
        delete pp.item;
    }
    m_pluginPages.clear();
}

void MainWindow::retranslate()
{
    setWindowTitle(tr("kuvgui - endpoint protection"));
    setNavText(m_items[PAGE_OVERVIEW], tr("Overview"));
    setNavText(m_items[PAGE_SCAN], tr("Scan"));
    setNavText(m_items[PAGE_SETTINGS], tr("Settings"));
    setNavText(m_items[PAGE_QUARANTINE], tr("Quarantine"));
    setNavText(m_items[PAGE_HISTORY], tr("History"));
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

// SPDX-License-Identifier: GPL-2.0-or-later
// The shell's main window: navigation buttons and pages (overview, scan, settings, plugin pages). Only the
// overview is built with the window; every other page is built the first time it is switched to or asked for.
#pragma once

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QStringList>

#include <string>
#include <vector>

class QAbstractButton;
class QAction;
class QButtonGroup;
class QIcon;
class QMenu;
class QVBoxLayout;
class QStackedWidget;

namespace kuv {
namespace shell {

class HistoryPage;
class OverviewPage;
class QuarantinePage;
class ScanClient;
class ScanPage;
class SettingsPage;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // Scans these exact path bytes (clean verdicts listed too) and shows the scan page.
    void showScanRequest(const std::vector<std::string>& paths);
    // The scan page runs its jobs on client; the overview shows the back end's state.
    void setScanClient(ScanClient* client);
    // The pages, built now if they were not yet.
    ScanPage* scanPage();
    QuarantinePage* quarantinePage();
    HistoryPage* historyPage();
    SettingsPage* settingsPage();
    // The pages as they are: null until built.
    QuarantinePage* builtQuarantinePage() const { return m_quarantine; }
    HistoryPage* builtHistoryPage() const { return m_history; }
    // Shows the history page with job id opened (a history row id).
    void showHistoryJob(qint64 id);
    // Gives plugin pages back to their plugins before the window goes.
    void detachPluginPages();

public slots:
    // Adds pages of newly loaded plugins and drops the entries of those that went.
    void syncPluginPages();

signals:
    void quitRequested();
    void languageChosen(QString language);
    // The history page acted on findings (quarantined, deleted, ignored).
    void findingsHandled();

protected:
    void closeEvent(QCloseEvent* event) override;
    // Plugin pages name themselves through their window title, which follows their language.
    bool eventFilter(QObject* watched, QEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    // The shell's own pages, in navigation order.
    enum PageKind { PAGE_OVERVIEW, PAGE_SCAN, PAGE_QUARANTINE, PAGE_HISTORY, PAGE_SETTINGS, PAGE_COUNT };

    void retranslate();
    // A checkable entry at the end of the navigation column; page (may be null) is shown when it is chosen.
    QAbstractButton* addNavButton(const QIcon& icon, QWidget* page);
    void setNavText(QAbstractButton* button, const QString& text);
    void choose(QAbstractButton* button);
    void showPageOf(QAbstractButton* button);
    QWidget* ensurePage(PageKind kind);

    struct PluginPage {
        QString id;
        QPointer<QWidget> page;
        QAbstractButton* item = nullptr;
    };

    // The navigation: a column of exclusive checkable buttons (no item view, no header, no model).
    QWidget* m_nav;
    QVBoxLayout* m_navLayout;
    QButtonGroup* m_navGroup;
    QStackedWidget* m_stack;
    ScanClient* m_client = nullptr;
    OverviewPage* m_overview = nullptr;
    ScanPage* m_scan = nullptr;
    SettingsPage* m_settings = nullptr;
    QuarantinePage* m_quarantine = nullptr;
    HistoryPage* m_history = nullptr;
    QAbstractButton* m_items[PAGE_COUNT] = {};
    // The shell's own pages, null until built.
    QWidget* m_pages[PAGE_COUNT] = {};
    QMenu* m_fileMenu;
    QAction* m_quitAction;
    QList<PluginPage> m_pluginPages;
};

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// The shell's main window: navigation list and pages (overview, scan, settings, plugin pages).
#pragma once

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QStringList>

#include <string>
#include <vector>

class QAction;
class QListWidget;
class QListWidgetItem;
class QMenu;
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
    ScanPage* scanPage() const { return m_scan; }
    // The scan page runs its jobs on client; the overview shows the back end's state.
    void setScanClient(ScanClient* client);
    QuarantinePage* quarantinePage() const { return m_quarantine; }
    HistoryPage* historyPage() const { return m_history; }
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

protected:
    void closeEvent(QCloseEvent* event) override;
    // Plugin pages name themselves through their window title, which follows their language.
    bool eventFilter(QObject* watched, QEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void retranslate();
    void addPage(QWidget* page, QListWidgetItem* item);

    struct PluginPage {
        QString id;
        QPointer<QWidget> page;
        QListWidgetItem* item = nullptr;
    };

    QListWidget* m_nav;
    QStackedWidget* m_stack;
    OverviewPage* m_overview;
    ScanPage* m_scan;
    SettingsPage* m_settings;
    QuarantinePage* m_quarantine;
    HistoryPage* m_history;
    QListWidgetItem* m_quarantineItem;
    QListWidgetItem* m_historyItem;
    QListWidgetItem* m_overviewItem;
    QListWidgetItem* m_scanItem;
    QListWidgetItem* m_settingsItem;
    QMenu* m_fileMenu;
    QAction* m_quitAction;
    QList<PluginPage> m_pluginPages;
};

} // namespace shell
} // namespace kuv

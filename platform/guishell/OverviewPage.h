// SPDX-License-Identifier: GPL-2.0-or-later
// Overview page: this instance (pid, status, bus, scan back end); the combos and the plugins with their state
// in a components section that is built the first time the user opens it (item views are not built at start).
#pragma once

#include <QPointer>
#include <QFileSystemWatcher>
#include <QWidget>

class QGroupBox;
class QLabel;
class QPushButton;
class QTreeWidget;

namespace kuv {
namespace shell {

class ScanClient;

class OverviewPage : public QWidget {
    Q_OBJECT
public:
    explicit OverviewPage(QWidget* parent = nullptr);
    void setScanClient(ScanClient* client);
    // Shows or hides the combos and plugins, building them the first time.
    void showComponents(bool show);

public slots:
    void refresh();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void retranslate();
    void showBackend();
    void buildComponents();
    void refreshComponents();

    QGroupBox* m_instanceBox;
    QLabel* m_pidCaption;
    QLabel* m_pidValue;
    QLabel* m_statusCaption;
    QLabel* m_statusValue;
    QLabel* m_busCaption;
    QLabel* m_busValue;
    QLabel* m_versionCaption;
    QLabel* m_versionValue;
    QLabel* m_backendCaption;
    QLabel* m_backendValue;
    QPointer<ScanClient> m_client;
    // The back end changed while the page was hidden.
    bool m_backendPending = false;
    QPushButton* m_componentsButton;
    // Null until the components are first shown.
    QWidget* m_components = nullptr;
    QGroupBox* m_comboBox = nullptr;
    QTreeWidget* m_combos = nullptr;
    QGroupBox* m_pluginBox = nullptr;
    QTreeWidget* m_plugins = nullptr;
    // The tag directory, watched while the page is shown: the attributes are rewritten by rename.
    QFileSystemWatcher m_tagDir;
};

} // namespace shell
} // namespace kuv

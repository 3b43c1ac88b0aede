// SPDX-License-Identifier: GPL-2.0-or-later
// Overview page: this instance (pid, status, bus, scan back end), the combos and the plugins with their state.
#pragma once

#include <QPointer>
#include <QFileSystemWatcher>
#include <QWidget>

class QGroupBox;
class QLabel;
class QTreeWidget;

namespace kuv {
namespace shell {

class ScanClient;

class OverviewPage : public QWidget {
    Q_OBJECT
public:
    explicit OverviewPage(QWidget* parent = nullptr);
    void setScanClient(ScanClient* client);

public slots:
    void refresh();

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void retranslate();
    void showBackend();

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
    QGroupBox* m_comboBox;
    QTreeWidget* m_combos;
    QGroupBox* m_pluginBox;
    QTreeWidget* m_plugins;
    // The tag directory, watched while the page is shown: the attributes are rewritten by rename.
    QFileSystemWatcher m_tagDir;
};

} // namespace shell
} // namespace kuv

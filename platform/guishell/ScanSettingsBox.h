// SPDX-License-Identifier: GPL-2.0-or-later
// The scan settings on the settings page: excluded folders, size limit, archives, clamd, history.
#pragma once

#include <QGroupBox>

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;

namespace kuv {
namespace shell {

class ScanSettingsBox : public QGroupBox {
    Q_OBJECT
public:
    explicit ScanSettingsBox(QWidget* parent = nullptr);
    // Reads scan.json into the controls.
    void load();
    // Writes the controls to scan.json; the back end reads it at its next job.
    bool save();
    // For tests and the folder chooser: adds a folder to the excluded list and saves.
    void addExcluded(const QString& folder);

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();

    QLabel* m_excludedCaption;
    QListWidget* m_excluded;
    QPushButton* m_add;
    QPushButton* m_remove;
    QLabel* m_sizeCaption;
    QSpinBox* m_maxSize;
    QCheckBox* m_archives;
    QCheckBox* m_useClamd;
    QLabel* m_socketCaption;
    QLineEdit* m_socket;
    QLabel* m_historyCaption;
    QSpinBox* m_historyDays;
    QLabel* m_status;
    bool m_loading = false;
};

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// Settings page: stop the back end on quit, interface language.
#pragma once

#include <QWidget>

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;

namespace kuv {
namespace shell {

class SettingsPage : public QWidget {
    Q_OBJECT
public:
    explicit SettingsPage(QWidget* parent = nullptr);
    // Reads the saved values into the controls.
    void load();

signals:
    void languageChosen(QString language);

protected:
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void retranslate();

    QGroupBox* m_quitBox;
    QCheckBox* m_stopBackend;
    QLabel* m_stopHint;
    QGroupBox* m_languageBox;
    QLabel* m_languageCaption;
    QComboBox* m_language;
    QLabel* m_savedTo;
    bool m_loading = false;
};

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
#include "SettingsPage.h"

#include <QCheckBox>
#include <QComboBox>
#include <QEvent>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QVBoxLayout>

#include "FileUtils.h"
#include "ScanSettingsBox.h"
#include "ShellSettings.h"

namespace kuv {
namespace shell {

SettingsPage::SettingsPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvSettingsPage"));
    auto* layout = new QVBoxLayout(this);

    m_quitBox = new QGroupBox(this);
    auto* quitLayout = new QVBoxLayout(m_quitBox);
    m_stopBackend = new QCheckBox(m_quitBox);
    m_stopBackend->setObjectName(QStringLiteral("kuvStopBackendOnQuit"));
    m_stopHint = new QLabel(m_quitBox);
    m_stopHint->setWordWrap(true);
    quitLayout->addWidget(m_stopBackend);
    quitLayout->addWidget(m_stopHint);
    layout->addWidget(m_quitBox);

    m_languageBox = new QGroupBox(this);
    auto* form = new QFormLayout(m_languageBox);
    m_languageCaption = new QLabel(m_languageBox);
    m_language = new QComboBox(m_languageBox);
    m_language->setObjectName(QStringLiteral("kuvLanguage"));
    // Sized without measuring its items: measuring "简体中文" would load a CJK font (megabytes) into
    // every English session as soon as the window is laid out; now only opening the list does.
    m_language->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    m_language->setMinimumContentsLength(24);
    // Each language is named in itself, so it can be found whatever language is shown.
    m_language->addItem(QStringLiteral("English"), QStringLiteral("en"));
    m_language->addItem(QStringLiteral("简体中文"), QStringLiteral("zh-CN"));
    // No setting: the locale decides (LANGUAGE, LC_ALL, LC_MESSAGES, LANG).
    m_language->addItem(QString(), QString());
    form->addRow(m_languageCaption, m_language);
    layout->addWidget(m_languageBox);

    layout->addWidget(new ScanSettingsBox(this));

    m_savedTo = new QLabel(this);
    m_savedTo->setWordWrap(true);
    m_savedTo->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_savedTo);
    layout->addStretch(1);

    connect(m_stopBackend, &QCheckBox::toggled, this, [this](bool on) {
        if (!m_loading) {
            setStopBackendOnQuit(on);
        }
    });
    connect(m_language, QOverload<int>::of(&QComboBox::currentIndexChanged), this, [this](int index) {
        if (m_loading || index < 0) {
            return;
        }
        const QString code = m_language->itemData(index).toString();
        setLanguageSetting(code.toStdString());
        emit languageChosen(code);
    });

    load();
    retranslate();
}

void SettingsPage::load()
{
    m_loading = true;
    m_stopBackend->setChecked(stopBackendOnQuit());
    const QString lang = QString::fromStdString(languageSetting());
    m_language->setCurrentIndex(lang.isEmpty() ? 2 : lang.startsWith(QLatin1String("zh"), Qt::CaseInsensitive) ? 1 : 0);
    m_loading = false;
}

void SettingsPage::retranslate()
{
    m_quitBox->setTitle(tr("When the user interface quits"));
    m_stopBackend->setText(tr("Stop the back end on quit"));
    m_stopHint->setText(tr("When checked, quitting the user interface also stops the protection back end "
                           "of this user. Leave it unchecked to keep protection running."));
    m_languageBox->setTitle(tr("Language"));
    m_languageCaption->setText(tr("Interface language:"));
    m_language->setItemText(2, tr("System language"));
    m_savedTo->setText(
        tr("Settings are saved in %1").arg(QString::fromStdString(kuv::escapeControl(shellConfPath()))));
}

void SettingsPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

void SettingsPage::showEvent(QShowEvent* event)
{
    load();
    QWidget::showEvent(event);
}

} // namespace shell
} // namespace kuv

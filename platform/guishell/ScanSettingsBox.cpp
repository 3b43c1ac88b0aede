// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanSettingsBox.h"

#include <QCheckBox>
#include <QEvent>
#include <QFile>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "FindingActions.h"
#include "ScanSettings.h"

namespace kuv {
namespace shell {

namespace {

constexpr int kPathRole = Qt::UserRole + 1;
constexpr uint64_t kMiB = 1024 * 1024;

} // namespace

ScanSettingsBox::ScanSettingsBox(QWidget* parent) : QGroupBox(parent)
{
    setObjectName(QStringLiteral("kuvScanSettings"));
    auto* form = new QFormLayout(this);
    m_excludedCaption = new QLabel(this);
    auto* excludedBox = new QWidget(this);
    auto* excludedLayout = new QHBoxLayout(excludedBox);
    excludedLayout->setContentsMargins(0, 0, 0, 0);
    m_excluded = new QListWidget(excludedBox);
    m_excluded->setObjectName(QStringLiteral("kuvExcludedFolders"));
    m_excluded->setMaximumHeight(90);
    auto* side = new QVBoxLayout();
    m_add = new QPushButton(excludedBox);
    m_remove = new QPushButton(excludedBox);
    side->addWidget(m_add);
    side->addWidget(m_remove);
    side->addStretch(1);
    excludedLayout->addWidget(m_excluded, 1);
    excludedLayout->addLayout(side);
    form->addRow(m_excludedCaption, excludedBox);

    m_sizeCaption = new QLabel(this);
    m_maxSize = new QSpinBox(this);
    m_maxSize->setObjectName(QStringLiteral("kuvMaxFileSize"));
    m_maxSize->setRange(0, 4096);
    form->addRow(m_sizeCaption, m_maxSize);
    m_archives = new QCheckBox(this);
    m_archives->setObjectName(QStringLiteral("kuvScanArchives"));
    form->addRow(QString(), m_archives);
    m_useClamd = new QCheckBox(this);
    m_useClamd->setObjectName(QStringLiteral("kuvUseClamd"));
    form->addRow(QString(), m_useClamd);
    m_socketCaption = new QLabel(this);
    m_socket = new QLineEdit(this);
    m_socket->setObjectName(QStringLiteral("kuvClamdSocket"));
    form->addRow(m_socketCaption, m_socket);
    m_historyCaption = new QLabel(this);
    m_historyDays = new QSpinBox(this);
    m_historyDays->setObjectName(QStringLiteral("kuvHistoryDays"));
    m_historyDays->setRange(0, 36500);
    form->addRow(m_historyCaption, m_historyDays);
    m_status = new QLabel(this);
    m_status->setWordWrap(true);
    form->addRow(m_status);

    auto changed = [this]() {
        if (!m_loading) {
            save();
        }
    };
    connect(m_maxSize, QOverload<int>::of(&QSpinBox::valueChanged), this, changed);
    connect(m_historyDays, QOverload<int>::of(&QSpinBox::valueChanged), this, changed);
    connect(m_archives, &QCheckBox::toggled, this, changed);
    connect(m_useClamd, &QCheckBox::toggled, this, [this, changed]() {
        m_socket->setEnabled(m_useClamd->isChecked());
        changed();
    });
    connect(m_socket, &QLineEdit::editingFinished, this, changed);
    connect(m_add, &QPushButton::clicked, this, [this]() {
        const QString dir = QFileDialog::getExistingDirectory(this, tr("Folder to leave out of scans"));
        if (!dir.isEmpty()) {
            addExcluded(dir);
        }
    });
    connect(m_remove, &QPushButton::clicked, this, [this]() {
        qDeleteAll(m_excluded->selectedItems());
        save();
    });
    load();
    retranslate();
}

void ScanSettingsBox::load()
{
    m_loading = true;
    kuv::store::ScanSettings s;
    std::string error;
    const bool clean = kuv::store::loadScanSettings(s, &error);
    m_excluded->clear();
    for (const std::string& p : s.excluded) {
        auto* item = new QListWidgetItem(displayBytes(p), m_excluded);
        item->setData(kPathRole, QByteArray(p.data(), int(p.size())));
    }
    m_maxSize->setValue(int(std::min<uint64_t>(s.maxFileSize / kMiB, 4096)));
    m_archives->setChecked(s.scanArchives);
    m_useClamd->setChecked(s.useClamd);
    m_socket->setText(QString::fromStdString(s.clamdSocket));
    m_socket->setEnabled(s.useClamd);
    m_historyDays->setValue(s.historyDays);
    m_status->setText(clean ? QString() : QString::fromStdString(error));
    m_loading = false;
}

bool ScanSettingsBox::save()
{
    kuv::store::ScanSettings s;
    for (int i = 0; i < m_excluded->count(); ++i) {
        const QByteArray b = m_excluded->item(i)->data(kPathRole).toByteArray();
        s.excluded.emplace_back(b.constData(), size_t(b.size()));
    }
    s.maxFileSize = uint64_t(m_maxSize->value()) * kMiB;
    s.scanArchives = m_archives->isChecked();
    s.useClamd = m_useClamd->isChecked();
    const QString socket = m_socket->text().trimmed();
    if (!socket.isEmpty()) {
        s.clamdSocket = QFile::encodeName(socket).toStdString();
    }
    s.historyDays = m_historyDays->value();
    std::string error;
    if (!kuv::store::saveScanSettings(s, &error)) {
        m_status->setText(tr("The scan settings cannot be saved: %1").arg(QString::fromStdString(error)));
        return false;
    }
    m_status->setText(tr("Saved in %1; the next scan uses them.")
                          .arg(displayBytes(kuv::store::scanSettingsPath())));
    return true;
}

void ScanSettingsBox::addExcluded(const QString& folder)
{
    const QByteArray bytes = QFile::encodeName(folder);
    for (int i = 0; i < m_excluded->count(); ++i) {
        if (m_excluded->item(i)->data(kPathRole).toByteArray() == bytes) {
            return;
        }
    }
    auto* item = new QListWidgetItem(folder, m_excluded);
    item->setData(kPathRole, bytes);
    save();
}

void ScanSettingsBox::retranslate()
{
    setTitle(tr("Scanning"));
    m_excludedCaption->setText(tr("Folders left out:"));
    m_add->setText(tr("Add..."));
    m_remove->setText(tr("Remove"));
    m_sizeCaption->setText(tr("Largest file to scan:"));
    m_maxSize->setSuffix(tr(" MiB"));
    m_maxSize->setSpecialValueText(tr("engine default"));
    m_archives->setText(tr("Look inside archives (zip, tar, ...)"));
    m_useClamd->setText(tr("Scan with the system's clamd"));
    m_socketCaption->setText(tr("clamd socket:"));
    m_historyCaption->setText(tr("Keep scan history for:"));
    m_historyDays->setSuffix(tr(" days"));
    m_historyDays->setSpecialValueText(tr("ever"));
}

void ScanSettingsBox::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QGroupBox::changeEvent(event);
}

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
#include "QuarantinePage.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <sys/stat.h>

#include "FindingActions.h"
#include "Quarantine.h"
#include "StorePaths.h"

namespace kuv {
namespace shell {

namespace {

enum Column { COL_DATE, COL_SIGNATURE, COL_PATH, COL_SIZE, COL_COUNT };

std::unique_ptr<kuv::store::QuarantineStore> openStore(QString& error)
{
    std::string why;
    auto store = kuv::store::QuarantineStore::open(kuv::store::userDataDir(), why);
    if (!store) {
        error = QString::fromStdString(why);
    }
    return store;
}

} // namespace

QuarantinePage::QuarantinePage(QWidget* parent) : StorePage(QStringLiteral("kuvQuarantinePage"), parent)
{
    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("kuvQuarantineList"));
    m_list->setColumnCount(COL_COUNT);
    m_list->setRootIsDecorated(false);
    m_list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_list->setUniformRowHeights(true);
    m_list->setTextElideMode(Qt::ElideMiddle);
    m_list->header()->setStretchLastSection(false);
    m_list->header()->setSectionResizeMode(COL_PATH, QHeaderView::Stretch);
    m_list->header()->setSectionResizeMode(COL_DATE, QHeaderView::ResizeToContents);
    m_list->header()->setSectionResizeMode(COL_SIGNATURE, QHeaderView::ResizeToContents);
    m_list->header()->setSectionResizeMode(COL_SIZE, QHeaderView::ResizeToContents);
    auto* buttons = new QHBoxLayout();
    m_restore = new QPushButton(this);
    m_restore->setObjectName(QStringLiteral("kuvQuarantineRestore"));
    m_delete = new QPushButton(this);
    m_delete->setObjectName(QStringLiteral("kuvQuarantineDelete"));
    m_refresh = new QPushButton(this);
    buttons->addWidget(m_restore);
    buttons->addWidget(m_delete);
    buttons->addStretch(1);
    buttons->addWidget(m_refresh);
    m_message->setObjectName(QStringLiteral("kuvQuarantineMessage"));
    m_layout->addWidget(m_list, 1);
    m_layout->addLayout(buttons);
    m_layout->addWidget(m_message);

    connect(m_restore, &QPushButton::clicked, this, &QuarantinePage::onRestore);
    connect(m_delete, &QPushButton::clicked, this, &QuarantinePage::onDelete);
    connect(m_refresh, &QPushButton::clicked, this, &QuarantinePage::refresh);
    connect(m_list, &QTreeWidget::itemSelectionChanged, this, [this]() {
        const bool any = !m_list->selectedItems().isEmpty();
        m_restore->setEnabled(any);
        m_delete->setEnabled(any);
    });
    retranslate();
    refresh();
}

void QuarantinePage::refresh()
{
    const QStringList selected = selectedIds();
    m_list->clear();
    QString error;
    auto store = openStore(error);
    if (!store) {
        setMessage(tr("The quarantine cannot be used: %1").arg(error), true);
        return;
    }
    for (const std::string& n : store->notices()) {
        m_notices << QString::fromStdString(n);
    }
    const QLocale locale;
    for (const kuv::store::QuarantineEntry& e : store->list()) {
        auto* item = new QTreeWidgetItem(m_list);
        item->setData(0, Qt::UserRole, QString::fromStdString(e.id));
        item->setText(COL_DATE, locale.toString(QDateTime::fromMSecsSinceEpoch(e.quarantinedAt), QLocale::ShortFormat));
        item->setText(COL_SIGNATURE, QString::fromStdString(e.signature));
        item->setText(COL_PATH, displayBytes(e.originalPath));
        item->setToolTip(COL_PATH, tr("SHA-256 %1\nmode %2, owner %3:%4")
                                       .arg(QString::fromStdString(e.sha256))
                                       .arg(e.mode, 4, 8, QChar('0'))
                                       .arg(e.uid)
                                       .arg(e.gid));
        item->setText(COL_SIZE, locale.formattedDataSize(qint64(e.size)));
        item->setTextAlignment(COL_SIZE, Qt::AlignRight | Qt::AlignVCenter);
    }
    select(selected.isEmpty() ? QStringList() : selected);
    if (selected.isEmpty()) {
        m_list->clearSelection();
    }
    const bool any = !m_list->selectedItems().isEmpty();
    m_restore->setEnabled(any);
    m_delete->setEnabled(any);
    if (!m_notices.isEmpty()) {
        setMessage(m_notices.join(QLatin1Char('\n')), true);
    }
    retranslate();
}

int QuarantinePage::entryCount() const
{
    return m_list->topLevelItemCount();
}

void QuarantinePage::select(const QStringList& ids)
{
    for (int i = 0; i < m_list->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_list->topLevelItem(i);
        item->setSelected(ids.isEmpty() || ids.contains(item->data(0, Qt::UserRole).toString()));
    }
}

QStringList QuarantinePage::selectedIds() const
{
    QStringList out;
    for (QTreeWidgetItem* item : m_list->selectedItems()) {
        out << item->data(0, Qt::UserRole).toString();
    }
    return out;
}

int QuarantinePage::restoreSelected(bool beside)
{
    QString error;
    auto store = openStore(error);
    if (!store) {
        setMessage(tr("The quarantine cannot be used: %1").arg(error), true);
        return 0;
    }
    int restored = 0;
    QStringList problems, places;
    for (const QString& id : selectedIds()) {
        std::string to;
        const kuv::store::QResult r = store->restore(
            id.toStdString(), beside ? kuv::store::RestoreMode::Beside : kuv::store::RestoreMode::Refuse, &to);
        if (r.ok()) {
            ++restored;
            places << displayBytes(to);
        } else if (r.status == kuv::store::QStatus::Exists) {
            problems << tr("Something now stands at the original place; the file stays in the quarantine.");
        } else {
            problems << QString::fromStdString(r.message);
        }
    }
    refresh();
    if (problems.isEmpty()) {
        setMessage(tr("Restored: %1").arg(places.join(QStringLiteral(", "))), false);
    } else {
        setMessage(problems.join(QLatin1Char('\n')), true);
    }
    return restored;
}

int QuarantinePage::deleteSelected()
{
    QString error;
    auto store = openStore(error);
    if (!store) {
        setMessage(tr("The quarantine cannot be used: %1").arg(error), true);
        return 0;
    }
    int deleted = 0;
    QStringList problems;
    for (const QString& id : selectedIds()) {
        const kuv::store::QResult r = store->remove(id.toStdString());
        if (r.ok()) {
            ++deleted;
        } else {
            problems << QString::fromStdString(r.message);
        }
    }
    refresh();
    setMessage(problems.isEmpty() ? tr("Deleted %n file(s) for good.", nullptr, deleted) : problems.join(QLatin1Char('\n')),
               !problems.isEmpty());
    return deleted;
}

void QuarantinePage::onRestore()
{
    // First without replacing anything; for what finds its place taken, ask.
    QString error;
    auto store = openStore(error);
    QStringList taken;
    if (store) {
        for (const QString& id : selectedIds()) {
            kuv::store::QuarantineEntry e;
            struct stat st {};
            if (store->db().quarantineEntry(id.toStdString(), e) && ::lstat(e.originalPath.c_str(), &st) == 0) {
                taken << displayBytes(e.originalPath);
            }
        }
    }
    store.reset();
    bool beside = false;
    if (!taken.isEmpty()) {
        const auto answer = QMessageBox::question(
            this, tr("Restore"),
            tr("Something now stands at:\n%1\n\nRestore beside it under a new name (nothing is overwritten)?")
                .arg(taken.join(QLatin1Char('\n'))),
            QMessageBox::Yes | QMessageBox::Cancel, QMessageBox::Yes);
        if (answer != QMessageBox::Yes) {
            return;
        }
        beside = true;
    }
    restoreSelected(beside);
}

void QuarantinePage::onDelete()
{
    const int count = m_list->selectedItems().size();
    if (count == 0) {
        return;
    }
    const auto answer = QMessageBox::warning(
        this, tr("Delete for good"),
        tr("Delete %n quarantined file(s) for good? They cannot be restored afterwards.", nullptr, count),
        QMessageBox::Yes | QMessageBox::Cancel, QMessageBox::Cancel);
    if (answer == QMessageBox::Yes) {
        deleteSelected();
    }
}

void QuarantinePage::setMessage(const QString& text, bool problem)
{
    m_notices.clear();
    m_message->setText(text);
    m_message->setStyleSheet(problem ? QStringLiteral("color: #a33;") : QString());
}

void QuarantinePage::retranslate()
{
    m_title->setText(tr("Quarantine"));
    const int n = m_list->topLevelItemCount();
    m_hint->setText(n == 0 ? tr("The quarantine is empty. Files found by a scan can be moved here: they are kept "
                                "harmless and can be restored to where they were.")
                           : tr("%n file(s) kept harmless: not executable and stored so that no program recognises "
                                "them. Restore puts a file back with its permissions and times; it never "
                                "overwrites anything.",
                                nullptr, n));
    m_list->setHeaderLabels({tr("Quarantined"), tr("Threat"), tr("Original location"), tr("Size")});
    m_restore->setText(tr("Restore"));
    m_delete->setText(tr("Delete for good..."));
    m_refresh->setText(tr("Refresh"));
}

} // namespace shell
} // namespace kuv

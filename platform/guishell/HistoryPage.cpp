// SPDX-License-Identifier: GPL-2.0-or-later
#include "HistoryPage.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "FindingActions.h"
#include "ScanSettings.h"
#include "StoreDb.h"
#include "StorePaths.h"

namespace kuv {
namespace shell {

namespace {

enum JobColumn { JOB_START, JOB_DURATION, JOB_RESULT, JOB_FILES, JOB_FOUND, JOB_PATHS, JOB_COUNT };
enum FindingColumn { F_PATH, F_VERDICT, F_WHAT, F_ACTION, F_COUNT };
constexpr int kPathRole = Qt::UserRole + 1;
constexpr int kSignatureRole = Qt::UserRole + 2;
constexpr int kActionRole = Qt::UserRole + 3;
constexpr int kVerdictRole = Qt::UserRole + 4;

std::unique_ptr<kuv::store::StoreDb> openDb(QString& error, QStringList* notices = nullptr)
{
    std::vector<std::string> n;
    std::string why;
    auto db = kuv::store::openUserDb(kuv::store::userDataDir(), n, why);
    if (!db) {
        error = QString::fromStdString(why);
    }
    if (notices != nullptr) {
        for (const std::string& s : n) {
            *notices << QString::fromStdString(s);
        }
    }
    return db;
}

QString durationText(int64_t ms)
{
    if (ms < 60000) {
        return HistoryPage::tr("%1 s").arg(QLocale().toString(double(ms) / 1000.0, 'f', 1));
    }
    const int64_t s = ms / 1000;
    return HistoryPage::tr("%1 min %2 s").arg(s / 60).arg(s % 60);
}

} // namespace

HistoryPage::HistoryPage(QWidget* parent) : StorePage(QStringLiteral("kuvHistoryPage"), parent)
{
    auto* split = new QSplitter(Qt::Vertical, this);
    m_jobs = new QTreeWidget(split);
    m_jobs->setObjectName(QStringLiteral("kuvHistoryJobs"));
    m_jobs->setColumnCount(JOB_COUNT);
    m_jobs->setRootIsDecorated(false);
    m_jobs->setUniformRowHeights(true);
    m_jobs->header()->setStretchLastSection(true);
    for (int c = 0; c < JOB_PATHS; ++c) {
        m_jobs->header()->setSectionResizeMode(c, QHeaderView::ResizeToContents);
    }
    auto* lower = new QWidget(split);
    auto* lowerLayout = new QVBoxLayout(lower);
    lowerLayout->setContentsMargins(0, 0, 0, 0);
    m_jobTitle = new QLabel(lower);
    m_jobTitle->setWordWrap(true);
    m_findings = new QTreeWidget(lower);
    m_findings->setObjectName(QStringLiteral("kuvHistoryFindings"));
    m_findings->setColumnCount(F_COUNT);
    m_findings->setRootIsDecorated(false);
    m_findings->setTextElideMode(Qt::ElideMiddle);
    m_findings->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_findings->header()->setStretchLastSection(false);
    m_findings->header()->setSectionResizeMode(F_PATH, QHeaderView::Stretch);
    for (int c = F_VERDICT; c < F_COUNT; ++c) {
        m_findings->header()->setSectionResizeMode(c, QHeaderView::ResizeToContents);
    }
    auto* buttons = new QHBoxLayout();
    m_quarantine = new QPushButton(lower);
    m_delete = new QPushButton(lower);
    m_ignore = new QPushButton(lower);
    m_quarantineAll = new QPushButton(lower);
    m_quarantine->setObjectName(QStringLiteral("kuvFindingQuarantine"));
    m_delete->setObjectName(QStringLiteral("kuvFindingDelete"));
    m_ignore->setObjectName(QStringLiteral("kuvFindingIgnore"));
    m_quarantineAll->setObjectName(QStringLiteral("kuvFindingQuarantineAll"));
    buttons->addWidget(m_quarantine);
    buttons->addWidget(m_delete);
    buttons->addWidget(m_ignore);
    buttons->addStretch(1);
    buttons->addWidget(m_quarantineAll);
    lowerLayout->addWidget(m_jobTitle);
    lowerLayout->addWidget(m_findings, 1);
    lowerLayout->addLayout(buttons);
    split->addWidget(m_jobs);
    split->addWidget(lower);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 2);
    m_layout->addWidget(split, 1);
    m_layout->addWidget(m_message);

    connect(m_jobs, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        if (item != nullptr) {
            openJob(item->data(0, Qt::UserRole).toLongLong());
        }
    });
    connect(m_findings, &QTreeWidget::itemSelectionChanged, this, &HistoryPage::updateButtons);
    connect(m_quarantine, &QPushButton::clicked, this, [this]() { quarantineSelected(false); });
    connect(m_quarantineAll, &QPushButton::clicked, this, [this]() { quarantineSelected(true); });
    connect(m_ignore, &QPushButton::clicked, this, [this]() { ignoreSelected(false); });
    connect(m_delete, &QPushButton::clicked, this, [this]() {
        const int n = m_findings->selectedItems().size();
        if (n > 0 && QMessageBox::warning(this, tr("Delete for good"),
                                          tr("Delete %n file(s) for good? They cannot be restored.", nullptr, n),
                                          QMessageBox::Yes | QMessageBox::Cancel, QMessageBox::Cancel) == QMessageBox::Yes) {
            deleteSelected(false);
        }
    });
    retranslate();
    refresh();
}

void HistoryPage::refresh()
{
    QString error;
    QStringList notices;
    auto db = openDb(error, &notices);
    const int64_t keep = m_opened;
    m_jobs->blockSignals(true);
    m_jobs->clear();
    if (!db) {
        m_jobs->blockSignals(false);
        m_message->setText(tr("The history cannot be read: %1").arg(error));
        return;
    }
    kuv::store::ScanSettings settings;
    kuv::store::loadScanSettings(settings);
    db->pruneHistory(settings.historyDays, kuv::store::nowMs());
    const QLocale locale;
    QTreeWidgetItem* current = nullptr;
    for (const kuv::store::JobRecord& j : db->jobs()) {
        auto* item = new QTreeWidgetItem(m_jobs);
        item->setData(0, Qt::UserRole, qlonglong(j.id));
        item->setText(JOB_START, locale.toString(QDateTime::fromMSecsSinceEpoch(j.startMs), QLocale::ShortFormat));
        item->setText(JOB_DURATION, durationText(j.durationMs));
        item->setText(JOB_RESULT, j.state == "done"        ? (j.infected > 0 ? tr("threats found") : tr("clean"))
                                  : j.state == "cancelled" ? tr("cancelled")
                                                           : tr("failed"));
        item->setText(JOB_FILES, locale.toString(qlonglong(j.files)));
        item->setText(JOB_FOUND, locale.toString(qlonglong(j.infected)));
        QStringList paths;
        for (const std::string& p : j.paths) {
            paths << displayBytes(p);
        }
        item->setText(JOB_PATHS, paths.join(QStringLiteral(", ")));
        if (j.infected > 0) {
            item->setForeground(JOB_RESULT, QColor(0xb0, 0x20, 0x20));
        }
        if (j.id == keep) {
            current = item;
        }
    }
    if (current != nullptr) {
        m_jobs->setCurrentItem(current);
    }
    m_jobs->blockSignals(false);
    if (keep > 0 && current == nullptr) {
        m_opened = 0;
        m_findings->clear();
    } else if (keep > 0) {
        openJob(keep);
    }
    if (!notices.isEmpty()) {
        m_message->setText(notices.join(QLatin1Char('\n')));
    }
    retranslate();
    updateButtons();
}

int HistoryPage::jobCount() const
{
    return m_jobs->topLevelItemCount();
}

int HistoryPage::findingCount() const
{
    return m_findings->topLevelItemCount();
}

bool HistoryPage::openJob(int64_t id)
{
    QString error;
    auto db = openDb(error);
    kuv::store::JobRecord j;
    if (!db || !db->job(id, j)) {
        return false;
    }
    m_opened = id;
    m_openedJobName = QString::fromStdString(j.job);
    for (int i = 0; i < m_jobs->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_jobs->topLevelItem(i);
        if (item->data(0, Qt::UserRole).toLongLong() == id && m_jobs->currentItem() != item) {
            m_jobs->blockSignals(true);
            m_jobs->setCurrentItem(item);
            m_jobs->blockSignals(false);
        }
    }
    m_findings->clear();
    for (const kuv::store::FindingRecord& f : j.findings) {
        auto* item = new QTreeWidgetItem(m_findings);
        item->setData(0, kPathRole, QByteArray(f.path.data(), int(f.path.size())));
        item->setData(0, kSignatureRole, QString::fromStdString(f.signature));
        item->setData(0, kActionRole, QString::fromStdString(f.action));
        item->setData(0, kVerdictRole, QString::fromStdString(f.verdict));
        item->setText(F_PATH, displayBytes(f.path));
        item->setText(F_VERDICT, f.verdict == "infected"      ? tr("infected")
                                 : f.verdict == "quarantined" ? tr("quarantined")
                                 : f.verdict == "deleted"     ? tr("deleted")
                                 : f.verdict == "error"       ? tr("error")
                                 : f.verdict == "partial"     ? tr("not fully scanned")
                                 : f.verdict == "skipped"     ? tr("skipped")
                                                              : QString::fromStdString(f.verdict));
        item->setText(F_WHAT, QString::fromStdString(f.signature.empty() ? f.reason : f.signature));
        const QString action = QString::fromStdString(f.action);
        item->setText(F_ACTION, action.startsWith(QLatin1String("quarantined")) ? tr("moved to the quarantine")
                                : action == QLatin1String("deleted")             ? tr("deleted")
                                : action == QLatin1String("ignored")             ? tr("ignored")
                                                                                 : QString());
    }
    const QLocale locale;
    m_jobTitle->setText(tr("Scan of %1: %n file(s) scanned, %2 found, %3 errors, %4 skipped.", nullptr, int(j.files))
                            .arg(locale.toString(QDateTime::fromMSecsSinceEpoch(j.startMs), QLocale::LongFormat))
                            .arg(j.infected)
                            .arg(j.errors)
                            .arg(j.skipped));
    updateButtons();
    return true;
}

int HistoryPage::act(Act what, bool allFindings)
{
    int done = 0;
    QStringList messages;
    for (int i = 0; i < m_findings->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_findings->topLevelItem(i);
        if (!allFindings && !item->isSelected()) {
            continue;
        }
        // Only files with a threat in them, and each only once.
        if (item->data(0, kVerdictRole).toString() != QLatin1String("infected") || !item->data(0, kActionRole).toString().isEmpty()) {
            continue;
        }
        const QByteArray bytes = item->data(0, kPathRole).toByteArray();
        const std::string path(bytes.constData(), size_t(bytes.size()));
        FindingOutcome r;
        if (what == ACT_QUARANTINE) {
            r = quarantineFinding(path, item->data(0, kSignatureRole).toString().toStdString(),
                                  m_openedJobName.toStdString(), m_opened);
        } else if (what == ACT_DELETE) {
            r = deleteFinding(path, m_opened);
        } else {
            r = ignoreFinding(path, m_opened);
        }
        if (r.ok) {
            ++done;
        } else {
            messages << r.message;
        }
    }
    const int64_t keep = m_opened;
    refresh();
    openJob(keep);
    if (messages.isEmpty()) {
        m_message->setText(what == ACT_QUARANTINE ? tr("%n file(s) moved to the quarantine.", nullptr, done)
                           : what == ACT_DELETE   ? tr("%n file(s) deleted.", nullptr, done)
                                                  : tr("%n finding(s) ignored.", nullptr, done));
    } else {
        m_message->setText(messages.join(QLatin1Char('\n')));
    }
    if (done > 0) {
        emit findingsHandled();
    }
    return done;
}

int HistoryPage::quarantineSelected(bool allFindings)
{
    return act(ACT_QUARANTINE, allFindings);
}

int HistoryPage::deleteSelected(bool allFindings)
{
    return act(ACT_DELETE, allFindings);
}

int HistoryPage::ignoreSelected(bool allFindings)
{
    return act(ACT_IGNORE, allFindings);
}

void HistoryPage::updateButtons()
{
    bool open = false, anyOpen = false;
    for (int i = 0; i < m_findings->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_findings->topLevelItem(i);
        const bool pending = item->data(0, kVerdictRole).toString() == QLatin1String("infected") && item->data(0, kActionRole).toString().isEmpty();
        anyOpen = anyOpen || pending;
        open = open || (pending && item->isSelected());
    }
    m_quarantine->setEnabled(open);
    m_delete->setEnabled(open);
    m_ignore->setEnabled(open);
    m_quarantineAll->setEnabled(anyOpen);
}

void HistoryPage::retranslate()
{
    m_title->setText(tr("History"));
    m_hint->setText(m_jobs->topLevelItemCount() == 0
                        ? tr("No scan yet. Every scan is kept here with what it found and what was done.")
                        : tr("Every scan with what it found and what was done. Choose a scan to see its findings."));
    m_jobs->setHeaderLabels({tr("Started"), tr("Duration"), tr("Result"), tr("Files"), tr("Found"), tr("Scanned")});
    m_findings->setHeaderLabels({tr("File"), tr("Verdict"), tr("Threat or reason"), tr("Action")});
    if (m_opened == 0) {
        m_jobTitle->setText(tr("Choose a scan above to see its findings."));
    }
    m_quarantine->setText(tr("Quarantine"));
    m_delete->setText(tr("Delete..."));
    m_ignore->setText(tr("Ignore"));
    m_quarantineAll->setText(tr("Quarantine all"));
}

void HistoryPage::languageChanged()
{
    retranslate();
    if (m_opened > 0) {
        openJob(m_opened);
    }
}

} // namespace shell
} // namespace kuv

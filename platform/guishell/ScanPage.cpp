#include "ScanPage.h"

#include <QEvent>
#include <QFile>
#include <QFileInfo>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "FileUtils.h"

namespace kuv {
namespace shell {

namespace {
// A request can name thousands of files; the list shows the first ones, the counts cover all.
constexpr int kMaxListedPaths = 5000;
} // namespace

ScanPage::ScanPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvScanPage"));
    auto* layout = new QVBoxLayout(this);
    m_title = new QLabel(this);
    QFont big = m_title->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    m_title->setFont(big);
    layout->addWidget(m_title);

    m_engineNotice = new QLabel(this);
    m_engineNotice->setObjectName(QStringLiteral("kuvScanEngineNotice"));
    m_engineNotice->setWordWrap(true);
    m_engineNotice->setStyleSheet(QStringLiteral(
        "QLabel { background: #fff4d6; border: 1px solid #d9a400; border-radius: 4px; padding: 8px; }"));
    layout->addWidget(m_engineNotice);

    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("kuvScanPaths"));
    m_list->setRootIsDecorated(false);
    m_list->setColumnCount(3);
    m_list->header()->setStretchLastSection(false);
    m_list->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    layout->addWidget(m_list, 1);

    m_progress = new QProgressBar(this);
    m_progress->setObjectName(QStringLiteral("kuvScanProgress"));
    m_progress->setRange(0, 100);
    m_progress->setValue(0);
    layout->addWidget(m_progress);

    m_counts = new QLabel(this);
    m_counts->setObjectName(QStringLiteral("kuvScanCounts"));
    layout->addWidget(m_counts);

    retranslate();
}

void ScanPage::setRequest(const QStringList& paths)
{
    m_paths = paths;
    m_kinds.clear();
    m_requestTime = QDateTime::currentDateTime();
    for (const QString& p : m_paths) {
        const QFileInfo fi(p);
        if (!fi.exists() && !fi.isSymLink()) {
            m_kinds << KIND_MISSING;
        } else if (fi.isDir()) {
            m_kinds << KIND_FOLDER;
        } else if (fi.isFile()) {
            m_kinds << KIND_FILE;
        } else {
            m_kinds << KIND_OTHER;
        }
    }
    fill();
}

void ScanPage::retranslate()
{
    m_title->setText(tr("Context-menu scan"));
    m_engineNotice->setText(tr("No scan engine is installed. The request below was received and recorded, "
                               "but nothing has been scanned."));
    m_list->setHeaderLabels({tr("Path"), tr("Type"), tr("State")});
    fill();
}

void ScanPage::fill()
{
    m_list->clear();
    int files = 0;
    int folders = 0;
    int missing = 0;
    for (int i = 0; i < m_paths.size(); ++i) {
        QString kind;
        switch (m_kinds.value(i, KIND_OTHER)) {
        case KIND_FILE:
            ++files;
            kind = tr("File");
            break;
        case KIND_FOLDER:
            ++folders;
            kind = tr("Folder");
            break;
        case KIND_MISSING:
            ++missing;
            kind = tr("Missing");
            break;
        case KIND_OTHER:
            kind = tr("Other");
            break;
        }
        if (i < kMaxListedPaths) {
            // Control characters in a file name would break the row; show them escaped.
            const QString shown = QString::fromStdString(kuv::escapeControl(m_paths[i].toStdString()));
            auto* item = new QTreeWidgetItem(m_list, {shown, kind, tr("Not scanned")});
            item->setToolTip(0, shown);
        }
    }
    m_list->resizeColumnToContents(1);
    m_list->resizeColumnToContents(2);
    if (m_paths.isEmpty()) {
        m_progress->setFormat(tr("No scan requested"));
        m_counts->setText(tr("Choose files in the file manager and use its scan action to request a scan."));
    } else {
        m_progress->setFormat(tr("Not started: no scan engine"));
        QString counts = tr("%n path(s) requested at %1: ", nullptr, m_paths.size())
                             .arg(QLocale().toString(m_requestTime, QLocale::ShortFormat));
        counts += tr("%1 file(s), %2 folder(s), %3 missing. Scanned: 0.").arg(files).arg(folders).arg(missing);
        if (m_paths.size() > kMaxListedPaths) {
            counts += QLatin1Char(' ') + tr("The list shows the first %1.").arg(kMaxListedPaths);
        }
        m_counts->setText(counts);
    }
    m_progress->setValue(0);
}

void ScanPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

} // namespace shell
} // namespace kuv

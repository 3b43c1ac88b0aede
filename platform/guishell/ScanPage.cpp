// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanPage.h"

#include "KuvPluginSupport.h"

#include <QDateTime>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QEvent>
#include <QFileDialog>
#include <QFrame>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMimeData>
#include <QPalette>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

namespace kuv {
namespace shell {

namespace {
// A scan can report thousands of files; the list keeps the first ones, the counts cover all.
constexpr int kMaxListedResults = 10000;
// The job's state is drawn at most this often: a job sends several messages within a few
// milliseconds, and each drawing lays out and paints the page again.
constexpr int kShowEveryMs = 40;
// A wait (sending, queued, counting) shows the animated busy bar once it has lasted this long; most
// context-menu scans are through it sooner, and the animation repaints the bar many times a second.
constexpr qint64 kBusyAfterMs = 300;
// A signature database older than this gets a hint on the page.
constexpr int kDatabaseMaxAgeDays = 7;
const char* const kWarnStyle =
    "QFrame#kuvScanBackendBox { background: #fff4d6; border: 1px solid #d9a400; border-radius: 4px; }";
const char* const kErrorStyle =
    "QFrame#kuvScanBackendBox { background: #fde2e1; border: 1px solid #c0392b; border-radius: 4px; }";

// The exact bytes of a dropped local file: the URL's percent-encoded path, decoded as bytes.
std::string urlBytes(const QUrl& url)
{
    return QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()).toStdString();
}

QString elapsedText(qint64 ms)
{
    const qint64 s = ms / 1000;
    return QStringLiteral("%1:%2:%3")
        .arg(s / 3600, 2, 10, QLatin1Char('0'))
        .arg((s / 60) % 60, 2, 10, QLatin1Char('0'))
        .arg(s % 60, 2, 10, QLatin1Char('0'));
}
} // namespace

ScanPage::ScanPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvScanPage"));
    setAcceptDrops(true);
    auto* layout = new QVBoxLayout(this);
    m_title = kuvsdk::headingLabel(this);
    layout->addWidget(m_title);

    m_backendBox = new QFrame(this);
    m_backendBox->setObjectName(QStringLiteral("kuvScanBackendBox"));
    auto* backendLayout = new QHBoxLayout(m_backendBox);
    m_backendText = new QLabel(m_backendBox);
    m_backendText->setObjectName(QStringLiteral("kuvScanBackendText"));
    m_backendText->setWordWrap(true);
    // Wraps to the width it gets instead of asking for the width of its whole text.
    m_backendText->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    m_backendText->setMinimumWidth(200);
    m_startBackend = new QPushButton(m_backendBox);
    m_startBackend->setObjectName(QStringLiteral("kuvScanStartBackend"));
    backendLayout->addWidget(m_backendText, 1);
    backendLayout->addWidget(m_startBackend);
    layout->addWidget(m_backendBox);

    m_engineLine = new QLabel(this);
    m_engineLine->setObjectName(QStringLiteral("kuvScanEngine"));
    m_engineLine->setWordWrap(true);
    layout->addWidget(m_engineLine);

    auto* buttons = new QHBoxLayout();
    m_scanFile = new QPushButton(this);
    m_scanFile->setObjectName(QStringLiteral("kuvScanFile"));
    m_scanFolder = new QPushButton(this);
    m_scanFolder->setObjectName(QStringLiteral("kuvScanFolder"));
    m_scanHome = new QPushButton(this);
    m_scanHome->setObjectName(QStringLiteral("kuvScanHome"));
    m_cancel = new QPushButton(this);
    m_cancel->setObjectName(QStringLiteral("kuvScanCancel"));
    buttons->addWidget(m_scanFile);
    buttons->addWidget(m_scanFolder);
    buttons->addWidget(m_scanHome);
    buttons->addStretch(1);
    buttons->addWidget(m_cancel);
    layout->addLayout(buttons);
    m_dropHint = new QLabel(this);
    m_dropHint->setStyleSheet(QStringLiteral("QLabel { color: #666; }"));
    layout->addWidget(m_dropHint);

    m_stateText = new QLabel(this);
    m_stateText->setObjectName(QStringLiteral("kuvScanState"));
    m_stateText->setWordWrap(true);
    QFont bold = m_stateText->font();
    bold.setBold(true);
    m_stateText->setFont(bold);
    layout->addWidget(m_stateText);

    m_progress = new QProgressBar(this);
    m_progress->setObjectName(QStringLiteral("kuvScanProgress"));
    m_progress->setRange(0, 100);
    m_progress->setValue(0);
    layout->addWidget(m_progress);

    auto* grid = new QGridLayout();
    auto pair = [this, grid](int row, int col, QLabel*& caption, QLabel*& value, const char* name) {
        caption = new QLabel(this);
        value = new QLabel(this);
        value->setObjectName(QLatin1String(name));
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        grid->addWidget(caption, row, col);
        grid->addWidget(value, row, col + 1);
    };
    pair(0, 0, m_filesCaption, m_filesValue, "kuvScanFiles");
    pair(0, 2, m_bytesCaption, m_bytesValue, "kuvScanBytes");
    pair(1, 0, m_threatsCaption, m_threatsValue, "kuvScanThreats");
    pair(1, 2, m_elapsedCaption, m_elapsedValue, "kuvScanElapsed");
    m_currentCaption = new QLabel(this);
    m_currentValue = new QLabel(this);
    m_currentValue->setObjectName(QStringLiteral("kuvScanCurrent"));
    m_currentValue->setTextFormat(Qt::PlainText);
    m_currentValue->setMinimumWidth(100);
    m_currentValue->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    grid->addWidget(m_currentCaption, 2, 0);
    grid->addWidget(m_currentValue, 2, 1, 1, 3);
    grid->setColumnStretch(1, 1);
    grid->setColumnStretch(3, 1);
    layout->addLayout(grid);

    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("kuvScanResults"));
    m_list->setRootIsDecorated(false);
    m_list->setColumnCount(3);
    m_list->header()->setStretchLastSection(false);
    m_list->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_list->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    m_list->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
    layout->addWidget(m_list, 1);

    connect(m_startBackend, &QPushButton::clicked, this, [this]() {
        if (m_client) {
            m_client->startBackend();
        }
    });
    connect(m_scanFile, &QPushButton::clicked, this, &ScanPage::chooseFile);
    connect(m_scanFolder, &QPushButton::clicked, this, &ScanPage::chooseFolder);
    connect(m_scanHome, &QPushButton::clicked, this, [this]() {
        scanPaths({QFile::encodeName(QDir::homePath()).toStdString()}, false, "home folder");
    });
    connect(m_cancel, &QPushButton::clicked, this, [this]() {
        if (m_client && !m_job.isEmpty()) {
            m_client->cancel(m_job);
            m_cancel->setEnabled(false);
        }
    });
    m_showTimer.setSingleShot(true);
    connect(&m_showTimer, &QTimer::timeout, this, &ScanPage::flushShow);
    m_elapsedTimer.setInterval(1000);
    connect(&m_elapsedTimer, &QTimer::timeout, this, &ScanPage::tickElapsed);

    retranslate();
}

void ScanPage::setClient(ScanClient* client)
{
    if (m_client) {
        disconnect(m_client, nullptr, this, nullptr);
    }
    m_client = client;
    if (client != nullptr) {
        connect(client, &ScanClient::backendChanged, this, [this]() { scheduleShow(false, true); });
        connect(client, &ScanClient::jobCreated, this, &ScanPage::onJobCreated);
        connect(client, &ScanClient::jobAccepted, this, &ScanPage::onAccepted);
        connect(client, &ScanClient::jobProgress, this, &ScanPage::onProgress);
        connect(client, &ScanClient::jobResults, this, &ScanPage::onResults);
        connect(client, &ScanClient::jobEnded, this, &ScanPage::onEnded);
    }
    showBackend();
    showJob();
}

void ScanPage::scanPaths(const std::vector<std::string>& paths, bool reportClean, const char* origin)
{
    if (!m_client || paths.empty()) {
        return;
    }
    m_client->startJob(paths, reportClean, origin);
}

int ScanPage::resultCount() const
{
    return m_list->topLevelItemCount();
}

void ScanPage::onJobCreated(const QString& job, int pathCount)
{
    m_job = job;
    m_phase = PHASE_SENDING;
    m_pathCount = pathCount;
    m_position = 0;
    m_progressData = ScanProgress();
    m_end = ScanEnd();
    m_threats = 0;
    m_backendGone = false;
    m_elapsedMs = 0;
    m_clock.start();
    m_elapsedTimer.start();
    if (m_list->topLevelItemCount() > 0) {
        m_list->clear();
    }
    m_busyClock.invalidate(); // its wait starts now
    scheduleShow(true, false);
}

void ScanPage::onAccepted(const QString& job, int position)
{
    if (job != m_job) {
        return;
    }
    m_position = position;
    m_phase = position > 0 ? PHASE_WAITING : PHASE_RUNNING;
    scheduleShow(true, false);
}

void ScanPage::onProgress(const QString& job, const ScanProgress& progress)
{
    if (job != m_job) {
        return;
    }
    m_phase = PHASE_RUNNING;
    m_progressData = progress;
    m_threats = std::max(m_threats, progress.threats);
    if (progress.elapsedMs > 0) {
        m_elapsedMs = progress.elapsedMs;
        m_clock.restart();
    }
    scheduleShow(true, false);
}

void ScanPage::onResults(const QString& job, const QVector<ScanResultRow>& rows)
{
    if (job != m_job) {
        return;
    }
    // Inserted in one go: one insertion into the list's model, and no full repaint of the list (with its
    // header) as turning its updates off and on again costs.
    QList<QTreeWidgetItem*> items;
    int room = kMaxListedResults - m_list->topLevelItemCount();
    for (const ScanResultRow& r : rows) {
        if (r.verdict == QLatin1String("infected") || r.verdict == QLatin1String("quarantined") ||
            r.verdict == QLatin1String("deleted")) {
            ++m_threats;
        }
        if (room <= 0) {
            continue;
        }
        --room;
        const QString shown = displayPath(r.path);
        QString detail = r.signature;
        if (!r.reason.isEmpty()) {
            detail = detail.isEmpty() ? r.reason : detail + QStringLiteral(" (") + r.reason + QLatin1Char(')');
        }
        auto* item = new QTreeWidgetItem(QStringList{shown, verdictText(r.verdict), detail});
        item->setData(1, Qt::UserRole, r.verdict);
        item->setToolTip(0, shown);
        item->setToolTip(2, detail);
        if (r.verdict == QLatin1String("infected")) {
            item->setForeground(1, QColor(0xb0, 0x20, 0x20));
            item->setForeground(2, QColor(0xb0, 0x20, 0x20));
        } else if (r.verdict == QLatin1String("clean")) {
            item->setForeground(1, QColor(0x1b, 0x7f, 0x3b));
        }
        items.append(item);
    }
    if (!items.isEmpty()) {
        m_list->addTopLevelItems(items);
    }
    scheduleShow(true, false);
}

void ScanPage::onEnded(const QString& job, const ScanEnd& end)
{
    if (job != m_job) {
        return;
    }
    m_end = end;
    m_backendGone = end.backendGone;
    if (end.state == QLatin1String("done")) {
        m_phase = PHASE_DONE;
    } else if (end.state == QLatin1String("cancelled")) {
        m_phase = PHASE_CANCELLED;
    } else {
        m_phase = PHASE_FAILED;
    }
    if (end.durationMs > 0) {
        m_elapsedMs = end.durationMs;
    } else {
        m_elapsedMs += m_clock.isValid() ? m_clock.elapsed() : 0;
    }
    m_clock.invalidate();
    m_elapsedTimer.stop();
    m_threats = std::max(m_threats, end.infected);
    scheduleShow(true, true);
}

void ScanPage::scheduleShow(bool job, bool backend)
{
    m_jobDirty = m_jobDirty || job;
    m_backendDirty = m_backendDirty || backend;
    if (job) {
        const bool busy = m_phase == PHASE_SENDING || m_phase == PHASE_WAITING ||
                          (m_phase == PHASE_RUNNING && m_progressData.filesTotal < 0);
        if (!busy) {
            m_busyClock.invalidate();
        } else if (!m_busyClock.isValid()) {
            m_busyClock.start();
        }
    }
    if (!m_showTimer.isActive()) {
        m_showTimer.start(kShowEveryMs);
    }
}

void ScanPage::showBusy()
{
    const qint64 waited = m_busyClock.isValid() ? m_busyClock.elapsed() : kBusyAfterMs;
    if (waited >= kBusyAfterMs) {
        m_progress->setRange(0, 0);
        return;
    }
    m_progress->setRange(0, 1000);
    m_progress->setValue(0);
    m_progress->setFormat(QString());
    // Drawn again when the wait has lasted, unless it is over by then.
    m_jobDirty = true;
    const int left = static_cast<int>(kBusyAfterMs - waited);
    if (!m_showTimer.isActive() || m_showTimer.remainingTime() > left) {
        m_showTimer.start(left);
    }
}

void ScanPage::flushShow()
{
    if (!isVisible()) {
        return; // showEvent draws what is pending
    }
    if (m_jobDirty) {
        showJob();
    }
    if (m_backendDirty) {
        showBackend();
    }
}

void ScanPage::setTone(QLabel* label, Tone& current, Tone wanted)
{
    if (current == wanted) {
        return;
    }
    const bool wasBold = current == TONE_BAD_BOLD;
    current = wanted;
    // A palette rather than a style sheet: a style sheet is parsed and the label polished again at
    // every change. An empty palette lets the label follow its parent again.
    QPalette palette;
    if (wanted != TONE_PLAIN) {
        palette.setColor(QPalette::WindowText, wanted == TONE_GOOD ? QColor(0x1b, 0x7f, 0x3b) : QColor(0xb0, 0x20, 0x20));
    }
    label->setPalette(palette);
    if (wasBold || wanted == TONE_BAD_BOLD) {
        QFont font = label->font();
        font.setBold(wanted == TONE_BAD_BOLD);
        label->setFont(font);
    }
}

void ScanPage::tickElapsed()
{
    if (!isVisible()) {
        return; // set when the page is shown again
    }
    m_elapsedValue->setText(elapsedText(m_elapsedMs + (m_clock.isValid() ? m_clock.elapsed() : 0)));
}

void ScanPage::chooseFile()
{
    const QStringList files = QFileDialog::getOpenFileNames(this, tr("Choose files to scan"), QDir::homePath());
    std::vector<std::string> paths;
    for (const QString& f : files) {
        paths.push_back(QFile::encodeName(f).toStdString());
    }
    scanPaths(paths, true, "file chooser");
}

void ScanPage::chooseFolder()
{
    const QString dir = QFileDialog::getExistingDirectory(this, tr("Choose a folder to scan"), QDir::homePath());
    if (!dir.isEmpty()) {
        scanPaths({QFile::encodeName(dir).toStdString()}, false, "folder chooser");
    }
}

void ScanPage::dragEnterEvent(QDragEnterEvent* event)
{
    if (event->mimeData()->hasUrls()) {
        for (const QUrl& url : event->mimeData()->urls()) {
            if (url.isLocalFile()) {
                event->acceptProposedAction();
                return;
            }
        }
    }
    QWidget::dragEnterEvent(event);
}

void ScanPage::dropEvent(QDropEvent* event)
{
    std::vector<std::string> paths;
    for (const QUrl& url : event->mimeData()->urls()) {
        if (url.isLocalFile()) {
            paths.push_back(urlBytes(url));
        }
    }
    if (paths.empty()) {
        QWidget::dropEvent(event);
        return;
    }
    event->acceptProposedAction();
    scanPaths(paths, true, "drop");
}

void ScanPage::showEvent(QShowEvent* event)
{
    if (m_client) {
        m_client->ensureConnected();
    }
    // What changed while hidden, drawn before the page is.
    if (m_jobDirty) {
        showJob();
    } else if (m_phase != PHASE_IDLE) {
        tickElapsed();
    }
    if (m_backendDirty) {
        showBackend();
    }
    QWidget::showEvent(event);
}

QString ScanPage::verdictText(const QString& verdict) const
{
    if (verdict == QLatin1String("infected")) {
        return tr("Infected");
    }
    if (verdict == QLatin1String("clean")) {
        return tr("Clean");
    }
    if (verdict == QLatin1String("error")) {
        return tr("Not scanned");
    }
    if (verdict == QLatin1String("skipped")) {
        return tr("Skipped");
    }
    if (verdict == QLatin1String("partial")) {
        return tr("Partly scanned");
    }
    if (verdict == QLatin1String("quarantined")) {
        return tr("Quarantined");
    }
    if (verdict == QLatin1String("deleted")) {
        return tr("Deleted");
    }
    return displayPath(verdict.toStdString());
}

QString ScanPage::formatBytes(qint64 bytes) const
{
    return QLocale().formattedDataSize(bytes);
}

void ScanPage::retranslate()
{
    m_title->setText(tr("Scan"));
    m_startBackend->setText(tr("Start the back end"));
    m_scanFile->setText(tr("Scan files..."));
    m_scanFolder->setText(tr("Scan a folder..."));
    m_scanHome->setText(tr("Scan the home folder"));
    m_cancel->setText(tr("Cancel"));
    m_dropHint->setText(tr("You can also drop files and folders here, or use the scan action of the file manager."));
    m_filesCaption->setText(tr("Files:"));
    m_bytesCaption->setText(tr("Data scanned:"));
    m_threatsCaption->setText(tr("Threats found:"));
    m_elapsedCaption->setText(tr("Elapsed time:"));
    m_currentCaption->setText(tr("Current file:"));
    m_list->setHeaderLabels({tr("Path"), tr("Verdict"), tr("Signature or reason")});
    for (int i = 0; i < m_list->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_list->topLevelItem(i);
        item->setText(1, verdictText(item->data(1, Qt::UserRole).toString()));
    }
    m_backendShown.clear(); // the same inputs, new words
    showBackend();
    showJob();
}

std::string ScanPage::backendInputs() const
{
    if (!m_client) {
        return "none";
    }
    // Every status the back end sends (several per job) carries its job counts; only these fields are shown.
    std::string key = std::to_string(static_cast<int>(m_client->backendState()));
    key += '\0';
    key += m_client->lastError().toStdString();
    if (m_client->backendState() == ScanClient::BACKEND_RUNNING) {
        const Json::Value& s = m_client->status();
        for (const char* name : {"engine", "engine_version", "state", "db_error"}) {
            key += '\0';
            key += s[name].isString() ? s[name].asString() : std::string();
        }
        key += '\0';
        key += s["signatures"].isNumeric() ? std::to_string(s["signatures"].asDouble()) : std::string();
        if (s["db_time"].isNumeric()) {
            // The database's age in days is part of what is shown.
            const qint64 dbTime = static_cast<qint64>(s["db_time"].asDouble());
            key += '\0';
            key += std::to_string(dbTime) + '/' + std::to_string((QDateTime::currentSecsSinceEpoch() - dbTime) / 86400);
        }
    }
    return key;
}

void ScanPage::setBackendStyle(const char* style)
{
    const QString wanted = QLatin1String(style);
    if (m_backendBox->styleSheet() != wanted) {
        m_backendBox->setStyleSheet(wanted);
    }
}

void ScanPage::showBackend()
{
    m_backendDirty = false;
    std::string inputs = backendInputs();
    if (inputs == m_backendShown) {
        return;
    }
    m_backendShown = std::move(inputs);
    if (!m_client) {
        m_backendBox->setVisible(true);
        setBackendStyle(kErrorStyle);
        m_backendText->setText(tr("Scanning is not available in this window."));
        m_startBackend->setVisible(false);
        m_engineLine->clear();
        return;
    }
    const QString error = m_client->lastError();
    bool showBox = true;
    bool canStart = false;
    bool warnOnly = false;
    QString message;
    switch (m_client->backendState()) {
    case ScanClient::BACKEND_UNKNOWN:
    case ScanClient::BACKEND_CONNECTING:
        showBox = false;
        m_engineLine->setText(tr("Connecting to the scan back end..."));
        break;
    case ScanClient::BACKEND_STARTING:
        message = tr("Starting the scan back end...");
        break;
    case ScanClient::BACKEND_NO_BUS:
        message = tr("The message bus is not reachable, so the scan back end cannot be used.");
        canStart = true;
        break;
    case ScanClient::BACKEND_NOT_RUNNING:
        message = tr("The scan back end (kuv-scand) is not running. Nothing can be scanned until it runs.");
        canStart = true;
        break;
    case ScanClient::BACKEND_RUNNING: {
        showBox = false;
        QString oldDatabase;
        const Json::Value& s = m_client->status();
        const QString engine = QString::fromStdString(s["engine"].isString() ? s["engine"].asString() : "");
        const QString version =
            QString::fromStdString(s["engine_version"].isString() ? s["engine_version"].asString() : "");
        const qint64 signatures = s["signatures"].isNumeric() ? static_cast<qint64>(s["signatures"].asDouble()) : 0;
        QString line = engine.isEmpty() ? tr("Scan back end running.")
                                         : tr("Scan engine: %1 %2, %3 signatures.")
                                               .arg(displayPath(engine.toStdString()),
                                                    displayPath(version.toStdString()),
                                                    QLocale().toString(signatures));
        if (s["db_time"].isNumeric() && s["db_time"].asDouble() > 0) {
            const qint64 dbTime = static_cast<qint64>(s["db_time"].asDouble());
            const QDateTime t = QDateTime::fromSecsSinceEpoch(dbTime);
            line += QLatin1Char(' ') + tr("Database of %1.").arg(QLocale().toString(t.date(), QLocale::ShortFormat));
            const int days = static_cast<int>((QDateTime::currentSecsSinceEpoch() - dbTime) / 86400);
            if (days > kDatabaseMaxAgeDays) {
                oldDatabase = tr("The signature database is %n day(s) old: install the clamav-freshclam package "
                                 "to keep it up to date.",
                                 nullptr, days);
            }
        }
        const QString state = QString::fromStdString(s["state"].isString() ? s["state"].asString() : "");
        if (state == QLatin1String("error")) {
            const QString dbError =
                QString::fromStdString(s["db_error"].isString() ? s["db_error"].asString() : std::string());
            showBox = true;
            message = tr("The scan back end reports an error: %1").arg(displayPath(dbError.toStdString()));
        } else if (state == QLatin1String("starting") || state == QLatin1String("reloading")) {
            line += QLatin1Char(' ') + tr("Loading signatures...");
        }
        if (!showBox && !oldDatabase.isEmpty()) {
            showBox = true;
            warnOnly = true;
            message = oldDatabase;
        }
        m_engineLine->setText(line);
        break;
    }
    }
    if (m_client->backendState() != ScanClient::BACKEND_RUNNING &&
        m_client->backendState() != ScanClient::BACKEND_UNKNOWN &&
        m_client->backendState() != ScanClient::BACKEND_CONNECTING) {
        m_engineLine->clear();
    }
    if (!error.isEmpty() && showBox) {
        message += QLatin1Char(' ') + error;
    }
    m_backendBox->setVisible(showBox);
    setBackendStyle(canStart || warnOnly ? kWarnStyle : kErrorStyle);
    m_backendText->setText(message);
    m_startBackend->setVisible(canStart);
    const bool usable = m_client->backendState() != ScanClient::BACKEND_STARTING;
    m_scanFile->setEnabled(usable);
    m_scanFolder->setEnabled(usable);
    m_scanHome->setEnabled(usable);
}

void ScanPage::showJob()
{
    m_jobDirty = false;
    const bool running = m_phase == PHASE_SENDING || m_phase == PHASE_WAITING || m_phase == PHASE_RUNNING;
    m_cancel->setVisible(running);
    m_cancel->setEnabled(running && m_phase != PHASE_SENDING);
    const ScanProgress& p = m_progressData;
    switch (m_phase) {
    case PHASE_IDLE:
        m_stateText->setText(tr("No scan yet. Choose what to scan, or drop files here."));
        m_progress->setRange(0, 100);
        m_progress->setValue(0);
        m_progress->setFormat(QString());
        break;
    case PHASE_SENDING:
        m_stateText->setText(tr("Sending the scan request (%n path(s))...", nullptr, m_pathCount));
        showBusy();
        break;
    case PHASE_WAITING:
        m_stateText->setText(tr("Waiting for %n earlier scan(s) to finish...", nullptr, m_position));
        showBusy();
        break;
    case PHASE_RUNNING:
        if (p.filesTotal < 0) {
            m_stateText->setText(tr("Counting files..."));
            showBusy();
        } else {
            m_stateText->setText(tr("Scanning..."));
            m_progress->setRange(0, 1000);
            const qint64 done = p.bytesTotal > 0 ? p.bytesScanned * 1000 / p.bytesTotal
                                                 : (p.filesTotal > 0 ? p.filesScanned * 1000 / p.filesTotal : 0);
            m_progress->setValue(static_cast<int>(std::min<qint64>(1000, std::max<qint64>(0, done))));
            m_progress->setFormat(QStringLiteral("%p%"));
        }
        break;
    case PHASE_DONE:
        if (m_threats > 0) {
            m_stateText->setText(tr("Scan finished: %n threat(s) found.", nullptr, static_cast<int>(m_threats)));
            setTone(m_stateText, m_stateTone, TONE_BAD);
        } else {
            m_stateText->setText(tr("Scan finished: no threats found."));
            setTone(m_stateText, m_stateTone, TONE_GOOD);
        }
        m_progress->setRange(0, 1000);
        m_progress->setValue(1000);
        m_progress->setFormat(QStringLiteral("%p%"));
        break;
    case PHASE_CANCELLED:
        m_stateText->setText(tr("Scan cancelled."));
        m_progress->setRange(0, 1000);
        m_progress->setFormat(tr("Cancelled"));
        break;
    case PHASE_FAILED:
        if (m_end.reason == QLatin1String("back end not running")) {
            m_stateText->setText(tr("Scan failed: the scan back end is not running."));
        } else if (m_end.reason == QLatin1String("message bus not reachable")) {
            m_stateText->setText(tr("Scan failed: the message bus is not reachable."));
        } else if (m_backendGone) {
            m_stateText->setText(tr("Scan failed: the scan back end stopped during the scan."));
        } else {
            m_stateText->setText(tr("Scan failed: %1").arg(displayPath(m_end.reason.toStdString())));
        }
        setTone(m_stateText, m_stateTone, TONE_BAD);
        m_progress->setRange(0, 1000);
        m_progress->setFormat(tr("Failed"));
        break;
    }
    if (m_phase != PHASE_DONE && m_phase != PHASE_FAILED) {
        setTone(m_stateText, m_stateTone, TONE_PLAIN);
    }
    const qint64 files = m_phase >= PHASE_DONE && m_end.files > 0 ? m_end.files : p.filesScanned;
    const qint64 bytes = m_phase >= PHASE_DONE && m_end.bytes > 0 ? m_end.bytes : p.bytesScanned;
    if (m_phase == PHASE_IDLE) {
        m_filesValue->setText(QStringLiteral("-"));
        m_bytesValue->setText(QStringLiteral("-"));
        m_threatsValue->setText(QStringLiteral("-"));
        m_elapsedValue->setText(QStringLiteral("-"));
        m_currentValue->setText(QStringLiteral("-"));
        return;
    }
    m_filesValue->setText(p.filesTotal >= 0 && running
                              ? tr("%1 of %2").arg(QLocale().toString(files), QLocale().toString(p.filesTotal))
                              : QLocale().toString(files));
    m_bytesValue->setText(p.bytesTotal > 0 && running
                              ? tr("%1 of %2").arg(formatBytes(bytes), formatBytes(p.bytesTotal))
                              : formatBytes(bytes));
    m_threatsValue->setText(QLocale().toString(m_threats));
    setTone(m_threatsValue, m_threatsTone, m_threats > 0 ? TONE_BAD_BOLD : TONE_PLAIN);
    tickElapsed();
    m_currentValue->setText(running && !p.current.empty() ? displayPath(p.current) : QStringLiteral("-"));
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

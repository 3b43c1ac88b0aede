// SPDX-License-Identifier: GPL-2.0-or-later
#include "ProtectionStatusPlugin.h"

#include <algorithm>

#include <QDateTime>
#include <QFormLayout>
#include <QGroupBox>
#include <QHeaderView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLocale>
#include <QTableWidget>

namespace kuvplugin {

namespace {
// A status report names a handful of modules; a flood of new names is not one.
constexpr int kMaxModules = 64;
constexpr int kMaxNameChars = 64;
constexpr int kMaxDetailChars = 500;
} // namespace

bool parseStatus(const QByteArray& message, ModuleStatus& out)
{
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(message, &err);
    if (err.error != QJsonParseError::NoError || !doc.isObject()) {
        return false;
    }
    const QJsonObject o = doc.object();
    if (!o.value(QStringLiteral("module")).isString() || !o.value(QStringLiteral("state")).isString()) {
        return false;
    }
    out.module = kuvsdk::printable(o.value(QStringLiteral("module")).toString().toUtf8(), kMaxNameChars);
    out.state = o.value(QStringLiteral("state")).toString().toLower();
    out.detail = kuvsdk::printable(o.value(QStringLiteral("detail")).toString().toUtf8(), kMaxDetailChars);
    return !out.module.isEmpty();
}

void ProtectionModel::setBus(const kuvsdk::BusInfo& bus)
{
    m_bus = bus;
    emit changed();
}

void ProtectionModel::followBackend(kuvsdk::PluginEndpoint* bus)
{
    m_subscription.setOnExit([this]() {
        // Its last report stays, marked: the process behind it has ended.
        m_backend.insert(QStringLiteral("state"), QStringLiteral("ended"));
        m_backend.insert(QStringLiteral("jobs_running"), 0);
        m_backend.insert(QStringLiteral("jobs_queued"), 0);
        m_backendTime = QDateTime::currentDateTime();
        emit changed();
    });
    m_subscription.start(this, bus);
}

void ProtectionModel::apply(const kuvsdk::BusMessage& message)
{
    if (message.type == kuvscan::KUV_SCAN_MSG_STATUS) {
        const QJsonObject status = kuvsdk::scanBody(message);
        if (status.isEmpty()) {
            ++m_badMessages;
        } else {
            m_backend = status;
            m_backendTime = message.received;
            m_subscription.onStatus(static_cast<qint64>(status.value(QStringLiteral("pid")).toDouble()));
        }
        emit changed();
    } else if (message.type == kStatusMessageType) {
        applyModule(message);
        emit changed();
    }
}

void ProtectionModel::applyModule(const kuvsdk::BusMessage& message)
{
    ModuleStatus s;
    if (!parseStatus(message.body, s)) {
        ++m_badMessages;
        return;
    }
    const auto known = std::find_if(m_modules.begin(), m_modules.end(),
                                    [&s](const ModuleRow& m) { return m.status.module == s.module; });
    if (known != m_modules.end()) {
        *known = ModuleRow{s, message.received};
    } else if (static_cast<int>(m_modules.size()) >= kMaxModules) {
        ++m_badMessages;
    } else {
        m_modules.push_back(ModuleRow{s, message.received});
    }
}

ProtectionStatusPage::ProtectionStatusPage(ProtectionModel* model, QWidget* parent)
    : kuvsdk::PluginPage(parent), m_model(model)
{
    setObjectName(QStringLiteral("kuvProtectionStatusView"));
    m_backendBox = new QGroupBox(this);
    m_backendBox->setObjectName(QStringLiteral("kuvProtectionBackend"));
    auto* form = new QFormLayout(m_backendBox);
    auto row = [this, form](QLabel*& caption, QLabel*& value, const char* name) {
        caption = new QLabel(m_backendBox);
        value = new QLabel(m_backendBox);
        value->setObjectName(QLatin1String(name));
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        value->setWordWrap(true);
        form->addRow(caption, value);
    };
    row(m_backendStateCaption, m_backendState, "kuvProtectionBackendState");
    row(m_engineCaption, m_engine, "kuvProtectionEngine");
    row(m_signaturesCaption, m_signatures, "kuvProtectionSignatures");
    row(m_databaseCaption, m_database, "kuvProtectionDatabase");
    row(m_lastScanCaption, m_lastScan, "kuvProtectionLastScan");
    m_databaseWarning = new QLabel(m_backendBox);
    m_databaseWarning->setObjectName(QStringLiteral("kuvProtectionDatabaseWarning"));
    m_databaseWarning->setWordWrap(true);
    m_databaseWarning->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_databaseWarning->setStyleSheet(QStringLiteral(
        "QLabel { background: #fff4d6; border: 1px solid #d9a400; border-radius: 4px; padding: 6px; }"));
    form->addRow(m_databaseWarning);
    m_layout->addWidget(m_backendBox);

    m_modulesHeading = new QLabel(this);
    QFont bold = m_modulesHeading->font();
    bold.setBold(true);
    m_modulesHeading->setFont(bold);
    m_layout->addWidget(m_modulesHeading);
    m_summary = new QLabel(this);
    m_summary->setObjectName(QStringLiteral("kuvProtectionSummary"));
    m_layout->addWidget(m_summary);
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvProtectionTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->setVisible(false);
    m_table->horizontalHeader()->setStretchLastSection(true);
    m_layout->addWidget(m_table, 1);
    m_unreadable = new QLabel(this);
    m_layout->addWidget(m_unreadable);
    connect(model, &ProtectionModel::changed, this, &ProtectionStatusPage::retranslate);
    retranslate();
}

int ProtectionStatusPage::moduleCount() const
{
    return m_table->rowCount();
}

void ProtectionStatusPage::showModules()
{
    const std::vector<ModuleRow>& modules = m_model->modules();
    m_table->setRowCount(static_cast<int>(modules.size()));
    for (size_t i = 0; i < modules.size(); ++i) {
        const int r = static_cast<int>(i);
        const ModuleStatus& s = modules[i].status;
        const QStringList cells{s.module, stateText(s.state), s.detail,
                                QLocale().toString(modules[i].updated, QStringLiteral("yyyy-MM-dd HH:mm:ss"))};
        for (int c = 0; c < cells.size(); ++c) {
            QTableWidgetItem* item = m_table->item(r, c);
            if (item == nullptr) {
                item = new QTableWidgetItem();
                m_table->setItem(r, c, item);
            }
            item->setText(cells[c]);
        }
        m_table->item(r, 1)->setForeground(s.state == QLatin1String("on") ? QColor(0x1b, 0x7f, 0x3b)
                                                                           : QColor(0xb0, 0x20, 0x20));
    }
    m_table->resizeColumnToContents(0);
    m_table->resizeColumnToContents(1);
}

QString ProtectionStatusPage::stateText(const QString& state) const
{
    if (state == QLatin1String("on")) {
        return tr("Protected");
    }
    if (state == QLatin1String("off")) {
        return tr("Turned off");
    }
    if (state == QLatin1String("error")) {
        return tr("Error");
    }
    return kuvsdk::printable(state.toUtf8(), 32);
}

void ProtectionStatusPage::showBackend()
{
    m_backendBox->setTitle(tr("Scan back end"));
    m_backendStateCaption->setText(tr("State:"));
    m_engineCaption->setText(tr("Engine:"));
    m_signaturesCaption->setText(tr("Signatures:"));
    m_databaseCaption->setText(tr("Signature database:"));
    m_lastScanCaption->setText(tr("Last scan:"));
    const QJsonObject& b = m_model->backend();
    if (b.isEmpty()) {
        m_backendState->setText(tr("No report from the scan back end (kuv-scand) yet. It may not be running."));
        for (QLabel* l : {m_engine, m_signatures, m_database, m_lastScan}) {
            l->setText(QStringLiteral("-"));
        }
        m_databaseWarning->setVisible(false);
        return;
    }
    auto str = [&b](const char* key, int max = 200) {
        return kuvsdk::printable(b.value(QLatin1String(key)).toString().toUtf8(), max);
    };
    const QString state = b.value(QStringLiteral("state")).toString();
    QString stateShown;
    if (state == QLatin1String("ready")) {
        stateShown = tr("Ready");
    } else if (state == QLatin1String("starting")) {
        stateShown = tr("Starting (loading signatures)");
    } else if (state == QLatin1String("reloading")) {
        stateShown = tr("Ready (loading new signatures)");
    } else if (state == QLatin1String("error")) {
        stateShown = tr("Error: %1").arg(str("db_error", 500));
    } else if (state == QLatin1String("stopping")) {
        stateShown = tr("Stopped");
    } else if (state == QLatin1String("ended")) {
        stateShown = tr("Not running (the back end process ended)");
    } else {
        stateShown = str("state", 32);
    }
    const qint64 running = static_cast<qint64>(b.value(QStringLiteral("jobs_running")).toDouble());
    const qint64 queued = static_cast<qint64>(b.value(QStringLiteral("jobs_queued")).toDouble());
    if (running + queued > 0) {
        stateShown += QStringLiteral(", ") + tr("%n scan(s) running or waiting", nullptr, static_cast<int>(running + queued));
    }
    stateShown += QStringLiteral(" - ") + tr("reported %1").arg(QLocale().toString(m_model->backendTime(), QStringLiteral("HH:mm:ss")));
    m_backendState->setText(stateShown);
    m_backendState->setStyleSheet(state == QLatin1String("error") || state == QLatin1String("stopping") ||
                                          state == QLatin1String("ended")
                                      ? QStringLiteral("QLabel { color: #b02020; }")
                                      : QStringLiteral("QLabel { color: #1b7f3b; }"));
    const QString engine = str("engine", 32);
    m_engine->setText(engine == QLatin1String("clamd") ? tr("ClamAV daemon (clamd) %1").arg(str("engine_version", 64))
                                                        : tr("ClamAV engine (%1) %2").arg(engine, str("engine_version", 64)));
    const qint64 signatures = static_cast<qint64>(b.value(QStringLiteral("signatures")).toDouble());
    const QString dbVersion = str("db_version", 64);
    m_signatures->setText(dbVersion.isEmpty() ? QLocale().toString(signatures)
                                              : tr("%1 (database version %2)").arg(QLocale().toString(signatures), dbVersion));
    const qint64 dbTime = static_cast<qint64>(b.value(QStringLiteral("db_time")).toDouble());
    const QString freshclam =
        tr("Install Debian's clamav-freshclam package (sudo apt install clamav-freshclam) to keep the signatures up to date.");
    if (dbTime <= 0) {
        m_database->setText(tr("Not found"));
        m_databaseWarning->setText(tr("No ClamAV signature database was found; only the few signatures shipped with "
                                      "kuvgui are used.") +
                                   QLatin1Char(' ') + freshclam);
        m_databaseWarning->setVisible(true);
    } else {
        const QDateTime when = QDateTime::fromSecsSinceEpoch(dbTime);
        const int days = static_cast<int>(std::max<qint64>(0, (QDateTime::currentSecsSinceEpoch() - dbTime) / 86400));
        m_database->setText(tr("%1 (%n day(s) old)", nullptr, days).arg(QLocale().toString(when, QStringLiteral("yyyy-MM-dd HH:mm"))));
        if (days > kDatabaseMaxAgeDays) {
            m_databaseWarning->setText(tr("The signature database is %n day(s) old.", nullptr, days) + QLatin1Char(' ') + freshclam);
            m_databaseWarning->setVisible(true);
        } else {
            m_databaseWarning->setVisible(false);
        }
    }
    const QJsonObject last = b.value(QStringLiteral("last_scan")).toObject();
    if (last.isEmpty()) {
        m_lastScan->setText(tr("None since the back end started"));
    } else {
        const QDateTime end = QDateTime::fromSecsSinceEpoch(static_cast<qint64>(last.value(QStringLiteral("end_time")).toDouble()));
        const int files = static_cast<int>(last.value(QStringLiteral("files")).toDouble());
        const int infected = static_cast<int>(last.value(QStringLiteral("infected")).toDouble());
        const QString lastState = last.value(QStringLiteral("state")).toString();
        QString shownState = lastState == QLatin1String("done")        ? tr("finished")
                             : lastState == QLatin1String("cancelled") ? tr("cancelled")
                             : lastState == QLatin1String("failed")    ? tr("failed")
                                                                        : kuvsdk::printable(lastState.toUtf8(), 32);
        m_lastScan->setText(tr("%1, %2: %n file(s)", nullptr, files)
                                .arg(QLocale().toString(end, QStringLiteral("yyyy-MM-dd HH:mm")), shownState) +
                            QStringLiteral(", ") + tr("%n threat(s)", nullptr, infected));
        m_lastScan->setStyleSheet(infected > 0 ? QStringLiteral("QLabel { color: #b02020; }") : QString());
    }
}

void ProtectionStatusPage::retranslate()
{
    setWindowTitle(tr("Protection status"));
    m_heading->setText(tr("Protection status"));
    showBackend();
    m_modulesHeading->setText(tr("Protection modules"));
    m_busLine->setText(kuvsdk::busLine(
        m_model->bus(), tr("Listening on the message bus as %1 for status reports (types %2 and %3)."),
        {QString::number(kStatusMessageType), QString::number(static_cast<int>(kuvscan::KUV_SCAN_MSG_STATUS))},
        tr("The bus refused the address %1 (error %2); no status can arrive."),
        tr("Not connected to the message bus; no status can arrive.")));
    m_table->setHorizontalHeaderLabels({tr("Module"), tr("State"), tr("Detail"), tr("Updated")});
    showModules();
    const auto& modules = m_model->modules();
    const int on = static_cast<int>(std::count_if(modules.begin(), modules.end(), [](const ModuleRow& m) {
        return m.status.state == QLatin1String("on");
    }));
    const int problems = static_cast<int>(modules.size()) - on;
    if (modules.empty()) {
        m_summary->setText(tr("No status reported yet."));
    } else if (problems == 0) {
        m_summary->setText(tr("All %n module(s) protected.", nullptr, on));
    } else {
        m_summary->setText(tr("%n module(s) need attention.", nullptr, problems));
    }
    const int bad = m_model->badMessages();
    m_unreadable->setText(bad == 0 ? QString() : tr("%n unreadable status message(s) ignored.", nullptr, bad));
}

int ProtectionStatusPlugin::init(const QVariant& paras)
{
    const int rc = m_plugin.open(
        paras, kProtectionStatusGuid, kStatusMessageType,
        [](ProtectionModel* model, const kuvsdk::BusMessage& m) { model->apply(m); }, "protectionstatus",
        "kuvProtectionStatusPage", [] { return ProtectionStatusPage::tr("Protection status"); });
    if (m_plugin.bus().state() == kuvsdk::PluginEndpoint::ON_BUS) {
        m_plugin.alsoListen(kuvscan::KUV_SCAN_MSG_STATUS);
        m_plugin.model()->followBackend(&m_plugin.bus());
    }
    return rc;
}

QString ProtectionStatusPlugin::title() const
{
    return ProtectionStatusPage::tr("Protection status");
}

} // namespace kuvplugin

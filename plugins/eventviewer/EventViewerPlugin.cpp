// SPDX-License-Identifier: GPL-2.0-or-later
#include "EventViewerPlugin.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QTableWidget>

namespace kuvplugin {

namespace {
// The page is a recent-history view, not an archive.
constexpr size_t kMaxRows = 500;

QString timeText(const QDateTime& when)
{
    return QLocale().toString(when, QStringLiteral("yyyy-MM-dd HH:mm:ss"));
}
} // namespace

void EventLog::setBus(const kuvsdk::BusInfo& bus)
{
    m_bus = bus;
    emit busChanged();
}

void EventLog::followBackend(kuvsdk::PluginEndpoint* bus)
{
    m_subscription.start(this, bus);
}

void EventLog::addMessage(const kuvsdk::BusMessage& message)
{
    if (message.type == kuvscan::KUV_SCAN_MSG_STATUS) {
        // Only to notice a back end that started anew (and subscribe to it again).
        m_subscription.onStatus(
            static_cast<qint64>(kuvsdk::scanBody(message).value(QStringLiteral("pid")).toDouble()));
        return;
    }
    if (message.type == kuvscan::KUV_SCAN_MSG_EVENT) {
        const QJsonObject e = kuvsdk::scanBody(message);
        if (!e.isEmpty()) {
            const qint64 ms = static_cast<qint64>(e.value(QStringLiteral("time")).toDouble());
            const QString severity = e.value(QStringLiteral("severity")).toString();
            const QColor color = severity == QLatin1String("critical")  ? QColor(0xb0, 0x20, 0x20)
                                 : severity == QLatin1String("warning") ? QColor(0xa0, 0x60, 0x00)
                                                                        : QColor();
            add(EventRow{{timeText(ms > 0 ? QDateTime::fromMSecsSinceEpoch(ms) : message.received), QString(),
                          QStringLiteral("kuv-scand"), QString()},
                         color, e});
            return;
        }
    }
    QString text = kuvsdk::printable(message.body);
    if (message.truncated) {
        text += QChar(0x2026);
    }
    add(EventRow{{timeText(message.received), QString::number(message.type),
                  message.sender.isEmpty() ? QStringLiteral("-") : message.sender, text},
                 QColor(), QJsonObject()});
}

void EventLog::add(EventRow row)
{
    ++m_total;
    m_rows.push_front(std::move(row));
    while (m_rows.size() > kMaxRows) {
        m_rows.pop_back();
    }
    emit rowAdded();
}

void EventLog::clear()
{
    m_rows.clear();
    m_total = 0;
    emit cleared();
}

EventViewerPage::EventViewerPage(EventLog* log, QWidget* parent) : kuvsdk::PluginPage(parent), m_log(log)
{
    setObjectName(QStringLiteral("kuvEventViewerView"));
    m_busLine->setObjectName(QStringLiteral("kuvEventViewerBus"));
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvEventViewerTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->verticalHeader()->setVisible(false);
    m_table->horizontalHeader()->setStretchLastSection(true);
    m_layout->addWidget(m_table, 1);
    auto* bottom = new QHBoxLayout();
    m_count = new QLabel(this);
    m_clear = new QPushButton(this);
    bottom->addWidget(m_count, 1);
    bottom->addWidget(m_clear);
    m_layout->addLayout(bottom);
    connect(m_clear, &QPushButton::clicked, log, &EventLog::clear);

    const auto& rows = log->rows();
    m_table->setRowCount(static_cast<int>(rows.size()));
    for (size_t r = 0; r < rows.size(); ++r) {
        showRow(static_cast<int>(r), rows[r]);
    }
    connect(log, &EventLog::rowAdded, this, [this]() {
        m_table->insertRow(0);
        showRow(0, m_log->rows().front());
        while (m_table->rowCount() > static_cast<int>(kMaxRows)) {
            m_table->removeRow(m_table->rowCount() - 1);
        }
        retranslate();
    });
    connect(log, &EventLog::cleared, this, [this]() {
        m_table->setRowCount(0);
        retranslate();
    });
    connect(log, &EventLog::busChanged, this, &EventViewerPage::retranslate);
    retranslate();
}

void EventViewerPage::showRow(int row, const EventRow& event)
{
    for (int c = 0; c < event.cells.size(); ++c) {
        auto* item = new QTableWidgetItem(event.cells[c]);
        item->setToolTip(event.cells[c]);
        if (event.color.isValid()) {
            item->setForeground(event.color);
        }
        m_table->setItem(row, c, item);
    }
    if (!event.event.isEmpty()) {
        m_table->item(row, 1)->setData(Qt::UserRole, event.event);
    }
}

QString EventViewerPage::kindText(const QString& kind) const
{
    if (kind == QLatin1String("detection")) {
        return tr("Threat detected");
    }
    if (kind == QLatin1String("action")) {
        return tr("Action taken");
    }
    if (kind == QLatin1String("engine")) {
        return tr("Scan engine");
    }
    if (kind == QLatin1String("job")) {
        return tr("Scan");
    }
    return kuvsdk::printable(kind.toUtf8(), 32);
}

QString EventViewerPage::eventText(const QJsonObject& e) const
{
    auto str = [&e](const char* key) { return kuvsdk::printable(e.value(QLatin1String(key)).toString().toUtf8(), 500); };
    QStringList parts;
    const QString path = kuvsdk::scanPathText(e.value(QStringLiteral("path")));
    if (!str("signature").isEmpty()) {
        parts << (path.isEmpty() ? str("signature") : tr("%1 in %2").arg(str("signature"), path));
    } else if (!path.isEmpty()) {
        parts << path;
    }
    if (!str("action").isEmpty()) {
        parts << tr("action: %1").arg(str("action"));
    }
    if (!str("detail").isEmpty()) {
        parts << str("detail");
    }
    return parts.join(QStringLiteral("; "));
}

int EventViewerPage::rowCount() const
{
    return m_table->rowCount();
}

void EventViewerPage::retranslate()
{
    setWindowTitle(tr("Security events"));
    m_heading->setText(tr("Security events"));
    m_busLine->setText(kuvsdk::busLine(
        m_log->bus(), tr("Listening on the message bus as %1 for event messages (types %2 and %3)."),
        {QString::number(kEventMessageType), QString::number(static_cast<int>(kuvscan::KUV_SCAN_MSG_EVENT))},
        tr("The bus refused the address %1 (error %2); no events can arrive."),
        tr("Not connected to the message bus; no events can arrive.")));
    m_table->setHorizontalHeaderLabels({tr("Time"), tr("Type"), tr("Sender"), tr("Message")});
    for (int r = 0; r < m_table->rowCount(); ++r) {
        const QJsonObject e = m_table->item(r, 1)->data(Qt::UserRole).toJsonObject();
        if (!e.isEmpty()) {
            m_table->item(r, 1)->setText(kindText(e.value(QStringLiteral("kind")).toString()));
            m_table->item(r, 3)->setText(eventText(e));
            m_table->item(r, 3)->setToolTip(m_table->item(r, 3)->text());
        }
    }
    m_table->resizeColumnToContents(0);
    m_table->resizeColumnToContents(1);
    m_count->setText(tr("%n event(s) received", nullptr, m_log->total()));
    m_clear->setText(tr("Clear"));
}

int EventViewerPlugin::init(const QVariant& paras)
{
    const int rc = m_plugin.open(
        paras, kEventViewerGuid, kEventMessageType, [](EventLog* log, const kuvsdk::BusMessage& m) { log->addMessage(m); },
        "eventviewer", "kuvEventViewerPage", [] { return EventViewerPage::tr("Security events"); });
    if (m_plugin.bus().state() == kuvsdk::PluginEndpoint::ON_BUS) {
        m_plugin.alsoListen(kuvscan::KUV_SCAN_MSG_STATUS);
        m_plugin.alsoListen(kuvscan::KUV_SCAN_MSG_EVENT);
        m_plugin.model()->followBackend(&m_plugin.bus());
    }
    return rc;
}

QString EventViewerPlugin::title() const
{
    return EventViewerPage::tr("Security events");
}

} // namespace kuvplugin

#include "EventViewerPlugin.h"

#include <QDateTime>
#include <QEvent>
#include <QJsonObject>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

namespace kuvplugin {

namespace {
// The page is a recent-history view, not an archive.
constexpr int kMaxRows = 500;
} // namespace

EventViewerPage::EventViewerPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvEventViewerPage"));
    auto* layout = new QVBoxLayout(this);
    m_heading = new QLabel(this);
    QFont big = m_heading->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    m_heading->setFont(big);
    layout->addWidget(m_heading);
    m_busState = new QLabel(this);
    m_busState->setObjectName(QStringLiteral("kuvEventViewerBus"));
    m_busState->setWordWrap(true);
    layout->addWidget(m_busState);
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvEventViewerTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->verticalHeader()->setVisible(false);
    m_table->horizontalHeader()->setStretchLastSection(true);
    layout->addWidget(m_table, 1);
    auto* bottom = new QHBoxLayout();
    m_count = new QLabel(this);
    m_clear = new QPushButton(this);
    bottom->addWidget(m_count, 1);
    bottom->addWidget(m_clear);
    layout->addLayout(bottom);
    connect(m_clear, &QPushButton::clicked, this, [this]() {
        m_table->setRowCount(0);
        m_total = 0;
        retranslate();
    });
    retranslate();
}

void EventViewerPage::setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error)
{
    m_state = state;
    m_guid = guid;
    m_error = error;
    retranslate();
}

void EventViewerPage::followBackend(kuvsdk::PluginEndpoint* bus)
{
    m_subscription.start(this, bus);
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

void EventViewerPage::addMessage(const kuvsdk::BusMessage& message)
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
            const QDateTime when = ms > 0 ? QDateTime::fromMSecsSinceEpoch(ms) : message.received;
            const QString severity = e.value(QStringLiteral("severity")).toString();
            const QColor color = severity == QLatin1String("critical")  ? QColor(0xb0, 0x20, 0x20)
                                 : severity == QLatin1String("warning") ? QColor(0xa0, 0x60, 0x00)
                                                                        : QColor();
            addRow({QLocale().toString(when, QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                    kindText(e.value(QStringLiteral("kind")).toString()), QStringLiteral("kuv-scand"), eventText(e)},
                   color, e);
            return;
        }
    }
    const QString time = QLocale().toString(message.received, QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    QString text = kuvsdk::printable(message.body);
    if (message.truncated) {
        text += QChar(0x2026);
    }
    addRow({time, QString::number(message.type), message.sender.isEmpty() ? QStringLiteral("-") : message.sender, text},
           QColor());
}

void EventViewerPage::addRow(const QStringList& cells, const QColor& color, const QJsonObject& event)
{
    ++m_total;
    m_table->insertRow(0);
    for (int c = 0; c < cells.size(); ++c) {
        auto* item = new QTableWidgetItem(cells[c]);
        item->setToolTip(cells[c]);
        if (color.isValid()) {
            item->setForeground(color);
        }
        m_table->setItem(0, c, item);
    }
    if (!event.isEmpty()) {
        m_table->item(0, 1)->setData(Qt::UserRole, event);
    }
    while (m_table->rowCount() > kMaxRows) {
        m_table->removeRow(m_table->rowCount() - 1);
    }
    m_table->resizeColumnToContents(0);
    m_table->resizeColumnToContents(1);
    retranslate();
}

int EventViewerPage::rowCount() const
{
    return m_table->rowCount();
}

void EventViewerPage::retranslate()
{
    setWindowTitle(tr("Security events"));
    m_heading->setText(tr("Security events"));
    switch (m_state) {
    case kuvsdk::PluginEndpoint::ON_BUS:
        m_busState->setText(tr("Listening on the message bus as %1 for event messages (types %2 and %3).")
                                .arg(m_guid)
                                .arg(kEventMessageType)
                                .arg(static_cast<int>(kuvscan::KUV_SCAN_MSG_EVENT)));
        break;
    case kuvsdk::PluginEndpoint::NAME_REFUSED:
        m_busState->setText(tr("The bus refused the address %1 (error %2); no events can arrive.")
                                .arg(m_guid)
                                .arg(m_error));
        break;
    case kuvsdk::PluginEndpoint::NO_ENDPOINT:
        m_busState->setText(tr("Not connected to the message bus; no events can arrive."));
        break;
    }
    m_table->setHorizontalHeaderLabels({tr("Time"), tr("Type"), tr("Sender"), tr("Message")});
    for (int r = 0; r < m_table->rowCount(); ++r) {
        const QJsonObject e = m_table->item(r, 1)->data(Qt::UserRole).toJsonObject();
        if (!e.isEmpty()) {
            m_table->item(r, 1)->setText(kindText(e.value(QStringLiteral("kind")).toString()));
            m_table->item(r, 3)->setText(eventText(e));
            m_table->item(r, 3)->setToolTip(m_table->item(r, 3)->text());
        }
    }
    m_count->setText(tr("%n event(s) received", nullptr, m_total));
    m_clear->setText(tr("Clear"));
}

void EventViewerPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

EventViewerPlugin::~EventViewerPlugin()
{
    uninit();
}

int EventViewerPlugin::init(const QVariant& paras)
{
    const int rc = m_plugin.open(paras, kEventViewerGuid, kEventMessageType,
                                 [](EventViewerPage* page, const kuvsdk::BusMessage& m) { page->addMessage(m); },
                                 "eventviewer");
    if (m_plugin.bus().state() == kuvsdk::PluginEndpoint::ON_BUS) {
        m_plugin.alsoListen(kuvscan::KUV_SCAN_MSG_STATUS);
        m_plugin.alsoListen(kuvscan::KUV_SCAN_MSG_EVENT);
        m_plugin.page()->followBackend(&m_plugin.bus());
    }
    return rc;
}

void EventViewerPlugin::uninit()
{
    m_plugin.close();
}

QString EventViewerPlugin::title() const
{
    return EventViewerPage::tr("Security events");
}

} // namespace kuvplugin

#include "NotifierPlugin.h"

#include <QDateTime>
#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTableWidget>
#include <QVBoxLayout>

#ifdef KUV_HAVE_QTDBUS
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#endif

namespace kuvplugin {

namespace {
constexpr int kMaxRows = 200;
constexpr int kMaxTitleChars = 120;
constexpr int kMaxBodyChars = 1000;
constexpr int kShowMs = 8000;
// Kept as a key and translated when shown, so the row follows a language change.
constexpr const char* kNoSessionBus = "no-session-bus";
} // namespace

Alert parseAlert(const QByteArray& message)
{
    Alert a;
    QJsonParseError err{};
    const QJsonDocument doc = QJsonDocument::fromJson(message, &err);
    if (err.error == QJsonParseError::NoError && doc.isObject()) {
        const QJsonObject o = doc.object();
        a.title = o.value(QStringLiteral("title")).toString();
        a.body = o.value(QStringLiteral("body")).toString();
    } else {
        a.body = QString::fromUtf8(message);
    }
    a.title = kuvsdk::printable(a.title.toUtf8(), kMaxTitleChars);
    a.body = kuvsdk::printable(a.body.toUtf8(), kMaxBodyChars);
    return a;
}

NotifierPage::NotifierPage(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("kuvNotifierPage"));
    auto* layout = new QVBoxLayout(this);
    m_heading = new QLabel(this);
    QFont big = m_heading->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    m_heading->setFont(big);
    layout->addWidget(m_heading);
    m_busState = new QLabel(this);
    m_busState->setWordWrap(true);
    layout->addWidget(m_busState);
    m_table = new QTableWidget(0, 4, this);
    m_table->setObjectName(QStringLiteral("kuvNotifierTable"));
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->setVisible(false);
    // The alert text gets the room; time, title and delivery are sized to what they hold.
    m_table->horizontalHeader()->setStretchLastSection(false);
    m_table->horizontalHeader()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    m_table->horizontalHeader()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    m_table->horizontalHeader()->setSectionResizeMode(2, QHeaderView::Stretch);
    m_table->horizontalHeader()->setSectionResizeMode(3, QHeaderView::ResizeToContents);
    layout->addWidget(m_table, 1);
    auto* bottom = new QHBoxLayout();
    m_count = new QLabel(this);
    m_test = new QPushButton(this);
    m_test->setObjectName(QStringLiteral("kuvNotifierTest"));
    bottom->addWidget(m_count, 1);
    bottom->addWidget(m_test);
    layout->addLayout(bottom);
    connect(m_test, &QPushButton::clicked, this, [this]() {
        raiseAlert(Alert{tr("Test notification"), tr("Desktop notifications from kuvgui work.")});
    });
    retranslate();
}

NotifierPage::~NotifierPage() = default;

void NotifierPage::setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error)
{
    m_state = state;
    m_guid = guid;
    m_error = error;
    retranslate();
}

int NotifierPage::addRow(const Alert& alert)
{
    const int serial = m_nextSerial++;
    ++m_total;
    m_table->insertRow(0);
    const QStringList cells{QLocale().toString(QDateTime::currentDateTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                            alert.title, alert.body, deliveryText(DELIVERY_PENDING, QString())};
    for (int c = 0; c < cells.size(); ++c) {
        auto* item = new QTableWidgetItem(cells[c]);
        item->setToolTip(cells[c]);
        item->setData(Qt::UserRole, serial);
        item->setData(Qt::UserRole + 1, static_cast<int>(DELIVERY_PENDING));
        m_table->setItem(0, c, item);
    }
    while (m_table->rowCount() > kMaxRows) {
        m_table->removeRow(m_table->rowCount() - 1);
    }
    m_count->setText(tr("%n alert(s) received", nullptr, m_total));
    return serial;
}

void NotifierPage::setDelivery(int serial, Delivery delivery, const QString& detail)
{
    for (int r = 0; r < m_table->rowCount(); ++r) {
        QTableWidgetItem* item = m_table->item(r, 3);
        if (item != nullptr && item->data(Qt::UserRole).toInt() == serial) {
            item->setData(Qt::UserRole + 1, static_cast<int>(delivery));
            item->setData(Qt::UserRole + 2, detail);
            item->setText(deliveryText(delivery, detail));
            item->setToolTip(item->text());
            return;
        }
    }
}

QString NotifierPage::deliveryText(Delivery delivery, const QString& rawDetail) const
{
    const QString detail = rawDetail == QLatin1String(kNoSessionBus) ? tr("no session bus") : rawDetail;
    switch (delivery) {
    case DELIVERY_PENDING:
        return tr("Sending...");
    case DELIVERY_DESKTOP:
        return tr("Desktop notification");
    case DELIVERY_TRAY:
        return detail.isEmpty() ? tr("Tray message") : tr("Tray message (%1)").arg(detail);
    case DELIVERY_PAGE_ONLY:
        return detail.isEmpty() ? tr("Shown here only") : tr("Shown here only (%1)").arg(detail);
    }
    return QString();
}

void NotifierPage::raiseAlert(const Alert& alert)
{
    const int serial = addRow(alert);
    const QString title = alert.title.isEmpty() ? tr("kuvgui alert") : alert.title;
#ifdef KUV_HAVE_QTDBUS
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
        call << QStringLiteral("kuvgui") << 0u << QStringLiteral("security-high") << title << alert.body
             << QStringList() << QVariantMap() << kShowMs;
        // Asynchronous: a missing notification service must not stall the GUI thread.
        auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kShowMs), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, serial, alert, title](QDBusPendingCallWatcher* w) {
            const QDBusPendingReply<uint> reply = *w;
            if (reply.isError()) {
                fallBack(serial, Alert{title, alert.body}, reply.error().name());
            } else {
                setDelivery(serial, DELIVERY_DESKTOP);
            }
            w->deleteLater();
        });
        return;
    }
    fallBack(serial, Alert{title, alert.body}, QLatin1String(kNoSessionBus));
#else
    fallBack(serial, Alert{title, alert.body}, QString());
#endif
}

void NotifierPage::fallBack(int serial, const Alert& alert, const QString& why)
{
    if (QSystemTrayIcon::isSystemTrayAvailable() && QSystemTrayIcon::supportsMessages()) {
        if (!m_tray) {
            m_tray = std::make_unique<QSystemTrayIcon>(windowIcon());
            m_tray->setToolTip(tr("kuvgui alerts"));
        }
        m_tray->show();
        m_tray->showMessage(alert.title, alert.body, QSystemTrayIcon::Warning, kShowMs);
        setDelivery(serial, DELIVERY_TRAY, why);
        return;
    }
    setDelivery(serial, DELIVERY_PAGE_ONLY, why);
}

int NotifierPage::rowCount() const
{
    return m_table->rowCount();
}

void NotifierPage::retranslate()
{
    setWindowTitle(tr("Alerts"));
    m_heading->setText(tr("Alerts"));
    switch (m_state) {
    case kuvsdk::PluginEndpoint::ON_BUS:
        m_busState->setText(tr("Listening on the message bus as %1 for alert messages (type %2); each one "
                               "raises a desktop notification.")
                                .arg(m_guid)
                                .arg(kAlertMessageType));
        break;
    case kuvsdk::PluginEndpoint::NAME_REFUSED:
        m_busState->setText(tr("The bus refused the address %1 (error %2); no alerts can arrive.")
                                .arg(m_guid)
                                .arg(m_error));
        break;
    case kuvsdk::PluginEndpoint::NO_ENDPOINT:
        m_busState->setText(tr("Not connected to the message bus; no alerts can arrive."));
        break;
    }
    m_table->setHorizontalHeaderLabels({tr("Time"), tr("Title"), tr("Text"), tr("Delivered as")});
    for (int r = 0; r < m_table->rowCount(); ++r) {
        QTableWidgetItem* item = m_table->item(r, 3);
        if (item != nullptr) {
            item->setText(deliveryText(static_cast<Delivery>(item->data(Qt::UserRole + 1).toInt()),
                                       item->data(Qt::UserRole + 2).toString()));
        }
    }
    m_count->setText(tr("%n alert(s) received", nullptr, m_total));
    m_test->setText(tr("Send a test notification"));
}

void NotifierPage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QWidget::changeEvent(event);
}

NotifierPlugin::~NotifierPlugin()
{
    uninit();
}

int NotifierPlugin::init(const QVariant& paras)
{
    return m_plugin.open(paras, kNotifierGuid, kAlertMessageType,
                         [](NotifierPage* page, const kuvsdk::BusMessage& m) { page->raiseAlert(parseAlert(m.body)); }, "notifier");
}

void NotifierPlugin::uninit()
{
    m_plugin.close();
}

QString NotifierPlugin::title() const
{
    return NotifierPage::tr("Alerts");
}

} // namespace kuvplugin

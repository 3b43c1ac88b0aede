// SPDX-License-Identifier: GPL-2.0-or-later
#include "NotifierPlugin.h"

#include <QDateTime>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <QTableWidget>

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "AlertSender.h"

namespace kuvplugin {

namespace {
constexpr size_t kMaxRows = 200;
constexpr int kMaxTitleChars = 120;
constexpr int kMaxBodyChars = 1000;
constexpr int kShowMs = 8000;
// Kept as a key and translated when shown, so the row follows a language change.
constexpr const char* kNoSessionBus = "no-session-bus";
const char* const kSenderModule = "libkuvplugin_notifier_dbus.so";

// The D-Bus module beside this plugin, loaded once; null when it cannot be (then alerts fall back to
// the tray or the page). It stays loaded: Qt D-Bus keeps a thread of its own once it connected.
AlertSender* alertSender()
{
    static std::once_flag once;
    static AlertSender* sender = nullptr;
    std::call_once(once, []() {
        Dl_info self{};
        if (dladdr(reinterpret_cast<void*>(&alertSender), &self) == 0 || self.dli_fname == nullptr) {
            return;
        }
        std::string path = self.dli_fname;
        const size_t slash = path.rfind('/');
        path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kSenderModule;
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        if (handle == nullptr) {
            qWarning("notifier: %s", dlerror());
            return;
        }
        auto create = reinterpret_cast<KuvPluginNotifierSender>(dlsym(handle, KUVPLUGIN_NOTIFIER_SENDER));
        sender = create != nullptr ? create() : nullptr;
    });
    return sender;
}
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

AlertLog::AlertLog() = default;
AlertLog::~AlertLog() = default;

void AlertLog::setBus(const kuvsdk::BusInfo& bus)
{
    m_bus = bus;
    emit busChanged();
}

void AlertLog::raiseAlert(const Alert& alert)
{
    const int serial = m_nextSerial++;
    ++m_total;
    m_rows.push_front(AlertRow{serial, QLocale().toString(QDateTime::currentDateTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                               alert, DELIVERY_PENDING, QString()});
    while (m_rows.size() > kMaxRows) {
        m_rows.pop_back();
    }
    emit rowAdded();
    const QString title = alert.title.isEmpty() ? NotifierPage::tr("kuvgui alert") : alert.title;
    AlertSender* sender = alertSender();
    if (sender == nullptr) {
        fallBack(serial, Alert{title, alert.body}, QString());
        return;
    }
    sender->send(title, alert.body, kShowMs, this, [this, serial, alert, title](const QString& error) {
        if (error.isEmpty()) {
            setDelivery(serial, DELIVERY_DESKTOP);
        } else {
            fallBack(serial, Alert{title, alert.body}, error);
        }
    });
}

void AlertLog::fallBack(int serial, const Alert& alert, const QString& why)
{
    if (QSystemTrayIcon::isSystemTrayAvailable() && QSystemTrayIcon::supportsMessages()) {
        if (!m_tray) {
            m_tray = std::make_unique<QSystemTrayIcon>(QGuiApplication::windowIcon());
            m_tray->setToolTip(NotifierPage::tr("kuvgui alerts"));
        }
        m_tray->show();
        m_tray->showMessage(alert.title, alert.body, QSystemTrayIcon::Warning, kShowMs);
        setDelivery(serial, DELIVERY_TRAY, why);
        return;
    }
    setDelivery(serial, DELIVERY_PAGE_ONLY, why);
}

void AlertLog::setDelivery(int serial, Delivery delivery, const QString& detail)
{
    for (AlertRow& row : m_rows) {
        if (row.serial == serial) {
            row.delivery = delivery;
            row.detail = detail;
            emit deliveryChanged(serial);
            return;
        }
    }
}

NotifierPage::NotifierPage(AlertLog* log, QWidget* parent) : kuvsdk::PluginPage(parent), m_log(log)
{
    setObjectName(QStringLiteral("kuvNotifierView"));
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
    m_layout->addWidget(m_table, 1);
    auto* bottom = new QHBoxLayout();
    m_count = new QLabel(this);
    m_test = new QPushButton(this);
    m_test->setObjectName(QStringLiteral("kuvNotifierTest"));
    bottom->addWidget(m_count, 1);
    bottom->addWidget(m_test);
    m_layout->addLayout(bottom);
    connect(m_test, &QPushButton::clicked, this, [this]() {
        m_log->raiseAlert(Alert{tr("Test notification"), tr("Desktop notifications from kuvgui work.")});
    });

    const auto& rows = log->rows();
    m_table->setRowCount(static_cast<int>(rows.size()));
    for (size_t r = 0; r < rows.size(); ++r) {
        showRow(static_cast<int>(r), rows[r]);
    }
    connect(log, &AlertLog::rowAdded, this, [this]() {
        m_table->insertRow(0);
        showRow(0, m_log->rows().front());
        while (m_table->rowCount() > static_cast<int>(kMaxRows)) {
            m_table->removeRow(m_table->rowCount() - 1);
        }
        m_count->setText(tr("%n alert(s) received", nullptr, m_log->total()));
    });
    connect(log, &AlertLog::deliveryChanged, this, [this](int serial) {
        for (size_t r = 0; r < m_log->rows().size() && static_cast<int>(r) < m_table->rowCount(); ++r) {
            if (m_log->rows()[r].serial == serial) {
                showRow(static_cast<int>(r), m_log->rows()[r]);
                return;
            }
        }
    });
    connect(log, &AlertLog::busChanged, this, &NotifierPage::retranslate);
    retranslate();
}

void NotifierPage::showRow(int row, const AlertRow& alert)
{
    const QStringList cells{alert.time, alert.alert.title, alert.alert.body, deliveryText(alert.delivery, alert.detail)};
    for (int c = 0; c < cells.size(); ++c) {
        auto* item = new QTableWidgetItem(cells[c]);
        item->setToolTip(cells[c]);
        m_table->setItem(row, c, item);
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

int NotifierPage::rowCount() const
{
    return m_table->rowCount();
}

void NotifierPage::retranslate()
{
    setWindowTitle(tr("Alerts"));
    m_heading->setText(tr("Alerts"));
    m_busLine->setText(kuvsdk::busLine(m_log->bus(),
                                       tr("Listening on the message bus as %1 for alert messages (type %2); each one "
                                          "raises a desktop notification."),
                                       {QString::number(kAlertMessageType)},
                                       tr("The bus refused the address %1 (error %2); no alerts can arrive."),
                                       tr("Not connected to the message bus; no alerts can arrive.")));
    m_table->setHorizontalHeaderLabels({tr("Time"), tr("Title"), tr("Text"), tr("Delivered as")});
    for (int r = 0; r < m_table->rowCount() && r < static_cast<int>(m_log->rows().size()); ++r) {
        const AlertRow& row = m_log->rows()[static_cast<size_t>(r)];
        m_table->item(r, 3)->setText(deliveryText(row.delivery, row.detail));
    }
    m_count->setText(tr("%n alert(s) received", nullptr, m_log->total()));
    m_test->setText(tr("Send a test notification"));
}

int NotifierPlugin::init(const QVariant& paras)
{
    return m_plugin.open(
        paras, kNotifierGuid, kAlertMessageType,
        [](AlertLog* log, const kuvsdk::BusMessage& m) { log->raiseAlert(parseAlert(m.body)); }, "notifier",
        "kuvNotifierPage", [] { return NotifierPage::tr("Alerts"); });
}

QString NotifierPlugin::title() const
{
    return NotifierPage::tr("Alerts");
}

} // namespace kuvplugin

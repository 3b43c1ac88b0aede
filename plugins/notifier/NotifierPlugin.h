// SPDX-License-Identifier: GPL-2.0-or-later
// Notifier plugin: raises a desktop notification for each alert message (type 3002).
#pragma once

#include <deque>
#include <memory>

#include <QObject>
#include <QString>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"

class QPushButton;
class QSystemTrayIcon;
class QTableWidget;

namespace kuvplugin {

constexpr int64_t kAlertMessageType = 3002;
constexpr const char* kNotifierGuid = "7F4A1E26-0B3C-4D59-8E6F-2A1B3C4D5E52";

// An alert as it arrives: {"title": "...", "body": "..."} or plain text.
struct Alert {
    QString title;
    QString body;
};
Alert parseAlert(const QByteArray& message);

enum Delivery { DELIVERY_PENDING, DELIVERY_DESKTOP, DELIVERY_TRAY, DELIVERY_PAGE_ONLY };

struct AlertRow {
    int serial = 0;
    QString time;
    Alert alert;
    Delivery delivery = DELIVERY_PENDING;
    QString detail; // why it fell back, or kNoSessionBus
};

// Raises the alerts (desktop notification, else a tray message) and keeps them, newest first, without
// widgets: the page is built from them when first shown.
class AlertLog : public QObject {
    Q_OBJECT
public:
    AlertLog();
    ~AlertLog() override;
    void setBus(const kuvsdk::BusInfo& bus);
    void raiseAlert(const Alert& alert);

    const kuvsdk::BusInfo& bus() const { return m_bus; }
    const std::deque<AlertRow>& rows() const { return m_rows; }
    int total() const { return m_total; }

signals:
    void rowAdded();
    void deliveryChanged(int serial);
    void busChanged();

private:
    void setDelivery(int serial, Delivery delivery, const QString& detail = QString());
    // Tray balloon, or the page alone when the desktop has no tray.
    void fallBack(int serial, const Alert& alert, const QString& why);

    kuvsdk::BusInfo m_bus;
    std::deque<AlertRow> m_rows;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    int m_total = 0;
    int m_nextSerial = 1;
};

class NotifierPage : public kuvsdk::PluginPage {
    Q_OBJECT
public:
    NotifierPage(AlertLog* log, QWidget* parent);
    int rowCount() const;

private:
    void retranslate() override;
    void showRow(int row, const AlertRow& alert);
    QString deliveryText(Delivery delivery, const QString& detail) const;

    AlertLog* m_log;
    QTableWidget* m_table;
    QLabel* m_count;
    QPushButton* m_test;
};

class NotifierPlugin : public QObject, public kuvsdk::PageOnBusPlugin<AlertLog, NotifierPage> {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    int init(const QVariant& paras) override;
    QString title() const override;
};

} // namespace kuvplugin

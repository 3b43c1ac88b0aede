// SPDX-License-Identifier: GPL-2.0-or-later
// Event viewer plugin: lists the security events of the scan back end (detections, actions) and the
// event messages (type 3001) that reach its bus endpoint.
#pragma once

#include <deque>

#include <QColor>
#include <QJsonObject>
#include <QObject>
#include <QStringList>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"
#include "KuvScanSupport.h"

class QPushButton;
class QTableWidget;

namespace kuvplugin {

constexpr int64_t kEventMessageType = 3001;
constexpr const char* kEventViewerGuid = "3C9D2B7A-6E41-4F0B-9A52-1D8E7C6B5A41";

// One received event: time, type, sender and message; for an event of the back end, its kind and message
// cells are left to the page (they follow the language) and event holds it.
struct EventRow {
    QStringList cells;
    QColor color;
    QJsonObject event;
};

// The events received, newest first, kept without widgets so that the page can be built late.
class EventLog : public QObject {
    Q_OBJECT
public:
    void setBus(const kuvsdk::BusInfo& bus);
    // Follows the back end through the plugin's endpoint (its events, also after a later start).
    void followBackend(kuvsdk::PluginEndpoint* bus);
    void addMessage(const kuvsdk::BusMessage& message);
    void clear();

    const kuvsdk::BusInfo& bus() const { return m_bus; }
    const std::deque<EventRow>& rows() const { return m_rows; }
    int total() const { return m_total; }

signals:
    void rowAdded();
    void cleared();
    void busChanged();

private:
    void add(EventRow row);

    kuvsdk::BusInfo m_bus;
    std::deque<EventRow> m_rows;
    int m_total = 0;
    kuvsdk::ScanSubscription m_subscription;
};

class EventViewerPage : public kuvsdk::PluginPage {
    Q_OBJECT
public:
    EventViewerPage(EventLog* log, QWidget* parent);
    int rowCount() const;

private:
    void retranslate() override;
    void showRow(int row, const EventRow& event);
    QString kindText(const QString& kind) const;
    QString eventText(const QJsonObject& event) const;

    EventLog* m_log;
    QTableWidget* m_table;
    QLabel* m_count;
    QPushButton* m_clear;
};

class EventViewerPlugin : public QObject, public kuvsdk::PageOnBusPlugin<EventLog, EventViewerPage> {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    int init(const QVariant& paras) override;
    QString title() const override;
};

} // namespace kuvplugin

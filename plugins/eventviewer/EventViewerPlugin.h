// Event viewer plugin: lists the security events of the scan back end (detections, actions) and the
// event messages (type 3001) that reach its bus endpoint.
#pragma once

#include <memory>

#include <QObject>
#include <QPointer>
#include <QWidget>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"
#include "KuvScanSupport.h"

class QLabel;
class QPushButton;
class QTableWidget;

namespace kuvplugin {

constexpr int64_t kEventMessageType = 3001;
constexpr const char* kEventViewerGuid = "3C9D2B7A-6E41-4F0B-9A52-1D8E7C6B5A41";

class EventViewerPage : public QWidget {
    Q_OBJECT
public:
    explicit EventViewerPage(QWidget* parent = nullptr);
    void setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error);
    // Follows the back end through the plugin's endpoint (its events, also after a later start).
    void followBackend(kuvsdk::PluginEndpoint* bus);
    void addMessage(const kuvsdk::BusMessage& message);
    int rowCount() const;

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();
    // event: the back end's event the row shows (its text follows the language), or empty.
    void addRow(const QStringList& cells, const QColor& color, const QJsonObject& event = QJsonObject());
    QString kindText(const QString& kind) const;
    QString eventText(const QJsonObject& event) const;

    QLabel* m_heading;
    QLabel* m_busState;
    QTableWidget* m_table;
    QLabel* m_count;
    QPushButton* m_clear;
    kuvsdk::PluginEndpoint::State m_state = kuvsdk::PluginEndpoint::NO_ENDPOINT;
    QString m_guid;
    int m_error = 0;
    int m_total = 0;
    kuvsdk::ScanSubscription m_subscription;
};

class EventViewerPlugin : public QObject, public IKuvGuiPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    ~EventViewerPlugin() override;
    int init(const QVariant& paras) override;
    void uninit() override;
    QWidget* page() override { return m_plugin.page(); }
    QString title() const override;

private:
    kuvsdk::PageOnBus<EventViewerPage> m_plugin;
};

} // namespace kuvplugin

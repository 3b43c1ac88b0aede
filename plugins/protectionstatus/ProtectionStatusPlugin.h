// Protection status plugin: the scan back end's status (engine, signatures, database age, last scan) and
// one row per protection module, updated by status messages (type 3003).
#pragma once

#include <memory>

#include <QObject>
#include <QDateTime>
#include <QPointer>
#include <QWidget>

#include <QJsonObject>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"
#include "KuvScanSupport.h"

class QGroupBox;
class QLabel;
class QTableWidget;

namespace kuvplugin {

constexpr int64_t kStatusMessageType = 3003;
constexpr const char* kProtectionStatusGuid = "B2E85C17-94AD-4C3E-A1F0-6D7E8F9A0B63";
// A signature database older than this is flagged.
constexpr int kDatabaseMaxAgeDays = 7;

// {"module": "realtime", "state": "on" | "off" | "error" | other, "detail": "..."}
struct ModuleStatus {
    QString module;
    QString state;
    QString detail;
};
bool parseStatus(const QByteArray& message, ModuleStatus& out);

class ProtectionStatusPage : public QWidget {
    Q_OBJECT
public:
    explicit ProtectionStatusPage(QWidget* parent = nullptr);
    void setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error);
    // Follows the back end through the plugin's endpoint (status reports, also after a later start).
    void followBackend(kuvsdk::PluginEndpoint* bus);
    void apply(const kuvsdk::BusMessage& message);
    int moduleCount() const;
    bool hasBackendStatus() const { return !m_backend.isEmpty(); }

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();
    void showBackend();
    QString stateText(const QString& state) const;

    QLabel* m_heading;
    QLabel* m_busState;
    QLabel* m_summary;
    QGroupBox* m_backendBox;
    QLabel* m_backendStateCaption;
    QLabel* m_backendState;
    QLabel* m_engineCaption;
    QLabel* m_engine;
    QLabel* m_signaturesCaption;
    QLabel* m_signatures;
    QLabel* m_databaseCaption;
    QLabel* m_database;
    QLabel* m_lastScanCaption;
    QLabel* m_lastScan;
    QLabel* m_databaseWarning;
    QLabel* m_modulesHeading;
    QJsonObject m_backend;
    QDateTime m_backendTime;
    kuvsdk::ScanSubscription m_subscription;
    QTableWidget* m_table;
    QLabel* m_unreadable;
    kuvsdk::PluginEndpoint::State m_state = kuvsdk::PluginEndpoint::NO_ENDPOINT;
    QString m_guid;
    int m_error = 0;
    int m_badMessages = 0;
};

class ProtectionStatusPlugin : public QObject, public IKuvGuiPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    ~ProtectionStatusPlugin() override;
    int init(const QVariant& paras) override;
    void uninit() override;
    QWidget* page() override { return m_plugin.page(); }
    QString title() const override;

private:
    kuvsdk::PageOnBus<ProtectionStatusPage> m_plugin;
};

} // namespace kuvplugin

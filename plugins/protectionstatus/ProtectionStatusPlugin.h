// SPDX-License-Identifier: GPL-2.0-or-later
// Protection status plugin: the scan back end's status (engine, signatures, database age, last scan) and
// one row per protection module, updated by status messages (type 3003).
#pragma once

#include <vector>

#include <QDateTime>
#include <QJsonObject>
#include <QObject>

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

// One protection module as last reported.
struct ModuleRow {
    ModuleStatus status;
    QDateTime updated;
};

// What the plugin knows, kept without widgets: the back end's last report, the modules in the order
// they first reported, and how many messages could not be read. changed() after every change.
class ProtectionModel : public QObject {
    Q_OBJECT
public:
    void setBus(const kuvsdk::BusInfo& bus);
    // Follows the back end through the plugin's endpoint (status reports, also after a later start).
    void followBackend(kuvsdk::PluginEndpoint* bus);
    void apply(const kuvsdk::BusMessage& message);

    const kuvsdk::BusInfo& bus() const { return m_bus; }
    const QJsonObject& backend() const { return m_backend; }
    const QDateTime& backendTime() const { return m_backendTime; }
    const std::vector<ModuleRow>& modules() const { return m_modules; }
    int badMessages() const { return m_badMessages; }

signals:
    void changed();

private:
    void applyModule(const kuvsdk::BusMessage& message);

    kuvsdk::BusInfo m_bus;
    QJsonObject m_backend;
    QDateTime m_backendTime;
    std::vector<ModuleRow> m_modules;
    int m_badMessages = 0;
    kuvsdk::ScanSubscription m_subscription;
};

class ProtectionStatusPage : public kuvsdk::PluginPage {
    Q_OBJECT
public:
    ProtectionStatusPage(ProtectionModel* model, QWidget* parent);
    int moduleCount() const;

private:
    void retranslate() override;
    void showBackend();
    void showModules();
    QString stateText(const QString& state) const;

    ProtectionModel* m_model;
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
    QTableWidget* m_table;
    QLabel* m_unreadable;
};

class ProtectionStatusPlugin : public QObject, public kuvsdk::PageOnBusPlugin<ProtectionModel, ProtectionStatusPage> {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    int init(const QVariant& paras) override;
    QString title() const override;
};

} // namespace kuvplugin

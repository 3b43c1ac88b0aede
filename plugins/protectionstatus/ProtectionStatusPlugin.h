// Protection status plugin: one row per protection module, updated by status messages (type 3003).
#pragma once

#include <memory>

#include <QObject>
#include <QPointer>
#include <QWidget>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"

class QLabel;
class QTableWidget;

namespace kuvplugin {

constexpr int64_t kStatusMessageType = 3003;
constexpr const char* kProtectionStatusGuid = "B2E85C17-94AD-4C3E-A1F0-6D7E8F9A0B63";

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
    void apply(const kuvsdk::BusMessage& message);
    int moduleCount() const;

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();
    QString stateText(const QString& state) const;

    QLabel* m_heading;
    QLabel* m_busState;
    QLabel* m_summary;
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

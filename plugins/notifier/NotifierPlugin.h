// Notifier plugin: raises a desktop notification for each alert message (type 3002).
#pragma once

#include <memory>

#include <QObject>
#include <QPointer>
#include <QWidget>

#include "IKuvGuiPlugin.h"
#include "KuvPluginSupport.h"

class QLabel;
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

class NotifierPage : public QWidget {
    Q_OBJECT
public:
    explicit NotifierPage(QWidget* parent = nullptr);
    ~NotifierPage() override;
    void setBus(kuvsdk::PluginEndpoint::State state, const QString& guid, int error);
    void raiseAlert(const Alert& alert);
    int rowCount() const;

protected:
    void changeEvent(QEvent* event) override;

private:
    enum Delivery { DELIVERY_PENDING, DELIVERY_DESKTOP, DELIVERY_TRAY, DELIVERY_PAGE_ONLY };
    void retranslate();
    int addRow(const Alert& alert);
    void setDelivery(int serial, Delivery delivery, const QString& detail = QString());
    // Tray balloon, or the page alone when the desktop has no tray.
    void fallBack(int serial, const Alert& alert, const QString& why);
    QString deliveryText(Delivery delivery, const QString& detail) const;

    QLabel* m_heading;
    QLabel* m_busState;
    QTableWidget* m_table;
    QLabel* m_count;
    QPushButton* m_test;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    kuvsdk::PluginEndpoint::State m_state = kuvsdk::PluginEndpoint::NO_ENDPOINT;
    QString m_guid;
    int m_error = 0;
    int m_total = 0;
    int m_nextSerial = 1;
};

class NotifierPlugin : public QObject, public IKuvGuiPlugin {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID KUV_GUI_PLUGIN_IID)
    Q_INTERFACES(IKuvGuiPlugin)
public:
    ~NotifierPlugin() override;
    int init(const QVariant& paras) override;
    void uninit() override;
    QWidget* page() override { return m_plugin.page(); }
    QString title() const override;

private:
    kuvsdk::PageOnBus<NotifierPage> m_plugin;
};

} // namespace kuvplugin

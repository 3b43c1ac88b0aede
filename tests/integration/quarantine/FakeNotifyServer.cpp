// SPDX-License-Identifier: GPL-2.0-or-later
// A notification service for tests: owns org.freedesktop.Notifications on the session bus it was
// started on (dbus-run-session), appends every Notify call as a JSON line to RECORD, writes the bus
// address to READY once it serves, and with --invoke-action KEY answers each notification as if the
// person had chosen that action.
#include <cstdio>
#include <cstdlib>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>

class Notifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    Notifications(QString record, QString action) : m_record(std::move(record)), m_action(std::move(action)) {}

public slots:
    uint Notify(const QString& app, uint replaces, const QString& icon, const QString& summary, const QString& body,
                const QStringList& actions, const QVariantMap& hints, int timeout)
    {
        const uint id = replaces != 0 ? replaces : ++m_last;
        QJsonObject o;
        o["id"] = int(id);
        o["app"] = app;
        o["icon"] = icon;
        o["summary"] = summary;
        o["body"] = body;
        o["actions"] = QJsonArray::fromStringList(actions);
        o["urgency"] = hints.value(QStringLiteral("urgency")).toInt();
        o["timeout"] = timeout;
        QFile f(m_record);
        if (f.open(QIODevice::Append)) {
            f.write(QJsonDocument(o).toJson(QJsonDocument::Compact) + "\n");
        }
        if (!m_action.isEmpty() && actions.contains(m_action)) {
            // After the reply, as a person's click comes.
            QTimer::singleShot(50, this, [id, action = m_action]() {
                QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"),
                                                                 QStringLiteral("org.freedesktop.Notifications"),
                                                                 QStringLiteral("ActionInvoked"));
                signal << id << action;
                QDBusConnection::sessionBus().send(signal);
            });
        }
        return id;
    }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion)
    {
        vendor = QStringLiteral("kuv tests");
        version = QStringLiteral("1");
        specVersion = QStringLiteral("1.2");
        return QStringLiteral("kuv-fake-notifyd");
    }
    void CloseNotification(uint) {}

private:
    QString m_record;
    QString m_action;
    uint m_last = 0;
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: kuv_fake_notifyd RECORD READY [--invoke-action KEY]\n");
        return 2;
    }
    const QString action = args.size() >= 5 && args[3] == QLatin1String("--invoke-action") ? args[4] : QString();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        std::fprintf(stderr, "no session bus\n");
        return 1;
    }
    Notifications service(args[1], action);
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &service,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService(QStringLiteral("org.freedesktop.Notifications"))) {
        std::fprintf(stderr, "cannot serve org.freedesktop.Notifications\n");
        return 1;
    }
    QFile ready(args[2] + QStringLiteral(".tmp"));
    if (!ready.open(QIODevice::WriteOnly)) {
        return 1;
    }
    ready.write(qgetenv("DBUS_SESSION_BUS_ADDRESS") + "\n");
    ready.close();
    QFile::rename(args[2] + QStringLiteral(".tmp"), args[2]);
    return app.exec();
}

#include "FakeNotifyServer.moc"

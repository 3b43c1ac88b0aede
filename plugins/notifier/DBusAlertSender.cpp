// SPDX-License-Identifier: GPL-2.0-or-later
// The notifier plugin's D-Bus side, in its own module: loaded with the first alert.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

#include "AlertSender.h"

namespace kuvplugin {

namespace {

class DBusAlertSender final : public AlertSender {
public:
    void send(const QString& title, const QString& body, int showMs, QObject* context,
              std::function<void(const QString& error)> done) override
    {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected()) {
            done(QStringLiteral("no-session-bus")); // the plugin's key for this case
            return;
        }
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
            QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
        call << QStringLiteral("kuvgui") << 0u << QStringLiteral("security-high") << title << body << QStringList()
             << QVariantMap() << showMs;
        // Asynchronous: a missing notification service must not stall the GUI thread.
        auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, showMs), context);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [done](QDBusPendingCallWatcher* w) {
            const QDBusPendingReply<uint> reply = *w;
            w->deleteLater();
            done(reply.isError() ? reply.error().name() : QString());
        });
    }
};

} // namespace

} // namespace kuvplugin

extern "C" __attribute__((visibility("default"))) kuvplugin::AlertSender* kuvplugin_notifier_sender()
{
    static kuvplugin::DBusAlertSender sender;
    return &sender;
}

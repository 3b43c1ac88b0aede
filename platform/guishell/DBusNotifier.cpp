// SPDX-License-Identifier: GPL-2.0-or-later
// The D-Bus side of the desktop notifications, in its own module (libkuvnotify.so): the shell loads it
// with the first notification.
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QHash>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include "KuvExport.h"
#include "KuvLog.h"
#include "NotifyBackend.h"

namespace kuv {
namespace shell {

namespace {

KUV_LOG_SOURCE("platform/guishell/DesktopNotifier");

const char* const kService = "org.freedesktop.Notifications";
const char* const kPath = "/org/freedesktop/Notifications";
const char* const kInterface = "org.freedesktop.Notifications";
// Generous: a notification daemon may be started on demand by the bus.
constexpr int kCallTimeoutMs = 10000;

} // namespace

class DBusNotifier final : public QObject, public NotifyBackend {
    Q_OBJECT
public:
    void notify(const QString& summary, const QString& body, const QString& action, bool critical,
                qint64 job) override;
    QObject* object() override { return this; }

signals:
    void delivered(uint id);
    void undelivered(const QString& summary, const QString& body, const QString& why);
    void openResults(qint64 job);

private slots:
    void onActionInvoked(uint id, const QString& key);
    void onClosed(uint id, uint reason);

private:
    QHash<uint, qint64> m_jobs;
    bool m_listening = false;
};

void DBusNotifier::notify(const QString& summary, const QString& body, const QString& action, bool critical,
                          qint64 job)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        KUV_LOG(kuv::LogLevel::Info, "no session bus; notification shown in the window only");
        emit undelivered(summary, body, bus.lastError().message());
        return;
    }
    if (!m_listening) {
        bus.connect(kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this,
                    SLOT(onActionInvoked(uint, QString)));
        bus.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this, SLOT(onClosed(uint, uint)));
        m_listening = true;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    QVariantMap hints;
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(uchar(critical ? 2 : 1)));
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("kuvgui"));
    hints.insert(QStringLiteral("category"), QStringLiteral("x-kuv.scan"));
    call << QStringLiteral("kuvgui") << uint(0) << QStringLiteral("security-high") << summary << body
         << QStringList{QStringLiteral("default"), action, QStringLiteral("open-results"), action} << hints
         << int(critical ? 0 : -1);
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, summary, body, job]() {
        watcher->deleteLater();
        QDBusPendingReply<uint> reply = *watcher;
        if (reply.isError()) {
            KUV_LOG(kuv::LogLevel::Info, "no notification service (%s); shown in the window only",
                   reply.error().name().toStdString().c_str());
            emit undelivered(summary, body, reply.error().message());
            return;
        }
        const uint id = reply.value();
        m_jobs.insert(id, job);
        emit delivered(id);
    });
}

void DBusNotifier::onActionInvoked(uint id, const QString& key)
{
    auto found = m_jobs.find(id);
    if (found == m_jobs.end()) {
        return; // another program's notification
    }
    if (key == QLatin1String("default") || key == QLatin1String("open-results")) {
        emit openResults(found.value());
    }
}

void DBusNotifier::onClosed(uint id, uint)
{
    m_jobs.remove(id);
}

} // namespace shell
} // namespace kuv

extern "C" KUV_EXPORT kuv::shell::NotifyBackend* kuv_notify_create()
{
    return new kuv::shell::DBusNotifier();
}

#include "DBusNotifier.moc"

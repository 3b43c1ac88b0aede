// SPDX-License-Identifier: GPL-2.0-or-later
// Desktop notifications through org.freedesktop.Notifications on the session bus, with an action
// that opens the results; without a notification service it says so and nothing fails. The D-Bus side
// lives in a module loaded with the first notification.
#pragma once

#include <memory>

#include <QObject>
#include <QString>

namespace kuv {
namespace shell {

class NotifyBackend;

class DesktopNotifier : public QObject {
    Q_OBJECT
public:
    explicit DesktopNotifier(QObject* parent = nullptr);
    ~DesktopNotifier() override;

    // Sends one notification; job is handed back by openResults when its action is chosen.
    // Answered asynchronously: delivered() or undelivered() follows.
    void notify(const QString& summary, const QString& body, bool critical, qint64 job);

signals:
    void delivered(uint id);
    // No notification service (or no session bus): the window shows the text instead.
    void undelivered(const QString& summary, const QString& body, const QString& why);
    void openResults(qint64 job);

private:
    std::unique_ptr<NotifyBackend> m_backend;
};

} // namespace shell
} // namespace kuv

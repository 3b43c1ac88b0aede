// SPDX-License-Identifier: GPL-2.0-or-later
// Between the shell and its D-Bus notification module (libkuvnotify.so), which is loaded with the
// first notification so that D-Bus and what it pulls in are not mapped before a notification is sent.
#pragma once

#include <QString>
#include <QtGlobal>

class QObject;

namespace kuv {
namespace shell {

// The module's object emits delivered(uint), undelivered(QString,QString,QString) and openResults(qint64),
// with the meaning of DesktopNotifier's signals.
class NotifyBackend {
public:
    virtual ~NotifyBackend() = default;
    // action names the action that opens the results, in the user's language.
    virtual void notify(const QString& summary, const QString& body, const QString& action, bool critical,
                        qint64 job) = 0;
    // The QObject that emits the signals; deleted with the backend.
    virtual QObject* object() = 0;
};

} // namespace shell
} // namespace kuv

// Exported by the module under this name.
#define KUV_NOTIFY_CREATE "kuv_notify_create"
using KuvNotifyCreate = kuv::shell::NotifyBackend* (*)();

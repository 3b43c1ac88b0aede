// SPDX-License-Identifier: GPL-2.0-or-later
// Between the notifier plugin and its D-Bus module (libkuvplugin_notifier_dbus.so, beside the plugin),
// which the plugin loads with the first alert: D-Bus and what it pulls in are not mapped before then.
#pragma once

#include <functional>

#include <QString>

class QObject;

namespace kuvplugin {

class AlertSender {
public:
    virtual ~AlertSender() = default;
    // Sends one desktop notification shown for showMs. done runs on context's thread, and never once
    // context is gone: with an empty text when the desktop took it, else why not (the D-Bus error
    // name, or "no-session-bus", then at once).
    virtual void send(const QString& title, const QString& body, int showMs, QObject* context,
                      std::function<void(const QString& error)> done) = 0;
};

} // namespace kuvplugin

// Exported by the module under this name; the sender lives as long as the process.
#define KUVPLUGIN_NOTIFIER_SENDER "kuvplugin_notifier_sender"
using KuvPluginNotifierSender = kuvplugin::AlertSender* (*)();

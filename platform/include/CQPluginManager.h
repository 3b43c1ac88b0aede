// SPDX-License-Identifier: GPL-2.0-or-later
// The plugin loader: plugin descriptions from JSON files, asynchronous load and unload on the GUI thread.
#pragma once

#include <memory>

#include "KuvExport.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVariant>

class QWidget;

namespace kuv {

// Why a plugin is not loaded, as a code callers and tests compare; the status text has the details.
enum class PluginLoadReason {
    None = 0,          // loaded, or no load tried yet
    UnknownId,         // no plugin description names the id
    NotFound,          // the library file does not exist
    LibraryInUse,      // another plugin id has that library loaded
    NotAPlugin,        // the library carries no Qt plugin metadata
    WrongInterface,    // the plugin's IID or its instance is not the GUI plugin interface
    BadDescription,    // the description names another IID
    QtVersionMismatch, // built with a Qt this process cannot host
    LoadFailed,        // the dynamic loader refused the library
    NoInstance,        // the library gave no plugin object
    InitFailed,        // init() returned non-zero
    InitThrew,         // init() threw
};

// The code's name, for logs and test output.
inline const char* pluginLoadReasonName(PluginLoadReason reason)
{
    switch (reason) {
    case PluginLoadReason::None: return "None";
    case PluginLoadReason::UnknownId: return "UnknownId";
    case PluginLoadReason::NotFound: return "NotFound";
    case PluginLoadReason::LibraryInUse: return "LibraryInUse";
    case PluginLoadReason::NotAPlugin: return "NotAPlugin";
    case PluginLoadReason::WrongInterface: return "WrongInterface";
    case PluginLoadReason::BadDescription: return "BadDescription";
    case PluginLoadReason::QtVersionMismatch: return "QtVersionMismatch";
    case PluginLoadReason::LoadFailed: return "LoadFailed";
    case PluginLoadReason::NoInstance: return "NoInstance";
    case PluginLoadReason::InitFailed: return "InitFailed";
    case PluginLoadReason::InitThrew: return "InitThrew";
    }
    return "?";
}

} // namespace kuv

class KUV_EXPORT CQPluginManager : public QObject {
    Q_OBJECT
public:
    enum PluginState { PLUGIN_KNOWN = 0, PLUGIN_LOADING, PLUGIN_LOADED, PLUGIN_FAILED, PLUGIN_UNLOADED };

    // What the shell shows about one plugin.
    struct PluginStatus {
        QString id;
        QString version;
        QString description;
        QString guid;
        PluginState state = PLUGIN_KNOWN;
        QString reason; // why it failed, empty otherwise
        kuv::PluginLoadReason reasonCode = kuv::PluginLoadReason::None; // the same as a code
        QString pageTitle;
        QPointer<QWidget> page;
    };

    static CQPluginManager* singleInstance();
    static void UninitInstance();

    void setPluginRelativeRootPath(const QString& root);
    void setPluginConfigFilePath(const QString& path);
    // Reads every plugin description in the configuration path; returns how many were read.
    int loadAllPluginInfo();
    // Returns at once; the load runs on the GUI thread in a later turn of the event loop. 0 when queued.
    int installPluginAsyn(const QString& name, const QVariant& paras);
    // Returns at once; sig_unstallPluginComplete(name, result) follows exactly once per call.
    int unstallPluginAsyn(const QString& name);
    // Unloads every loaded plugin in reverse load order.
    int unstallAllPlugin();

    QList<PluginStatus> pluginStatus() const;
    // Unload requests whose completion has not been signalled yet.
    int pendingUnloads() const;
    // Ids of the loaded plugins, oldest load first.
    QStringList loadedPlugins() const;

signals:
    void sig_unstallPluginComplete(QString name, int result);
    // A plugin was loaded, failed or unloaded; the shell refreshes its pages.
    void sig_pluginStateChanged(QString name);

protected:
    explicit CQPluginManager(QObject* parent = nullptr);
    ~CQPluginManager() override;

private:
    // Both run on the GUI thread only.
    void loadNow(const QString& name, const QVariant& paras);
    int unloadNow(const QString& name, bool announce);
    void markFailed(const QString& name, kuv::PluginLoadReason code, const QString& reason);

    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

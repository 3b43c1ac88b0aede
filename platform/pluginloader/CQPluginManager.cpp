// SPDX-License-Identifier: GPL-2.0-or-later
#include "CQPluginManager.h"

#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <memory>
#include <utility>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QMutex>
#include <QMutexLocker>
#include <QPluginLoader>
#include <QWidget>

#include "FileUtils.h"
#include "IKuvGuiPlugin.h"
#include "KuvLog.h"
#include "PluginInfo.h"
#include "PluginInitParas.h"

using kuv::plugin::PluginInfo;
using Reason = kuv::PluginLoadReason;

namespace {

KUV_LOG_SOURCE("platform/pluginloader/CQPluginManager");

// Outside text (ids, paths, plugin messages) as bytes for a log record; the log escapes it.
std::string esc(const QString& text)
{
    return text.toStdString();
}

// The process-wide manager; its constructor and destructor are protected.
class OwnedManager final : public CQPluginManager {
public:
    OwnedManager() : CQPluginManager(nullptr) {}
};

std::mutex g_instanceMutex;
std::unique_ptr<OwnedManager> g_instance;

// Why one step of a load stopped it; code None: go on.
struct LoadFailure {
    Reason code = Reason::None;
    QString text;
    bool failed() const { return code != Reason::None; }
};

// What a plugin handed back from a successful init.
struct Created {
    QObject* instance = nullptr;
    IKuvGuiPlugin* plugin = nullptr;
    QWidget* page = nullptr;
    QString title;
};

QString libraryPath(const QString& root, const QString& library)
{
    QString path = root;
    if (!path.isEmpty() && !path.endsWith(QLatin1Char('/'))) {
        path += QLatin1Char('/');
    }
    return path + library;
}

// The library's Qt metadata against the GUI plugin interface and this process's Qt, before any of
// its code runs.
LoadFailure checkMetadata(QPluginLoader& loader, const PluginInfo& info, const QString& path)
{
    const QLatin1String expected(KUV_GUI_PLUGIN_IID);
    const QJsonObject meta = loader.metaData();
    if (meta.isEmpty()) {
        return {Reason::NotAPlugin, QStringLiteral("[%1] is not a Qt plugin: %2").arg(path, loader.errorString())};
    }
    const QString iid = meta.value(QStringLiteral("IID")).toString();
    if (iid != expected) {
        return {Reason::WrongInterface, QStringLiteral("wrong IID [%1], expected [%2]").arg(iid, expected)};
    }
    if (info.iid != expected) {
        return {Reason::BadDescription, QStringLiteral("description names IID [%1], expected [%2]").arg(info.iid, expected)};
    }
    const int builtWith = meta.value(QStringLiteral("version")).toInt();
    const int runtime = QT_VERSION_CHECK(QT_VERSION_MAJOR, QT_VERSION_MINOR, QT_VERSION_PATCH);
    if ((builtWith >> 16) != (runtime >> 16) || (builtWith & 0xFF00) > (runtime & 0xFF00)) {
        return {Reason::QtVersionMismatch, QStringLiteral("built with Qt %1.%2.%3, this process runs Qt %4")
                                               .arg(builtWith >> 16)
                                               .arg((builtWith >> 8) & 0xFF)
                                               .arg(builtWith & 0xFF)
                                               .arg(QLatin1String(qVersion()))};
    }
    return {};
}

LoadFailure loadLibrary(QPluginLoader& loader, const QString& path)
{
    if (!loader.load()) {
        return {Reason::LoadFailed, QStringLiteral("cannot load [%1]: %2").arg(path, loader.errorString())};
    }
    return {};
}

// The parameters a plugin gets: the caller's, with the plugin's GUID added when it has one.
QVariant parasWithGuid(const QVariant& paras, const QString& guid)
{
    if (!paras.canConvert<sPluginInitParas>() || guid.isEmpty()) {
        return paras;
    }
    sPluginInitParas p = paras.value<sPluginInitParas>();
    if (!p.mapParas.contains(QStringLiteral("PluginGuid"))) {
        p.mapParas.insert(QStringLiteral("PluginGuid"), guid);
    }
    return QVariant::fromValue(p);
}

// The plugin boundary: the instance is made and initialised, and nothing it throws reaches the event
// loop. On failure a half-initialised plugin gets its uninit and its object is deleted.
LoadFailure createPlugin(QPluginLoader& loader, const QVariant& paras, const QString& name, Created& out)
{
    std::unique_ptr<QObject> instance;
    IKuvGuiPlugin* plugin = nullptr;
    LoadFailure failure;
    try {
        instance.reset(loader.instance());
        plugin = qobject_cast<IKuvGuiPlugin*>(instance.get());
        if (!instance) {
            failure = {Reason::NoInstance, QStringLiteral("no plugin instance: %1").arg(loader.errorString())};
        } else if (plugin == nullptr) {
            failure = {Reason::WrongInterface,
                       QStringLiteral("instance does not implement %1").arg(QLatin1String(KUV_GUI_PLUGIN_IID))};
        } else if (const int rc = plugin->init(paras); rc != 0) {
            failure = {Reason::InitFailed, QStringLiteral("init returned %1").arg(rc)};
        } else {
            out.page = plugin->page();
            out.title = plugin->title();
        }
    } catch (const std::exception& e) {
        failure = {Reason::InitThrew, QStringLiteral("plugin threw: %1").arg(QString::fromLocal8Bit(e.what()))};
    } catch (...) {
        failure = {Reason::InitThrew, QStringLiteral("plugin threw an unknown exception")};
    }
    if (failure.failed()) {
        if (plugin != nullptr) {
            // Let a half-initialised plugin let go of what it took before its object goes.
            try {
                plugin->uninit();
            } catch (...) {
                KUV_LOG(kuv::LogLevel::Error, "plugin [%s]: uninit after a failed init threw", esc(name).c_str());
            }
        }
        return failure;
    }
    out.plugin = plugin;
    out.instance = instance.release();
    return failure;
}

} // namespace

struct CQPluginManager::Impl {
    struct Record {
        PluginInfo info;
        bool described = false;
        PluginState state = PLUGIN_KNOWN;
        QString reason;
        Reason reasonCode = Reason::None;
        QString libraryPath; // canonical path of the loaded library
        // Kept for the life of the process: Qt plugin code is never unmapped.
        std::unique_ptr<QPluginLoader> loader;
        QPointer<QObject> instance;
        IKuvGuiPlugin* plugin = nullptr;
        QPointer<QWidget> page;
        QString pageTitle;

        // Forgets the plugin object (failed or unloaded); the loader stays.
        void dropPlugin(PluginState next)
        {
            state = next;
            plugin = nullptr;
            instance = nullptr;
            page = nullptr;
            pageTitle.clear();
        }
    };

    enum class Start { Go, Unknown, AlreadyLoaded };

    // Marks a described plugin as loading and hands out what the load needs.
    Start beginLoad(const QString& name, PluginInfo& info, QString& root)
    {
        QMutexLocker lock(&mutex);
        auto it = records.find(name);
        if (it == records.end() || !it->second.described) {
            return Start::Unknown;
        }
        if (it->second.state == PLUGIN_LOADED) {
            return Start::AlreadyLoaded;
        }
        it->second.state = PLUGIN_LOADING;
        it->second.reason.clear();
        it->second.reasonCode = Reason::None;
        info = it->second.info;
        root = rootPath;
        return Start::Go;
    }

    // The library must exist, and no other id may have it loaded: Qt keeps one instance per library,
    // so two ids on one library would share (and delete) it.
    LoadFailure resolveLibrary(const QString& name, const QString& path, QString& canonical)
    {
        const QFileInfo libInfo(path);
        if (!libInfo.isFile()) {
            return {Reason::NotFound, QStringLiteral("library [%1] does not exist").arg(path)};
        }
        canonical = libInfo.canonicalFilePath();
        QMutexLocker lock(&mutex);
        for (const auto& kv : records) {
            if (kv.first != name && kv.second.state == PLUGIN_LOADED && kv.second.libraryPath == canonical) {
                return {Reason::LibraryInUse,
                        QStringLiteral("library [%1] is already in use by plugin [%2]").arg(path, kv.first)};
            }
        }
        return {};
    }

    // The record's loader when it is for this library, else a new one.
    std::unique_ptr<QPluginLoader> takeLoader(const QString& name, const QString& canonical)
    {
        std::unique_ptr<QPluginLoader> loader;
        {
            QMutexLocker lock(&mutex);
            loader = std::move(records[name].loader);
        }
        if (!loader || loader->fileName() != canonical) {
            loader = std::make_unique<QPluginLoader>(canonical);
            loader->setLoadHints(QLibrary::PreventUnloadHint);
        }
        return loader;
    }

    // Back to the record whatever the load did: the loader must outlive any instance.
    void keepLoader(const QString& name, std::unique_ptr<QPluginLoader> loader)
    {
        QMutexLocker lock(&mutex);
        records[name].loader = std::move(loader);
    }

    void markLoaded(const QString& name, const QString& canonical, const Created& created)
    {
        QMutexLocker lock(&mutex);
        Record& rec = records[name];
        rec.state = PLUGIN_LOADED;
        rec.reason.clear();
        rec.reasonCode = Reason::None;
        rec.libraryPath = canonical;
        rec.instance = created.instance;
        rec.plugin = created.plugin;
        rec.page = created.page;
        rec.pageTitle = created.title;
        loadOrder.removeAll(name);
        loadOrder.append(name);
    }

    mutable QMutex mutex; // guards everything below; plugin code is never called while holding it
    QString rootPath;
    QString configPath;
    std::map<QString, Record> records;
    QStringList loadOrder;
    std::atomic<int> pending{0};
};

CQPluginManager* CQPluginManager::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    if (!g_instance) {
        g_instance = std::make_unique<OwnedManager>();
    }
    return g_instance.get();
}

void CQPluginManager::UninitInstance()
{
    std::unique_ptr<OwnedManager> gone;
    {
        std::lock_guard<std::mutex> lock(g_instanceMutex);
        gone = std::move(g_instance);
    }
}

CQPluginManager::CQPluginManager(QObject* parent) : QObject(parent), m_impl(std::make_unique<Impl>())
{
    qRegisterMetaType<sPluginInitParas>("sPluginInitParas");
}

CQPluginManager::~CQPluginManager()
{
    // No signals from a dying object: whatever is still loaded is taken down quietly, newest first.
    QStringList order;
    {
        QMutexLocker lock(&m_impl->mutex);
        order = m_impl->loadOrder;
    }
    for (auto it = order.crbegin(); it != order.crend(); ++it) {
        unloadNow(*it, false);
    }
}

void CQPluginManager::setPluginRelativeRootPath(const QString& root)
{
    QMutexLocker lock(&m_impl->mutex);
    m_impl->rootPath = root;
}

void CQPluginManager::setPluginConfigFilePath(const QString& path)
{
    QMutexLocker lock(&m_impl->mutex);
    m_impl->configPath = path;
}

int CQPluginManager::loadAllPluginInfo()
{
    QString configPath;
    {
        QMutexLocker lock(&m_impl->mutex);
        configPath = m_impl->configPath;
    }
    QDir dir(configPath);
    if (configPath.isEmpty() || !dir.exists()) {
        KUV_LOG(kuv::LogLevel::Warn, "plugin configuration path [%s] does not exist", esc(configPath).c_str());
        return 0;
    }
    // Name order, so that which of two files naming one id wins does not depend on the file system.
    // "*.json" by hand: a QDir name filter compiles a regular expression (PCRE and its JIT) at start.
    const QFileInfoList entries = dir.entryInfoList(QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    std::map<QString, PluginInfo> found;
    for (const QFileInfo& entry : entries) {
        if (!entry.fileName().endsWith(QLatin1String(".json"), Qt::CaseInsensitive)) {
            continue;
        }
        PluginInfo info;
        QString reason;
        const QString path = entry.absoluteFilePath();
        if (!kuv::plugin::readPluginInfo(path, info, reason)) {
            KUV_LOG(kuv::LogLevel::Error, "plugin description [%s] skipped: %s", esc(path).c_str(), esc(reason).c_str());
            continue;
        }
        if (found.count(info.id) != 0) {
            KUV_LOG(kuv::LogLevel::Error, "plugin description [%s] skipped: id [%s] already described by [%s]",
                   esc(path).c_str(), esc(info.id).c_str(), esc(found[info.id].file).c_str());
            continue;
        }
        found[info.id] = info;
    }

    QMutexLocker lock(&m_impl->mutex);
    // A plugin that is loaded keeps its record; its description is refreshed for the next load.
    for (auto& kv : m_impl->records) {
        kv.second.described = false;
    }
    for (const auto& kv : found) {
        Impl::Record& rec = m_impl->records[kv.first];
        rec.info = kv.second;
        rec.described = true;
    }
    for (auto it = m_impl->records.begin(); it != m_impl->records.end();) {
        const bool inUse = it->second.state == PLUGIN_LOADED || it->second.state == PLUGIN_LOADING;
        if (!it->second.described && !inUse && it->second.state != PLUGIN_FAILED) {
            it = m_impl->records.erase(it);
        } else {
            ++it;
        }
    }
    const int count = static_cast<int>(found.size());
    lock.unlock();
    KUV_LOG(kuv::LogLevel::Info, "read %d plugin description(s) from [%s]", count, esc(configPath).c_str());
    return count;
}

int CQPluginManager::installPluginAsyn(const QString& name, const QVariant& paras)
{
    // Any thread may ask; the load itself always runs on this object's (the GUI) thread.
    const bool queued = QMetaObject::invokeMethod(
        this, [this, name, paras]() { loadNow(name, paras); }, Qt::QueuedConnection);
    if (!queued) {
        KUV_LOG(kuv::LogLevel::Error, "plugin [%s]: load could not be queued", esc(name).c_str());
        return -1;
    }
    return 0;
}

int CQPluginManager::unstallPluginAsyn(const QString& name)
{
    m_impl->pending.fetch_add(1);
    const bool queued = QMetaObject::invokeMethod(
        this,
        [this, name]() {
            const int result = unloadNow(name, true);
            m_impl->pending.fetch_sub(1);
            emit sig_unstallPluginComplete(name, result);
        },
        Qt::QueuedConnection);
    if (!queued) {
        m_impl->pending.fetch_sub(1);
        KUV_LOG(kuv::LogLevel::Error, "plugin [%s]: unload could not be queued", esc(name).c_str());
        return -1;
    }
    return 0;
}

int CQPluginManager::unstallAllPlugin()
{
    // One queued batch, so that loads queued before it are part of "everything".
    m_impl->pending.fetch_add(1);
    const bool queued = QMetaObject::invokeMethod(
        this,
        [this]() {
            QStringList order;
            {
                QMutexLocker lock(&m_impl->mutex);
                order = m_impl->loadOrder;
            }
            KUV_LOG(kuv::LogLevel::Info, "unloading all %d plugin(s)", static_cast<int>(order.size()));
            for (auto it = order.crbegin(); it != order.crend(); ++it) {
                m_impl->pending.fetch_add(1);
                const int result = unloadNow(*it, true);
                m_impl->pending.fetch_sub(1);
                emit sig_unstallPluginComplete(*it, result);
            }
            m_impl->pending.fetch_sub(1);
        },
        Qt::QueuedConnection);
    if (!queued) {
        m_impl->pending.fetch_sub(1);
        KUV_LOG(kuv::LogLevel::Error, "unloading all plugins could not be queued");
        return -1;
    }
    return 0;
}

QList<CQPluginManager::PluginStatus> CQPluginManager::pluginStatus() const
{
    QList<PluginStatus> out;
    QMutexLocker lock(&m_impl->mutex);
    for (const auto& kv : m_impl->records) {
        const Impl::Record& rec = kv.second;
        PluginStatus s;
        s.id = kv.first;
        s.version = rec.info.version;
        s.description = rec.info.description;
        s.guid = rec.info.guid;
        s.state = rec.state;
        s.reason = rec.reason;
        s.reasonCode = rec.reasonCode;
        s.pageTitle = rec.pageTitle;
        s.page = rec.page;
        out.append(s);
    }
    return out;
}

int CQPluginManager::pendingUnloads() const
{
    return m_impl->pending.load();
}

QStringList CQPluginManager::loadedPlugins() const
{
    QMutexLocker lock(&m_impl->mutex);
    return m_impl->loadOrder;
}

void CQPluginManager::markFailed(const QString& name, Reason code, const QString& reason)
{
    {
        QMutexLocker lock(&m_impl->mutex);
        Impl::Record& rec = m_impl->records[name];
        rec.dropPlugin(PLUGIN_FAILED);
        rec.reason = reason;
        rec.reasonCode = code;
    }
    KUV_LOG(kuv::LogLevel::Error, "plugin [%s] failed to load: %s", esc(name).c_str(), esc(reason).c_str());
    emit sig_pluginStateChanged(name);
}

void CQPluginManager::loadNow(const QString& name, const QVariant& paras)
{
    PluginInfo info;
    QString root;
    switch (m_impl->beginLoad(name, info, root)) {
    case Impl::Start::Unknown:
        markFailed(name, Reason::UnknownId, QStringLiteral("unknown plugin id"));
        return;
    case Impl::Start::AlreadyLoaded:
        KUV_LOG(kuv::LogLevel::Warn, "plugin [%s] is already loaded; request ignored", esc(name).c_str());
        return;
    case Impl::Start::Go:
        break;
    }
    const QString path = libraryPath(root, info.library);
    QString canonical;
    LoadFailure failure = m_impl->resolveLibrary(name, path, canonical);
    if (failure.failed()) {
        markFailed(name, failure.code, failure.text);
        return;
    }
    std::unique_ptr<QPluginLoader> loader = m_impl->takeLoader(name, canonical);
    Created created;
    failure = checkMetadata(*loader, info, path);
    if (!failure.failed()) {
        failure = loadLibrary(*loader, path);
    }
    if (!failure.failed()) {
        failure = createPlugin(*loader, parasWithGuid(paras, info.guid), name, created);
    }
    m_impl->keepLoader(name, std::move(loader));
    if (failure.failed()) {
        markFailed(name, failure.code, failure.text);
        return;
    }
    m_impl->markLoaded(name, canonical, created);
    KUV_LOG(kuv::LogLevel::Info, "plugin [%s] loaded from [%s], version [%s]", esc(name).c_str(), esc(path).c_str(),
            esc(info.version).c_str());
    emit sig_pluginStateChanged(name);
}

int CQPluginManager::unloadNow(const QString& name, bool announce)
{
    IKuvGuiPlugin* plugin = nullptr;
    QPointer<QObject> instance;
    QPointer<QWidget> page;
    {
        QMutexLocker lock(&m_impl->mutex);
        auto it = m_impl->records.find(name);
        if (it == m_impl->records.end() || it->second.state != PLUGIN_LOADED) {
            lock.unlock();
            KUV_LOG(kuv::LogLevel::Warn, "plugin [%s] is not loaded; nothing to unload", esc(name).c_str());
            return -1;
        }
        plugin = it->second.plugin;
        instance = it->second.instance;
        page = it->second.page;
    }
    int result = 0;
    try {
        plugin->uninit();
    } catch (const std::exception& e) {
        KUV_LOG(kuv::LogLevel::Error, "plugin [%s]: uninit threw: %s", esc(name).c_str(),
                esc(QString::fromLocal8Bit(e.what())).c_str());
        result = -2;
    } catch (...) {
        KUV_LOG(kuv::LogLevel::Error, "plugin [%s]: uninit threw an unknown exception", esc(name).c_str());
        result = -2;
    }
    // A page the plugin left behind must not outlive the object that drives it. The guards are read
    // one after the other: deleting the page may already have taken the instance with it.
    std::unique_ptr<QWidget>(page.data()).reset();
    std::unique_ptr<QObject>(instance.data()).reset();
    {
        QMutexLocker lock(&m_impl->mutex);
        Impl::Record& rec = m_impl->records[name];
        rec.dropPlugin(PLUGIN_UNLOADED);
        rec.libraryPath.clear();
        m_impl->loadOrder.removeAll(name);
    }
    KUV_LOG(kuv::LogLevel::Info, "plugin [%s] unloaded, result %d", esc(name).c_str(), result);
    if (announce) {
        emit sig_pluginStateChanged(name);
    }
    return result;
}

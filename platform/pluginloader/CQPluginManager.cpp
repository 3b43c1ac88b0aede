#include "CQPluginManager.h"

#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <memory>

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QMutex>
#include <QMutexLocker>
#include <QPluginLoader>
#include <QWidget>

#include "CLogDebug.h"
#include "FileUtils.h"
#include "IKuvGuiPlugin.h"
#include "PluginInfo.h"
#include "PluginInitParas.h"

using kuv::plugin::PluginInfo;

namespace {

const char* const kSource = "platform/pluginloader/CQPluginManager";

#define PL_LOG(level, ...) CLogDebug::Instance()->LogPrint(level, kSource, __func__, __LINE__, __VA_ARGS__)

// Outside text (ids, paths, plugin messages) as bytes for a log record; the log escapes it.
std::string esc(const QString& text)
{
    return text.toStdString();
}

std::mutex g_instanceMutex;
CQPluginManager* g_instance = nullptr;

} // namespace

struct CQPluginManager::Impl {
    struct Record {
        PluginInfo info;
        bool described = false;
        PluginState state = PLUGIN_KNOWN;
        QString reason;
        QString libraryPath; // canonical path of the loaded library
        // Kept for the life of the process: Qt plugin code is never unmapped.
        std::unique_ptr<QPluginLoader> loader;
        QPointer<QObject> instance;
        IKuvGuiPlugin* plugin = nullptr;
        QPointer<QWidget> page;
        QString pageTitle;
    };

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
    if (g_instance == nullptr) {
        g_instance = new CQPluginManager(nullptr);
    }
    return g_instance;
}

void CQPluginManager::UninitInstance()
{
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    delete g_instance;
    g_instance = nullptr;
}

CQPluginManager::CQPluginManager(QObject* parent) : QObject(parent), m_impl(new Impl)
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
    delete m_impl;
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
        PL_LOG(LOG_LEVEL_WARN, "plugin configuration path [%s] does not exist", esc(configPath).c_str());
        return 0;
    }
    // Name order, so that which of two files naming one id wins does not depend on the file system.
    const QFileInfoList entries =
        dir.entryInfoList(QStringList{QStringLiteral("*.json")}, QDir::Files | QDir::System | QDir::Hidden, QDir::Name);
    std::map<QString, PluginInfo> found;
    for (const QFileInfo& entry : entries) {
        PluginInfo info;
        QString reason;
        const QString path = entry.absoluteFilePath();
        if (!kuv::plugin::readPluginInfo(path, info, reason)) {
            PL_LOG(LOG_LEVEL_ERROR, "plugin description [%s] skipped: %s", esc(path).c_str(), esc(reason).c_str());
            continue;
        }
        if (found.count(info.id) != 0) {
            PL_LOG(LOG_LEVEL_ERROR, "plugin description [%s] skipped: id [%s] already described by [%s]",
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
    PL_LOG(LOG_LEVEL_INFO, "read %d plugin description(s) from [%s]", count, esc(configPath).c_str());
    return count;
}

int CQPluginManager::installPluginAsyn(const QString& name, const QVariant& paras)
{
    // Any thread may ask; the load itself always runs on this object's (the GUI) thread.
    const bool queued = QMetaObject::invokeMethod(
        this, [this, name, paras]() { loadNow(name, paras); }, Qt::QueuedConnection);
    if (!queued) {
        PL_LOG(LOG_LEVEL_ERROR, "plugin [%s]: load could not be queued", esc(name).c_str());
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
        PL_LOG(LOG_LEVEL_ERROR, "plugin [%s]: unload could not be queued", esc(name).c_str());
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
            PL_LOG(LOG_LEVEL_INFO, "unloading all %d plugin(s)", static_cast<int>(order.size()));
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
        PL_LOG(LOG_LEVEL_ERROR, "unloading all plugins could not be queued");
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

void CQPluginManager::markFailed(const QString& name, const QString& reason)
{
    {
        QMutexLocker lock(&m_impl->mutex);
        Impl::Record& rec = m_impl->records[name];
        rec.state = PLUGIN_FAILED;
        rec.reason = reason;
        rec.plugin = nullptr;
        rec.page = nullptr;
        rec.pageTitle.clear();
    }
    PL_LOG(LOG_LEVEL_ERROR, "plugin [%s] failed to load: %s", esc(name).c_str(), esc(reason).c_str());
    emit sig_pluginStateChanged(name);
}

void CQPluginManager::loadNow(const QString& name, const QVariant& paras)
{
    PluginInfo info;
    QString root;
    {
        QMutexLocker lock(&m_impl->mutex);
        auto it = m_impl->records.find(name);
        if (it == m_impl->records.end() || !it->second.described) {
            lock.unlock();
            markFailed(name, QStringLiteral("unknown plugin id"));
            return;
        }
        if (it->second.state == PLUGIN_LOADED) {
            lock.unlock();
            PL_LOG(LOG_LEVEL_WARN, "plugin [%s] is already loaded; request ignored", esc(name).c_str());
            return;
        }
        it->second.state = PLUGIN_LOADING;
        it->second.reason.clear();
        info = it->second.info;
        root = m_impl->rootPath;
    }

    QString path = root;
    if (!path.isEmpty() && !path.endsWith(QLatin1Char('/'))) {
        path += QLatin1Char('/');
    }
    path += info.library;
    const QFileInfo libInfo(path);
    if (!libInfo.isFile()) {
        markFailed(name, QStringLiteral("library [%1] does not exist").arg(path));
        return;
    }
    const QString canonical = libInfo.canonicalFilePath();
    {
        // Qt keeps one instance per library; two ids on one library would share (and delete) it.
        QMutexLocker lock(&m_impl->mutex);
        for (const auto& kv : m_impl->records) {
            if (kv.first != name && kv.second.state == PLUGIN_LOADED && kv.second.libraryPath == canonical) {
                const QString other = kv.first;
                lock.unlock();
                markFailed(name, QStringLiteral("library [%1] is already in use by plugin [%2]").arg(path, other));
                return;
            }
        }
    }

    std::unique_ptr<QPluginLoader> loader;
    {
        QMutexLocker lock(&m_impl->mutex);
        loader = std::move(m_impl->records[name].loader);
    }
    if (!loader || loader->fileName() != canonical) {
        loader = std::make_unique<QPluginLoader>(canonical);
        loader->setLoadHints(QLibrary::PreventUnloadHint);
    }
    // Hand the loader back to the record whatever happens below: it must outlive any instance.
    struct KeepLoader {
        Impl* impl;
        QString name;
        std::unique_ptr<QPluginLoader>& loader;
        ~KeepLoader()
        {
            QMutexLocker lock(&impl->mutex);
            impl->records[name].loader = std::move(loader);
        }
    } keep{m_impl, name, loader};

    const QJsonObject meta = loader->metaData();
    if (meta.isEmpty()) {
        markFailed(name, QStringLiteral("[%1] is not a Qt plugin: %2").arg(path, loader->errorString()));
        return;
    }
    const QString iid = meta.value(QStringLiteral("IID")).toString();
    if (iid != QLatin1String(KUV_GUI_PLUGIN_IID)) {
        markFailed(name, QStringLiteral("wrong IID [%1], expected [%2]").arg(iid, QLatin1String(KUV_GUI_PLUGIN_IID)));
        return;
    }
    if (info.iid != QLatin1String(KUV_GUI_PLUGIN_IID)) {
        markFailed(name, QStringLiteral("description names IID [%1], expected [%2]")
                             .arg(info.iid, QLatin1String(KUV_GUI_PLUGIN_IID)));
        return;
    }
    const int builtWith = meta.value(QStringLiteral("version")).toInt();
    const int runtime = QT_VERSION_CHECK(QT_VERSION_MAJOR, QT_VERSION_MINOR, QT_VERSION_PATCH);
    if ((builtWith >> 16) != (runtime >> 16) || (builtWith & 0xFF00) > (runtime & 0xFF00)) {
        markFailed(name, QStringLiteral("built with Qt %1.%2.%3, this process runs Qt %4")
                             .arg(builtWith >> 16)
                             .arg((builtWith >> 8) & 0xFF)
                             .arg(builtWith & 0xFF)
                             .arg(QLatin1String(qVersion())));
        return;
    }
    if (!loader->load()) {
        markFailed(name, QStringLiteral("cannot load [%1]: %2").arg(path, loader->errorString()));
        return;
    }
    QObject* instance = nullptr;
    IKuvGuiPlugin* plugin = nullptr;
    QVariant handed = paras;
    if (paras.canConvert<sPluginInitParas>() && !info.guid.isEmpty()) {
        sPluginInitParas p = paras.value<sPluginInitParas>();
        if (!p.mapParas.contains(QStringLiteral("PluginGuid"))) {
            p.mapParas.insert(QStringLiteral("PluginGuid"), info.guid);
        }
        handed = QVariant::fromValue(p);
    }
    int rc = -1;
    QString failure;
    QWidget* page = nullptr;
    QString title;
    // The plugin boundary: nothing a plugin throws reaches the event loop.
    try {
        instance = loader->instance();
        plugin = qobject_cast<IKuvGuiPlugin*>(instance);
        if (instance == nullptr) {
            failure = QStringLiteral("no plugin instance: %1").arg(loader->errorString());
        } else if (plugin == nullptr) {
            failure = QStringLiteral("instance does not implement %1").arg(QLatin1String(KUV_GUI_PLUGIN_IID));
        } else {
            rc = plugin->init(handed);
            if (rc != 0) {
                failure = QStringLiteral("init returned %1").arg(rc);
            } else {
                page = plugin->page();
                title = plugin->title();
            }
        }
    } catch (const std::exception& e) {
        failure = QStringLiteral("plugin threw: %1").arg(QString::fromLocal8Bit(e.what()));
        rc = -1;
    } catch (...) {
        failure = QStringLiteral("plugin threw an unknown exception");
        rc = -1;
    }
    if (!failure.isEmpty()) {
        if (plugin != nullptr) {
            // Let a half-initialised plugin let go of what it took before its object goes.
            try {
                plugin->uninit();
            } catch (...) {
                PL_LOG(LOG_LEVEL_ERROR, "plugin [%s]: uninit after a failed init threw", esc(name).c_str());
            }
        }
        delete instance;
        markFailed(name, failure);
        return;
    }
    {
        QMutexLocker lock(&m_impl->mutex);
        Impl::Record& rec = m_impl->records[name];
        rec.state = PLUGIN_LOADED;
        rec.reason.clear();
        rec.libraryPath = canonical;
        rec.instance = instance;
        rec.plugin = plugin;
        rec.page = page;
        rec.pageTitle = title;
        m_impl->loadOrder.removeAll(name);
        m_impl->loadOrder.append(name);
    }
    PL_LOG(LOG_LEVEL_INFO, "plugin [%s] loaded from [%s], version [%s]", esc(name).c_str(), esc(path).c_str(),
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
            PL_LOG(LOG_LEVEL_WARN, "plugin [%s] is not loaded; nothing to unload", esc(name).c_str());
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
        PL_LOG(LOG_LEVEL_ERROR, "plugin [%s]: uninit threw: %s", esc(name).c_str(), esc(QString::fromLocal8Bit(e.what())).c_str());
        result = -2;
    } catch (...) {
        PL_LOG(LOG_LEVEL_ERROR, "plugin [%s]: uninit threw an unknown exception", esc(name).c_str());
        result = -2;
    }
    // A page the plugin left behind must not outlive the object that drives it.
    delete page.data();
    delete instance.data();
    {
        QMutexLocker lock(&m_impl->mutex);
        Impl::Record& rec = m_impl->records[name];
        rec.state = PLUGIN_UNLOADED;
        rec.plugin = nullptr;
        rec.instance = nullptr;
        rec.page = nullptr;
        rec.pageTitle.clear();
        rec.libraryPath.clear();
        m_impl->loadOrder.removeAll(name);
    }
    PL_LOG(LOG_LEVEL_INFO, "plugin [%s] unloaded, result %d", esc(name).c_str(), result);
    if (announce) {
        emit sig_pluginStateChanged(name);
    }
    return result;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Plugin loader double: records each request with the record it was handed and reports unloads.
#include "FakePluginLoader.h"

#include <mutex>

#include "CQPluginManager.h"
#include "FakePlatform.h"
#include "PluginInitParas.h"
#include "ResetHook.h"

struct CQPluginManager::Impl {};

namespace {
std::mutex g_mutex;
CQPluginManager* g_instance = nullptr;
std::vector<fake::LoaderInstall> g_installs;
std::vector<std::string> g_uninstalls;
std::vector<std::string> g_pending;
bool g_hold = false;
int g_loadAllCount = 0;
int g_unstallAllCount = 0;
std::string g_root;
std::string g_configPath;

void resetLoader()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_installs.clear();
    g_uninstalls.clear();
    g_pending.clear();
    g_hold = false;
    g_loadAllCount = 0;
    g_unstallAllCount = 0;
    g_root.clear();
    g_configPath.clear();
}
fake::ResetHook g_hook(&resetLoader);
} // namespace

CQPluginManager::CQPluginManager(QObject* parent) : QObject(parent), m_impl(std::make_unique<Impl>()) {}

CQPluginManager::~CQPluginManager() = default;

CQPluginManager* CQPluginManager::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        g_instance = new CQPluginManager;
    }
    return g_instance;
}

void CQPluginManager::UninitInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    delete g_instance;
    g_instance = nullptr;
}

void CQPluginManager::setPluginRelativeRootPath(const QString& root)
{
    fake::record("loader.root " + root.toStdString());
    std::lock_guard<std::mutex> lock(g_mutex);
    g_root = root.toStdString();
}

void CQPluginManager::setPluginConfigFilePath(const QString& path)
{
    fake::record("loader.config " + path.toStdString());
    std::lock_guard<std::mutex> lock(g_mutex);
    g_configPath = path.toStdString();
}

int CQPluginManager::loadAllPluginInfo()
{
    fake::record("loader.loadAll");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_loadAllCount;
    return 0;
}

int CQPluginManager::installPluginAsyn(const QString& name, const QVariant& paras)
{
    fake::LoaderInstall call;
    call.name = name.toStdString();
    call.isRecord = paras.userType() == qMetaTypeId<sPluginInitParas>();
    if (call.isRecord) {
        const sPluginInitParas record = paras.value<sPluginInitParas>();
        call.keyCount = record.mapParas.size();
        call.endpoint = record.mapParas.value("IZellMREndPoint4").value<void*>();
        call.tag = record.mapParas.value("CGlobalTag").value<void*>();
    }
    fake::record("loader.install " + call.name);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_installs.push_back(call);
    return 0;
}

int CQPluginManager::unstallPluginAsyn(const QString& name)
{
    fake::record("loader.uninstall " + name.toStdString());
    bool hold;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_uninstalls.push_back(name.toStdString());
        hold = g_hold;
        if (hold) {
            g_pending.push_back(name.toStdString());
        }
    }
    if (!hold) {
        emit sig_unstallPluginComplete(name, 0);
    }
    return 0;
}

int CQPluginManager::unstallAllPlugin()
{
    fake::record("loader.uninstallAll");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_unstallAllCount;
    return 0;
}

QList<CQPluginManager::PluginStatus> CQPluginManager::pluginStatus() const
{
    return {};
}

int CQPluginManager::pendingUnloads() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return static_cast<int>(g_pending.size());
}

namespace fake {

std::vector<LoaderInstall> loaderInstalls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_installs;
}

std::vector<std::string> loaderUninstalls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_uninstalls;
}

std::string loaderRootPath()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_root;
}

std::string loaderConfigPath()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_configPath;
}

int loaderLoadAllCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_loadAllCount;
}

int loaderUnstallAllCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_unstallAllCount;
}

void loaderHoldCompletions(bool hold)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_hold = hold;
}

int loaderCompletePending()
{
    std::vector<std::string> pending;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        pending.swap(g_pending);
    }
    for (const std::string& name : pending) {
        emit CQPluginManager::singleInstance()->sig_unstallPluginComplete(QString::fromStdString(name), 0);
    }
    return static_cast<int>(pending.size());
}

void loaderEmitUnloadComplete(const std::string& name, int result)
{
    emit CQPluginManager::singleInstance()->sig_unstallPluginComplete(QString::fromStdString(name), result);
}

} // namespace fake

// SPDX-License-Identifier: GPL-2.0-or-later
#include "CPluginMgr.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <QMutexLocker>
#include <QVariant>

#include <json/json.h>

#include "BFLog.h"
#include "CContainerMgr.h"
#include "CQPluginManager.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"

namespace {

BF_LOG_SOURCE("gui/service/core/bin/CPluginMgr");

// "a | b | " : every element is followed by the separator, so an empty list gives "".
// Written into text, whose storage is reused from one dump line to the next.
template <typename Container>
const std::string& joinList(const Container& items, std::string& text)
{
    text.clear();
    for (const auto& item : items) {
        text += item;
        text += " | ";
    }
    return text;
}

// The dumps are only worth building when their records are written.
bool infoLogged()
{
    CLogDebug* log = CLogDebug::Instance();
    return log != nullptr && log->CheckLogLevel(LOG_LEVEL_INFO, 1);
}

// The member's value when it is there and an object's member; nullptr otherwise.
const Json::Value* member(const Json::Value& value, const char* key)
{
    if (!value.isObject()) {
        return nullptr;
    }
    return value.find(key, key + std::strlen(key));
}

std::string getString(const char* key, const Json::Value& value, const std::string& defaultValue)
{
    try {
        const Json::Value* found = member(value, key);
        if (found == nullptr || !found->isString()) {
            return defaultValue;
        }
        return found->asString();
    } catch (...) {
        return defaultValue;
    }
}

} // namespace

// Lives on the GUI thread, where the loader loads and unloads; the loader's unload reports reach it
// through the event loop.
CPluginMgr::CPluginMgr(QObject* parent) : QObject(parent), m_pConMgr(nullptr), m_pGlobalTag(nullptr)
{
    // Queued: the loader may report from wherever it unloads, the endpoint table is touched only here.
    connect(CQPluginManager::singleInstance(), &CQPluginManager::sig_unstallPluginComplete, this,
            &CPluginMgr::slot_cleanPluginEndpoint, Qt::QueuedConnection);
}

CPluginMgr::~CPluginMgr() = default;

int CPluginMgr::init(CGlobalTag* tag, CContainerMgr* conMgr)
{
    m_pGlobalTag = tag;
    m_pConMgr = conMgr;
    const std::string installDir = ConstConfig::singleInstance()->getInstallDir();
    CQPluginManager* loader = CQPluginManager::singleInstance();
    loader->setPluginRelativeRootPath(QString::fromStdString(installDir));
    loader->setPluginConfigFilePath(QString::fromStdString(installDir + "/etc/plugins-gui/plugins/"));
    loader->loadAllPluginInfo();
    return 1;
}

std::vector<std::string> CPluginMgr::allMapFile()
{
    const std::string dir = ConstConfig::singleInstance()->getInstallDir() + "/etc/plugins-gui/combo_plugin_map";
    std::list<CFileInfo> entries;
    // A missing directory simply lists nothing.
    CDir::getAllFilesInDir(entries, dir.c_str());

    std::vector<std::string> paths;
    paths.reserve(entries.size());
    for (const CFileInfo& entry : entries) {
        if (entry.isSymLink()) {
            BF_LOG(LOG_LEVEL_WARN, "%s is symlink", entry.absoluteFilePath().c_str());
            continue;
        }
        paths.push_back(entry.absoluteFilePath());
    }
    return paths;
}

int CPluginMgr::readOneMapFile(const std::string& path, sComboPluginInfo& info)
{
    CFile file(path);
    if (!file.open(std::ios::in)) {
        BF_LOG(LOG_LEVEL_ERROR, "open %s failed", path.c_str());
        return -1;
    }
    std::string content;
    if (!file.ReadAll(content)) {
        BF_LOG(LOG_LEVEL_ERROR, "read %s content failed", path.c_str());
        file.close(std::ios::in | std::ios::out);
        return -2;
    }
    file.close(std::ios::in | std::ios::out);

    Json::Value root;
    if (!CppJson::LoadJsonString(content, root)) {
        BF_LOG(LOG_LEVEL_ERROR, "[CPluginMgr] load json failed, json = %s", content.c_str());
        return -3;
    }

    info.nIndex = CppJson::GetInt("index", root, 0);
    info.strCombo = getString("combo", root, "");
    CStr::toLower(info.strCombo);

    // Index and combo are already filled when the plugin list turns out missing.
    const Json::Value* list = member(root, "pluginList");
    if (list == nullptr || !list->isArray()) {
        BF_LOG(LOG_LEVEL_ERROR, "[CPluginMgr] pluginList not exist, json = %s", content.c_str());
        return -4;
    }
    const std::string noId;
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
        info.pluginList.push_back(getString("id", (*list)[i], noId));
    }
    return 0;
}

int CPluginMgr::installPlugin(std::string plugin)
{
    QMutexLocker locker(&m_mutex);
    const QString name = QString::fromStdString(plugin);

    IZellMREndPoint4* endPoint = m_mapPluginEndpoint.value(name, nullptr);
    if (endPoint == nullptr) {
        endPoint = m_pConMgr != nullptr ? m_pConMgr->createEndPoint() : nullptr;
        if (endPoint == nullptr) {
            BF_LOG(LOG_LEVEL_ERROR, "create endPoint is null, plugin name is %s", plugin.c_str());
            return -1;
        }
    }

    sPluginInitParas paras;
    paras.mapParas.insert(QStringLiteral("IZellMREndPoint4"), QVariant::fromValue<void*>(endPoint));
    paras.mapParas.insert(QStringLiteral("CGlobalTag"), QVariant::fromValue<void*>(m_pGlobalTag));
    CQPluginManager::singleInstance()->installPluginAsyn(name, QVariant::fromValue<sPluginInitParas>(paras));

    // The loader's outcome is not awaited: the endpoint belongs to the plugin from here on.
    m_mapPluginEndpoint.insert(name, endPoint);
    BF_LOG(LOG_LEVEL_INFO, "加载插件: %s", plugin.c_str());
    return 0;
}

int CPluginMgr::unInstallPlugin(std::string plugin)
{
    BF_LOG(LOG_LEVEL_INFO, "卸载插件: %s", plugin.c_str());
    // The endpoint is given back when the loader reports the unload.
    CQPluginManager::singleInstance()->unstallPluginAsyn(QString::fromStdString(plugin));
    return 0;
}

int CPluginMgr::installCombo(std::string combo)
{
    auto it = m_mapComboPlugin.find(combo);
    if (it == m_mapComboPlugin.end()) {
        BF_LOG(LOG_LEVEL_ERROR, "combo %s not support", combo.c_str());
        return -1;
    }
    for (const std::string& plugin : it->second.pluginList) {
        installPlugin(plugin);
    }
    return 0;
}

int CPluginMgr::unInstallCombo(std::string combo)
{
    auto it = m_mapComboPlugin.find(combo);
    if (it == m_mapComboPlugin.end()) {
        BF_LOG(LOG_LEVEL_ERROR, "combo %s not support", combo.c_str());
        return -1;
    }

    // Reverse of the install order; a plugin another combo still lists stays loaded.
    std::list<std::string> toUnload;
    const std::list<std::string>& plugins = it->second.pluginList;
    for (auto plugin = plugins.rbegin(); plugin != plugins.rend(); ++plugin) {
        auto users = m_mapPluginCombos.find(*plugin);
        if (users == m_mapPluginCombos.end() || users->second.empty()) {
            toUnload.push_back(*plugin);
            continue;
        }
        auto self = users->second.find(combo);
        if (self == users->second.end()) {
            BF_LOG(LOG_LEVEL_ERROR, "plugin %s depend combo list not find %s", plugin->c_str(), combo.c_str());
            continue;
        }
        users->second.erase(self);
        if (users->second.empty()) {
            toUnload.push_back(*plugin);
        }
    }

    for (const std::string& plugin : toUnload) {
        unInstallPlugin(plugin);
    }
    return 0;
}

int CPluginMgr::unInstallAllCombo()
{
    // Highest index first: the reverse of the install order.
    std::list<std::string> combos;
    for (const auto& entry : m_mapIndexCombo) {
        combos.push_front(entry.second);
    }
    for (const std::string& combo : combos) {
        unInstallCombo(combo);
    }
    return 0;
}

int CPluginMgr::unInstallAllPlugin()
{
    CQPluginManager::singleInstance()->unstallAllPlugin();
    std::map<std::string, sComboPluginInfo>().swap(m_mapComboPlugin);
    std::map<int, std::string>().swap(m_mapIndexCombo);
    std::map<std::string, std::set<std::string>>().swap(m_mapPluginCombos);
    std::set<std::string>().swap(m_setInstalledCombo);
    return 1;
}

void CPluginMgr::slot_cleanPluginEndpoint(QString pluginName, int)
{
    // No lock: the queued connection runs this in the manager's own thread.
    const QByteArray name = pluginName.toUtf8();
    BF_LOG(LOG_LEVEL_INFO, "start destroy %s endpoint", name.constData());

    auto it = m_mapPluginEndpoint.find(pluginName);
    if (it == m_mapPluginEndpoint.end()) {
        BF_LOG(LOG_LEVEL_WARN, "not find endpoint");
        return;
    }
    if (it.value() == nullptr) {
        BF_LOG(LOG_LEVEL_WARN, "endpoint is null");
        return;
    }
    if (m_pConMgr == nullptr) {
        BF_LOG(LOG_LEVEL_WARN, "conmgr is null, not destroyEndPoint %s", name.constData());
        return;
    }
    m_pConMgr->destroyEndPoint(it.value());
    m_mapPluginEndpoint.erase(it);
    BF_LOG(LOG_LEVEL_INFO, "destroy endpoint end");
}

int CPluginMgr::updatePluginStatus()
{
    BF_LOG(LOG_LEVEL_INFO, "[CPluginMgr] --------------- start update plugin ---------------");

    // The installed set and the endpoints survive an update; the tables are rebuilt from the files.
    std::map<std::string, sComboPluginInfo>().swap(m_mapComboPlugin);
    std::map<int, std::string>().swap(m_mapIndexCombo);
    std::map<std::string, std::set<std::string>>().swap(m_mapPluginCombos);

    for (const std::string& path : allMapFile()) {
        sComboPluginInfo info;
        if (readOneMapFile(path, info) != 0) {
            BF_LOG(LOG_LEVEL_ERROR, "[CPluginMgr] read map file %s failed.", path.c_str());
            continue;
        }
        // The first file in listing order keeps a disputed index.
        auto slot = m_mapIndexCombo.lower_bound(info.nIndex);
        if (slot == m_mapIndexCombo.end() || slot->first != info.nIndex) {
            m_mapIndexCombo.emplace_hint(slot, info.nIndex, info.strCombo);
        } else {
            BF_LOG(LOG_LEVEL_WARN, "[CPluginMgr] combo %s index has exist.", info.strCombo.c_str());
        }
        for (const std::string& plugin : info.pluginList) {
            m_mapPluginCombos[plugin].insert(info.strCombo);
        }
        // Last, so the record can be moved in rather than copied; a later file with the same name
        // replaces it.
        auto entry = m_mapComboPlugin.lower_bound(info.strCombo);
        if (entry != m_mapComboPlugin.end() && entry->first == info.strCombo) {
            entry->second = std::move(info);
        } else {
            std::string key = info.strCombo;
            m_mapComboPlugin.emplace_hint(entry, std::move(key), std::move(info));
        }
    }

    printComboPluginMap();
    printIndexComboMap();
    printPluginCombosMap();

    // Every listed combo is wanted, so nothing listed is to go.
    std::set<std::string> installSet;
    for (const auto& entry : m_mapComboPlugin) {
        installSet.emplace_hint(installSet.end(), entry.first);
    }
    const std::set<std::string> uninstallSet;
    printStrSet(installSet, "will install combo");
    printStrSet(uninstallSet, "will uninstall combo");

    std::set<std::string> finalInstall;
    std::set<std::string> finalUninstall;
    if (!m_setInstalledCombo.empty()) {
        std::set_difference(installSet.begin(), installSet.end(), m_setInstalledCombo.begin(),
                            m_setInstalledCombo.end(), std::inserter(finalInstall, finalInstall.end()));
        std::set_difference(m_setInstalledCombo.begin(), m_setInstalledCombo.end(), installSet.begin(),
                            installSet.end(), std::inserter(finalUninstall, finalUninstall.end()));
        finalUninstall.insert(uninstallSet.begin(), uninstallSet.end());
    } else {
        // On a first update the uninstall set is not taken over.
        finalInstall.swap(installSet);
    }
    printStrSet(finalInstall, "will install combo last");
    printStrSet(finalUninstall, "will uninstall combo last");

    // Only indexed combos are acted on, in ascending index.
    for (const auto& entry : m_mapIndexCombo) {
        const std::string& combo = entry.second;
        if (finalInstall.count(combo) != 0 && installCombo(combo) == 0) {
            m_setInstalledCombo.insert(combo);
        }
        if (finalUninstall.count(combo) != 0 && unInstallCombo(combo) == 0) {
            m_setInstalledCombo.erase(combo);
        }
    }

    printStrSet(m_setInstalledCombo, "installed combo");
    BF_LOG(LOG_LEVEL_INFO, "[CPluginMgr] --------------- end update plugin ---------------");
    return 1;
}

void CPluginMgr::printComboPluginMap()
{
    BF_LOG(LOG_LEVEL_INFO, "---------- combo --> plugins start ----------");
    if (infoLogged()) {
        std::string joined;
        for (const auto& entry : m_mapComboPlugin) {
            BF_LOG(LOG_LEVEL_INFO, "combo = %s, pluginList = %s", entry.first.c_str(),
                   joinList(entry.second.pluginList, joined).c_str());
        }
    }
    BF_LOG(LOG_LEVEL_INFO, "---------- combo --> plugins end  ----------");
}

void CPluginMgr::printIndexComboMap()
{
    BF_LOG(LOG_LEVEL_INFO, "---------- index --> combo start ----------");
    if (infoLogged()) {
        for (const auto& entry : m_mapIndexCombo) {
            BF_LOG(LOG_LEVEL_INFO, "index = %d, combo = %s", entry.first, entry.second.c_str());
        }
    }
    BF_LOG(LOG_LEVEL_INFO, "---------- index --> combo end ----------");
}

void CPluginMgr::printPluginCombosMap()
{
    BF_LOG(LOG_LEVEL_INFO, "---------- plugins --> combos start ----------");
    if (infoLogged()) {
        std::string joined;
        for (const auto& entry : m_mapPluginCombos) {
            BF_LOG(LOG_LEVEL_INFO, "plugin = %s, combo = %s", entry.first.c_str(), joinList(entry.second, joined).c_str());
        }
    }
    BF_LOG(LOG_LEVEL_INFO, "---------- plugins --> combos end ----------");
}

void CPluginMgr::printStrSet(const std::set<std::string>& set, const std::string& name)
{
    if (!infoLogged()) {
        return;
    }
    std::string joined;
    BF_LOG(LOG_LEVEL_INFO, "[CPluginMgr] %s : %s ", name.c_str(), joinList(set, joined).c_str());
}

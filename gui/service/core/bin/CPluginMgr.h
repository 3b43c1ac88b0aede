// SPDX-License-Identifier: GPL-2.0-or-later
// Plugin tables from the combo map files, plugin load/unload with one bus endpoint each, state update.
#pragma once

#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>

#include "PluginInitParas.h"

class CContainerMgr;
class CGlobalTag;
class IZellMREndPoint4;

// One combo map file in memory.
struct sComboPluginInfo {
    int32_t nIndex = 0;
    std::string strCombo;               // lower case
    std::list<std::string> pluginList;  // file order, duplicates and empty ids kept
};

class CPluginMgr : public QObject {
    Q_OBJECT
public:
    explicit CPluginMgr(QObject* parent = nullptr);
    ~CPluginMgr() override;

    int init(CGlobalTag* tag, CContainerMgr* conMgr);
    int updatePluginStatus();

    int installPlugin(std::string plugin);
    int unInstallPlugin(std::string plugin);
    int installCombo(std::string combo);
    int unInstallCombo(std::string combo);
    int unInstallAllCombo();
    int unInstallAllPlugin();

    std::vector<std::string> allMapFile();
    int readOneMapFile(const std::string& path, sComboPluginInfo& info);

private slots:
    void slot_cleanPluginEndpoint(QString pluginName, int result);

private:
    void printComboPluginMap();
    void printIndexComboMap();
    void printPluginCombosMap();
    void printStrSet(const std::set<std::string>& set, const std::string& name);

    std::map<std::string, sComboPluginInfo> m_mapComboPlugin;
    std::map<int, std::string> m_mapIndexCombo;
    std::map<std::string, std::set<std::string>> m_mapPluginCombos;
    std::set<std::string> m_setInstalledCombo;
    QMap<QString, IZellMREndPoint4*> m_mapPluginEndpoint;
    QMutex m_mutex;
    CContainerMgr* m_pConMgr;
    CGlobalTag* m_pGlobalTag;

    friend class CPluginMgrTest;
};

// SPDX-License-Identifier: GPL-2.0-or-later
// Shared set-up of the plugin manager tests: an installation directory with a combo map directory.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <gtest/gtest.h>

#include "CContainerMgr.h"
#include "CGlobalTag.h"
#include "CPluginMgr.h"
#include "FakePlatform.h"
#include "FakePluginLoader.h"
#include "Harness.h"

// Reaches the manager's tables (declared a friend by CPluginMgr).
class CPluginMgrTest {
public:
    static std::map<std::string, sComboPluginInfo>& comboPlugin(CPluginMgr& m) { return m.m_mapComboPlugin; }
    static std::map<int, std::string>& indexCombo(CPluginMgr& m) { return m.m_mapIndexCombo; }
    static std::map<std::string, std::set<std::string>>& pluginCombos(CPluginMgr& m) { return m.m_mapPluginCombos; }
    static std::set<std::string>& installed(CPluginMgr& m) { return m.m_setInstalledCombo; }
    static QMap<QString, IZellMREndPoint4*>& endpoints(CPluginMgr& m) { return m.m_mapPluginEndpoint; }
};

namespace svctest {

constexpr const char* kFile = "gui/service/core/bin/CPluginMgr";

// Lets every event already posted (the queued slot calls) run.
inline void drainEvents()
{
    QEventLoop loop;
    QTimer::singleShot(0, &loop, &QEventLoop::quit);
    loop.exec();
}

class InstallDir {
public:
    InstallDir() : root(m_tmp.path()), dir(root + "/"), mapDir(dir + "/etc/plugins-gui/combo_plugin_map")
    {
        std::filesystem::create_directories(mapDir);
    }

    // Writes a map file; returns the path under which the manager lists it.
    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(mapDir + "/" + name, std::ios::binary) << content;
        return mapDir + "/" + name;
    }
    std::string combo(const std::string& name, int index, const std::string& combo,
                      const std::vector<std::string>& plugins) const
    {
        std::string list;
        for (const auto& p : plugins) {
            list += (list.empty() ? "" : ",") + std::string("{\"id\":\"") + p + "\"}";
        }
        return write(name, "{\"index\":" + std::to_string(index) + ",\"combo\":\"" + combo + "\",\"pluginList\":[" +
                               list + "]}");
    }

private:
    kuvtest::TempDir m_tmp{"kuvplug"};

public:
    std::string root;   // without a final "/"
    std::string dir;    // the installation directory as the platform reports it, with a final "/"
    std::string mapDir; // as the manager builds it (with the doubled "/")
};

// Every test starts from fresh doubles and its own installation directory, with a manager set up as
// the application sets it up.
class PluginFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::resetAll();
        fake::setInstallDir(inst.dir);
        mgr.init(&tag, &conMgr);
        fake::clearEvents();
    }
    void TearDown() override
    {
        drainEvents();
        fake::resetAll();
    }

    std::vector<std::string> installNames() const
    {
        std::vector<std::string> out;
        for (const auto& call : fake::loaderInstalls()) {
            out.push_back(call.name);
        }
        return out;
    }
    static std::vector<std::string> messagesFrom(const std::string& function)
    {
        std::vector<std::string> out;
        for (const auto& l : fake::logLines()) {
            if (l.log.empty() && l.function == function) {
                out.push_back(l.message);
            }
        }
        return out;
    }

    InstallDir inst;
    CGlobalTag tag{"A5F24530-52D7-11EE-AF47-4B159A309AD8", CGlobalTag::TagConfig::getUserConfig()};
    CContainerMgr conMgr{&tag};
    CPluginMgr mgr;
};

} // namespace svctest

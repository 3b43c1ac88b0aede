// SPDX-License-Identifier: GPL-2.0-or-later
// Plugin install and uninstall with their endpoints, and the state update against the map files.
#include <thread>

#include <QMetaType>

#include "PluginTestSupport.h"

using namespace svctest;
using Tables = CPluginMgrTest;

namespace {

class PluginMgrTest : public PluginFixture {
protected:
    // Fills the tables from map files without acting on them.
    void loadTables()
    {
        for (const std::string& path : mgr.allMapFile()) {
            sComboPluginInfo info;
            ASSERT_EQ(mgr.readOneMapFile(path, info), 0);
            Tables::comboPlugin(mgr)[info.strCombo] = info;
            Tables::indexCombo(mgr).emplace(info.nIndex, info.strCombo);
            for (const auto& p : info.pluginList) {
                Tables::pluginCombos(mgr)[p].insert(info.strCombo);
            }
        }
    }
    // The process log from the start of the update on, as the dump would read it.
    std::vector<std::string> processLog() const { return fake::logMessages(); }
    std::vector<std::string> uninstallNames() const { return fake::loaderUninstalls(); }
};

} // namespace

TEST_F(PluginMgrTest, InitHandsTheLoaderItsPathsAndLoadsPluginInfo)
{
    CPluginMgr other;
    EXPECT_EQ(other.init(&tag, &conMgr), 1);
    EXPECT_EQ(fake::events(), (std::vector<std::string>{"loader.root " + inst.dir,
                                                        "loader.config " + inst.dir + "/etc/plugins-gui/plugins/",
                                                        "loader.loadAll"}));
}

TEST_F(PluginMgrTest, InstallGivesThePluginAnEndpointAndTheTag)
{
    EXPECT_EQ(mgr.installPlugin("scan"), 0);
    const auto calls = fake::loaderInstalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].name, "scan");
    EXPECT_TRUE(calls[0].isRecord);
    EXPECT_EQ(calls[0].keyCount, 2);
    EXPECT_EQ(fake::endpointName(calls[0].endpoint), "ep1");
    EXPECT_EQ(calls[0].tag, static_cast<void*>(&tag));
    EXPECT_EQ(fake::events(), (std::vector<std::string>{"conmgr.createEndPoint ep1", "loader.install scan"}));
    EXPECT_TRUE(fake::logContains("加载插件: scan", 2));
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);
    // The record travels under its registered meta type name.
    EXPECT_NE(QMetaType::type("sPluginInitParas"), static_cast<int>(QMetaType::UnknownType));
    EXPECT_EQ(QMetaType::type("sPluginInitParas"), qMetaTypeId<sPluginInitParas>());
}

TEST_F(PluginMgrTest, InstallingTwiceReusesTheEndpointAndCallsTheLoaderAgain)
{
    EXPECT_EQ(mgr.installPlugin("scan"), 0);
    EXPECT_EQ(mgr.installPlugin("scan"), 0);
    const auto calls = fake::loaderInstalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].endpoint, calls[1].endpoint);
    EXPECT_EQ(fake::conMgrCreatedCount(), 1);
}

TEST_F(PluginMgrTest, NoEndpointMeansNoInstall)
{
    fake::conMgrSetCreateNull(true);
    EXPECT_EQ(mgr.installPlugin("scan"), -1);
    EXPECT_TRUE(fake::logContains("create endPoint is null, plugin name is scan", 4));
    EXPECT_TRUE(fake::loaderInstalls().empty());
    EXPECT_TRUE(Tables::endpoints(mgr).isEmpty());

    // Without a container manager at all the plugin fails the same way.
    CPluginMgr unset;
    EXPECT_EQ(unset.installPlugin("ui"), -1);
    EXPECT_TRUE(fake::logContains("create endPoint is null, plugin name is ui", 4));
}

TEST_F(PluginMgrTest, UninstallAsksTheLoaderAndTheQueuedSlotGivesTheEndpointBack)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    fake::clearEvents();
    EXPECT_EQ(mgr.unInstallPlugin("scan"), 0);
    EXPECT_TRUE(fake::logContains("卸载插件: scan", 2));
    EXPECT_EQ(uninstallNames(), std::vector<std::string>{"scan"});
    // The loader already signalled; the queued slot has not run yet.
    EXPECT_TRUE(fake::conMgrDestroyed().empty());
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);

    drainEvents();
    EXPECT_EQ(fake::conMgrDestroyed(), std::vector<std::string>{"ep1"});
    EXPECT_TRUE(Tables::endpoints(mgr).isEmpty());
    const auto slot = messagesFrom("slot_cleanPluginEndpoint");
    EXPECT_EQ(slot, (std::vector<std::string>{"start destroy scan endpoint", "destroy endpoint end"}));
    EXPECT_TRUE(fake::logContains("destroy endpoint end", 2));
    EXPECT_EQ(fake::conMgrLiveEndpoints(), 0);
}

TEST_F(PluginMgrTest, ACompletionFromAnotherThreadIsHandledInTheManagersThread)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    std::thread loaderThread([] { fake::loaderEmitUnloadComplete("scan", 0); });
    loaderThread.join();
    // Nothing ran on the emitting thread; the manager's own event loop gives the endpoint back.
    EXPECT_TRUE(fake::conMgrDestroyed().empty());
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);
    drainEvents();
    EXPECT_EQ(fake::conMgrDestroyed(), std::vector<std::string>{"ep1"});
    EXPECT_TRUE(Tables::endpoints(mgr).isEmpty());
}

TEST_F(PluginMgrTest, UnloadCompletionForAnUnknownPluginOnlyLogs)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    fake::loaderEmitUnloadComplete("ghost", 0);
    drainEvents();
    EXPECT_EQ(messagesFrom("slot_cleanPluginEndpoint"),
              (std::vector<std::string>{"start destroy ghost endpoint", "not find endpoint"}));
    EXPECT_TRUE(fake::logContains("not find endpoint", 3));
    EXPECT_TRUE(fake::conMgrDestroyed().empty());
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);
}

TEST_F(PluginMgrTest, NullEndpointEntryIsKept)
{
    Tables::endpoints(mgr).insert("odd", nullptr);
    fake::loaderEmitUnloadComplete("odd", 0);
    drainEvents();
    EXPECT_TRUE(fake::logContains("endpoint is null", 3));
    EXPECT_TRUE(Tables::endpoints(mgr).contains("odd"));
    EXPECT_TRUE(fake::conMgrDestroyed().empty());
}

TEST_F(PluginMgrTest, WithoutContainerManagerTheEndpointIsKept)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    mgr.init(&tag, nullptr);
    fake::loaderEmitUnloadComplete("scan", 1);
    drainEvents();
    EXPECT_TRUE(fake::logContains("conmgr is null, not destroyEndPoint scan", 3));
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);
    EXPECT_TRUE(fake::conMgrDestroyed().empty());
}

TEST_F(PluginMgrTest, ASecondCompletionFindsNoEndpoint)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    fake::loaderEmitUnloadComplete("scan", 0);
    fake::loaderEmitUnloadComplete("scan", 0);
    drainEvents();
    EXPECT_EQ(fake::conMgrDestroyed(), std::vector<std::string>{"ep1"});
    EXPECT_EQ(messagesFrom("slot_cleanPluginEndpoint"),
              (std::vector<std::string>{"start destroy scan endpoint", "destroy endpoint end",
                                        "start destroy scan endpoint", "not find endpoint"}));
}

TEST_F(PluginMgrTest, AfterTheEndpointIsGivenBackAReinstallGetsANewOne)
{
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    mgr.unInstallPlugin("scan");
    drainEvents();
    ASSERT_EQ(mgr.installPlugin("scan"), 0);
    EXPECT_EQ(fake::endpointName(fake::loaderInstalls().back().endpoint), "ep2");
}

TEST_F(PluginMgrTest, InstallComboLoadsItsPluginsInListOrder)
{
    inst.combo("a.json", 1, "base", {"core", "ui", "net"});
    loadTables();
    EXPECT_EQ(mgr.installCombo("base"), 0);
    EXPECT_EQ(installNames(), (std::vector<std::string>{"core", "ui", "net"}));
    EXPECT_EQ(mgr.installCombo("nope"), -1);
    EXPECT_TRUE(fake::logContains("combo nope not support", 4));
}

TEST_F(PluginMgrTest, InstallComboIgnoresFailedPlugins)
{
    inst.combo("a.json", 1, "base", {"core", "ui"});
    loadTables();
    fake::conMgrSetCreateNull(true);
    EXPECT_EQ(mgr.installCombo("base"), 0);
    EXPECT_TRUE(fake::logContains("create endPoint is null, plugin name is core", 4));
    EXPECT_TRUE(fake::logContains("create endPoint is null, plugin name is ui", 4));
}

TEST_F(PluginMgrTest, UninstallComboWalksItsPluginsInReverse)
{
    inst.combo("a.json", 1, "base", {"core", "ui", "net"});
    loadTables();
    ASSERT_EQ(mgr.installCombo("base"), 0);
    EXPECT_EQ(mgr.unInstallCombo("base"), 0);
    EXPECT_EQ(uninstallNames(), (std::vector<std::string>{"net", "ui", "core"}));
    drainEvents();
    EXPECT_EQ(fake::conMgrLiveEndpoints(), 0);
    EXPECT_EQ(mgr.unInstallCombo("nope"), -1);
    EXPECT_TRUE(fake::logContains("combo nope not support", 4));
}

TEST_F(PluginMgrTest, ASharedPluginGoesOnlyWithTheLastComboUsingIt)
{
    inst.combo("a.json", 1, "base", {"core", "shared"});
    inst.combo("b.json", 2, "extra", {"shared", "net"});
    loadTables();
    mgr.installCombo("base");
    mgr.installCombo("extra");

    EXPECT_EQ(mgr.unInstallCombo("base"), 0);
    EXPECT_EQ(uninstallNames(), std::vector<std::string>{"core"});
    EXPECT_EQ(Tables::pluginCombos(mgr).at("shared"), std::set<std::string>{"extra"});
    EXPECT_EQ(mgr.unInstallCombo("extra"), 0);
    EXPECT_EQ(uninstallNames(), (std::vector<std::string>{"core", "net", "shared"}));
}

TEST_F(PluginMgrTest, UninstallingAComboNeverInstalledStillErasesItAndMayUnload)
{
    inst.combo("a.json", 1, "base", {"core"});
    loadTables();
    EXPECT_EQ(mgr.unInstallCombo("base"), 0);
    EXPECT_EQ(uninstallNames(), std::vector<std::string>{"core"});
    EXPECT_TRUE(Tables::pluginCombos(mgr).at("core").empty());
    // The set is empty now: a further uninstall unloads again.
    EXPECT_EQ(mgr.unInstallCombo("base"), 0);
    EXPECT_EQ(uninstallNames(), (std::vector<std::string>{"core", "core"}));
    // Completions for plugins that never had an endpoint only log.
    drainEvents();
    EXPECT_EQ(fake::logMessages().back(), "not find endpoint");
}

TEST_F(PluginMgrTest, APluginWhoseSetLacksTheComboIsKept)
{
    inst.combo("a.json", 1, "base", {"core", "ui"});
    loadTables();
    Tables::pluginCombos(mgr)["core"] = {"other"};
    Tables::pluginCombos(mgr).erase("ui");
    EXPECT_EQ(mgr.unInstallCombo("base"), 0);
    EXPECT_TRUE(fake::logContains("plugin core depend combo list not find base", 4));
    // A plugin with no entry at all is unloaded.
    EXPECT_EQ(uninstallNames(), std::vector<std::string>{"ui"});
    EXPECT_EQ(Tables::pluginCombos(mgr).at("core"), std::set<std::string>{"other"});
}

TEST_F(PluginMgrTest, DuplicatePluginInACombo)
{
    inst.combo("a.json", 1, "base", {"core", "core"});
    loadTables();
    mgr.installCombo("base");
    EXPECT_EQ(fake::conMgrCreatedCount(), 1);
    EXPECT_EQ(installNames(), (std::vector<std::string>{"core", "core"}));
    mgr.unInstallCombo("base");
    EXPECT_EQ(uninstallNames(), (std::vector<std::string>{"core", "core"}));
}

TEST_F(PluginMgrTest, UninstallAllCombosRunsFromTheHighestIndexDown)
{
    inst.combo("a.json", 3, "c3", {"p3"});
    inst.combo("b.json", 1, "c1", {"p1"});
    inst.combo("c.json", 2, "c2", {"p2"});
    mgr.updatePluginStatus();
    EXPECT_EQ(installNames(), (std::vector<std::string>{"p1", "p2", "p3"}));
    EXPECT_EQ(mgr.unInstallAllCombo(), 0);
    EXPECT_EQ(uninstallNames(), (std::vector<std::string>{"p3", "p2", "p1"}));
    drainEvents();
    EXPECT_EQ(fake::conMgrDestroyed(), (std::vector<std::string>{"ep3", "ep2", "ep1"}));
    EXPECT_EQ(fake::conMgrLiveEndpoints(), 0);
    // The installed set is left as it was.
    EXPECT_EQ(Tables::installed(mgr).size(), 3u);
}

TEST_F(PluginMgrTest, UninstallAllPluginsEmptiesEveryTableButTheEndpoints)
{
    inst.combo("a.json", 1, "base", {"core"});
    mgr.updatePluginStatus();
    ASSERT_EQ(Tables::installed(mgr).size(), 1u);
    EXPECT_EQ(mgr.unInstallAllPlugin(), 1);
    EXPECT_EQ(fake::loaderUnstallAllCount(), 1);
    EXPECT_TRUE(Tables::comboPlugin(mgr).empty());
    EXPECT_TRUE(Tables::indexCombo(mgr).empty());
    EXPECT_TRUE(Tables::pluginCombos(mgr).empty());
    EXPECT_TRUE(Tables::installed(mgr).empty());
    EXPECT_EQ(Tables::endpoints(mgr).size(), 1);
}

TEST_F(PluginMgrTest, UpdateWithoutMapFilesDumpsEmptyTablesAndInstallsNothing)
{
    EXPECT_EQ(mgr.updatePluginStatus(), 1);
    EXPECT_EQ(processLog(), (std::vector<std::string>{
                                "[CPluginMgr] --------------- start update plugin ---------------",
                                "---------- combo --> plugins start ----------",
                                "---------- combo --> plugins end  ----------",
                                "---------- index --> combo start ----------",
                                "---------- index --> combo end ----------",
                                "---------- plugins --> combos start ----------",
                                "---------- plugins --> combos end ----------",
                                "[CPluginMgr] will install combo :  ",
                                "[CPluginMgr] will uninstall combo :  ",
                                "[CPluginMgr] will install combo last :  ",
                                "[CPluginMgr] will uninstall combo last :  ",
                                "[CPluginMgr] installed combo :  ",
                                "[CPluginMgr] --------------- end update plugin ---------------",
                            }));
    EXPECT_TRUE(fake::loaderInstalls().empty());
    for (const auto& l : fake::logLines()) {
        EXPECT_EQ(l.level, 2);
        EXPECT_EQ(l.file, kFile);
    }
}

TEST_F(PluginMgrTest, UpdateDumpsTheTablesAndInstallsInIndexOrder)
{
    inst.combo("a.json", 2, "Zeta", {"core", "ui"});
    inst.combo("b.json", 1, "alpha", {"ui", "net"});
    EXPECT_EQ(mgr.updatePluginStatus(), 1);
    const std::vector<std::string> expected = {
        "[CPluginMgr] --------------- start update plugin ---------------",
        "---------- combo --> plugins start ----------",
        "combo = alpha, pluginList = ui | net | ",
        "combo = zeta, pluginList = core | ui | ",
        "---------- combo --> plugins end  ----------",
        "---------- index --> combo start ----------",
        "index = 1, combo = alpha",
        "index = 2, combo = zeta",
        "---------- index --> combo end ----------",
        "---------- plugins --> combos start ----------",
        "plugin = core, combo = zeta | ",
        "plugin = net, combo = alpha | ",
        "plugin = ui, combo = alpha | zeta | ",
        "---------- plugins --> combos end ----------",
        "[CPluginMgr] will install combo : alpha | zeta |  ",
        "[CPluginMgr] will uninstall combo :  ",
        "[CPluginMgr] will install combo last : alpha | zeta |  ",
        "[CPluginMgr] will uninstall combo last :  ",
        "加载插件: ui",
        "加载插件: net",
        "加载插件: core",
        "加载插件: ui",
        "[CPluginMgr] installed combo : alpha | zeta |  ",
        "[CPluginMgr] --------------- end update plugin ---------------",
    };
    EXPECT_EQ(processLog(), expected);
    // "ui" belongs to both combos: loaded twice, one endpoint.
    EXPECT_EQ(fake::conMgrCreatedCount(), 3);
    EXPECT_EQ(messagesFrom("printStrSet").size(), 5u);
    EXPECT_EQ(messagesFrom("printComboPluginMap").size(), 4u);
}

TEST_F(PluginMgrTest, ASecondUpdateWithUnchangedFilesInstallsNothing)
{
    inst.combo("a.json", 1, "base", {"core"});
    mgr.updatePluginStatus();
    ASSERT_EQ(installNames().size(), 1u);
    fake::resetLog();
    mgr.updatePluginStatus();
    EXPECT_EQ(installNames().size(), 1u);
    EXPECT_TRUE(fake::logContains("[CPluginMgr] will install combo last :  "));
    EXPECT_TRUE(fake::logContains("[CPluginMgr] will uninstall combo last :  "));
    EXPECT_TRUE(fake::logContains("[CPluginMgr] installed combo : base |  "));
}

TEST_F(PluginMgrTest, ASecondUpdateAfterAFileWasAddedInstallsOnlyTheNewCombo)
{
    inst.combo("a.json", 1, "base", {"core"});
    mgr.updatePluginStatus();
    inst.combo("b.json", 2, "extra", {"net"});
    fake::resetLog();
    mgr.updatePluginStatus();
    EXPECT_EQ(installNames(), (std::vector<std::string>{"core", "net"}));
    EXPECT_TRUE(fake::logContains("[CPluginMgr] will install combo : base | extra |  "));
    EXPECT_TRUE(fake::logContains("[CPluginMgr] will install combo last : extra |  "));
    EXPECT_EQ(Tables::installed(mgr), (std::set<std::string>{"base", "extra"}));
}

TEST_F(PluginMgrTest, ARemovedComboStaysInstalledAndIsNotActedOn)
{
    const std::string a = inst.combo("a.json", 1, "base", {"core"});
    inst.combo("b.json", 2, "extra", {"net"});
    mgr.updatePluginStatus();
    std::filesystem::remove(a);
    fake::resetLog();
    mgr.updatePluginStatus();
    EXPECT_TRUE(fake::logContains("[CPluginMgr] will uninstall combo last : base |  "));
    EXPECT_TRUE(fake::loaderUninstalls().empty());
    EXPECT_EQ(Tables::installed(mgr), (std::set<std::string>{"base", "extra"}));
    EXPECT_TRUE(fake::logContains("[CPluginMgr] installed combo : base | extra |  "));
}

TEST_F(PluginMgrTest, AComboNamedByTwoFilesWithTwoIndexesIsInstalledOncePerIndex)
{
    inst.combo("a.json", 1, "dup", {"p", "q"});
    inst.combo("b.json", 4, "DUP", {"p", "q"});
    mgr.updatePluginStatus();
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{1, "dup"}, {4, "dup"}}));
    EXPECT_EQ(installNames(), (std::vector<std::string>{"p", "q", "p", "q"}));
    // Each plugin keeps its one endpoint.
    EXPECT_EQ(fake::conMgrCreatedCount(), 2);
    const auto calls = fake::loaderInstalls();
    EXPECT_EQ(calls[0].endpoint, calls[2].endpoint);
    EXPECT_EQ(calls[1].endpoint, calls[3].endpoint);
}

TEST_F(PluginMgrTest, AComboOfSharedPluginsIsStillInstalled)
{
    inst.combo("a.json", 1, "base", {"core", "ui"});
    mgr.updatePluginStatus();
    inst.combo("b.json", 2, "lite", {"ui"});
    mgr.updatePluginStatus();
    EXPECT_EQ(installNames(), (std::vector<std::string>{"core", "ui", "ui"}));
    EXPECT_EQ(Tables::installed(mgr), (std::set<std::string>{"base", "lite"}));
    EXPECT_EQ(fake::conMgrCreatedCount(), 2);
}

TEST_F(PluginMgrTest, AComboWhosePluginsFailIsStillCountedInstalled)
{
    inst.combo("a.json", 1, "base", {"core"});
    fake::conMgrSetCreateNull(true);
    mgr.updatePluginStatus();
    EXPECT_EQ(Tables::installed(mgr), std::set<std::string>{"base"});
    EXPECT_TRUE(fake::loaderInstalls().empty());
}

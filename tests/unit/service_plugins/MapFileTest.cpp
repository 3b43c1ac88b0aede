// SPDX-License-Identifier: GPL-2.0-or-later
// Combo map files: the directory scan, the reader's codes and the rules that fill the three tables.
#include <sys/stat.h>
#include <unistd.h>

#include "PluginTestSupport.h"

using namespace svctest;
using Tables = CPluginMgrTest;

namespace {

using MapFileTest = PluginFixture;

std::vector<std::string> list(const sComboPluginInfo& info)
{
    return std::vector<std::string>(info.pluginList.begin(), info.pluginList.end());
}

} // namespace

TEST_F(MapFileTest, ScanListsEveryEntryUnderTheInstallDirWithoutFilter)
{
    const std::string a = inst.write("a.json", "{}");
    const std::string b = inst.write("notes.txt", "x");
    std::vector<std::string> paths = mgr.allMapFile();
    std::sort(paths.begin(), paths.end());
    ASSERT_EQ(paths, (std::vector<std::string>{a, b}));
    // Plain concatenation: the install dir's final "/" and the leading "/" are both kept.
    EXPECT_NE(a.find("//etc/plugins-gui/combo_plugin_map/a.json"), std::string::npos);
}

TEST_F(MapFileTest, ScanRefusesSymbolicLinksEvenToValidFiles)
{
    const std::string target = inst.root + "/outside.json";
    std::ofstream(target) << R"({"index":1,"combo":"c","pluginList":[]})";
    const std::string link = inst.mapDir + "/link.json";
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    const std::string real = inst.combo("real.json", 2, "r", {});

    EXPECT_EQ(mgr.allMapFile(), std::vector<std::string>{real});
    EXPECT_TRUE(fake::logContains(link + " is symlink", 3));
    const auto lines = fake::logLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].file, kFile);
    EXPECT_EQ(lines[0].function, "allMapFile");

    // A link to a directory is refused the same way.
    ASSERT_EQ(symlink(inst.root.c_str(), (inst.mapDir + "/dirlink").c_str()), 0);
    EXPECT_EQ(mgr.allMapFile(), std::vector<std::string>{real});
}

TEST_F(MapFileTest, MissingOrEmptyDirectoryGivesNothingAndLogsNothing)
{
    EXPECT_TRUE(mgr.allMapFile().empty());
    std::filesystem::remove_all(inst.mapDir);
    EXPECT_TRUE(mgr.allMapFile().empty());
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(MapFileTest, ReadsAWellFormedFile)
{
    const std::string path = inst.write(
        "a.json", R"({"index": 7, "combo": "AntiVirus", "other": 1,
                      "pluginList": [{"id": "scan"}, {"id": "quarantine"}, {"id": "scan"}, {"id": ""}]})");
    sComboPluginInfo info;
    ASSERT_EQ(mgr.readOneMapFile(path, info), 0);
    EXPECT_EQ(info.nIndex, 7);
    EXPECT_EQ(info.strCombo, "antivirus");
    EXPECT_EQ(list(info), (std::vector<std::string>{"scan", "quarantine", "scan", ""}));
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(MapFileTest, MissingFileIsMinusOne)
{
    const std::string path = inst.mapDir + "/absent.json";
    sComboPluginInfo info;
    EXPECT_EQ(mgr.readOneMapFile(path, info), -1);
    EXPECT_TRUE(fake::logContains("open " + path + " failed", 4));
}

TEST_F(MapFileTest, UnreadableContentIsMinusOneOrMinusTwo)
{
    // A directory opens on some platforms and then cannot be read; either way it is refused with its code.
    const std::string path = inst.mapDir + "/sub";
    std::filesystem::create_directory(path);
    sComboPluginInfo info;
    const int rc = mgr.readOneMapFile(path, info);
    if (rc == -2) {
        EXPECT_TRUE(fake::logContains("read " + path + " content failed", 4));
    } else {
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(fake::logContains("open " + path + " failed", 4));
    }
}

TEST_F(MapFileTest, AFifoIsRefusedAtOnceWithMinusOne)
{
    // Nobody writes to it: a reader that waited would never return.
    const std::string path = inst.mapDir + "/fifo.json";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    sComboPluginInfo info;
    EXPECT_EQ(mgr.readOneMapFile(path, info), -1);
    EXPECT_TRUE(fake::logContains("open " + path + " failed", 4));
}

TEST_F(MapFileTest, AHugeFileIsRefusedWithMinusTwoUnread)
{
    const std::string path = inst.write("huge.json", "");
    ASSERT_EQ(::truncate(path.c_str(), 44 * 1000 * 1000), 0);
    sComboPluginInfo info;
    EXPECT_EQ(mgr.readOneMapFile(path, info), -2);
    EXPECT_TRUE(fake::logContains("read " + path + " content failed", 4));
}

TEST_F(MapFileTest, InvalidJsonIsMinusThreeWithTheRawContent)
{
    sComboPluginInfo info;
    EXPECT_EQ(mgr.readOneMapFile(inst.write("bad.json", "{\"index\": 1,"), info), -3);
    EXPECT_TRUE(fake::logContains("[CPluginMgr] load json failed, json = {\"index\": 1,", 4));
    EXPECT_EQ(mgr.readOneMapFile(inst.write("empty.json", ""), info), -3);
    EXPECT_TRUE(fake::logContains("[CPluginMgr] load json failed, json = ", 4));
}

TEST_F(MapFileTest, MissingOrNonArrayPluginListIsMinusFourAfterIndexAndCombo)
{
    sComboPluginInfo info;
    const std::string text = R"({"index": 3, "combo": "FireWall"})";
    EXPECT_EQ(mgr.readOneMapFile(inst.write("a.json", text), info), -4);
    EXPECT_TRUE(fake::logContains("[CPluginMgr] pluginList not exist, json = " + text, 4));
    EXPECT_EQ(info.nIndex, 3);
    EXPECT_EQ(info.strCombo, "firewall");

    sComboPluginInfo info2;
    EXPECT_EQ(mgr.readOneMapFile(inst.write("b.json", R"({"combo":"x","pluginList":{"id":"p"}})"), info2), -4);
    sComboPluginInfo info3;
    EXPECT_EQ(mgr.readOneMapFile(inst.write("c.json", R"([{"id":"p"}])"), info3), -4);
    EXPECT_EQ(info3.nIndex, 0);
    EXPECT_EQ(info3.strCombo, "");
    sComboPluginInfo info4;
    EXPECT_EQ(mgr.readOneMapFile(inst.write("d.json", "42"), info4), -4);
}

TEST_F(MapFileTest, DefaultsForMissingOrMistypedFields)
{
    sComboPluginInfo info;
    ASSERT_EQ(mgr.readOneMapFile(inst.write("a.json", R"({"pluginList": []})"), info), 0);
    EXPECT_EQ(info.nIndex, 0);
    EXPECT_EQ(info.strCombo, "");
    EXPECT_TRUE(info.pluginList.empty());

    sComboPluginInfo typed;
    ASSERT_EQ(mgr.readOneMapFile(inst.write("b.json", R"({"index": "5", "combo": 12, "pluginList": []})"), typed), 0);
    EXPECT_EQ(typed.nIndex, 0);
    EXPECT_EQ(typed.strCombo, "");

    sComboPluginInfo fraction;
    ASSERT_EQ(mgr.readOneMapFile(inst.write("c.json", R"({"index": 2.5, "pluginList": []})"), fraction), 0);
    EXPECT_EQ(fraction.nIndex, 0);
}

TEST_F(MapFileTest, OddPluginListElementsGiveEmptyIdentifiers)
{
    sComboPluginInfo info;
    ASSERT_EQ(mgr.readOneMapFile(inst.write("a.json", R"({"combo": "c", "pluginList":
        ["plain", {"id": 5}, {"name": "x"}, null, {"id": "good"}, [1]]})"),
                                 info),
              0);
    EXPECT_EQ(list(info), (std::vector<std::string>{"", "", "", "", "good", ""}));
}

TEST_F(MapFileTest, EmbeddedZeroStaysInTheLoggedContentUpToTheZero)
{
    sComboPluginInfo info;
    const std::string text = std::string("{\"combo\":\0\"a\"}", 14);
    ASSERT_EQ(text.size(), 14u);
    EXPECT_EQ(mgr.readOneMapFile(inst.write("z.json", text), info), -3);
    EXPECT_EQ(fake::logMessages(), std::vector<std::string>{"[CPluginMgr] load json failed, json = {\"combo\":"});
}

TEST_F(MapFileTest, UpdateFillsTheThreeTables)
{
    inst.combo("a.json", 2, "Base", {"core", "ui"});
    inst.combo("b.json", 1, "extra", {"ui", "net"});
    mgr.updatePluginStatus();

    auto& combos = Tables::comboPlugin(mgr);
    ASSERT_EQ(combos.size(), 2u);
    EXPECT_EQ(list(combos.at("base")), (std::vector<std::string>{"core", "ui"}));
    EXPECT_EQ(combos.at("base").nIndex, 2);
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{1, "extra"}, {2, "base"}}));
    EXPECT_EQ(Tables::pluginCombos(mgr), (std::map<std::string, std::set<std::string>>{
                                             {"core", {"base"}}, {"net", {"extra"}}, {"ui", {"base", "extra"}}}));
}

TEST_F(MapFileTest, FirstFileInListingOrderKeepsADisputedIndex)
{
    inst.combo("a.json", 5, "alpha", {"p1"});
    inst.combo("b.json", 5, "beta", {"p2"});
    const auto order = mgr.allMapFile();
    ASSERT_EQ(order.size(), 2u);
    const bool alphaFirst = order[0].find("a.json") != std::string::npos;
    const std::string first = alphaFirst ? "alpha" : "beta";
    const std::string second = alphaFirst ? "beta" : "alpha";

    mgr.updatePluginStatus();
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{5, first}}));
    EXPECT_EQ(Tables::comboPlugin(mgr).count(second), 1u);
    EXPECT_EQ(Tables::pluginCombos(mgr).at(alphaFirst ? "p2" : "p1"), std::set<std::string>{second});
    EXPECT_TRUE(fake::logContains("[CPluginMgr] combo " + second + " index has exist.", 3));
    // The combo without an index is never installed.
    EXPECT_EQ(installNames(), (std::vector<std::string>{alphaFirst ? "p1" : "p2"}));
    EXPECT_EQ(Tables::installed(mgr), std::set<std::string>{first});
}

TEST_F(MapFileTest, NamesDifferingOnlyInCaseDescribeOneCombo)
{
    inst.combo("a.json", 1, "Shield", {"p1"});
    inst.combo("b.json", 2, "SHIELD", {"p2"});
    const auto order = mgr.allMapFile();
    const bool aFirst = order[0].find("a.json") != std::string::npos;
    mgr.updatePluginStatus();

    // The later file's record replaces the earlier one; both indexes point at the one name.
    ASSERT_EQ(Tables::comboPlugin(mgr).size(), 1u);
    EXPECT_EQ(list(Tables::comboPlugin(mgr).at("shield")), std::vector<std::string>{aFirst ? "p2" : "p1"});
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{1, "shield"}, {2, "shield"}}));
    EXPECT_EQ(Tables::pluginCombos(mgr),
              (std::map<std::string, std::set<std::string>>{{"p1", {"shield"}}, {"p2", {"shield"}}}));
}

TEST_F(MapFileTest, AFailedFileIsLoggedAndContributesNothing)
{
    inst.combo("good.json", 1, "good", {"p"});
    const std::string bad = inst.write("bad.json", R"({"index": 9, "combo": "bad"})");
    mgr.updatePluginStatus();
    EXPECT_TRUE(fake::logContains("[CPluginMgr] read map file " + bad + " failed.", 4));
    EXPECT_EQ(Tables::comboPlugin(mgr).count("bad"), 0u);
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{1, "good"}}));
    EXPECT_EQ(Tables::pluginCombos(mgr).size(), 1u);
    for (const auto& l : fake::logLines()) {
        if (l.message.find("read map file") != std::string::npos) {
            EXPECT_EQ(l.function, "updatePluginStatus");
            EXPECT_EQ(l.file, kFile);
        }
    }
}

TEST_F(MapFileTest, AFileWithoutIndexTakesIndexZero)
{
    inst.write("a.json", R"({"combo": "noindex", "pluginList": [{"id": "p"}]})");
    mgr.updatePluginStatus();
    EXPECT_EQ(Tables::indexCombo(mgr), (std::map<int, std::string>{{0, "noindex"}}));
}

TEST_F(MapFileTest, AStringElementContributesAnEmptyPluginIdentifier)
{
    inst.write("a.json", R"({"index": 1, "combo": "c", "pluginList": ["p", {"id": "q"}]})");
    mgr.updatePluginStatus();
    EXPECT_EQ(Tables::pluginCombos(mgr),
              (std::map<std::string, std::set<std::string>>{{"", {"c"}}, {"q", {"c"}}}));
}

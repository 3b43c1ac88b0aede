// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service with the sample plugins on the real broker: the plugin tables dumped at start,
// one bus endpoint per loaded plugin, and the combos unloaded from the highest index down at quit.
#include <dirent.h>
#include <unistd.h>

#include <map>
#include <regex>

#include "ServiceLog.h"
#include "ServiceSupport.h"

using svctest::Service;

namespace {

constexpr const char* kPluginMgr = "gui/service/core/bin/CPluginMgr";
const char* const kStart = "[CPluginMgr] --------------- start update plugin ---------------";
const char* const kEnd = "[CPluginMgr] --------------- end update plugin ---------------";

std::string mapDir(const Service& s)
{
    return s.inst.dir + "etc/plugins-gui/combo_plugin_map";
}

std::vector<std::string> listDir(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(d);
    }
    return names;
}

// The "guid" of each installed plugin description, by plugin id.
std::map<std::string, std::string> pluginGuids(const Service& s)
{
    static const std::regex id("\"id\"\\s*:\\s*\"([^\"]+)\"");
    static const std::regex guid("\"guid\"\\s*:\\s*\"([0-9A-Fa-f-]{36})\"");
    std::map<std::string, std::string> out;
    const std::string dir = s.inst.dir + "etc/plugins-gui/plugins/";
    for (const std::string& name : listDir(dir)) {
        const std::string text = kuvtest::readFile(dir + name);
        std::smatch mi;
        std::smatch mg;
        if (std::regex_search(text, mi, id) && std::regex_search(text, mg, guid)) {
            out[mi[1]] = mg[1];
        }
    }
    return out;
}

// The CPluginMgr records of one update, from its start line to its end line.
std::vector<std::string> updateDump(const std::vector<svclog::Record>& records)
{
    std::vector<std::string> out;
    const int start = svclog::find(records, kStart);
    const int end = svclog::find(records, kEnd, start);
    for (int i = start; start >= 0 && end >= 0 && i <= end; ++i) {
        if (records[i].file == kPluginMgr) {
            out.push_back(records[i].message);
        }
    }
    return out;
}

std::vector<std::string> withoutFileErrors(const std::vector<std::string>& dump)
{
    std::vector<std::string> out;
    for (const auto& m : dump) {
        if (m.find("is symlink") == std::string::npos && m.find("load json failed") == std::string::npos &&
            m.find("read map file") == std::string::npos) {
            out.push_back(m);
        }
    }
    return out;
}

const std::vector<std::string> kSampleDump = {
    kStart,
    "---------- combo --> plugins start ----------",
    "combo = monitor, pluginList = eventviewer | notifier | ",
    "combo = protection, pluginList = notifier | protectionstatus | ",
    "---------- combo --> plugins end  ----------",
    "---------- index --> combo start ----------",
    "index = 1, combo = monitor",
    "index = 2, combo = protection",
    "---------- index --> combo end ----------",
    "---------- plugins --> combos start ----------",
    "plugin = eventviewer, combo = monitor | ",
    "plugin = notifier, combo = monitor | protection | ",
    "plugin = protectionstatus, combo = protection | ",
    "---------- plugins --> combos end ----------",
    "[CPluginMgr] will install combo : monitor | protection |  ",
    "[CPluginMgr] will uninstall combo :  ",
    "[CPluginMgr] will install combo last : monitor | protection |  ",
    "[CPluginMgr] will uninstall combo last :  ",
    "加载插件: eventviewer",
    "加载插件: notifier",
    "加载插件: notifier",
    "加载插件: protectionstatus",
    "[CPluginMgr] installed combo : monitor | protection |  ",
    kEnd,
};

// The sample combos as installed: "monitor" (1) and "protection" (2) sharing the notifier.
void expectSampleCombos(const Service& s)
{
    std::string all;
    for (const auto& name : listDir(mapDir(s))) {
        all += kuvtest::readFile(mapDir(s) + "/" + name);
    }
    ASSERT_EQ(listDir(mapDir(s)).size(), 2u) << "the sample combo map files changed:\n" << all;
    ASSERT_NE(all.find("\"monitor\""), std::string::npos) << all;
    ASSERT_NE(all.find("\"protection\""), std::string::npos) << all;
}

} // namespace

TEST(ServicePlugins, TheUpdateDumpsTheTablesInOrderAndRefusesBadFiles)
{
    Service s;
    const std::string dir = mapDir(s);
    for (const auto& name : listDir(dir)) {
        ASSERT_EQ(unlink((dir + "/" + name).c_str()), 0);
    }
    kuvtest::writeFile(dir + "/a.json",
                       R"({"index":1,"combo":"Monitor","pluginList":[{"id":"eventviewer"},{"id":"notifier"}]})");
    kuvtest::writeFile(dir + "/b.json",
                       R"({"index":2,"combo":"protection","pluginList":[{"id":"notifier"},{"id":"protectionstatus"}]})");
    kuvtest::writeFile(dir + "/broken.json", "{\"index\": 3,");
    ASSERT_EQ(symlink((dir + "/a.json").c_str(), (dir + "/link.json").c_str()), 0);

    s.startAll();
    ASSERT_TRUE(kuvtest::waitForFileContains(s.inst.log(), kEnd, 30000)) << s.log();
    const auto records = svclog::read(s.inst.log());
    const auto dump = updateDump(records);
    EXPECT_EQ(withoutFileErrors(dump), kSampleDump) << s.log();

    // The manager builds its paths by plain concatenation: the installation directory keeps its "/".
    const std::string listed = s.inst.dir + "/etc/plugins-gui/combo_plugin_map/";
    const auto has = [&](const std::string& message, const std::string& level) {
        for (const auto& r : records) {
            if (r.file == kPluginMgr && r.message == message && r.level == level) {
                return true;
            }
        }
        return false;
    };
    EXPECT_TRUE(has(listed + "link.json is symlink", "WARN")) << s.log();
    EXPECT_TRUE(has("[CPluginMgr] load json failed, json = {\"index\": 3,", "ERROR")) << s.log();
    EXPECT_TRUE(has("[CPluginMgr] read map file " + listed + "broken.json failed.", "ERROR")) << s.log();
    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0);
}

TEST(ServicePlugins, SamplePluginsLoadWithOneEndpointEachAndUnloadFromTheHighestIndexDown)
{
    Service s;
    expectSampleCombos(s);
    const auto guids = pluginGuids(s);
    ASSERT_EQ(guids.size(), 3u);

    s.startAll();
    ASSERT_TRUE(kuvtest::waitForFileContains(s.inst.log(), kEnd, 30000)) << s.log();
    EXPECT_EQ(updateDump(svclog::read(s.inst.log())), kSampleDump) << s.log();

    // Each plugin is loaded once and answers on the bus under its own GUID.
    for (const auto& p : guids) {
        ASSERT_TRUE(kuvtest::waitForFileContains(s.inst.log(), "plugin [" + p.first + "] loaded from", 30000))
            << s.log();
        bool reached = false;
        std::string why;
        kuvtest::waitUntil(
            [&] {
                const auto r = kuvtest::run({s.inst.bin("kuvctl"), "bus", "send", "--to", p.second, "--type", "9999",
                                             "--body", "ping"},
                                            s.env(), 30000);
                why = r.err;
                reached = r.status == 0;
                return reached;
            },
            30000, 200);
        EXPECT_TRUE(reached) << p.first << " " << p.second << ": " << why;
    }
    // The notifier belongs to both combos: asked for twice, one endpoint, no second name on the bus.
    EXPECT_EQ(kuvtest::countInFile(s.inst.log(), "加载插件: notifier"), 2);
    const std::string zellLog = s.inst.dir + "log/kuvgui.zell.log";
    EXPECT_FALSE(kuvtest::fileContains(zellLog, "another endpoint of this client has it")) << kuvtest::readFile(zellLog);

    ASSERT_TRUE(s.quit(90000));
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();

    const auto records = svclog::read(s.inst.log());
    const int uninit = svclog::find(records, "[CContainerMgr] start uninit");
    ASSERT_GE(uninit, 0) << s.log();
    // "protection" (index 2) goes first and keeps the notifier for "monitor"; then "monitor" in reverse.
    std::vector<std::string> unloads;
    std::vector<std::string> destroyed;
    int ends = 0;
    for (int i = 0; i < uninit; ++i) {
        const auto& r = records[i];
        if (r.file != kPluginMgr) {
            continue;
        }
        if (r.message.rfind("卸载插件: ", 0) == 0) {
            unloads.push_back(r.message.substr(std::string("卸载插件: ").size()));
        } else if (r.message.rfind("start destroy ", 0) == 0) {
            destroyed.push_back(r.message);
            EXPECT_EQ(r.level, "INFO");
        } else if (r.message == "destroy endpoint end") {
            ++ends;
        }
    }
    EXPECT_EQ(unloads, (std::vector<std::string>{"protectionstatus", "notifier", "eventviewer"})) << s.log();
    std::sort(destroyed.begin(), destroyed.end());
    EXPECT_EQ(destroyed, (std::vector<std::string>{"start destroy eventviewer endpoint",
                                                   "start destroy notifier endpoint",
                                                   "start destroy protectionstatus endpoint"}))
        << s.log();
    EXPECT_EQ(ends, 3) << s.log();
    EXPECT_EQ(svclog::count(records, "not find endpoint"), 0) << s.log();
    EXPECT_EQ(svclog::count(records, "endpoint is null"), 0);
    EXPECT_EQ(kuvtest::countInFile(s.inst.log(), "conmgr is null"), 0);
}

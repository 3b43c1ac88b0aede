// SPDX-License-Identifier: GPL-2.0-or-later
// Every installed desktop and file-manager entry, run through a real launcher (gio) or as the file
// manager runs it, against the installed service: each chosen path must reach the GUI shell intact.
#include "DesktopSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

using namespace kuvtest;
using namespace kuvdesk;

// Names a file manager hands over: a blank, quotes, a line feed, a leading dash, a folder.
const std::vector<std::string> kNames = {"with blank", "it's a \"quote\"", "line\nfeed", "-leading-dash",
                                         "a folder"};

class DesktopLaunch : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_gio = findProgram("gio");
        try {
            s_inst = std::make_unique<PrivateInstall>();
        } catch (const std::exception& e) {
            s_error = e.what();
            return;
        }
        s_files = s_inst->root() + "/files";
        mkdir(s_files.c_str(), 0755);
        for (const std::string& name : kNames) {
            const std::string path = s_files + "/" + name;
            if (name == "a folder") {
                mkdir(path.c_str(), 0755);
            } else {
                writeFile(path, "data\n");
            }
        }
        s_error = s_inst->start();
    }

    static void TearDownTestSuite()
    {
        if (s_inst) {
            const std::string problems = s_inst->stop();
            EXPECT_EQ(problems, "") << s_inst->serviceOutput();
        }
        s_inst.reset();
    }

    void SetUp() override
    {
        ASSERT_FALSE(s_gio.empty()) << "gio (libglib2.0-bin) is not installed: run scripts/setup";
        ASSERT_EQ(s_error, "");
        ASSERT_TRUE(s_inst->running()) << s_inst->serviceOutput();
    }

    static std::vector<std::string> absolutePaths()
    {
        std::vector<std::string> out;
        for (const std::string& name : kNames) {
            out.push_back(s_files + "/" + name);
        }
        return out;
    }

    // Runs something that should hand one scan request to the service; returns that request.
    static std::vector<std::string> nextScan(const std::function<void()>& launch)
    {
        const size_t before = scanRequests(s_inst->journal).size();
        launch();
        std::vector<std::vector<std::string>> now;
        waitUntil(
            [&] {
                now = scanRequests(s_inst->journal);
                return now.size() > before;
            },
            30000);
        if (now.size() != before + 1) {
            ADD_FAILURE() << "expected one new scan request, journal has " << now.size() - before << " new";
            return {};
        }
        return now.back();
    }

    // gio launch FILE ARGS...: the launcher must start the entry and report success.
    static void gioLaunch(const std::string& desktopFile, const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {s_gio, "launch", desktopFile};
        argv.insert(argv.end(), args.begin(), args.end());
        const RunResult r = run(argv, s_inst->env(), 30000, s_files);
        EXPECT_EQ(r.status, 0) << "gio launch " << desktopFile << ": " << r.out << r.err;
    }

    // An Exec line that gio cannot start from its own file, as a temporary application entry.
    static std::string wrap(const std::string& name, const std::string& rawExec)
    {
        const std::string path = s_inst->root() + "/" + name + ".desktop";
        writeFile(path, "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + rawExec + "\n");
        return path;
    }

    static void expectScanOf(const std::string& what, const std::function<void()>& launch,
                             const std::vector<std::string>& expected)
    {
        const std::vector<std::string> got = nextScan(launch);
        EXPECT_EQ(got, expected) << what << ": got " << visible(got) << ", expected " << visible(expected);
    }

    static std::string s_gio;
    static std::string s_files;
    static std::string s_error;
    static std::unique_ptr<PrivateInstall> s_inst;
};

std::string DesktopLaunch::s_gio;
std::string DesktopLaunch::s_files;
std::string DesktopLaunch::s_error;
std::unique_ptr<PrivateInstall> DesktopLaunch::s_inst;

TEST_F(DesktopLaunch, ScanEntryHandsEveryPathIntact)
{
    const std::string file = s_inst->share("applications/kuvgui-scan.desktop");
    const KeyFile kf = readKeyFile(file);
    ASSERT_EQ(kf.count("Desktop Entry"), 1u) << file;
    const auto& entry = kf.at("Desktop Entry");
    EXPECT_EQ(entry.at("NoDisplay"), "true");
    const std::string mime = entry.at("MimeType");
    EXPECT_NE(mime.find("inode/directory;"), std::string::npos) << mime;
    EXPECT_NE(mime.find("application/octet-stream;"), std::string::npos) << mime;
    // The installed prefix holds a blank: the program path must be quoted, and absolute.
    EXPECT_EQ(entry.at("Exec"), "\"" + s_inst->bin("kuvgui") + "\" right %F");

    expectScanOf("kuvgui-scan.desktop", [&] { gioLaunch(file, absolutePaths()); }, absolutePaths());
}

TEST_F(DesktopLaunch, ScanEntryWithOnePath)
{
    const std::string one = s_files + "/line\nfeed";
    expectScanOf("kuvgui-scan.desktop, one file",
                 [&] { gioLaunch(s_inst->share("applications/kuvgui-scan.desktop"), {one}); }, {one});
}

TEST_F(DesktopLaunch, ThunarSendToEntry)
{
    const std::string file = s_inst->share("Thunar/sendto/kuvgui-scan.desktop");
    ASSERT_EQ(access(file.c_str(), R_OK), 0) << file;
    expectScanOf("Thunar send-to entry", [&] { gioLaunch(file, absolutePaths()); }, absolutePaths());
}

TEST_F(DesktopLaunch, DolphinServiceMenuAction)
{
    const KeyFile kf = readKeyFile(s_inst->share("kio/servicemenus/kuvgui-scan.desktop"));
    ASSERT_EQ(kf.count("Desktop Entry"), 1u);
    const auto& entry = kf.at("Desktop Entry");
    EXPECT_EQ(entry.at("Type"), "Service");
    EXPECT_EQ(entry.at("X-KDE-ServiceTypes"), "KonqPopupMenu/Plugin");
    EXPECT_EQ(entry.at("MimeType"), "all/all;");
    std::string action = entry.at("Actions");
    ASSERT_FALSE(action.empty());
    action = action.substr(0, action.find(';'));
    ASSERT_EQ(kf.count("Desktop Action " + action), 1u) << "no group for action " << action;
    const std::string exec = kf.at("Desktop Action " + action).at("Exec");

    // Dolphin expands %F in the action like any desktop entry; gio does the same from a wrapper.
    const std::string wrapper = wrap("dolphin-action", exec);
    expectScanOf("Dolphin service menu action", [&] { gioLaunch(wrapper, absolutePaths()); }, absolutePaths());
}

TEST_F(DesktopLaunch, NemoActionThroughLauncher)
{
    const KeyFile kf = readKeyFile(s_inst->share("nemo/actions/kuvgui-scan.nemo_action"));
    ASSERT_EQ(kf.count("Nemo Action"), 1u);
    const auto& action = kf.at("Nemo Action");
    EXPECT_EQ(action.at("Selection"), "notnone");
    EXPECT_EQ(action.at("Extensions"), "any;");
    EXPECT_EQ(action.at("Quote"), "single");
    const std::string wrapper = wrap("nemo-action", action.at("Exec"));
    expectScanOf("Nemo action (gio)", [&] { gioLaunch(wrapper, absolutePaths()); }, absolutePaths());
}

TEST_F(DesktopLaunch, NemoActionAsNemoQuotesIt)
{
    // Nemo with Quote=single puts each path in single quotes (a quote inside as '\''), joins them
    // with blanks in place of %F and splits the line like a shell: done here with /bin/sh.
    const std::string exec = readKeyFile(s_inst->share("nemo/actions/kuvgui-scan.nemo_action")).at("Nemo Action").at("Exec");
    std::string list;
    for (const std::string& p : absolutePaths()) {
        std::string quoted = "'";
        for (char c : p) {
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        list += (list.empty() ? "" : " ") + quoted + "'";
    }
    std::string command = exec;
    const size_t at = command.find("%F");
    ASSERT_NE(at, std::string::npos) << exec;
    command.replace(at, 2, list);
    expectScanOf(
        "Nemo action (Nemo's quoting)",
        [&] {
            const RunResult r = run({"/bin/sh", "-c", command}, s_inst->env(), 30000, s_files);
            EXPECT_EQ(r.status, 1) << "kuvgui right gives 1 once the request is handed over: " << r.err;
        },
        absolutePaths());
}

TEST_F(DesktopLaunch, CajaAndNautilusScriptsMakeRelativeNamesAbsolute)
{
    const RunResult setup = run({s_inst->bin("kuvgui-user-integration"), "install"}, s_inst->env(), 30000);
    ASSERT_EQ(setup.status, 0) << setup.out << setup.err;
    const std::vector<std::string> scripts = {
        s_inst->home + "/.local/share/nautilus/scripts/Scan with kuvgui",
        s_inst->home + "/.config/caja/scripts/Scan with kuvgui",
    };
    for (const std::string& script : scripts) {
        ASSERT_EQ(access(script.c_str(), X_OK), 0) << script << " not installed as a program";
        std::vector<std::string> argv = {script};
        argv.insert(argv.end(), kNames.begin(), kNames.end());
        std::vector<std::string> env = s_inst->env();
        // The line-feed separated lists must not be what the script reads.
        env.push_back("NAUTILUS_SCRIPT_SELECTED_FILE_PATHS=/decoy\n/other decoy\n");
        env.push_back("CAJA_SCRIPT_SELECTED_FILE_PATHS=/decoy\n/other decoy\n");
        env.push_back("PWD=/somewhere/else");
        expectScanOf(
            script,
            [&] {
                const RunResult r = run(argv, env, 30000, s_files);
                EXPECT_EQ(r.status, 1) << r.out << r.err;
            },
            absolutePaths());
    }
}

TEST_F(DesktopLaunch, FileManagerScriptTakesAbsolutePathsAndLocalUris)
{
    const std::string script = s_inst->share("kuvgui/filemanager/kuvgui-scan-script");
    const std::vector<std::string> expected = {s_files + "/with blank", s_files + "/a folder",
                                               s_files + "/it's a \"quote\""};
    expectScanOf(
        "script with an absolute path and file:// URIs",
        [&] {
            const RunResult r = run({script, s_files + "/with blank", "file://" + s_files + "/a%20folder",
                                     "file://localhost" + s_files + "/it%27s%20a%20%22quote%22"},
                                    s_inst->env(), 30000, "/");
            EXPECT_EQ(r.status, 1) << r.out << r.err;
        },
        expected);
}

// Names that are not UTF-8 reach the shell with their very bytes, never as other characters.
TEST_F(DesktopLaunch, NamesThatAreNotUtf8ArriveByteForByte)
{
    const std::vector<std::string> odd = {s_files + "/csi\x9b" "3", s_files + "/\xff\xfe", s_files + "/ok-\xe5\x88"};
    for (const std::string& path : odd) {
        writeFile(path, "data\n");
    }
    expectScanOf("kuvgui right", [&] {
        std::vector<std::string> argv = {s_inst->bin("kuvgui"), "right"};
        argv.insert(argv.end(), odd.begin(), odd.end());
        const RunResult r = run(argv, s_inst->env(), 30000);
        EXPECT_EQ(r.status, 1) << r.out << r.err;
    }, odd);
    expectScanOf("kuvgui-scan.desktop", [&] { gioLaunch(s_inst->share("applications/kuvgui-scan.desktop"), odd); },
                 odd);
    const std::string script = s_inst->share("kuvgui/filemanager/kuvgui-scan-script");
    expectScanOf("file-manager script", [&] {
        std::vector<std::string> argv = {script};
        for (const std::string& path : odd) {
            argv.push_back(path.substr(s_files.size() + 1));
        }
        const RunResult r = run(argv, s_inst->env(), 30000, s_files);
        EXPECT_EQ(r.status, 1) << r.out << r.err;
    }, odd);
}

TEST_F(DesktopLaunch, LauncherShowsTheMainWindow)
{
    const std::string file = s_inst->share("applications/kuvgui.desktop");
    const KeyFile kf = readKeyFile(file);
    EXPECT_EQ(kf.at("Desktop Entry").at("Exec"), "\"" + s_inst->bin("kuvgui") + "\"");
    const int before = ctrlCount(s_inst->journal, 0);
    gioLaunch(file, {});
    EXPECT_TRUE(waitUntil([&] { return ctrlCount(s_inst->journal, 0) == before + 1; }, 30000))
        << "no show-main-window request in the journal";
}

TEST_F(DesktopLaunch, AutostartLeavesARunningInstanceAlone)
{
    const std::string file = s_inst->share("kuvgui/autostart/kuvgui-autostart.desktop");
    const KeyFile kf = readKeyFile(file);
    const auto& entry = kf.at("Desktop Entry");
    EXPECT_EQ(entry.at("X-systemd-skip"), "true");
    EXPECT_EQ(entry.at("Exec"), "\"" + s_inst->prefix + "/libexec/kuvgui-session\" autostart");

    const int shows = ctrlCount(s_inst->journal, 0);
    const int inits = countInFile(s_inst->journal, "{\"event\":\"init\"}");
    const std::string session = s_inst->prefix + "/libexec/kuvgui-session";
    gioLaunch(file, {});
    // gio returns once the helper is started; wait for it to be done.
    EXPECT_TRUE(waitUntil([&] { return processesWithArg(session).empty(); }, 30000));
    EXPECT_EQ(ctrlCount(s_inst->journal, 0), shows) << "autostart asked the running instance to show itself";
    EXPECT_EQ(countInFile(s_inst->journal, "{\"event\":\"init\"}"), inits) << "autostart started a second GUI";
    EXPECT_TRUE(s_inst->running());
}

TEST(DesktopAutostart, StartsBrokerAndServiceWhenNoneRuns)
{
    const std::string gio = findProgram("gio");
    ASSERT_FALSE(gio.empty()) << "gio (libglib2.0-bin) is not installed";
    PrivateInstall inst;
    const std::string file = inst.share("kuvgui/autostart/kuvgui-autostart.desktop");
    const RunResult r = run({gio, "launch", file}, inst.env(), 30000);
    ASSERT_EQ(r.status, 0) << r.out << r.err;

    const std::string service = inst.bin("kuvgui");
    const std::string broker = inst.bin("kuv-zelld");
    EXPECT_TRUE(waitUntil([&] { return fileContains(inst.journal, "{\"event\":\"init\"}"); }, 60000))
        << "the autostart entry did not start the service";
    EXPECT_TRUE(waitUntil([&] { return access((inst.runtime + "/kuv/kuv_zell").c_str(), F_OK) == 0; }, 30000))
        << "the autostart entry did not start the broker";
    EXPECT_TRUE(waitUntil([&] { return access((inst.runtime + "/kuv/kuv-gui").c_str(), F_OK) == 0; }, 30000));
    // Running (status 3 comes after the shell's start), and still without its window.
    EXPECT_TRUE(waitUntil([&] { return run({inst.bin("kuvctl"), "status"}, inst.env()).out.find("status=3") != std::string::npos; },
                          60000, 100));
    EXPECT_EQ(ctrlCount(inst.journal, 0), 0) << "a start at login must not be a show-window request";

    // The unit's ExecCondition and ExecStop helpers against this instance.
    const std::string session = inst.prefix + "/libexec/kuvgui-session";
    EXPECT_EQ(run({session, "not-running"}, inst.env()).status, 1);
    // Exactly one service; a moment after its start a fork of it may still be on its way to
    // exec the guard script, so look until that has passed.
    std::vector<pid_t> services;
    EXPECT_TRUE(waitUntil([&] { return (services = processesWithArg(service)).size() == 1; }, 30000))
        << services.size() << " processes run " << service;
    ASSERT_EQ(services.size(), 1u);
    // Without a pid (after a restart inside the unit) stop finds the published one, and it
    // returns only once the service has gone through its quit.
    const RunResult stop = run({session, "stop"}, inst.env(), 60000);
    EXPECT_EQ(stop.status, 0) << stop.err;
    EXPECT_FALSE(processAlive(services[0])) << "kuvgui-session stop returned while kuvgui still ran";
    EXPECT_TRUE(fileContains(inst.journal, "{\"event\":\"exec-end\"}")) << "kuvgui did not quit through its own path";
    EXPECT_EQ(run({session, "not-running"}, inst.env()).status, 0);
    for (pid_t pid : processesWithArg(broker)) {
        kill(pid, SIGTERM);
    }
    EXPECT_TRUE(waitUntil([&] { return processesWithArg(broker).empty(); }, 30000)) << "kuv-zelld did not stop";
}

// A systemctl stand-in first on PATH: answers is-enabled with $FAKE_UNIT_STATE and records its
// arguments, one call per line, in $FAKE_SYSTEMCTL_LOG.
std::string fakeSystemctl(const PrivateInstall& inst)
{
    const std::string dir = inst.root() + "/fakebin";
    mkdir(dir.c_str(), 0755);
    const std::string path = dir + "/systemctl";
    writeFile(path, "#!/bin/sh\n"
                    "printf '%s\\n' \"$*\" >> \"$FAKE_SYSTEMCTL_LOG\"\n"
                    "case \"$*\" in\n"
                    "*is-enabled*) echo \"$FAKE_UNIT_STATE\"; [ \"$FAKE_UNIT_STATE\" = enabled ] ;;\n"
                    "*) exit 0 ;;\n"
                    "esac\n");
    chmod(path.c_str(), 0755);
    return dir;
}

TEST(DesktopAutostart, HandsTheStartToAnEnabledUserUnit)
{
    PrivateInstall inst;
    const std::string fake = fakeSystemctl(inst);
    const std::string log = inst.root() + "/systemctl.log";
    std::vector<std::string> env = inst.env();
    env.push_back("PATH=" + fake + ":" + std::string(std::getenv("PATH")));
    env.push_back("FAKE_SYSTEMCTL_LOG=" + log);
    env.push_back("FAKE_UNIT_STATE=enabled");
    env.push_back("DISPLAY=:7");
    const RunResult r = run({inst.prefix + "/libexec/kuvgui-session", "autostart"}, env, 30000);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readFile(log), "--user is-enabled kuvgui.service\n"
                             "--user import-environment DISPLAY\n"
                             "--user start --no-block kuvgui.service\n");
    // systemd starts it, not the autostart entry.
    EXPECT_TRUE(processesWithArg(inst.bin("kuvgui")).empty());
    EXPECT_FALSE(fileContains(inst.journal, "init"));
}

TEST(DesktopAutostart, DoesNothingWhenTheUnitIsTurnedOff)
{
    PrivateInstall inst;
    const std::string fake = fakeSystemctl(inst);
    const std::string log = inst.root() + "/systemctl.log";
    for (const char* state : {"disabled", "masked"}) {
        std::remove(log.c_str());
        std::vector<std::string> env = inst.env();
        env.push_back("PATH=" + fake + ":" + std::string(std::getenv("PATH")));
        env.push_back("FAKE_SYSTEMCTL_LOG=" + log);
        env.push_back(std::string("FAKE_UNIT_STATE=") + state);
        const RunResult r = run({inst.prefix + "/libexec/kuvgui-session", "autostart"}, env, 30000);
        EXPECT_EQ(r.status, 0) << state << ": " << r.err;
        EXPECT_EQ(readFile(log), "--user is-enabled kuvgui.service\n") << state;
        EXPECT_TRUE(processesWithArg(inst.bin("kuvgui")).empty()) << state;
        EXPECT_TRUE(processesWithArg(inst.bin("kuv-zelld")).empty()) << state;
    }
    const RunResult usage = run({inst.prefix + "/libexec/kuvgui-session", "bogus"}, inst.env());
    EXPECT_EQ(usage.status, 2);
}

TEST(DesktopUserIntegration, InstallAllAndRemove)
{
    PrivateInstall inst;
    const std::string tool = inst.bin("kuvgui-user-integration");
    const RunResult in = run({tool, "install", "--all"}, inst.env(), 30000);
    ASSERT_EQ(in.status, 0) << in.out << in.err;
    const std::string data = inst.home + "/.local/share/";
    const std::string config = inst.home + "/.config/";
    const std::vector<std::string> files = {
        data + "nautilus/scripts/Scan with kuvgui",    config + "caja/scripts/Scan with kuvgui",
        data + "applications/kuvgui.desktop",          data + "applications/kuvgui-scan.desktop",
        config + "autostart/kuvgui-autostart.desktop", data + "kio/servicemenus/kuvgui-scan.desktop",
        data + "nemo/actions/kuvgui-scan.nemo_action", data + "Thunar/sendto/kuvgui-scan.desktop",
    };
    for (const std::string& f : files) {
        EXPECT_EQ(access(f.c_str(), R_OK), 0) << f;
    }
    // Dolphin runs service menus from the home directory only when they are executable.
    EXPECT_EQ(access(files[5].c_str(), X_OK), 0);
    EXPECT_EQ(readFile(files[2]), readFile(inst.share("applications/kuvgui.desktop")));

    const RunResult status = run({tool, "status"}, inst.env(), 30000);
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.out.find("installed  " + files[0]), std::string::npos) << status.out;

    const RunResult out = run({tool, "remove"}, inst.env(), 30000);
    EXPECT_EQ(out.status, 0) << out.out << out.err;
    for (const std::string& f : files) {
        EXPECT_NE(access(f.c_str(), F_OK), 0) << f << " left behind";
    }
    const RunResult bad = run({tool, "install", "--everything"}, inst.env(), 30000);
    EXPECT_EQ(bad.status, 2);
}

} // namespace

namespace {

// Every file and directory below root, as paths relative to it.
std::vector<std::string> treeBelow(const std::string& root)
{
    const RunResult r = run({"/usr/bin/find", root, "-mindepth", "1", "-printf", "%P\\n"}, {}, 30000);
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < r.out.size()) {
        const size_t end = r.out.find('\n', pos);
        out.push_back(r.out.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

} // namespace

TEST(DesktopUserIntegration, MovedTreeInstallsItsOwnPathsAndRemoveLeavesNothing)
{
    PrivateInstall inst;
    const std::string oldPrefix = inst.prefix;
    const std::string moved = inst.root() + "/moved";
    ASSERT_EQ(rename(oldPrefix.c_str(), moved.c_str()), 0);
    inst.prefix = moved;
    const std::string tool = inst.bin("kuvgui-user-integration");

    // Something in the way: nothing at all is written.
    kuvtest::writeFile(inst.home + "/.config", "not a directory");
    const RunResult refused = run({tool, "install", "--all"}, inst.env(), 30000);
    EXPECT_EQ(refused.status, 1) << refused.out << refused.err;
    EXPECT_NE(refused.err.find("nothing was installed"), std::string::npos) << refused.err;
    EXPECT_EQ(treeBelow(inst.home), std::vector<std::string>{".config"});
    unlink((inst.home + "/.config").c_str());

    const RunResult in = run({tool, "install", "--all"}, inst.env(), 30000);
    ASSERT_EQ(in.status, 0) << in.out << in.err;
    int entries = 0;
    for (const std::string& rel : treeBelow(inst.home)) {
        const std::string path = inst.home + "/" + rel;
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || rel.find("user-integration.dirs") != std::string::npos) {
            continue;
        }
        ++entries;
        const std::string text = readFile(path);
        EXPECT_EQ(text.find(oldPrefix), std::string::npos) << rel << " names the old place:\n" << text;
        EXPECT_NE(text.find(moved + "/"), std::string::npos) << rel << " does not name the tree:\n" << text;
    }
    EXPECT_EQ(entries, 8);
    // The scan entry and the Caja script run the moved kuvgui.
    const KeyFile scan = readKeyFile(inst.home + "/.local/share/applications/kuvgui-scan.desktop");
    // Quoted still, as it was written for the old place's blank.
    EXPECT_EQ(scan.at("Desktop Entry").at("Exec"), "\"" + moved + "/bin/kuvgui\" right %F");
    EXPECT_TRUE(kuvtest::fileContains(inst.home + "/.config/caja/scripts/Scan with kuvgui",
                                      "kuvgui='" + moved + "/bin/kuvgui'\n"));
    // The session helper in the moved tree finds it too.
    const RunResult session = run({moved + "/libexec/kuvgui-session", "not-running"}, inst.env(), 30000);
    EXPECT_EQ(session.status, 0) << session.err;

    const RunResult out = run({tool, "remove"}, inst.env(), 30000);
    EXPECT_EQ(out.status, 0) << out.out << out.err;
    EXPECT_EQ(treeBelow(inst.home), std::vector<std::string>{}) << visible(treeBelow(inst.home));
}

namespace {

// The service as installed and started by a launcher: libsqlite3 (the quarantine and history store) is
// loaded when a page or an action first needs the store, not at start.
TEST(DesktopStart, TheStartedServiceHasNoSqliteMapped)
{
    PrivateInstall inst;
    ASSERT_EQ(inst.start(), "");
    const std::string shell = inst.prefix + "/lib/libkuvguishell.so";
    int services = 0;
    for (pid_t pid : processesWithArg(inst.bin("kuvgui"))) {
        const std::string maps = readFile("/proc/" + std::to_string(pid) + "/maps");
        if (maps.find(shell) == std::string::npos) {
            continue; // not the service (a client that came and went)
        }
        ++services;
        EXPECT_EQ(maps.find("libsqlite3"), std::string::npos) << maps;
    }
    EXPECT_EQ(services, 1);
    EXPECT_EQ(inst.stop(), "") << inst.serviceOutput();
}

} // namespace

// SPDX-License-Identifier: GPL-2.0-or-later
// The installed service under what a desktop session does to it: quit signals, a standard output whose
// reader went away, a file-size limit.
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>

#include <fstream>
#include <list>

#include "CGuiCmdExecuter.h"
#include "ServiceSupport.h"

using svctest::Service;

namespace {

// Level 2, so the whole shut-down sequence is in the log.
void verboseLog(const Service& s, long size = 1048576)
{
    kuvtest::writeFile(s.inst.dir + "etc/debug/gui_debug.conf",
                       "{\"log_size\":" + std::to_string(size) + ",\"log_backup_max_num\":2,\"log_level\":2}\n");
}

// Processes running this installation's guard script.
std::vector<pid_t> guards(const Service& s)
{
    std::vector<pid_t> out;
    const std::string script = s.inst.dir + "script/kuvgui_guard.sh";
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return out;
    }
    while (dirent* e = readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(atoi(e->d_name));
        if (pid <= 0) {
            continue;
        }
        std::string cmd = kuvtest::readFile("/proc/" + std::string(e->d_name) + "/cmdline");
        for (char& c : cmd) {
            if (c == '\0') {
                c = ' ';
            }
        }
        if (cmd.find(script) != std::string::npos) {
            out.push_back(pid);
        }
    }
    closedir(proc);
    return out;
}

// The forwarding client itself, in this process, aimed at the instance's runtime directory.
int forward(const Service& s, const std::list<std::string>& paths)
{
    setenv("XDG_RUNTIME_DIR", s.inst.runtime.c_str(), 1);
    CGuiCmdExecuter client;
    return client.contextMenuScan(paths);
}

void quitBySignal(int sig, int times)
{
    Service s;
    verboseLog(s);
    s.startAll();
    const std::string guardLog = s.inst.dir + "log/kuvgui_guard.log";
    ASSERT_TRUE(kuvtest::waitForFileContains(guardLog, "guarding kuvgui pid " + std::to_string(s.service->pid()),
                                             30000))
        << kuvtest::readFile(guardLog);

    for (int i = 0; i < times; ++i) {
        s.service->signal(sig);
    }
    ASSERT_TRUE(s.service->wait(60000)) << s.log();
    EXPECT_EQ(s.service->termSignal(), 0);
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();

    // The same path as `kuvgui quit`: control code 3, then the whole shut-down sequence.
    EXPECT_NE(s.journal().find("{\"event\":\"ctrl\",\"code\":3}"), std::string::npos) << s.journal();
    EXPECT_NE(s.journal().find("{\"event\":\"exec-end\"}"), std::string::npos) << s.journal();
    const std::string log = s.log();
    for (const char* step : {"====== not stop backend ======", "[CContainerMgr] start uninit",
                             "[CContainerMgr] end uninit zell", "[LogInfoX] end uninit"}) {
        EXPECT_NE(log.find(step), std::string::npos) << step << "\n" << log;
    }
    // Attributes gone; the guard sees a normal quit, ends, and starts nothing.
    EXPECT_EQ(s.status().exitCode, 1);
    EXPECT_TRUE(kuvtest::waitUntil([&] { return guards(s).empty(); }, 30000, 100)) << kuvtest::readFile(guardLog);
    EXPECT_EQ(kuvtest::readFile(guardLog).find("restarting"), std::string::npos) << kuvtest::readFile(guardLog);
    EXPECT_EQ(s.status().exitCode, 1);
}

} // namespace

TEST(Session, SigtermQuitsLikeTheQuitCommand) { quitBySignal(SIGTERM, 1); }

TEST(Session, SigintQuitsLikeTheQuitCommand) { quitBySignal(SIGINT, 1); }

TEST(Session, SighupQuitsLikeTheQuitCommand) { quitBySignal(SIGHUP, 1); }

// The later ones arrive while the first one's shut-down runs (or queue behind it) and change nothing.
TEST(Session, RepeatedSigtermIsOneQuit) { quitBySignal(SIGTERM, 3); }

TEST(Session, StandardOutputWithoutReaderCostsNothing)
{
    Service s;
    s.startBroker();
    const std::string headGone = s.inst.dir + "head-gone";
    // The reader takes one byte and goes; the flag says it went.
    s.service = std::make_unique<kuvtest::Process>(
        std::vector<std::string>{"/bin/bash", "-c", "set -o pipefail; \"$0\" | { head -c1 >/dev/null; touch \"$1\"; }",
                                 s.inst.bin("kuvgui"), headGone},
        s.env());
    ASSERT_TRUE(s.waitRunning()) << s.service->err() << s.log();
    // Each forward puts a long line on the service's standard output, so every few of them flush it.
    const std::string longPath = "/" + std::string(3000, 'p');
    for (int i = 0; i < 3 && !svctest::exists(headGone); ++i) {
        EXPECT_EQ(s.second({"right", longPath}).status, 1);
        kuvtest::waitUntil([&] { return svctest::exists(headGone); }, 5000);
    }
    ASSERT_TRUE(svctest::exists(headGone));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(s.second({"right", longPath + std::to_string(i)}).status, 1);
    }
    // The last forward has been handled once its request is in the journal.
    ASSERT_TRUE(kuvtest::waitUntil([&] { return s.journal().find(longPath + "9") != std::string::npos; }, 30000));
    EXPECT_TRUE(s.service->running());
    EXPECT_EQ(s.status().exitCode, 0);
    EXPECT_EQ(s.second({"quit"}).status, 1);
    ASSERT_TRUE(s.service->wait(60000));
    // pipefail: the status is the service's own.
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();
}

TEST(Session, FileSizeLimitCostsLogLinesNotTheService)
{
    Service s;
    // The log file would grow to 10 MiB; the limit stops it at 100 KiB.
    verboseLog(s, 10 * 1024 * 1024);
    s.startBroker();
    s.service = std::make_unique<kuvtest::Process>(
        std::vector<std::string>{"/bin/bash", "-c", "ulimit -f 100 && exec \"$0\"", s.inst.bin("kuvgui")}, s.env());
    ASSERT_TRUE(s.waitRunning()) << s.service->err() << s.log();
    const std::string path = "/" + std::string(400, 'f');
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(forward(s, {path + std::to_string(i)}), 1) << "forward " << i;
    }
    EXPECT_TRUE(s.service->running()) << "signal " << s.service->termSignal();
    // The limit was reached: the log stopped short of what was written to it.
    struct stat st;
    ASSERT_EQ(stat(s.inst.log().c_str(), &st), 0);
    EXPECT_LE(st.st_size, 100 * 1024);
    EXPECT_LT(kuvtest::countInFile(s.inst.log(), path), 1000);
    // Requests are handled in order (the journal is over the limit too), so a clean end after this
    // quit means every forward before it was survived.
    setenv("XDG_RUNTIME_DIR", s.inst.runtime.c_str(), 1);
    EXPECT_EQ(CGuiCmdExecuter().quit(), 1);
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->termSignal(), 0);
    EXPECT_EQ(s.service->exitStatus(), 0) << s.service->err();
}

TEST(Session, FirstStartScansWhatItWasGiven)
{
    Service s;
    s.startBroker();
    // "-reverse" is a word Qt takes for itself; as a path it is kept all the same.
    s.startService({}, {"right", "/x", "/a b", "-reverse"});
    ASSERT_TRUE(s.waitRunning()) << s.service->err() << s.log();
    // The same request a forwarded "right /x" makes, once the shell is up.
    const std::string request = "{\"event\":\"ctrl\",\"code\":1,\"paths\":[\"/x\",\"/a b\",\"-reverse\"]}";
    ASSERT_TRUE(kuvtest::waitUntil([&] { return s.journal().find(request) != std::string::npos; }, 30000))
        << s.journal();
    EXPECT_LT(s.journal().find("{\"event\":\"init\"}"), s.journal().find(request));
    EXPECT_EQ(s.journal().find("\"code\":0"), std::string::npos) << s.journal();
}

TEST(Session, FirstStartWithoutCommandShowsTheWindow)
{
    Service s;
    s.startAll();
    ASSERT_TRUE(kuvtest::waitUntil(
        [&] { return s.journal().find("{\"event\":\"ctrl\",\"code\":0}") != std::string::npos; }, 30000))
        << s.journal();
    EXPECT_EQ(s.journal().find("\"code\":1"), std::string::npos) << s.journal();
}

TEST(Session, FirstStartBySessionKeepsTheWindowHidden)
{
    Service s;
    s.startBroker();
    s.startService({"KUV_START_HIDDEN=1"});
    ASSERT_TRUE(s.waitRunning()) << s.log();
    // Status 3 comes after the shell's start, where the first start's own request would be made.
    EXPECT_EQ(s.journal().find("\"code\":0"), std::string::npos) << s.journal();
    // A later start by hand still shows it.
    EXPECT_EQ(s.second({}).status, 1);
    EXPECT_TRUE(kuvtest::waitUntil(
        [&] { return s.journal().find("{\"event\":\"ctrl\",\"code\":0}") != std::string::npos; }, 30000));
}

TEST(Session, StartWithoutDisplaySaysWhyOnStandardError)
{
    Service s;
    s.startBroker();
    s.startService({"QT_QPA_PLATFORM=xcb", "DISPLAY=", svctest::noLeakCheck()});
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->exitStatus(), 255);
    EXPECT_NE(s.service->err().find("no GUI: platform xcb but DISPLAY is not set\n"), std::string::npos)
        << s.service->err();
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "no GUI: platform xcb but DISPLAY is not set")) << s.log();
    // Standard output keeps only its own lines.
    EXPECT_EQ(s.service->out().find("no GUI"), std::string::npos) << s.service->out();
}

TEST(Session, FailedStartPointsStandardErrorToTheLog)
{
    Service s;
    unlink((s.inst.dir + "lib/modules/libconfigproxy.so").c_str());
    s.startBroker();
    s.startService({svctest::noLeakCheck()});
    ASSERT_TRUE(s.service->wait(60000));
    EXPECT_EQ(s.service->exitStatus(), 255);
    EXPECT_NE(s.service->err().find("kuvgui: the service did not start; the reason is in its log"), std::string::npos)
        << s.service->err();
    EXPECT_TRUE(kuvtest::fileContains(s.inst.log(), "===== configproxy init faild. =====")) << s.log();
}

TEST(Session, KuvctlHelpAndVersionCoverKuvgui)
{
    Service s;
    const auto help = kuvtest::run({s.inst.bin("kuvctl"), "--help"}, s.env());
    EXPECT_EQ(help.status, 0);
    for (const char* text : {"kuvgui right FILE...", "kuvgui quit", "takes no options", "1 handed over",
                             "255 the start failed", "man kuvgui", "version"}) {
        EXPECT_NE(help.out.find(text), std::string::npos) << text << "\n" << help.out;
    }
    kuvtest::writeFile(s.inst.dir + "VERSION", "7.6.5\n");
    const auto version = kuvtest::run({s.inst.bin("kuvctl"), "version"}, s.env());
    EXPECT_EQ(version.status, 0) << version.err;
    EXPECT_NE(version.out.find("kuvgui 7.6.5 (" + s.inst.dir + "VERSION)\n"), std::string::npos) << version.out;
    EXPECT_NE(version.out.find("kuvctl "), std::string::npos) << version.out;
}

namespace {

// The language the shell chose, as its log says.
std::string languageWith(const std::vector<std::string>& env, const std::string& userConf = std::string())
{
    Service s;
    verboseLog(s);
    if (!userConf.empty()) {
        mkdir(s.inst.configHome().c_str(), 0700);
        mkdir((s.inst.configHome() + "/kuv").c_str(), 0700);
        kuvtest::writeFile(s.inst.configHome() + "/kuv/gui_shell.conf", userConf);
    }
    std::vector<std::string> e{"LANGUAGE=", "LC_ALL=", "LC_MESSAGES=", "LANG="};
    e.insert(e.end(), env.begin(), env.end());
    s.startBroker();
    s.startService(e);
    if (!s.waitRunning()) {
        return "not running: " + s.log();
    }
    const std::string log = s.log();
    const std::string key = "interface language ";
    const size_t at = log.find(key);
    return at == std::string::npos ? "none" : log.substr(at + key.size(), log.find(',', at) - at - key.size());
}

} // namespace

TEST(Session, LanguageFollowsTheLocale)
{
    EXPECT_EQ(languageWith({"LANG=C.UTF-8"}), "en");
    EXPECT_EQ(languageWith({"LANG=en_GB.UTF-8"}), "en");
    EXPECT_EQ(languageWith({"LANG=zh_CN.UTF-8"}), "zh-CN");
    EXPECT_EQ(languageWith({"LANG=POSIX", "LANGUAGE=zh_CN"}), "en");
    EXPECT_EQ(languageWith({"LANG=de_DE.UTF-8", "LANGUAGE=fr:en_US"}), "en");
    EXPECT_EQ(languageWith({"LANG=en_US.UTF-8", "LC_MESSAGES=zh_CN.UTF-8"}), "zh-CN");
}

TEST(Session, LanguageOfTheSettingsWinsAndTheServiceDecidesTheRest)
{
    // No catalog for German: the service's own choice.
    EXPECT_EQ(languageWith({"LANG=de_DE.UTF-8"}), "zh-CN");
    EXPECT_EQ(languageWith({}), "zh-CN");
    EXPECT_EQ(languageWith({"LANG=zh_CN.UTF-8"}, "{\"language\":\"en\"}\n"), "en");
    EXPECT_EQ(languageWith({"LANG=C.UTF-8"}, "{\"language\":\"zh-CN\"}\n"), "zh-CN");
}

TEST(Session, TerminalsStayQuiet)
{
    Service s;
    verboseLog(s);
    s.startAll();
    // The window shown at the first start makes the offscreen platform complain; that goes to the log.
    ASSERT_TRUE(kuvtest::waitForFileContains(s.inst.log(), "This plugin does not support", 30000)) << s.log();
    ASSERT_TRUE(s.quit());
    EXPECT_EQ(s.service->exitStatus(), 0);
    EXPECT_EQ(s.service->err(), "");
    // Standard output keeps the start lines and nothing else.
    const std::string out = s.service->out();
    EXPECT_EQ(out.find("This plugin"), std::string::npos) << out;
    EXPECT_EQ(out.rfind(std::string("Container[") + svctest::kTag + "] single process mark create success\n", 0), 0u);
    s.broker->signal(SIGTERM);
    ASSERT_TRUE(s.broker->wait(30000));
    EXPECT_EQ(s.broker->out(), "");
}

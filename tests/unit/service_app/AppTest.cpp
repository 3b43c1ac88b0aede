// SPDX-License-Identifier: GPL-2.0-or-later
// The application object against the platform doubles: start-up and shut-down order, log set-up,
// back-end marker, guard script, restart monitor and the bus hook.
#include <unistd.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <QCoreApplication>
#include <QFile>

#include "AppTestSupport.h"
#include "CGlobalTag.h"
#include "CGuiServer.h"
#include "CMervoConfigProxy.h"
#include "GuiEntry.h"
#include "cAfxGuiMain.h"

// Qt's resource macros must be used outside any namespace.
static void initServiceResources() { Q_INIT_RESOURCE(kuvgui_service); }

using apptest::AppTest;
using apptest::TempInstall;

namespace {

const char* const kAppFile = "gui/service/core/bin/cAfxGuiMain";
const char* const kTag = "A5F24530-52D7-11EE-AF47-4B159A309AD8";

char g_arg0[] = "kuvgui";
char* g_argv[] = {g_arg0, nullptr};

// Every start leaves process-wide state behind (as a process would); tests start from none.
void releaseSingletons()
{
    CMervoConfigProxy::instance()->unloadLib();
    utils::SingletonAbstract<CGuiServer>::UninitInstance();
}

bool logHas(const std::string& message, int level)
{
    for (const auto& line : fake::logLines()) {
        if (line.log.empty() && line.message == message && line.level == level && line.file == kAppFile) {
            return true;
        }
    }
    return false;
}

const fake::LogLine* findLog(const std::vector<fake::LogLine>& lines, const std::string& message)
{
    for (const auto& line : lines) {
        if (line.message == message) {
            return &line;
        }
    }
    return nullptr;
}

class AppFixture : public AppTest {
protected:
    void SetUp() override
    {
        AppTest::SetUp();
        initServiceResources();
    }
    void TearDown() override { releaseSingletons(); }
};

// A private installation and, once a test asks for it, an application object living in it. The doubles
// are set up before app() is first called, as the constructor reads them.
class InstalledApp : public AppFixture {
protected:
    void SetUp() override
    {
        AppFixture::SetUp();
        m_inst = std::make_unique<TempInstall>();
    }
    void TearDown() override
    {
        m_app.reset();
        AppFixture::TearDown();
        m_inst.reset();
    }

    TempInstall& inst() { return *m_inst; }

    CAfxGuiMain& app()
    {
        if (!m_app) {
            m_app = std::make_unique<CAfxGuiMain>(nullptr);
        }
        return *m_app;
    }

    // init with the standard output captured into out().
    int init()
    {
        CAfxGuiMain& application = app();
        int argc = 1;
        testing::internal::CaptureStdout();
        const int rc = application.init(argc, g_argv);
        m_out = testing::internal::GetCapturedStdout();
        return rc;
    }

    const std::string& out() const { return m_out; }

    void destroyApp() { m_app.reset(); }

private:
    std::unique_ptr<TempInstall> m_inst;
    std::unique_ptr<CAfxGuiMain> m_app;
    std::string m_out;
};

PFN_KUVGUI_SERVICE_RUN linkedService() { return &kuvgui_service_run; }
int g_resolveCount = 0;
PFN_KUVGUI_SERVICE_RUN countingResolve()
{
    ++g_resolveCount;
    return &kuvgui_service_run;
}

} // namespace

// The whole life of a first instance, as the journal of platform calls sees it.
TEST_F(InstalledApp, StartUpAndShutDownRunInTheirFixedOrder)
{
    TempInstall::copy(inst().guard(), inst().marker()); // a marker left from an earlier exit
    fake::setShellStopBackendAnswer(true);

    testing::internal::CaptureStdout();
    const int rc = kuvguiEntry(1, g_argv, &linkedService);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(rc, 0) << out;

    const std::string pid = std::to_string(getpid());
    const std::vector<std::string> expected = {
        std::string("tag.create ") + kTag,
        "tag.trylock false",
        "tag.setAttribute pid=" + pid,
        // constructor
        "pluginmgr.new null",
        "msghandle.new",
        "msghandle.setCallback",
        "shell.setLan zh-CN",
        // init: log, configuration proxy, (marker), communication
        "log.set 2=" + inst().dir + "/log/",
        "log.set 1=kuvgui",
        "log.set 8=4096",
        "log.set 16=2",
        "log.set 4=2",
        "cfgmod.create 29562e31-2c2b-4fb2-9108-144d91a56755 " + inst().dir + " 1.0.0",
        "container.new tag",
        "container.init",
        "container.createEndPoint",
        "endpoint.init F6352E50-5C40-11EE-BEE1-47BAD2011C1F",
        "endpoint.registerRecvNotify 1003 0",
        "pipe.setName /tmp/kuv-gui",
        "pipe.registerMonitor 2 true",
        "pipe.start",
        "pluginmgr.init tag container",
        "shell.init argc=1",
        "pluginmgr.updatePluginStatus",
        "timer.add CAfxGuiMainMonitorVersion 30000",
        "process.execute " + inst().guard() + " 1",
        // exec
        "container.notifyRunning",
        "shell.exec",
        // exit
        "timer.cancel BaseMgrPluginMonitorVersion",
        "pipe.stop",
        "configmodule.uninit",
        "shell.ctrl 2",
        "cfgmod.release 29562e31-2c2b-4fb2-9108-144d91a56755",
        "pluginmgr.delete",
        "msghandle.delete",
        "container.destroyEndPoint endpoint",
        "container.uninit",
        "container.delete",
        "constconfig.uninit",
        // the entry releases the tag, then the application object goes
        std::string("tag.destroy ") + kTag,
        "timer.cancel CAfxGuiMainMonitorVersion",
        "log.close",
    };
    EXPECT_EQ(fake::events(), expected);

    EXPECT_EQ(out, std::string("Container[") + kTag + "] single process mark create success\n" +
                       "===== initLog =====\n===== loglevel:2\n===== logSize:4096\n===== logName:kuvgui\n"
                       "===== logPath:" + inst().dir + "/log/\n===== logBackupMaxNum:2\n");
    EXPECT_EQ(fake::tagAttributes().at("pid"), pid);
    EXPECT_EQ(fake::tagLiveCount(), 0);
    EXPECT_EQ(kuvguiRetainedTag(), nullptr);
    EXPECT_EQ(fake::shellLanguage(), "zh-CN");
    // The marker was removed at start and written again because the shell said to stop the back end.
    EXPECT_TRUE(logHas("[CAfxGuiMain] find data/pubcfg/.guiexit ...", 2));
    EXPECT_TRUE(logHas("[CAfxGuiMain] remove data/pubcfg/.guiexit finish", 2));
    EXPECT_TRUE(logHas("====== stop backend ======\n", 2));
    EXPECT_TRUE(logHas("[CAfxGuiMain] create data/pubcfg/.guiexit finish", 2));
    EXPECT_TRUE(apptest::exists(inst().marker()));
    EXPECT_EQ(kuvtest::readFile(inst().marker()), "");
}

TEST_F(InstalledApp, TimerRegistrationCarriesTheMonitorArguments)
{
    ASSERT_EQ(init(), 0);
    const auto timers = fake::timersAdded();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].name, "CAfxGuiMainMonitorVersion");
    EXPECT_EQ(timers[0].intervalMs, 30000);
    EXPECT_EQ(timers[0].repeat, 0);
    EXPECT_FALSE(timers[0].runNow);
    EXPECT_EQ(timers[0].mode, 1);
    app().exit();
}

TEST_F(InstalledApp, LogLinesNameTheirSourceFunctionAndLine)
{
    ASSERT_EQ(init(), 0);
    const auto lines = fake::logLines();
    const fake::LogLine* guard = findLog(lines, "[CAfxGuiMain] start gui guard");
    ASSERT_NE(guard, nullptr);
    EXPECT_EQ(guard->file, kAppFile);
    EXPECT_EQ(guard->function, "startGuiGuard");
    EXPECT_GT(guard->line, 0u);
    const fake::LogLine* marker = findLog(lines, "[CAfxGuiMain] not find data/pubcfg/.guiexit");
    ASSERT_NE(marker, nullptr);
    EXPECT_EQ(marker->function, "startBackand");
    app().exit();
    const auto afterExit = fake::logLines();
    const fake::LogLine* exitLine = findLog(afterExit, "====== not stop backend ======\n");
    ASSERT_NE(exitLine, nullptr);
    EXPECT_EQ(exitLine->function, "exit");
}

TEST_F(AppFixture, SecondStartForwardsAndStartsNothing)
{
    fake::setTagTrylockResult(2);
    g_resolveCount = 0;
    testing::internal::CaptureStdout();
    const int rc = kuvguiEntry(1, g_argv, &countingResolve);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(out, std::string("Container[") + kTag + "] is Running\n");
    EXPECT_EQ(g_resolveCount, 0);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].name, "/tmp/kuv-gui");
    EXPECT_EQ(sends[0].bytes.size(), 20u);
    EXPECT_TRUE(fake::eventsWithPrefix("log.").empty());
    EXPECT_TRUE(fake::eventsWithPrefix("tag.setAttribute").empty());
    // The tag object is kept, not destroyed, on this path.
    EXPECT_EQ(fake::tagLiveCount(), 1);
    ASSERT_NE(kuvguiRetainedTag(), nullptr);
    delete kuvguiRetainedTag();
}

TEST_F(AppFixture, SecondStartReturnsTheForwardingResult)
{
    fake::setTagTrylockResult(2);
    fake::setPipeClientResult(0);
    char quitArg[] = "quit";
    char* argv[] = {g_arg0, quitArg, nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(kuvguiEntry(2, argv, &linkedService), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(fake::pipeSends().size(), 1u);
    delete kuvguiRetainedTag();
}

TEST_F(AppFixture, TagNotObtainableEndsWithMinusOne)
{
    fake::setTagTrylockResult(-1);
    g_resolveCount = 0;
    testing::internal::CaptureStdout();
    const int rc = kuvguiEntry(1, g_argv, &countingResolve);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out, std::string("Container[") + kTag + "] single process mark create failed\n");
    EXPECT_EQ(g_resolveCount, 0);
    EXPECT_TRUE(fake::pipeSends().empty());
    EXPECT_EQ(fake::tagLiveCount(), 1);
    delete kuvguiRetainedTag();
}

TEST_F(InstalledApp, FailedInitKeepsTheTagAndSkipsExecAndExit)
{
    unlink((inst().dir + "etc/debug/gui_debug.conf").c_str());
    TempInstall::copy(inst().guard(), inst().marker());
    testing::internal::CaptureStdout();
    const int rc = kuvguiEntry(1, g_argv, &linkedService);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(out, std::string("Container[") + kTag + "] single process mark create success\n" +
                       "No valid logdebug configuration file " + inst().dir + "etc/debug/gui_debug.conf\n" +
                       "failed to init debug log\n");
    EXPECT_EQ(fake::shellExecCount(), 0);
    EXPECT_TRUE(fake::eventsWithPrefix("shell.ctrl").empty());
    EXPECT_TRUE(fake::eventsWithPrefix("cfgmod.").empty());
    EXPECT_EQ(fake::tagLiveCount(), 1);
    EXPECT_EQ(fake::eventsWithPrefix("tag.destroy").size(), 0u);
    // The application object itself is gone: its destructor closed the log.
    EXPECT_EQ(fake::logCloseCount(), 1);
    EXPECT_TRUE(apptest::exists(inst().marker()));
    delete kuvguiRetainedTag();
}

TEST_F(AppFixture, ConstructorBuildsManagersAndReadsTheVersion)
{
    fake::setClientVersion("7.1.2");
    {
        CAfxGuiMain app(nullptr);
        EXPECT_EQ(fake::events(), (std::vector<std::string>{"pluginmgr.new null", "msghandle.new",
                                                            "msghandle.setCallback", "shell.setLan zh-CN"}));
        EXPECT_EQ(fakeparts::msgContext(), &app);
        // A version read later must differ from the stored one for the monitor to act.
        fake::setClientVersion("7.1.2");
    }
    EXPECT_EQ(fake::logCloseCount(), 1);
}

// --- log set-up ------------------------------------------------------------------------------------------

// A debug configuration the service cannot use: missing (content null) or not JSON.
struct UnusableDebugConfiguration {
    const char* name;
    const char* content;
    friend std::ostream& operator<<(std::ostream& out, const UnusableDebugConfiguration& c) { return out << c.name; }
};

class DebugConfigurationFailure : public InstalledApp,
                                  public testing::WithParamInterface<UnusableDebugConfiguration> {};

TEST_P(DebugConfigurationFailure, FailsTheStart)
{
    const std::string path = inst().dir + "etc/debug/gui_debug.conf";
    if (GetParam().content == nullptr) {
        unlink(path.c_str());
    } else {
        kuvtest::writeFile(path, GetParam().content);
    }
    app();
    fake::clearEvents();
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(out(), "No valid logdebug configuration file " + path + "\n" + "failed to init debug log\n");
    EXPECT_TRUE(fake::logProperties().empty());
    EXPECT_TRUE(fake::events().empty());
    app().exit();
}

INSTANTIATE_TEST_SUITE_P(AppFixture, DebugConfigurationFailure,
                         testing::Values(UnusableDebugConfiguration{"Missing", nullptr},
                                         UnusableDebugConfiguration{"Unparsable", "{\"log_size\": "}),
                         [](const testing::TestParamInfo<UnusableDebugConfiguration>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(InstalledApp, ConfigurationDirectoryIsWhereTheDebugFileIsRead)
{
    kuvtest::TempDir other("kuvconf");
    mkdir((other.path() + "/debug").c_str(), 0755);
    kuvtest::writeFile(other.path() + "/debug/gui_debug.conf", "{\"log_level\":4}");
    fake::setConfigurationDir(other.path() + "/");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(fake::logProperties().back(), "4=4");
    app().exit();
    destroyApp(); // while its configuration directory is still there
}

// A debug configuration whose values are all unusable: every property keeps its default.
struct DefaultedDebugConfiguration {
    const char* name;
    const char* content;
    friend std::ostream& operator<<(std::ostream& out, const DefaultedDebugConfiguration& c) { return out << c.name; }
};

class DebugConfigurationDefaults : public InstalledApp,
                                   public testing::WithParamInterface<DefaultedDebugConfiguration> {};

TEST_P(DebugConfigurationDefaults, GiveTheDefaults)
{
    kuvtest::writeFile(inst().dir + "etc/debug/gui_debug.conf", GetParam().content);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(fake::logProperties(), (std::vector<std::string>{"2=" + inst().dir + "/log/", "1=kuvgui", "8=1048576",
                                                               "16=5", "4=3"}));
    EXPECT_NE(out().find("===== loglevel:3\n===== logSize:1048576\n"), std::string::npos) << out();
    EXPECT_NE(out().find("===== logBackupMaxNum:5\n"), std::string::npos) << out();
    app().exit();
}

INSTANTIATE_TEST_SUITE_P(
    AppFixture, DebugConfigurationDefaults,
    testing::Values(DefaultedDebugConfiguration{"EmptyObject", "{}"},
                    // A level written as text is not an integer, and 2.5 is not integral either.
                    DefaultedDebugConfiguration{"LevelWrittenAsText", "{\"log_level\":\"2\",\"log_size\":2.5}"},
                    DefaultedDebugConfiguration{"NonObjectDocument", "[1, 2]"}),
    [](const testing::TestParamInfo<DefaultedDebugConfiguration>& info) { return std::string(info.param.name); });

// --- configuration proxy and communication failures ------------------------------------------------------

TEST_F(InstalledApp, MissingConfigurationModuleFailsTheStart)
{
    unlink((inst().dir + "lib/modules/libconfigproxy.so").c_str());
    TempInstall::copy(inst().guard(), inst().marker());
    EXPECT_EQ(init(), -1);
    EXPECT_NE(out().find("[loadLib] laod err: "), std::string::npos) << out();
    EXPECT_TRUE(logHas("===== configproxy init faild. =====", 4));
    // Nothing after the proxy step ran: the marker is still there and no bus was touched.
    EXPECT_TRUE(apptest::exists(inst().marker()));
    EXPECT_TRUE(fake::eventsWithPrefix("container.").empty());
    app().exit();
}

// A bus step that fails: its own error line, then nothing after it runs.
struct BusStepFailure {
    const char* name;
    void (*arrange)();
    const char* reason;
    const char* notReached;
    friend std::ostream& operator<<(std::ostream& out, const BusStepFailure& f) { return out << f.name; }
};

class CommunicationFailure : public InstalledApp, public testing::WithParamInterface<BusStepFailure> {};

TEST_P(CommunicationFailure, FailsTheStart)
{
    GetParam().arrange();
    EXPECT_EQ(init(), -1);
    EXPECT_TRUE(logHas(GetParam().reason, 4));
    EXPECT_TRUE(logHas("failed to init communication", 4));
    EXPECT_TRUE(fake::eventsWithPrefix(GetParam().notReached).empty());
    EXPECT_TRUE(fake::eventsWithPrefix("pipe.").empty());
    EXPECT_EQ(fake::shellInitCount(), 0);
    app().exit();
}

INSTANTIATE_TEST_SUITE_P(
    AppFixture, CommunicationFailure,
    testing::Values(BusStepFailure{"ContainerInit", [] { fakeparts::setContainerInitResult(0); },
                                   "init ContainerMgr failed", "container.createEndPoint"},
                    BusStepFailure{"EndpointInit", [] { fakeparts::setEndPointInitResult(5); },
                                   "[CAfxGuiMain] init failed, guid is [F6352E50-5C40-11EE-BEE1-47BAD2011C1F]",
                                   "endpoint.registerRecvNotify"}),
    [](const testing::TestParamInfo<BusStepFailure>& info) { return std::string(info.param.name); });

TEST_F(InstalledApp, NoEndpointStillStartsEverythingElse)
{
    fakeparts::setEndPointAvailable(false);
    ASSERT_EQ(init(), 0);
    EXPECT_TRUE(logHas("create CAfxGuiMain endpoint failed.", 4));
    EXPECT_TRUE(fake::pipeServerRunning());
    EXPECT_EQ(fake::shellInitCount(), 1);
    EXPECT_EQ(fake::eventsWithPrefix("pluginmgr.updatePluginStatus").size(), 1u);
    app().exec();
    app().exit();
    EXPECT_EQ(fake::eventsWithPrefix("container."),
              (std::vector<std::string>{"container.new null", "container.init", "container.createEndPoint",
                                        "container.notifyRunning", "container.destroyEndPoint null",
                                        "container.uninit", "container.delete"}));
}

TEST_F(InstalledApp, CommandServerThatCannotListenIsNotFatal)
{
    fake::setPipeServerStartResult(0);
    EXPECT_EQ(init(), 0);
    app().exit();
}

TEST_F(InstalledApp, ShellRefusalFailsTheStartBeforePlugins)
{
    fake::setShellInitResult(3);
    EXPECT_EQ(init(), -1);
    EXPECT_TRUE(fake::eventsWithPrefix("pluginmgr.updatePluginStatus").empty());
    EXPECT_TRUE(fake::timersAdded().empty());
    EXPECT_TRUE(fake::processRuns().empty());
    // The plugin manager was set up before the shell was asked.
    EXPECT_EQ(fake::eventsWithPrefix("pluginmgr.init").size(), 1u);
    app().exit();
}

// --- back-end marker -------------------------------------------------------------------------------------

TEST_F(InstalledApp, SecondStartFindsNoMarker)
{
    TempInstall::copy(inst().guard(), inst().marker());
    for (int round = 0; round < 2; ++round) {
        fake::resetLog();
        ASSERT_EQ(init(), 0);
        if (round == 0) {
            EXPECT_TRUE(logHas("[CAfxGuiMain] find data/pubcfg/.guiexit ...", 2));
            EXPECT_TRUE(logHas("[CAfxGuiMain] remove data/pubcfg/.guiexit finish", 2));
        } else {
            EXPECT_TRUE(logHas("[CAfxGuiMain] not find data/pubcfg/.guiexit", 3));
        }
        EXPECT_FALSE(apptest::exists(inst().marker()));
        app().exit();
        destroyApp();
        releaseSingletons();
        fake::setInstallDir(inst().dir);
    }
}

TEST_F(InstalledApp, MarkerThatCannotBeRemovedIsLoggedAndTheStartGoesOn)
{
    // A non-empty directory in the marker's place cannot be removed as a file.
    inst().mkdirs("data/pubcfg/.guiexit/inner");
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(logHas("[CAfxGuiMain] remove data/pubcfg/.guiexit failed", 3));
    app().exit();
}

TEST_F(InstalledApp, ExitWithoutStopLeavesTheMarkerAbsent)
{
    TempInstall::copy(inst().guard(), inst().marker());
    fake::setShellStopBackendAnswer(false);
    ASSERT_EQ(init(), 0);
    app().exec();
    app().exit();
    EXPECT_TRUE(logHas("====== not stop backend ======\n", 2));
    EXPECT_FALSE(apptest::exists(inst().marker()));
}

TEST_F(InstalledApp, ExitWithMarkerPresentLeavesItUntouched)
{
    fake::setShellStopBackendAnswer(true);
    ASSERT_EQ(init(), 0);
    kuvtest::writeFile(inst().marker(), "kept");
    app().exit();
    EXPECT_TRUE(logHas("[CAfxGuiMain] find data/pubcfg/.guiexit", 3));
    EXPECT_EQ(kuvtest::readFile(inst().marker()), "kept");
}

TEST_F(InstalledApp, MarkerThatCannotBeCreatedIsLogged)
{
    fake::setShellStopBackendAnswer(true);
    ASSERT_EQ(init(), 0);
    // The directory is gone, so the marker cannot be opened for writing.
    ASSERT_EQ(system(("rm -rf '" + inst().dir + "data'").c_str()), 0);
    app().exit();
    EXPECT_TRUE(logHas("[CAfxGuiMain] not find data/pubcfg/.guiexit", 2));
    EXPECT_TRUE(logHas("[CAfxGuiMain] open data/pubcfg/.guiexit failed", 3));
}

// --- guard script and restart monitor --------------------------------------------------------------------

TEST_F(InstalledApp, GuardScriptIsLaunchedWithOne)
{
    ASSERT_EQ(init(), 0);
    const auto runs = fake::processRuns();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].program, inst().dir + "script/kuvgui_guard.sh");
    EXPECT_EQ(runs[0].arguments, "1");
    EXPECT_TRUE(runs[0].flag);
    const auto messages = fake::logMessages();
    const std::vector<std::string> want = {"[CAfxGuiMain] start gui guard",
                                           "[CAfxGuiMain] find " + inst().dir + "script/kuvgui_guard.sh",
                                           "[CAfxGuiMain] Cmd 1", "[CAfxGuiMain] start kuvgui_guard end"};
    const std::vector<std::string> tail(messages.end() - 4, messages.end());
    EXPECT_EQ(tail, want);
    EXPECT_FALSE(logHas("[CAfxGuiMain] restart kuvgui_guard failed", 2));
    app().exit();
}

TEST_F(InstalledApp, GuardScriptThatDoesNotStartIsLogged)
{
    fake::setProcessResult(0);
    ASSERT_EQ(init(), 0);
    EXPECT_TRUE(logHas("[CAfxGuiMain] start kuvgui_guard end", 2));
    EXPECT_TRUE(logHas("[CAfxGuiMain] restart kuvgui_guard failed", 2));
    app().exit();
}

TEST_F(InstalledApp, MissingGuardScriptIsOnlyLogged)
{
    unlink(inst().guard().c_str());
    ASSERT_EQ(init(), 0);
    EXPECT_TRUE(logHas("[CAfxGuiMain] not find  " + inst().guard(), 3));
    EXPECT_TRUE(fake::processRuns().empty());
    app().exit();
}

TEST_F(InstalledApp, ChangedVersionAsksForARestartOnEveryRun)
{
    fake::setClientVersion("1.0.0");
    ASSERT_EQ(init(), 0);
    const size_t guardRuns = fake::processRuns().size();

    ASSERT_TRUE(fake::fireTimer("CAfxGuiMainMonitorVersion"));
    EXPECT_EQ(fake::processRuns().size(), guardRuns);

    fake::setClientVersion("1.0.1");
    ASSERT_TRUE(fake::fireTimer("CAfxGuiMainMonitorVersion"));
    ASSERT_TRUE(fake::fireTimer("CAfxGuiMainMonitorVersion"));
    const auto runs = fake::processRuns();
    ASSERT_EQ(runs.size(), guardRuns + 2);
    const std::string script = QCoreApplication::applicationDirPath().toStdString() + "/../script/starttaviksd.sh";
    for (size_t i = guardRuns; i < runs.size(); ++i) {
        EXPECT_EQ(runs[i].program, script);
        EXPECT_EQ(runs[i].arguments, "user_restart");
        EXPECT_TRUE(runs[i].flag);
    }
    app().exit();
}

TEST_F(InstalledApp, MonitorStaysRegisteredThroughExit)
{
    ASSERT_EQ(init(), 0);
    app().exec();
    app().exit();
    EXPECT_TRUE(fake::timerActive("CAfxGuiMainMonitorVersion"));
    EXPECT_EQ(fake::timersCancelled(), std::vector<std::string>{"BaseMgrPluginMonitorVersion"});
    // Still running after exit: a version change now is still acted on.
    fake::setClientVersion("9.9.9");
    const size_t before = fake::processRuns().size();
    ASSERT_TRUE(fake::fireTimer("CAfxGuiMainMonitorVersion"));
    EXPECT_EQ(fake::processRuns().size(), before + 1);

    // The object it is bound to is gone, and so is the monitor.
    destroyApp();
    EXPECT_FALSE(fake::timerActive("CAfxGuiMainMonitorVersion"));
}

TEST_F(InstalledApp, BusHookLogsAndChangesNothing)
{
    ASSERT_EQ(init(), 0);
    IMRReceiveComplete* receiver = fakeparts::registeredReceiver();
    ASSERT_NE(receiver, nullptr);
    const size_t linesBefore = fake::logLines().size();
    const size_t eventsBefore = fake::events().size();
    receiver->ReceiveCallback(0, 1003, "x", 1, 0, 1);
    auto lines = fake::logLines();
    ASSERT_EQ(lines.size(), linesBefore + 2);
    EXPECT_EQ(lines[linesBefore].level, 4);
    EXPECT_EQ(lines[linesBefore].function, "updatePlugins_s");
    EXPECT_EQ(lines[linesBefore + 1].level, 4);
    EXPECT_NE(lines[linesBefore + 1].message, "[CAfxGuiMain] data is null");
    EXPECT_EQ(fake::events().size(), eventsBefore);

    fakeparts::msgCallback()(nullptr);
    lines = fake::logLines();
    ASSERT_EQ(lines.size(), linesBefore + 4);
    EXPECT_EQ(lines.back().message, "[CAfxGuiMain] data is null");
    EXPECT_EQ(lines.back().level, 4);
    app().exit();
}

TEST_F(InstalledApp, ShellUninstallRecordReachesThePluginManager)
{
    fakeparts::setUninstallAllResult(7);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(fake::shellRunUninstall(), 7);
    EXPECT_EQ(fakeparts::uninstallAllCount(), 1);
    app().exit();
    EXPECT_EQ(CAfxGuiMain::uninstallAllCombo(nullptr), 0);
}

TEST_F(InstalledApp, ExitReleasesTheCompiledInResources)
{
    ASSERT_TRUE(QFile::exists(":/kuvgui/service/build_info.json"));
    ASSERT_TRUE(QFile::exists(":/kuvgui/service/kuvgui.svg"));
    ASSERT_EQ(init(), 0);
    app().exit();
    EXPECT_FALSE(QFile::exists(":/kuvgui/service/build_info.json"));
    EXPECT_EQ(fake::constConfigUninitCount(), 1);
}

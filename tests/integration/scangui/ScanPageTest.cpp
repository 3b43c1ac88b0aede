// SPDX-License-Identifier: GPL-2.0-or-later
// The shell's scan jobs on a real bus (the broker and bus module of the build tree) against a scripted back end
// (kuv-fake-scand): context-menu requests with exact path bytes, results on the page and in the journal,
// cancel, a missing back end started from the page, a back end that dies during a job, and screenshots
// of the Scan page and of the protection status page in English and Simplified Chinese
// (written to $KUV_BUILD_DIR/screenshots/).
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QFontDatabase>
#include <QImage>
#include <QLabel>
#include <QMimeData>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QTreeWidget>
#include <QUrl>
#include <QDragEnterEvent>
#include <QDropEvent>

#include "BusModule.h"
#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "ConfigModule.h"
#include "CppJson.h"
#include "Harness.h"
#include "KuvGuiInterface.h"
#include "PluginInitParas.h"
#include "ScanPaths.h"
#include "ShellTestSupport.h"

namespace {

int g_argc = 1;
char g_arg0[] = "integration_scangui_page";
char* g_argv[] = {g_arg0, nullptr};

std::vector<Json::Value> journalOf(const std::string& path, const char* event)
{
    std::vector<Json::Value> out;
    for (const Json::Value& v : shelltest::readJournal(path)) {
        if (v["event"].asString() == event) {
            out.push_back(v);
        }
    }
    return out;
}

std::string decoded(const Json::Value& v)
{
    std::string out;
    EXPECT_TRUE(kuvscan::pathFromJson(v, out));
    return out;
}

QWidget* window()
{
    return shelltest::mainWindow();
}

template <typename T>
T* child(const char* name)
{
    QWidget* w = window();
    return w == nullptr ? nullptr : w->findChild<T*>(QLatin1String(name));
}

QString labelText(const char* name)
{
    auto* l = child<QLabel>(name);
    return l == nullptr ? QString() : l->text();
}

class ScanPageTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_PATH, (m_box.root + "/").c_str());
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_NAME, "scangui");
        ConfigModule::UninitInstance();
        basegui::Common::setLan("en");
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(m_box.installDir + "lib/modules")));
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(m_box.installDir + "bin")));
        ASSERT_EQ(0, symlink(ZELL_MODULE,
                             (m_box.installDir + "lib/modules/libZellClientMgr.so").c_str()));
        // The scripted back end stands where the shell starts kuv-scand from.
        ASSERT_TRUE(QFile::copy(QStringLiteral(FAKE_SCAND), QString::fromStdString(scand())));
        chmod(scand().c_str(), 0755);
        m_runtimeKuv = std::string(getenv("XDG_RUNTIME_DIR")) + "/kuv/";
        m_broker = std::make_unique<kuvtest::Process>(std::vector<std::string>{ZELLD, "--foreground"});
        ASSERT_TRUE(kuvtest::waitUntil([&] { return access((m_runtimeKuv + "kuv_zell").c_str(), F_OK) == 0; }, 30000))
            << m_broker->err();
        m_data = m_box.root + "/data/";
        ASSERT_TRUE(QDir().mkpath(QString::fromStdString(m_data)));
        m_record = m_box.root + "/requests.jsonl";
        m_pidfile = m_box.root + "/scand.pid";
        setenv("KUV_FAKE_SCAND_RECORD", m_record.c_str(), 1);
        setenv("KUV_FAKE_SCAND_PIDFILE", m_pidfile.c_str(), 1);
    }

    // The protection status plugin on its own endpoint of the bus, as the service would hand it, in a
    // started shell. guidField: a "guid" member for its description, or empty.
    void startStatusPlugin(kuv::BusModule& bus, IZellMREndPoint4*& endpoint, const std::string& guidField)
    {
        const std::string plugins = m_box.installDir + "etc/plugins-gui/plugins/";
        std::ofstream(plugins + "protectionstatus.json")
            << R"({"id": "protectionstatus", "library": ")" << (PROTECTIONSTATUS_SO + 1)
            << R"(", "iid": "org.kuv.gui.IKuvGuiPlugin/1.0", "version": "1.0.0", )" << guidField
            << R"("description": "status"})";
        CQPluginManager* loader = CQPluginManager::singleInstance();
        loader->setPluginRelativeRootPath(QStringLiteral("/"));
        loader->setPluginConfigFilePath(QString::fromStdString(plugins));
        ASSERT_EQ(1, loader->loadAllPluginInfo());
        std::string error;
        ASSERT_TRUE(bus.open("./kuv_zell", false, error, "scangui-test")) << error;
        ASSERT_TRUE(bus.waitConnected(30000));
        endpoint = bus.mgr()->createEndPoint();
        sPluginInitParas paras;
        paras.mapParas.insert(QStringLiteral("IZellMREndPoint4"), QVariant::fromValue<void*>(endpoint));
        paras.mapParas.insert(QStringLiteral("CGlobalTag"), QVariant::fromValue<void*>(nullptr));
        initShell();
        loader->installPluginAsyn(QStringLiteral("protectionstatus"), QVariant::fromValue(paras));
        ASSERT_TRUE(shelltest::spinUntil([loader] { return loader->loadedPlugins().size() == 1; }));
    }

    void TearDown() override
    {
        m_scand.reset();
        // A back end the shell started itself is not our child: end it by its pid file.
        const std::string pid = kuvtest::readFile(m_pidfile);
        if (!pid.empty() && atoi(pid.c_str()) > 0) {
            kill(atoi(pid.c_str()), SIGTERM);
        }
        m_broker.reset();
        CQPluginManager::UninitInstance();
        unsetenv("KUV_FAKE_SCAND_RECORD");
        unsetenv("KUV_FAKE_SCAND_PIDFILE");
    }

    std::string scand() const { return m_box.installDir + "bin/kuv-scand"; }

    void dieDuringAJob(const std::vector<std::string>& extra)
    {
        std::vector<std::string> args{"--steps", "200", "--step-ms", "50", "--die-after-progress", "3"};
        args.insert(args.end(), extra.begin(), extra.end());
        startScand(args);
        initShell();
        std::list<std::string> many;
        for (int i = 0; i < 20; ++i) {
            many.push_back(file("g" + std::to_string(i)));
        }
        scan(many);
        // Spins the event loop meanwhile: the request goes out from the GUI thread.
        ASSERT_TRUE(shelltest::spinUntil([this] { return !m_scand->running(); }, 30000))
            << "the back end was to kill itself";
        EXPECT_EQ(SIGKILL, m_scand->termSignal());
        // The page stays responsive while it finds out (this loop is the GUI thread).
        ASSERT_TRUE(waitEnd(1, 90000)) << kuvtest::readFile(m_box.journalPath);
        const auto end = journalOf(m_box.journalPath, "scan-end")[0];
        EXPECT_EQ("failed", end["state"].asString());
        EXPECT_EQ("back end stopped during the scan", end["reason"].asString());
        ASSERT_TRUE(shelltest::spinUntil([] {
            return labelText("kuvScanState") == QLatin1String("Scan failed: the scan back end stopped during the scan.");
        }));
        EXPECT_TRUE(child<QPushButton>("kuvScanStartBackend")->isVisible());
        quitShell();
    }

    void startScand(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{scand()};
        argv.insert(argv.end(), args.begin(), args.end());
        // Only a back end the shell starts itself writes the pid file.
        m_scand = std::make_unique<kuvtest::Process>(argv, std::vector<std::string>{"KUV_FAKE_SCAND_PIDFILE="});
        ASSERT_TRUE(kuvtest::waitUntil(
            [&] { return m_scand->err().find("ready as") != std::string::npos || !m_scand->running(); }, 30000));
        ASSERT_TRUE(m_scand->running()) << m_scand->err();
    }

    std::string file(const std::string& name, const std::string& content = "data")
    {
        const std::string path = m_data + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    void initShell()
    {
        ASSERT_EQ(0, KuvGuiInterface::init(g_argc, g_argv, sUninstallFunc{nullptr, nullptr}));
        KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr);
        ASSERT_TRUE(shelltest::spinUntil([] { return window() != nullptr && window()->isVisible(); }));
    }

    void quitShell()
    {
        KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
        EXPECT_EQ(0, KuvGuiInterface::exec());
    }

    void scan(const std::list<std::string>& paths)
    {
        std::list<std::string> copy = paths;
        ASSERT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_CONTEXT_MENU_SCAN, &copy));
    }

    bool waitEnd(size_t count, int timeoutMs = 60000)
    {
        return shelltest::spinUntil([&] { return journalOf(m_box.journalPath, "scan-end").size() >= count; },
                                    timeoutMs);
    }

    shelltest::Sandbox m_box;
    std::string m_runtimeKuv;
    std::string m_data;
    std::string m_record;
    std::string m_pidfile;
    std::unique_ptr<kuvtest::Process> m_broker;
    std::unique_ptr<kuvtest::Process> m_scand;
};

TEST_F(ScanPageTest, ContextMenuScanSendsTheExactPathsAndShowsEveryVerdict)
{
    startScand({"--steps", "3", "--step-ms", "30"});
    const std::vector<std::string> paths{file("eicar.com", "X5O!P%@AP"), file("clean.txt"),
                                         file("line\nfeed.txt"), file("\xff\xfe-latin1-\xe9.bin"),
                                         file("unreadable.doc")};
    initShell();
    scan(std::list<std::string>(paths.begin(), paths.end()));
    ASSERT_TRUE(waitEnd(1)) << kuvtest::readFile(m_box.journalPath);

    // On the bus: one request with the bytes as given, clean verdicts asked for.
    std::ifstream in(m_record);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    Json::Value request;
    ASSERT_TRUE(CppJson::LoadJsonString(line, request)) << line;
    ASSERT_EQ(paths.size(), request["paths"].size());
    for (Json::ArrayIndex i = 0; i < request["paths"].size(); ++i) {
        EXPECT_EQ(paths[i], decoded(request["paths"][i])) << i;
    }
    EXPECT_TRUE(request["paths"][3].isObject()) << "a non-UTF-8 name travels as bytes";
    EXPECT_TRUE(request["options"]["report_clean"].asBool());
    EXPECT_FALSE(std::getline(in, line)) << "one request only";

    // In the journal: one record per file with its verdict, then the end.
    const auto results = journalOf(m_box.journalPath, "scan-result");
    ASSERT_EQ(paths.size(), results.size());
    std::map<std::string, Json::Value> byPath;
    for (const auto& r : results) {
        EXPECT_EQ(request["job"].asString(), r["job"].asString());
        EXPECT_TRUE(r["time_ms"].isIntegral());
        byPath[decoded(r["path"])] = r;
    }
    EXPECT_EQ("infected", byPath[paths[0]]["verdict"].asString());
    EXPECT_EQ("Eicar-Test-Signature", byPath[paths[0]]["signature"].asString());
    EXPECT_EQ("clean", byPath[paths[1]]["verdict"].asString());
    EXPECT_EQ("clean", byPath[paths[2]]["verdict"].asString());
    EXPECT_EQ("clean", byPath[paths[3]]["verdict"].asString());
    EXPECT_EQ("error", byPath[paths[4]]["verdict"].asString());
    EXPECT_EQ("permission denied", byPath[paths[4]]["reason"].asString());
    const auto ends = journalOf(m_box.journalPath, "scan-end");
    EXPECT_EQ("done", ends[0]["state"].asString());
    EXPECT_EQ(1, ends[0]["infected"].asInt());

    // On the page: every row, names escaped for display, the detection counted.
    ASSERT_TRUE(shelltest::spinUntil([] { return labelText("kuvScanState").startsWith("Scan finished"); }));
    EXPECT_EQ("Scan finished: 1 threat(s) found.", labelText("kuvScanState").toStdString());
    EXPECT_EQ("1", labelText("kuvScanThreats").toStdString());
    auto* list = child<QTreeWidget>("kuvScanResults");
    ASSERT_EQ(5, list->topLevelItemCount());
    QStringList shown;
    for (int i = 0; i < list->topLevelItemCount(); ++i) {
        shown << list->topLevelItem(i)->text(0) + "|" + list->topLevelItem(i)->text(1) + "|" +
                     list->topLevelItem(i)->text(2);
    }
    const QString d = QString::fromStdString(m_data);
    EXPECT_TRUE(shown.contains(d + "eicar.com|Infected|Eicar-Test-Signature")) << shown.join("\n").toStdString();
    EXPECT_TRUE(shown.contains(d + "line\\nfeed.txt|Clean|")) << shown.join("\n").toStdString();
    EXPECT_TRUE(shown.contains(d + "\\xFF\\xFE-latin1-\\xE9.bin|Clean|")) << shown.join("\n").toStdString();
    EXPECT_TRUE(shown.contains(d + "unreadable.doc|Not scanned|permission denied")) << shown.join("\n").toStdString();
    EXPECT_FALSE(child<QWidget>("kuvScanBackendBox")->isVisible()) << "a fresh database needs no hint";
    EXPECT_NE(-1, labelText("kuvScanEngine").indexOf("libclamav 1.0.7")) << labelText("kuvScanEngine").toStdString();
    EXPECT_EQ(1000, child<QProgressBar>("kuvScanProgress")->value());
    quitShell();
}

TEST_F(ScanPageTest, DroppedFilesAreScannedWithTheirExactBytes)
{
    startScand({"--steps", "1", "--step-ms", "10"});
    initShell();
    const std::string plain = file("dropped eicar.txt");
    const std::string latin1 = file("r\xe9sum\xe9.txt");
    // Pages other than the overview are built when chosen.
    QWidget* page = shelltest::choosePage(window(), "kuvScanPage");
    ASSERT_NE(nullptr, page);
    // A file manager's drag: file URLs, each byte of a name that is not UTF-8 percent-encoded.
    QMimeData mime;
    mime.setUrls({QUrl::fromEncoded(QByteArray("file://") + QByteArray::fromStdString(plain).toPercentEncoding("/")),
                  QUrl::fromEncoded(QByteArray("file://") + QByteArray::fromStdString(latin1).toPercentEncoding("/")),
                  QUrl(QStringLiteral("https://example.org/not-a-file"))});
    QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(page, &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(page, &drop);
    ASSERT_TRUE(waitEnd(1, 30000)) << kuvtest::readFile(m_box.journalPath);
    std::ifstream in(m_record);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    Json::Value request;
    ASSERT_TRUE(CppJson::LoadJsonString(line, request)) << line;
    ASSERT_EQ(2u, request["paths"].size()) << line;
    EXPECT_EQ(plain, decoded(request["paths"][0]));
    EXPECT_EQ(latin1, decoded(request["paths"][1]));
    const auto results = journalOf(m_box.journalPath, "scan-result");
    ASSERT_EQ(2u, results.size());
    EXPECT_EQ("infected", results[0]["verdict"].asString());

    // The home folder button: one job for $HOME.
    const char* home = getenv("HOME");
    const std::string savedHome = home != nullptr ? home : "";
    setenv("HOME", m_data.c_str(), 1);
    child<QPushButton>("kuvScanHome")->click();
    setenv("HOME", savedHome.c_str(), 1);
    ASSERT_TRUE(waitEnd(2, 30000));
    ASSERT_TRUE(std::getline(in, line));
    ASSERT_TRUE(CppJson::LoadJsonString(line, request)) << line;
    ASSERT_EQ(1u, request["paths"].size());
    EXPECT_EQ(m_data.substr(0, m_data.size() - 1), decoded(request["paths"][0]));
    EXPECT_FALSE(request["options"]["report_clean"].asBool()) << "a whole folder lists only what matters";
    quitShell();
}

TEST_F(ScanPageTest, CancelEndsTheJobAsCancelled)
{
    startScand({"--steps", "2000", "--step-ms", "50"});
    initShell();
    std::list<std::string> many;
    for (int i = 0; i < 50; ++i) {
        many.push_back(file("f" + std::to_string(i)));
    }
    scan(many);
    ASSERT_TRUE(shelltest::spinUntil([] { return labelText("kuvScanState") == QLatin1String("Scanning..."); }));
    auto* cancel = child<QPushButton>("kuvScanCancel");
    ASSERT_TRUE(shelltest::spinUntil([cancel] { return cancel->isVisible() && cancel->isEnabled(); }));
    EXPECT_EQ(0, child<QProgressBar>("kuvScanProgress")->minimum());
    EXPECT_EQ(1000, child<QProgressBar>("kuvScanProgress")->maximum()) << "files are counted: determinate";
    cancel->click();
    ASSERT_TRUE(waitEnd(1, 30000));
    EXPECT_EQ("cancelled", journalOf(m_box.journalPath, "scan-end")[0]["state"].asString());
    ASSERT_TRUE(shelltest::spinUntil([] { return labelText("kuvScanState") == QLatin1String("Scan cancelled."); }));
    EXPECT_FALSE(cancel->isVisible());
    quitShell();
}

TEST_F(ScanPageTest, MissingBackEndIsShownAndStartedFromThePage)
{
    initShell();
    const std::string target = file("eicar-sample.txt");
    scan({target});
    // No back end on the bus: the job fails at once, the page offers to start it.
    ASSERT_TRUE(waitEnd(1, 30000));
    const auto first = journalOf(m_box.journalPath, "scan-end")[0];
    EXPECT_EQ("failed", first["state"].asString());
    EXPECT_EQ("back end not running", first["reason"].asString());
    ASSERT_TRUE(shelltest::spinUntil([] {
        return labelText("kuvScanState") == QLatin1String("Scan failed: the scan back end is not running.");
    }));
    EXPECT_NE(-1, labelText("kuvScanBackendText").indexOf("is not running")) << labelText("kuvScanBackendText").toStdString();
    auto* start = child<QPushButton>("kuvScanStartBackend");
    ASSERT_TRUE(start->isVisible());
    const char* buildDir = std::getenv("KUV_BUILD_DIR");
    const QString outDir = QString::fromLocal8Bit(buildDir != nullptr ? buildDir : ".") + "/screenshots";
    QDir().mkpath(outDir);
    shelltest::spinUntil([] { return false; }, 300);
    EXPECT_TRUE(window()->grab().toImage().save(outDir + "/scan-en-backend-not-running.png", "PNG"));

    // Started from here, the back end announces itself and the request that found nothing is sent again.
    start->click();
    ASSERT_TRUE(waitEnd(2, 60000)) << kuvtest::readFile(m_box.journalPath);
    const auto second = journalOf(m_box.journalPath, "scan-end")[1];
    EXPECT_EQ("done", second["state"].asString());
    const auto results = journalOf(m_box.journalPath, "scan-result");
    ASSERT_EQ(1u, results.size());
    EXPECT_EQ(target, decoded(results[0]["path"]));
    EXPECT_EQ("infected", results[0]["verdict"].asString());
    EXPECT_TRUE(shelltest::spinUntil([] { return !child<QWidget>("kuvScanBackendBox")->isVisible(); }));
    EXPECT_FALSE(kuvtest::readFile(m_pidfile).empty()) << "the page started " << scand();
    quitShell();
}

TEST_F(ScanPageTest, BackEndDyingDuringAJobFailsTheJobWithoutHanging)
{
    // Its process is watched (pidfd): the job fails as soon as it ends.
    dieDuringAJob({});
}

TEST_F(ScanPageTest, BackEndDyingWithoutAPidIsFoundOutByAskingTheBus)
{
    // No pid to watch: the silence during the job makes the shell ask the bus, which knows it left.
    dieDuringAJob({"--no-pid"});
}

TEST_F(ScanPageTest, StatusPageFollowsABackEndThatStartsLaterAndNoticesItsEnd)
{
    kuv::BusModule bus;
    IZellMREndPoint4* endpoint = nullptr;
    ASSERT_NO_FATAL_FAILURE(startStatusPlugin(bus, endpoint, ""));
    CQPluginManager* loader = CQPluginManager::singleInstance();
    // The plugin's page is built the first time it is shown.
    shelltest::Nav nav(window());
    auto* stack = child<QStackedWidget>("kuvPages");
    ASSERT_TRUE(nav.valid() && stack != nullptr);
    ASSERT_TRUE(shelltest::spinUntil([nav, stack] {
        for (int row = 0; row < nav.count(); ++row) {
            nav.setCurrentRow(row);
            if (stack->currentWidget()->objectName() == QLatin1String("kuvProtectionStatusPage")) {
                return child<QLabel>("kuvProtectionBackendState") != nullptr;
            }
        }
        return false;
    }));
    auto* state = child<QLabel>("kuvProtectionBackendState");
    ASSERT_NE(nullptr, state);
    // No back end yet: its asks go nowhere, and the page says it has heard nothing.
    shelltest::spinUntil([] { return false; }, 1500);
    EXPECT_EQ(0, state->text().indexOf("No report from the scan back end")) << state->text().toStdString();

    // The back end starts after the plugin: it finds the plugin on its subscriber list and reports.
    startScand({"--db-age-days", "2"});
    ASSERT_TRUE(shelltest::spinUntil([state] { return state->text().startsWith("Ready"); }, 30000))
        << state->text().toStdString();
    EXPECT_NE(-1, labelText("kuvProtectionDatabase").indexOf("2 day(s) old"));
    // And its end shows without any message.
    m_scand->signal(SIGKILL);
    ASSERT_TRUE(shelltest::spinUntil(
        [state] { return state->text().startsWith("Not running (the back end process ended)"); }, 30000))
        << state->text().toStdString();

    loader->unstallPluginAsyn(QStringLiteral("protectionstatus"));
    ASSERT_TRUE(shelltest::spinUntil([loader] { return loader->pendingUnloads() == 0; }));
    bus.mgr()->destroyEndPoint(endpoint);
    quitShell();
}

TEST_F(ScanPageTest, ScreenshotsDuringAScanAfterADetectionAndOfAnOldDatabase)
{
    ASSERT_FALSE(QFontDatabase().families(QFontDatabase::SimplifiedChinese).isEmpty())
        << "no font with Simplified Chinese glyphs: install fonts-wqy-microhei (scripts/setup)";
    const char* buildDir = std::getenv("KUV_BUILD_DIR");
    const QString outDir = QString::fromLocal8Bit(buildDir != nullptr ? buildDir : ".") + "/screenshots";
    ASSERT_TRUE(QDir().mkpath(outDir));
    startScand({"--steps", "2000", "--step-ms", "40", "--db-age-days", "30"});

    // The protection status plugin on its own endpoint of the same bus, as the service would hand it.
    kuv::BusModule bus;
    IZellMREndPoint4* endpoint = nullptr;
    ASSERT_NO_FATAL_FAILURE(startStatusPlugin(bus, endpoint, R"("guid": "B2E85C17-94AD-4C3E-A1F0-6D7E8F9A0B63", )"));
    CQPluginManager* loader = CQPluginManager::singleInstance();

    std::list<std::string> slow;
    slow.push_back(file("invoice.pdf.exe"));
    slow.push_back(file("eicar.com"));
    for (int i = 0; i < 400; ++i) {
        slow.push_back(file("photo-" + std::to_string(1000 + i) + ".jpg"));
    }
    scan(slow);

    shelltest::Nav nav(window());
    auto* stack = child<QStackedWidget>("kuvPages");
    const int scanRow = nav.currentRow();
    ASSERT_NE(nullptr, shelltest::choosePage(window(), "kuvSettingsPage"));
    nav.setCurrentRow(scanRow);
    auto* language = child<QComboBox>("kuvLanguage");
    ASSERT_TRUE(nav.valid() && scanRow >= 0 && stack != nullptr && language != nullptr);
    auto shoot = [&](const QString& name) {
        // Let the layouts follow a language switch before the picture is taken.
        shelltest::spinUntil([] { return false; }, 300);
        const QString path = outDir + "/" + name + ".png";
        const QImage shot = window()->grab().toImage();
        ASSERT_FALSE(shot.isNull());
        ASSERT_TRUE(shot.save(path, "PNG")) << path.toStdString();
        EXPECT_GT(QFileInfo(path).size(), 2000) << path.toStdString();
    };
    auto showPage = [&](const char* objectName) {
        for (int row = 0; row < nav.count(); ++row) {
            nav.setCurrentRow(row);
            if (stack->currentWidget()->objectName() == QLatin1String(objectName)) {
                return true;
            }
        }
        return false;
    };
    auto* list = child<QTreeWidget>("kuvScanResults");
    ASSERT_TRUE(shelltest::spinUntil([list] { return list->topLevelItemCount() >= 30; }, 60000))
        << labelText("kuvScanState").toStdString() << "\n" << kuvtest::readFile(m_box.journalPath) << m_scand->err();
    struct Lang {
        const char* code;
        int index;
        const char* scanningText;
    };
    const Lang langs[] = {{"en", 0, "Scanning..."}, {"zh-CN", 1, "正在扫描..."}};
    for (const Lang& l : langs) {
        language->setCurrentIndex(l.index);
        ASSERT_TRUE(showPage("kuvScanPage"));
        ASSERT_TRUE(shelltest::spinUntil([&l] { return labelText("kuvScanState") == QString::fromUtf8(l.scanningText); }))
            << labelText("kuvScanState").toStdString();
        shoot(QStringLiteral("scan-%1-during").arg(QLatin1String(l.code)));
    }
    child<QPushButton>("kuvScanCancel")->click();
    ASSERT_TRUE(waitEnd(1, 30000));

    // A short job that finds something (the stopped back end leaves the bus at once).
    m_scand->signal(SIGTERM);
    ASSERT_TRUE(m_scand->wait(30000));
    m_scand.reset();
    startScand({"--steps", "2", "--step-ms", "20", "--db-age-days", "30"});
    scan({file("report-2026.pdf"), file("setup.exe"), file("eicar.com"), file("notes.txt")});
    ASSERT_TRUE(waitEnd(2, 60000));
    for (const Lang& l : langs) {
        language->setCurrentIndex(l.index);
        ASSERT_TRUE(showPage("kuvScanPage"));
        ASSERT_TRUE(shelltest::spinUntil([] { return child<QTreeWidget>("kuvScanResults")->topLevelItemCount() == 4; }));
        EXPECT_TRUE(child<QWidget>("kuvScanBackendBox")->isVisible()) << "a 30 days old database gets a hint";
        shoot(QStringLiteral("scan-%1-detection").arg(QLatin1String(l.code)));
        ASSERT_TRUE(showPage("kuvProtectionStatusPage"));
        ASSERT_TRUE(shelltest::spinUntil([] {
            auto* db = child<QLabel>("kuvProtectionDatabase");
            return db != nullptr && db->text().contains(QLatin1String("30"));
        })) << (child<QLabel>("kuvProtectionDatabase") ? child<QLabel>("kuvProtectionDatabase")->text().toStdString()
                                                        : std::string("no database line"));
        shoot(QStringLiteral("status-%1-old-database").arg(QLatin1String(l.code)));
    }
    language->setCurrentIndex(0);
    loader->unstallPluginAsyn(QStringLiteral("protectionstatus"));
    ASSERT_TRUE(shelltest::spinUntil([loader] { return loader->pendingUnloads() == 0; }));
    bus.mgr()->destroyEndPoint(endpoint);
    ConfigModule::Instance()->setString("gui_shell.conf", "language", "");
    quitShell();
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // The shell takes this application object over in its init.
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The sample plugins in the shell, offscreen: their endpoint and receivers through a bus test double,
// bus messages carried to their pages, the plugins without a bus, and screenshots of every page in
// English and Simplified Chinese (written to $KUV_BUILD_DIR/screenshots/).
#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QFontDatabase>
#include <QImage>
#include <QLabel>
#include <QPixmap>
#include <QShowEvent>
#include <QStackedWidget>
#include <QTableWidget>

#include "CGlobalTag.h"
#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "ConfigModule.h"
#include "FakeEndpoint.h"
#include "KuvGuiInterface.h"
#include "KuvScanProtocol.h"
#include "PluginInitParas.h"
#include "ShellTestSupport.h"

namespace {

int g_argc = 1;
char g_arg0[] = "unit_guishell_pages";
char* g_argv[] = {g_arg0, nullptr};

struct SamplePlugin {
    const char* id;
    const char* module;
    const char* guid; // differs from the plugin's built-in address: the description must win
    int64_t type;
    const char* pageName;
    std::vector<int64_t> types; // every type it listens to: its own and the back end's
};

const SamplePlugin kPlugins[] = {
    {"eventviewer", EVENTVIEWER_SO, "11111111-0000-0000-0000-000000003001", 3001, "kuvEventViewerPage",
     {3001, kuvscan::KUV_SCAN_MSG_STATUS, kuvscan::KUV_SCAN_MSG_EVENT}},
    {"notifier", NOTIFIER_SO, "11111111-0000-0000-0000-000000003002", 3002, "kuvNotifierPage", {3002}},
    {"protectionstatus", PROTECTIONSTATUS_SO, "11111111-0000-0000-0000-000000003003", 3003,
     "kuvProtectionStatusPage", {3003, kuvscan::KUV_SCAN_MSG_STATUS}},
};

QString guidText(const GUID& g)
{
    return QString::asprintf("%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                             g.Data4[7]);
}

QVariant parasFor(IZellMREndPoint4* endpoint)
{
    sPluginInitParas p;
    p.mapParas.insert(QStringLiteral("IZellMREndPoint4"), QVariant::fromValue<void*>(endpoint));
    p.mapParas.insert(QStringLiteral("CGlobalTag"), QVariant::fromValue<void*>(nullptr));
    return QVariant::fromValue(p);
}

class PagesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_PATH, (m_box.root + "/").c_str());
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_NAME, "pages");
        ConfigModule::UninitInstance();
        basegui::Common::setLan("en");
        const std::string plugins = m_box.installDir + "etc/plugins-gui/plugins/";
        for (const auto& p : kPlugins) {
            // Root "/" with the module's absolute path made relative: the build tree stands in for DIR.
            std::ofstream(plugins + p.id + ".json")
                << R"({"id": ")" << p.id << R"(", "library": ")" << (p.module + 1)
                << R"(", "iid": "org.kuv.gui.IKuvGuiPlugin/1.0", "version": "1.0.0", "guid": ")" << p.guid
                << R"(", "description": "sample plugin )" << p.id << R"("})";
        }
        CQPluginManager* loader = CQPluginManager::singleInstance();
        loader->setPluginRelativeRootPath(QStringLiteral("/"));
        loader->setPluginConfigFilePath(QString::fromStdString(plugins));
        ASSERT_EQ(3, loader->loadAllPluginInfo());
    }

    void TearDown() override
    {
        CQPluginManager::UninitInstance();
        m_endpoints.clear();
    }

    void loadAll(bool withEndpoints, int initResult = 0)
    {
        for (const auto& p : kPlugins) {
            FakeEndpoint* ep = nullptr;
            if (withEndpoints) {
                m_endpoints.push_back(std::make_unique<FakeEndpoint>(initResult));
                ep = m_endpoints.back().get();
            }
            CQPluginManager::singleInstance()->installPluginAsyn(p.id, parasFor(ep));
        }
        ASSERT_TRUE(shelltest::spinUntil([] { return CQPluginManager::singleInstance()->loadedPlugins().size() == 3; }))
            << "sample plugins did not load";
    }

    // The page a plugin gave the shell: a placeholder until it is first shown.
    QWidget* page(const char* name)
    {
        for (const auto& s : CQPluginManager::singleInstance()->pluginStatus()) {
            if (!s.page.isNull() && s.page->objectName() == QLatin1String(name)) {
                return s.page;
            }
        }
        return nullptr;
    }

    // The page with its widgets, as the first show would build them (without showing a window).
    QWidget* built(const char* name)
    {
        QWidget* host = page(name);
        if (host != nullptr) {
            QShowEvent shown;
            QCoreApplication::sendEvent(host, &shown);
        }
        return host;
    }

    static int tablesAlive()
    {
        const QWidgetList all = QApplication::allWidgets();
        return static_cast<int>(
            std::count_if(all.begin(), all.end(), [](QWidget* w) { return qobject_cast<QTableWidget*>(w) != nullptr; }));
    }

    shelltest::Sandbox m_box;
    std::vector<std::unique_ptr<FakeEndpoint>> m_endpoints;
};

TEST_F(PagesTest, SamplePluginsNameTheirEndpointListenAndShowWhatArrives)
{
    // The runtime directory as the service makes it: the plugins only write into it.
    const std::string runtimeKuv = std::string(getenv("XDG_RUNTIME_DIR")) + "/kuv";
    ASSERT_EQ(0, mkdir(runtimeKuv.c_str(), 0700));
    loadAll(true);
    for (size_t i = 0; i < 3; ++i) {
        FakeEndpoint& ep = *m_endpoints[i];
        EXPECT_EQ(1, ep.inits()) << kPlugins[i].id;
        EXPECT_EQ(QString::fromLatin1(kPlugins[i].guid), guidText(ep.guid())) << kPlugins[i].id;
        EXPECT_EQ(kPlugins[i].types, ep.registeredTypes()) << kPlugins[i].id;
    }
    // The two that follow the back end subscribe to it and list themselves for its next start.
    for (size_t i : {size_t(0), size_t(2)}) {
        const auto sent = m_endpoints[i]->sent();
        ASSERT_FALSE(sent.empty()) << kPlugins[i].id;
        EXPECT_EQ("5CA4D0E1-7B2F-4E8A-9C31-0F6B2D8E4A17", guidText(sent[0].dest).toStdString());
        EXPECT_EQ(kuvscan::KUV_SCAN_MSG_STATUS_REQUEST, sent[0].type);
        EXPECT_EQ(R"({"subscribe":true})", sent[0].body);
    }
    EXPECT_TRUE(m_endpoints[1]->sent().empty());
    const std::string subscribers =
        std::string(getenv("XDG_RUNTIME_DIR")) + "/kuv/" + kuvscan::kSubscribersFile;
    std::ifstream listed(subscribers);
    const std::string listText((std::istreambuf_iterator<char>(listed)), std::istreambuf_iterator<char>());
    EXPECT_NE(std::string::npos, listText.find(std::string(kPlugins[0].guid) + "\n")) << listText;
    EXPECT_NE(std::string::npos, listText.find(std::string(kPlugins[2].guid) + "\n")) << listText;

    // Event viewer: messages from a bus thread end up in the table, control characters escaped.
    ASSERT_TRUE(m_endpoints[0]->deliver(3001, "malware found in /home/u/a.exe"));
    ASSERT_TRUE(m_endpoints[0]->deliver(3001, std::string("line1\nline2\x01", 13)));
    auto* events = built("kuvEventViewerPage")->findChild<QTableWidget*>("kuvEventViewerTable");
    ASSERT_TRUE(shelltest::spinUntil([events] { return events->rowCount() == 2; }));
    EXPECT_EQ("line1\\nline2\\x01", events->item(0, 3)->text().toStdString());
    EXPECT_EQ("3001", events->item(0, 1)->text().toStdString());
    EXPECT_EQ("0A1B2C3D-4E5F-6071-8293-A4B5C6D7E8F9", events->item(0, 2)->text().toStdString());
    EXPECT_EQ("malware found in /home/u/a.exe", events->item(1, 3)->text().toStdString());
    // A detection reported by the back end, its non-UTF-8 path shown escaped.
    ASSERT_TRUE(m_endpoints[0]->deliver(kuvscan::KUV_SCAN_MSG_EVENT,
                                        R"({"time": 1790000000000, "kind": "detection", "severity": "critical",)"
                                        R"( "path": {"b64": "L3RtcC9h/y5leGU="}, "signature": "Eicar-Test-Signature",)"
                                        R"( "action": "reported", "job": "j1"})"));
    ASSERT_TRUE(shelltest::spinUntil([events] { return events->rowCount() == 3; }));
    EXPECT_EQ("Threat detected", events->item(0, 1)->text().toStdString());
    EXPECT_EQ("kuv-scand", events->item(0, 2)->text().toStdString());
    EXPECT_EQ("Eicar-Test-Signature in /tmp/a\\xFF.exe; action: reported", events->item(0, 3)->text().toStdString());
    // Messages of another type are not this plugin's.
    EXPECT_FALSE(m_endpoints[0]->deliver(3002, "not for the event viewer"));

    // Notifier: an alert is raised; without a desktop notification service it still shows on the page.
    ASSERT_TRUE(m_endpoints[1]->deliver(3002, R"({"title": "Threat blocked", "body": "a.exe was quarantined"})"));
    auto* alerts = built("kuvNotifierPage")->findChild<QTableWidget*>("kuvNotifierTable");
    ASSERT_TRUE(shelltest::spinUntil([alerts] {
        return alerts->rowCount() == 1 && alerts->item(0, 3)->text() != QLatin1String("Sending...");
    }, 60000));
    EXPECT_EQ("Threat blocked", alerts->item(0, 1)->text().toStdString());
    EXPECT_EQ("a.exe was quarantined", alerts->item(0, 2)->text().toStdString());

    // Protection status: one row per module, updated in place; junk is counted, not shown.
    ASSERT_TRUE(m_endpoints[2]->deliver(3003, R"({"module": "realtime", "state": "on", "detail": "ok"})"));
    ASSERT_TRUE(m_endpoints[2]->deliver(3003, R"({"module": "firewall", "state": "off"})"));
    ASSERT_TRUE(m_endpoints[2]->deliver(3003, R"({"module": "realtime", "state": "error", "detail": "engine"})"));
    ASSERT_TRUE(m_endpoints[2]->deliver(3003, "not json"));
    auto* modules = built("kuvProtectionStatusPage")->findChild<QTableWidget*>("kuvProtectionTable");
    ASSERT_TRUE(shelltest::spinUntil([modules] {
        return modules->rowCount() == 2 && modules->item(0, 1)->text() == QLatin1String("Error");
    }));
    EXPECT_EQ("realtime", modules->item(0, 0)->text().toStdString());
    EXPECT_EQ("Turned off", modules->item(1, 1)->text().toStdString());

    // The back end's status: engine, signatures, database age with the hint when it is old or missing.
    QWidget* status = built("kuvProtectionStatusPage");
    auto* database = status->findChild<QLabel*>("kuvProtectionDatabase");
    auto* warning = status->findChild<QLabel*>("kuvProtectionDatabaseWarning");
    EXPECT_EQ("-", database->text().toStdString());
    const long long now = static_cast<long long>(time(nullptr));
    ASSERT_TRUE(m_endpoints[2]->deliver(
        kuvscan::KUV_SCAN_MSG_STATUS,
        R"({"state": "ready", "engine": "libclamav", "engine_version": "1.0.7", "db_version": "27100",)"
        R"( "signatures": 3627451, "pid": )" + std::to_string(getpid()) + R"(, "db_time": )" +
            std::to_string(now - 2 * 86400) + "}"));
    ASSERT_TRUE(shelltest::spinUntil([database] { return database->text().contains("2 day(s) old"); }))
        << database->text().toStdString();
    EXPECT_TRUE(warning->isHidden());
    auto subscribes = [this] {
        const auto sent = m_endpoints[2]->sent();
        return std::count_if(sent.begin(), sent.end(), [](const FakeEndpoint::Sent& x) {
            return x.type == kuvscan::KUV_SCAN_MSG_STATUS_REQUEST;
        });
    };
    const auto subscribedBefore = subscribes();
    // A stand-in for the back end's process, so that its end can be watched.
    const pid_t backend = fork();
    if (backend == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(backend, 0);
    EXPECT_EQ("ClamAV engine (libclamav) 1.0.7",
              status->findChild<QLabel*>("kuvProtectionEngine")->text().toStdString());
    ASSERT_TRUE(m_endpoints[2]->deliver(
        kuvscan::KUV_SCAN_MSG_STATUS,
        R"({"state": "ready", "engine": "libclamav", "signatures": 9, "pid": )" + std::to_string(backend) +
            R"(, "db_time": )" +
            std::to_string(now - 12 * 86400) + R"(, "last_scan": {"job": "j1", "state": "done", "end_time": )" +
            std::to_string(now) + R"(, "files": 4, "infected": 1}})"));
    ASSERT_TRUE(shelltest::spinUntil([warning] { return !warning->isHidden(); }));
    EXPECT_NE(-1, warning->text().indexOf("12 day(s) old")) << warning->text().toStdString();
    EXPECT_NE(-1, warning->text().indexOf("clamav-freshclam"));
    EXPECT_NE(-1, status->findChild<QLabel*>("kuvProtectionLastScan")->text().indexOf("4 file(s), 1 threat(s)"));
    // A back end it had not seen before (another pid): it subscribes again.
    EXPECT_EQ(subscribedBefore + 1, subscribes()) << "resubscribed to the new back end";
    ASSERT_TRUE(m_endpoints[2]->deliver(kuvscan::KUV_SCAN_MSG_STATUS,
                                        R"({"state": "ready", "pid": )" + std::to_string(backend) + "}"));
    ASSERT_TRUE(shelltest::spinUntil([database] { return database->text() == QLatin1String("Not found"); }));
    EXPECT_NE(-1, warning->text().indexOf("No ClamAV signature database was found"));
    // The back end's process ends: the page says so without waiting for any message.
    auto* backendState = status->findChild<QLabel*>("kuvProtectionBackendState");
    EXPECT_EQ(-1, backendState->text().indexOf("Not running"));
    kill(backend, SIGKILL);
    ASSERT_TRUE(shelltest::spinUntil([backendState] {
        return backendState->text().startsWith("Not running (the back end process ended)");
    })) << backendState->text().toStdString();
    waitpid(backend, nullptr, 0);

    // Unloading leaves the bus: receivers unregistered, endpoint uninitialised, nothing delivered after.
    for (const auto& p : kPlugins) {
        CQPluginManager::singleInstance()->unstallPluginAsyn(p.id);
    }
    ASSERT_TRUE(shelltest::spinUntil([] { return CQPluginManager::singleInstance()->pendingUnloads() == 0; }));
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(1, m_endpoints[i]->uninits()) << kPlugins[i].id;
        EXPECT_EQ(kPlugins[i].types, m_endpoints[i]->unregistered()) << kPlugins[i].id;
        EXPECT_FALSE(m_endpoints[i]->deliver(kPlugins[i].type, "{}"));
    }
}

TEST_F(PagesTest, SamplePluginsWorkWithoutABusAndWhenTheirAddressIsRefused)
{
    loadAll(false);
    auto* bus = built("kuvEventViewerPage")->findChild<QLabel*>("kuvEventViewerBus");
    ASSERT_NE(nullptr, bus);
    EXPECT_NE(-1, bus->text().indexOf("Not connected to the message bus"));
    for (const auto& p : kPlugins) {
        CQPluginManager::singleInstance()->unstallPluginAsyn(p.id);
    }
    ASSERT_TRUE(shelltest::spinUntil([] { return CQPluginManager::singleInstance()->pendingUnloads() == 0; }));

    loadAll(true, 7);
    bus = built("kuvEventViewerPage")->findChild<QLabel*>("kuvEventViewerBus");
    EXPECT_NE(-1, bus->text().indexOf("refused the address 11111111-0000-0000-0000-000000003001 (error 7)"))
        << bus->text().toStdString();
    EXPECT_TRUE(m_endpoints[0]->registeredTypes().empty());
}

TEST_F(PagesTest, PluginPagesAreBuiltWhenFirstShownAndKeepWhatArrivedBefore)
{
    loadAll(true);
    ASSERT_TRUE(m_endpoints[0]->deliver(3001, "before the page"));
    ASSERT_TRUE(m_endpoints[1]->deliver(3002, R"({"title": "early", "body": "before the page"})"));
    ASSERT_TRUE(m_endpoints[2]->deliver(3003, R"({"module": "realtime", "state": "on"})"));
    QCoreApplication::processEvents();
    const char* titles[] = {"Security events", "Alerts", "Protection status"};
    for (size_t i = 0; i < 3; ++i) {
        QWidget* host = page(kPlugins[i].pageName);
        ASSERT_NE(nullptr, host) << kPlugins[i].id;
        // Named for the navigation, but not one widget inside yet.
        EXPECT_EQ(titles[i], host->windowTitle().toStdString());
        EXPECT_TRUE(host->findChildren<QWidget*>().isEmpty()) << kPlugins[i].id;
    }
    EXPECT_EQ(0, tablesAlive());

    // Shown once: built from what the plugin kept, and following the bus from then on.
    QWidget* events = page("kuvEventViewerPage");
    events->show();
    auto* table = events->findChild<QTableWidget*>("kuvEventViewerTable");
    ASSERT_NE(nullptr, table);
    EXPECT_TRUE(table->isVisible());
    ASSERT_EQ(1, table->rowCount());
    EXPECT_EQ("before the page", table->item(0, 3)->text().toStdString());
    ASSERT_TRUE(m_endpoints[0]->deliver(3001, "after the page"));
    ASSERT_TRUE(shelltest::spinUntil([table] { return table->rowCount() == 2; }));
    EXPECT_EQ("after the page", table->item(0, 3)->text().toStdString());
    EXPECT_EQ(1, tablesAlive()) << "only the shown page was built";
    events->hide();
    events->show();
    EXPECT_EQ(table, events->findChild<QTableWidget*>("kuvEventViewerTable")) << "built once";

    page("kuvNotifierPage")->show();
    auto* alerts = page("kuvNotifierPage")->findChild<QTableWidget*>("kuvNotifierTable");
    ASSERT_NE(nullptr, alerts);
    ASSERT_EQ(1, alerts->rowCount());
    EXPECT_EQ("early", alerts->item(0, 1)->text().toStdString());
    page("kuvProtectionStatusPage")->show();
    auto* modules = page("kuvProtectionStatusPage")->findChild<QTableWidget*>("kuvProtectionTable");
    ASSERT_NE(nullptr, modules);
    ASSERT_EQ(1, modules->rowCount());
    EXPECT_EQ("Protected", modules->item(0, 1)->text().toStdString());
    for (const auto& p : kPlugins) {
        page(p.pageName)->hide();
    }
}

TEST_F(PagesTest, ScreenshotsOfEveryPageInEnglishAndSimplifiedChinese)
{
    ASSERT_FALSE(QFontDatabase().families(QFontDatabase::SimplifiedChinese).isEmpty())
        << "no font with Simplified Chinese glyphs: install fonts-wqy-microhei (scripts/setup)";
    const char* buildDir = std::getenv("KUV_BUILD_DIR");
    const QString outDir = QString::fromLocal8Bit(buildDir != nullptr ? buildDir : ".") + "/screenshots";
    ASSERT_TRUE(QDir().mkpath(outDir));

    // A running instance as the service would publish it, so the overview has something to show.
    CGlobalTag tag("A5F24530-52D7-11EE-AF47-4B159A309AD8", CGlobalTag::TagConfig::getUserConfig());
    ASSERT_EQ(1, tag.trylock(false));
    tag.setAttribute("pid", std::to_string(getpid()));
    tag.setAttribute("status", "3");
    std::ofstream(m_box.installDir + "VERSION") << "3.2.1.1024\n";
    const std::string maps = m_box.installDir + "etc/plugins-gui/combo_plugin_map/";
    std::ofstream(maps + "monitor.json")
        << R"({"index": 1, "combo": "monitor", "pluginList": [{"id": "eventviewer"}, {"id": "notifier"}]})";
    std::ofstream(maps + "protection.json")
        << R"({"index": 2, "combo": "protection", "pluginList": [{"id": "notifier"}, {"id": "protectionstatus"}]})";

    // Started by the session: the window waits for a request.
    setenv("KUV_START_HIDDEN", "1", 1);
    ASSERT_EQ(0, KuvGuiInterface::init(g_argc, g_argv, sUninstallFunc{nullptr, nullptr}));
    unsetenv("KUV_START_HIDDEN");
    loadAll(true);
    m_endpoints[0]->deliver(3001, R"({"event": "quarantine", "file": "/home/user/Downloads/invoice.pdf.exe"})");
    m_endpoints[0]->deliver(3001, "Real-time protection blocked /tmp/.x/miner");
    m_endpoints[0]->deliver(kuvscan::KUV_SCAN_MSG_EVENT,
                            R"({"time": )" + std::to_string(static_cast<long long>(time(nullptr)) * 1000) +
                                R"(, "kind": "detection", "severity": "critical", "path": "/home/user/Downloads/eicar.com",)"
                                R"( "signature": "Eicar-Test-Signature", "action": "reported", "job": "gui-1-1"})");
    m_endpoints[2]->deliver(kuvscan::KUV_SCAN_MSG_STATUS,
                            R"({"state": "ready", "engine": "libclamav", "engine_version": "1.0.7", "db_version": "27100",)"
                            R"( "signatures": 3627451, "pid": )" + std::to_string(getpid()) + R"(, "db_time": )" +
                                std::to_string(static_cast<long long>(time(nullptr)) - 3 * 3600) + "}");
    m_endpoints[1]->deliver(3002, R"({"title": "Threat blocked", "body": "invoice.pdf.exe was quarantined"})");
    m_endpoints[2]->deliver(3003, R"({"module": "realtime", "state": "on", "detail": "file system monitor"})");
    m_endpoints[2]->deliver(3003, R"({"module": "web", "state": "on", "detail": "browser protection"})");
    m_endpoints[2]->deliver(3003, R"({"module": "firewall", "state": "off", "detail": "disabled by policy"})");
    std::ofstream(m_box.root + "/report.pdf") << "x";
    std::list<std::string> paths{m_box.root + "/report.pdf", m_box.root, "/nonexistent/file name.doc"};
    // Everything has arrived, but until the window is shown neither it nor any plugin page is built.
    QCoreApplication::processEvents();
    const QWidgetList all = QApplication::allWidgets();
    EXPECT_TRUE(std::none_of(all.begin(), all.end(), [](QWidget* w) {
        return w->objectName() == QLatin1String("KuvMainWindow");
    })) << "the main window was built before it was shown";
    EXPECT_EQ(0, tablesAlive());
    for (const auto& p : kPlugins) {
        EXPECT_TRUE(page(p.pageName)->findChildren<QWidget*>().isEmpty()) << p.id;
    }
    KuvGuiInterface::ctrl(GUI_CTR_CONTEXT_MENU_SCAN, &paths);
    KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr);

    QWidget* w = nullptr;
    ASSERT_TRUE(shelltest::spinUntil([&w] {
        w = shelltest::mainWindow();
        return w != nullptr && w->isVisible();
    }));
    shelltest::Nav nav(w);
    auto* stack = w->findChild<QStackedWidget*>("kuvPages");
    ASSERT_TRUE(shelltest::spinUntil([nav] { return nav.count() == 8; }));
    ASSERT_NE(nullptr, shelltest::choosePage(w, "kuvSettingsPage"));
    auto* language = w->findChild<QComboBox*>("kuvLanguage");
    ASSERT_TRUE(shelltest::spinUntil([this] {
        auto* alerts = built("kuvNotifierPage")->findChild<QTableWidget*>("kuvNotifierTable");
        return alerts->rowCount() == 1 && alerts->item(0, 3)->text() != QLatin1String("Sending...");
    }, 60000));

    struct Lang {
        const char* code;
        int comboIndex;
        const char* overviewText;
    };
    const Lang langs[] = {{"en", 0, "Overview"}, {"zh-CN", 1, "概览"}};
    QStringList written;
    for (const Lang& lang : langs) {
        language->setCurrentIndex(lang.comboIndex);
        ASSERT_TRUE(shelltest::spinUntil(
            [nav, &lang] { return nav.text(0) == QString::fromUtf8(lang.overviewText); }))
            << lang.code;
        for (int row = 0; row < nav.count(); ++row) {
            nav.setCurrentRow(row);
            QCoreApplication::processEvents();
            const QString name = stack->currentWidget()->objectName();
            ASSERT_FALSE(name.isEmpty());
            const QString file = QStringLiteral("%1/%2-%3-%4.png")
                                     .arg(outDir, QLatin1String(lang.code))
                                     .arg(row, 2, 10, QLatin1Char('0'))
                                     .arg(name);
            const QImage shot = w->grab().toImage();
            ASSERT_FALSE(shot.isNull());
            ASSERT_TRUE(shot.save(file, "PNG")) << file.toStdString();
            written << file;
        }
        // The plugin pages follow the language too.
        if (QLatin1String(lang.code) == QLatin1String("zh-CN")) {
            EXPECT_EQ("安全事件", nav.text(5).toStdString());
        }
    }
    EXPECT_EQ(16, written.size());
    for (const QString& f : written) {
        EXPECT_GT(QFileInfo(f).size(), 2000) << f.toStdString();
    }
    ConfigModule::Instance()->setString("gui_shell.conf", "language", "");
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // The shell takes this application object over in its init.
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

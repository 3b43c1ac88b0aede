// SPDX-License-Identifier: GPL-2.0-or-later
// The GUI shell, offscreen: control codes from a worker thread, the journal, the quit sequence with
// pending plugin unloads, the window's own quit path and the language.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QAbstractItemView>
#include <QComboBox>
#include <QKeyEvent>
#include <QLabel>
#include <QAbstractButton>
#include <QStackedWidget>
#include <QTextDocument>
#include <QThread>
#include <QTreeWidget>

#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "ConfigModule.h"
#include "CppJson.h"
#include "KuvGuiInterface.h"
#include "PluginInitParas.h"
#include "StoreDb.h"
#include "StorePaths.h"
#include "ShellTestSupport.h"

using shelltest::onGui;
using shelltest::waitOnGui;

namespace {

// A word that is no command: the shell starts without a first-start request of its own.
int g_argc = 2;
char g_arg0[] = "unit_guishell";
char g_arg1[] = "no-command";
char* g_argv[] = {g_arg0, g_arg1, nullptr};

struct UninstallProbe {
    std::atomic<int> calls{0};
    std::atomic<bool> onGuiThread{false};
    std::atomic<int> pendingAfter{-1};
    QStringList toUnload;
};

int uninstallAll(void* ctx)
{
    auto* probe = static_cast<UninstallProbe*>(ctx);
    ++probe->calls;
    probe->onGuiThread = QThread::currentThread() == qApp->thread();
    // What the service does: one asynchronous unload per loaded plugin.
    for (const QString& id : probe->toUnload) {
        CQPluginManager::singleInstance()->unstallPluginAsyn(id);
    }
    probe->pendingAfter = CQPluginManager::singleInstance()->pendingUnloads();
    return 0;
}

class GuiShellTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_PATH, (m_box.root + "/").c_str());
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_NAME, "shell");
        ConfigModule::UninitInstance();
        basegui::Common::setLan("");
    }
    void TearDown() override { CQPluginManager::UninitInstance(); }

    int init() { return KuvGuiInterface::init(g_argc, g_argv, sUninstallFunc{&uninstallAll, &m_probe}); }

    // Describes the fake plugins "a" and "b" (given version) and has the loader read them.
    void describeFakePlugins(const char* version)
    {
        for (const char* id : {"a", "b"}) {
            std::ofstream(m_box.installDir + "etc/plugins-gui/plugins/" + id + ".json")
                << R"({"id": ")" << id << R"(", "library": "fake_good_)" << id
                << R"(.so", "iid": "org.kuv.gui.IKuvGuiPlugin/1.0", "version": ")" << version
                << R"(", "description": "fake"})";
        }
        CQPluginManager* loader = CQPluginManager::singleInstance();
        loader->setPluginRelativeRootPath(QString::fromStdString(FAKE_PLUGIN_DIR));
        loader->setPluginConfigFilePath(QString::fromStdString(m_box.installDir + "etc/plugins-gui/plugins/"));
        ASSERT_EQ(2, loader->loadAllPluginInfo());
    }

    shelltest::Sandbox m_box;
    UninstallProbe m_probe;
};

TEST_F(GuiShellTest, ControlCodesFromAnotherThreadAndTheirJournal)
{
    ASSERT_EQ(0, init());
    std::string existing = m_box.root + "/scan me.txt";
    m_box.writeShellConf("{}");
    { std::ofstream(existing) << "x"; }

    std::atomic<bool> workerOk{false};
    std::thread worker([&] {
        EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr));
        EXPECT_TRUE(waitOnGui([] { return shelltest::mainWindow() && shelltest::mainWindow()->isVisible(); }));
        {
            // The list dies right after the call: the shell must have copied it.
            std::list<std::string> paths{"/a b", existing, "/c"};
            EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_CONTEXT_MENU_SCAN, &paths));
        }
        // No bus in this installation: the job fails at once and the page says why, without hanging.
        EXPECT_TRUE(waitOnGui([] {
            auto* state = shelltest::mainWindow()->findChild<QLabel*>("kuvScanState");
            return state != nullptr && state->text() == QLatin1String("Scan failed: the message bus is not reachable.");
        }));
        onGui([&] {
            QWidget* w = shelltest::mainWindow();
            auto* stack = w->findChild<QStackedWidget*>("kuvPages");
            EXPECT_EQ("kuvScanPage", stack->currentWidget()->objectName().toStdString());
            auto* backend = w->findChild<QLabel*>("kuvScanBackendText");
            EXPECT_NE(-1, backend->text().indexOf("message bus is not reachable")) << backend->text().toStdString();
            EXPECT_EQ(0, w->findChild<QTreeWidget*>("kuvScanResults")->topLevelItemCount());
            EXPECT_EQ(nullptr, w->findChild<QLabel*>("kuvScanEngineNotice"));
        });
        EXPECT_FALSE(KuvGuiInterface::ctrl(GUI_CTR_STOP_BACKEND, nullptr));
        m_box.writeShellConf(R"({"stop_backend_on_quit": true})");
        EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_STOP_BACKEND, nullptr));
        EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr));
        workerOk = true;
    });
    const int rc = KuvGuiInterface::exec();
    worker.join();
    EXPECT_EQ(0, rc);
    EXPECT_TRUE(workerOk);
    EXPECT_EQ(1, m_probe.calls.load());
    EXPECT_TRUE(m_probe.onGuiThread.load());
    // After the loop: no window, requests are refused, code 2 still answers.
    EXPECT_EQ(nullptr, shelltest::mainWindow());
    EXPECT_FALSE(KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr));
    EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_STOP_BACKEND, nullptr));

    auto j = shelltest::readJournal(m_box.journalPath);
    ASSERT_EQ(10u, j.size());
    // The failed job's record comes after its request; the rest are the control lines in order.
    const auto end = std::find_if(j.begin(), j.end(), [](const Json::Value& v) { return v["event"] == "scan-end"; });
    ASSERT_NE(end, j.end());
    EXPECT_EQ("failed", (*end)["state"].asString());
    EXPECT_EQ("message bus not reachable", (*end)["reason"].asString());
    EXPECT_GT(end - j.begin(), 2);
    j.erase(end);
    EXPECT_EQ("init", j[0]["event"].asString());
    EXPECT_EQ(1u, j[0].size());
    EXPECT_EQ("ctrl", j[1]["event"].asString());
    EXPECT_EQ(0, j[1]["code"].asInt());
    EXPECT_EQ(2u, j[1].size());
    EXPECT_EQ(1, j[2]["code"].asInt());
    ASSERT_TRUE(j[2]["paths"].isArray());
    ASSERT_EQ(3u, j[2]["paths"].size());
    EXPECT_EQ("/a b", j[2]["paths"][0].asString());
    EXPECT_EQ(existing, j[2]["paths"][1].asString());
    EXPECT_EQ("/c", j[2]["paths"][2].asString());
    EXPECT_EQ(2, j[3]["code"].asInt());
    EXPECT_FALSE(j[3]["answer"].asBool());
    EXPECT_TRUE(j[3]["answer"].isBool());
    EXPECT_TRUE(j[4]["answer"].asBool());
    EXPECT_EQ(3, j[5]["code"].asInt());
    EXPECT_EQ(2u, j[5].size());
    EXPECT_EQ("exec-end", j[6]["event"].asString());
    EXPECT_EQ(0, j[7]["code"].asInt());
    EXPECT_EQ(2, j[8]["code"].asInt());

    // The lines themselves read as documented: "event" first, then "code", then the rest.
    std::ifstream raw(m_box.journalPath);
    std::vector<std::string> lines;
    for (std::string l; std::getline(raw, l);) {
        if (l.find("\"scan-end\"") == std::string::npos) {
            lines.push_back(l);
        }
    }
    ASSERT_EQ(9u, lines.size());
    EXPECT_EQ("{\"event\":\"init\"}", lines[0]);
    EXPECT_EQ("{\"event\":\"ctrl\",\"code\":0}", lines[1]);
    EXPECT_EQ(0u, lines[2].find("{\"event\":\"ctrl\",\"code\":1,\"paths\":[\"/a b\","));
    EXPECT_EQ("{\"event\":\"ctrl\",\"code\":2,\"answer\":false}", lines[3]);
    EXPECT_EQ("{\"event\":\"exec-end\"}", lines[6]);
}

TEST_F(GuiShellTest, QuitWaitsUntilEveryPendingUnloadIsReported)
{
    ASSERT_NO_FATAL_FAILURE(describeFakePlugins("1"));
    CQPluginManager* loader = CQPluginManager::singleInstance();
    ASSERT_EQ(0, init());
    sPluginInitParas paras;
    loader->installPluginAsyn("a", QVariant::fromValue(paras));
    loader->installPluginAsyn("b", QVariant::fromValue(paras));
    ASSERT_TRUE(shelltest::spinUntil([&] { return loader->loadedPlugins().size() == 2; }));
    // Plugin pages show up in the navigation.
    shelltest::Nav nav(shelltest::mainWindow());
    ASSERT_TRUE(shelltest::spinUntil([&] { return nav.count() == 7; }));
    EXPECT_EQ("Page of fake_good_b", nav.text(6).toStdString());

    // A queued receiver, as the service's endpoint cleanup is: it must run before exec returns.
    std::vector<std::string> cleaned;
    QObject receiver;
    QObject::connect(loader, &CQPluginManager::sig_unstallPluginComplete, &receiver,
                     [&cleaned](QString name, int result) {
                         cleaned.push_back(name.toStdString() + ":" + std::to_string(result));
                     },
                     Qt::QueuedConnection);
    m_probe.toUnload = QStringList{QStringLiteral("b"), QStringLiteral("a")};
    std::thread worker([] { EXPECT_TRUE(KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr)); });
    EXPECT_EQ(0, KuvGuiInterface::exec());
    worker.join();
    EXPECT_EQ(1, m_probe.calls.load());
    EXPECT_EQ(2, m_probe.pendingAfter.load()) << "the unloads were still pending when the shell started waiting";
    EXPECT_EQ((std::vector<std::string>{"b:0", "a:0"}), cleaned);
    EXPECT_EQ(0, loader->pendingUnloads());
    EXPECT_TRUE(loader->loadedPlugins().isEmpty());
    const auto j = shelltest::readJournal(m_box.journalPath);
    ASSERT_FALSE(j.empty());
    EXPECT_EQ("exec-end", j.back()["event"].asString());
}

TEST_F(GuiShellTest, MenuQuitTakesTheSameQuitPathAndClosingOnlyHides)
{
    ASSERT_EQ(0, init());
    QWidget* w = shelltest::mainWindow();
    ASSERT_NE(nullptr, w);
    w->show();
    ASSERT_TRUE(shelltest::spinUntil([w] { return w->isVisible(); }));
    w->close();
    EXPECT_FALSE(w->isVisible());
    QCoreApplication::processEvents();
    EXPECT_EQ(0, m_probe.calls.load()) << "closing the window is not quitting";
    auto* quit = w->findChild<QAction*>("kuvQuitAction");
    ASSERT_NE(nullptr, quit);
    QMetaObject::invokeMethod(quit, [quit] { quit->trigger(); }, Qt::QueuedConnection);
    EXPECT_EQ(0, KuvGuiInterface::exec());
    EXPECT_EQ(1, m_probe.calls.load());
    // A second quit request after the loop ended does nothing.
    EXPECT_FALSE(KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr));
    EXPECT_EQ(1, m_probe.calls.load());
}

TEST_F(GuiShellTest, OnlyTheShownPageIsBuiltUntilAnotherIsChosen)
{
    ASSERT_EQ(0, init());
    QWidget* w = shelltest::mainWindow();
    ASSERT_NE(nullptr, w);
    w->show();
    ASSERT_TRUE(shelltest::spinUntil([w] { return w->isVisible(); }));
    shelltest::Nav nav(w);
    auto* stack = w->findChild<QStackedWidget*>("kuvPages");
    ASSERT_TRUE(nav.valid());
    ASSERT_NE(nullptr, stack);
    const char* const pages[] = {"kuvOverviewPage", "kuvScanPage", "kuvQuarantinePage", "kuvHistoryPage",
                                 "kuvSettingsPage"};
    ASSERT_EQ(5, nav.count()) << "every page has its entry from the start";
    EXPECT_EQ(0, nav.currentRow());
    EXPECT_EQ(1, stack->count());
    EXPECT_EQ(pages[0], stack->currentWidget()->objectName().toStdString());
    EXPECT_TRUE(stack->currentWidget()->isVisible());
    for (int i = 1; i < 5; ++i) {
        EXPECT_EQ(nullptr, w->findChild<QWidget*>(QLatin1String(pages[i]))) << pages[i] << " built before it was chosen";
    }
    // The widgets of those pages do not exist either.
    EXPECT_EQ(nullptr, w->findChild<QLabel*>("kuvScanState"));
    EXPECT_EQ(nullptr, w->findChild<QComboBox*>("kuvLanguage"));

    // Choosing an entry builds its page, once, and shows it; the others stay unbuilt.
    QWidget* built[5] = {stack->currentWidget(), nullptr, nullptr, nullptr, nullptr};
    for (int row = 1; row < 5; ++row) {
        nav.setCurrentRow(row);
        QCoreApplication::processEvents();
        QWidget* page = stack->currentWidget();
        ASSERT_NE(nullptr, page);
        EXPECT_EQ(pages[row], page->objectName().toStdString());
        EXPECT_TRUE(page->isVisible()) << pages[row];
        EXPECT_EQ(row + 1, stack->count());
        for (int later = row + 1; later < 5; ++later) {
            EXPECT_EQ(nullptr, w->findChild<QWidget*>(QLatin1String(pages[later]))) << pages[later];
        }
        built[row] = page;
    }
    EXPECT_NE(nullptr, w->findChild<QLabel*>("kuvScanState"));
    EXPECT_NE(nullptr, w->findChild<QComboBox*>("kuvLanguage"));
    // Going back shows the same pages again, nothing is built twice.
    for (int row = 0; row < 5; ++row) {
        nav.setCurrentRow(row);
        EXPECT_EQ(built[row], stack->currentWidget()) << pages[row];
        EXPECT_TRUE(built[row]->isVisible()) << pages[row];
    }
    EXPECT_EQ(5, stack->count());
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

namespace {
// Item views (lists, trees, tables, their headers) anywhere in the window.
int itemViewsIn(QWidget* w)
{
    return w->findChildren<QAbstractItemView*>().size();
}
} // namespace

TEST_F(GuiShellTest, NoItemViewIsBuiltUntilTheUserAsksForOneAndTheNavigationWorksFromTheKeyboard)
{
    ASSERT_NO_FATAL_FAILURE(describeFakePlugins("7.1"));
    CQPluginManager* loader = CQPluginManager::singleInstance();
    ASSERT_EQ(0, init());
    QWidget* w = shelltest::mainWindow();
    ASSERT_NE(nullptr, w);
    w->show();
    ASSERT_TRUE(shelltest::spinUntil([w] { return w->isVisible(); }));
    sPluginInitParas paras;
    loader->installPluginAsyn("a", QVariant::fromValue(paras));
    loader->installPluginAsyn("b", QVariant::fromValue(paras));
    ASSERT_TRUE(shelltest::spinUntil([&] { return loader->loadedPlugins().size() == 2; }));
    shelltest::Nav nav(w);
    ASSERT_TRUE(shelltest::spinUntil([&] { return nav.count() == 7; }));
    QCoreApplication::processEvents();

    // The shown window (overview, navigation, menu) has no item view, nor anywhere else in the process.
    auto* stack = w->findChild<QStackedWidget*>("kuvPages");
    ASSERT_NE(nullptr, stack);
    EXPECT_EQ("kuvOverviewPage", stack->currentWidget()->objectName().toStdString());
    EXPECT_EQ(0, itemViewsIn(w));
    const QWidgetList all = QApplication::allWidgets();
    EXPECT_TRUE(std::none_of(all.begin(), all.end(), [](QWidget* x) { return qobject_cast<QAbstractItemView*>(x); }));
    EXPECT_EQ(nullptr, w->findChild<QWidget*>("kuvComponents"));
    // The overview shows the instance without them.
    auto* backend = w->findChild<QLabel*>("kuvOverviewBackend");
    ASSERT_NE(nullptr, backend);
    EXPECT_FALSE(backend->text().isEmpty());
    // Nor a text document: the process id becomes selectable once the pointer comes over it.
    EXPECT_TRUE(w->findChildren<QTextDocument*>().isEmpty());
    auto* pid = w->findChild<QLabel*>("kuvOverviewPid");
    ASSERT_NE(nullptr, pid);
    EXPECT_FALSE(pid->textInteractionFlags() & Qt::TextSelectableByMouse);
    QEvent enter(QEvent::Enter);
    QCoreApplication::sendEvent(pid, &enter);
    EXPECT_TRUE(pid->textInteractionFlags() & Qt::TextSelectableByMouse);
    EXPECT_FALSE(w->findChildren<QTextDocument*>().isEmpty());

    // Every entry names itself to assistive technology as it reads.
    for (int row = 0; row < nav.count(); ++row) {
        EXPECT_FALSE(nav.text(row).isEmpty()) << row;
        EXPECT_EQ(nav.text(row), nav.button(row)->accessibleName()) << row;
    }

    // Keyboard: Down chooses the next entry (the scan page, which has a result list), Up the one above,
    // Enter the focused one; the page follows.
    auto key = [](QWidget* target, int code) {
        QKeyEvent press(QEvent::KeyPress, code, Qt::NoModifier);
        QCoreApplication::sendEvent(target, &press);
        QKeyEvent release(QEvent::KeyRelease, code, Qt::NoModifier);
        QCoreApplication::sendEvent(target, &release);
    };
    key(nav.button(0), Qt::Key_Up);
    EXPECT_EQ(0, nav.currentRow()) << "nothing above the first entry";
    key(nav.button(0), Qt::Key_Down);
    EXPECT_EQ(1, nav.currentRow());
    EXPECT_EQ("kuvScanPage", stack->currentWidget()->objectName().toStdString());
    EXPECT_NE(nullptr, w->findChild<QTreeWidget*>("kuvScanResults"));
    EXPECT_GT(itemViewsIn(w), 0) << "the chosen page has its item view";
    key(nav.button(1), Qt::Key_Up);
    EXPECT_EQ(0, nav.currentRow());
    EXPECT_EQ("kuvOverviewPage", stack->currentWidget()->objectName().toStdString());
    key(nav.button(6), Qt::Key_Down);
    EXPECT_EQ(0, nav.currentRow()) << "nothing below the last entry";
    key(nav.button(6), Qt::Key_Return);
    EXPECT_EQ(6, nav.currentRow());
    EXPECT_EQ("Page of fake_good_b", nav.text(6).toStdString());
    key(nav.button(4), Qt::Key_Enter);
    EXPECT_EQ(4, nav.currentRow());
    EXPECT_EQ("kuvSettingsPage", stack->currentWidget()->objectName().toStdString());

    // The components are built when asked for, and list the loaded plugins with their state and version.
    nav.setCurrentRow(0);
    QWidget* overview = stack->currentWidget();
    ASSERT_EQ("kuvOverviewPage", overview->objectName().toStdString());
    EXPECT_EQ(0, itemViewsIn(overview));
    auto* show = overview->findChild<QAbstractButton*>("kuvShowComponents");
    ASSERT_NE(nullptr, show);
    EXPECT_EQ("Show components", show->text().toStdString());
    show->click();
    QCoreApplication::processEvents();
    QWidget* components = overview->findChild<QWidget*>("kuvComponents");
    ASSERT_NE(nullptr, components);
    EXPECT_TRUE(components->isVisible());
    EXPECT_EQ("Hide components", show->text().toStdString());
    auto* plugins = overview->findChild<QTreeWidget*>("kuvPluginList");
    ASSERT_NE(nullptr, plugins);
    ASSERT_NE(nullptr, overview->findChild<QTreeWidget*>("kuvComboList"));
    std::vector<std::string> rows;
    for (int i = 0; i < plugins->topLevelItemCount(); ++i) {
        QTreeWidgetItem* it = plugins->topLevelItem(i);
        rows.push_back(QStringList{it->text(0), it->text(1), it->text(2)}.join('|').toStdString());
    }
    std::sort(rows.begin(), rows.end());
    EXPECT_EQ((std::vector<std::string>{"a|7.1|Loaded", "b|7.1|Loaded"}), rows);
    // Closing hides them and opening again shows the same widgets, kept up to date.
    show->click();
    EXPECT_FALSE(components->isVisible());
    EXPECT_EQ("Show components", show->text().toStdString());
    m_probe.toUnload = QStringList{QStringLiteral("b")};
    loader->unstallPluginAsyn(QStringLiteral("b"));
    ASSERT_TRUE(shelltest::spinUntil([loader] { return loader->pendingUnloads() == 0; }));
    show->click();
    EXPECT_EQ(components, overview->findChild<QWidget*>("kuvComponents"));
    EXPECT_TRUE(components->isVisible());
    ASSERT_TRUE(shelltest::spinUntil([plugins] {
        for (int i = 0; i < plugins->topLevelItemCount(); ++i) {
            if (plugins->topLevelItem(i)->text(0) == QLatin1String("b")) {
                return plugins->topLevelItem(i)->text(2) == QLatin1String("Unloaded");
            }
        }
        return false;
    }));
    EXPECT_EQ(6, nav.count()) << "the unloaded plugin's entry went";

    m_probe.toUnload = QStringList{QStringLiteral("a")};
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

namespace {

// A finished job with this many threats nobody acted on, as the back end records it.
void recordFindings(int infected)
{
    kuv::store::JobRecord j;
    j.job = "job-" + std::to_string(infected);
    j.startMs = kuv::store::nowMs();
    j.state = "done";
    j.files = infected;
    j.infected = infected;
    for (int i = 0; i < infected; ++i) {
        j.findings.push_back({"/home/user/f" + std::to_string(i), "infected", "Eicar-Test-Signature", "", ""});
    }
    std::vector<std::string> notices;
    std::string error;
    ASSERT_TRUE(kuv::store::recordJob(kuv::store::userDataDir(), j, notices, error)) << error;
}

// The protection state line of the window, built now.
std::string stateLine()
{
    QWidget* w = shelltest::mainWindow();
    auto* label = w != nullptr ? w->findChild<QLabel*>("kuvProtectionState") : nullptr;
    return label != nullptr ? label->text().toStdString() : std::string("no state line");
}

} // namespace

TEST_F(GuiShellTest, AttentionAtStartFollowsTheHistoryAndReadsItOnlyWhenItChanged)
{
    basegui::Common::setLan("en");
    ASSERT_NO_FATAL_FAILURE(recordFindings(2));
    ASSERT_EQ(0, init());
    EXPECT_EQ("kuvgui: attention needed - 2 finding(s) waiting for a decision", stateLine());
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());

    // What the start read is kept beside the database with the files' identity. Unchanged files are
    // not read again: a number changed here (and nowhere else) is what the next start shows.
    const std::string summary = kuv::store::userDataDir() + "/history.summary.json";
    Json::Value kept;
    ASSERT_TRUE(CppJson::LoadJsonFile(summary.c_str(), kept));
    EXPECT_EQ(2, kept["pending"].asInt64());
    EXPECT_LT(0, kept["last_job"].asInt64());
    kept["pending"] = 7;
    { std::ofstream(summary) << Json::FastWriter().write(kept); }
    ASSERT_EQ(0, init());
    EXPECT_EQ("kuvgui: attention needed - 7 finding(s) waiting for a decision", stateLine());
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());

    // A database that changed since is read again.
    ASSERT_NO_FATAL_FAILURE(recordFindings(1));
    ASSERT_EQ(0, init());
    EXPECT_EQ("kuvgui: attention needed - 3 finding(s) waiting for a decision", stateLine());
    ASSERT_TRUE(CppJson::LoadJsonFile(summary.c_str(), kept));
    EXPECT_EQ(3, kept["pending"].asInt64());
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

TEST_F(GuiShellTest, AttentionFollowsAJobFinishedWhileRunningAndTheFindingsHandledAfterIt)
{
    basegui::Common::setLan("en");
    ASSERT_EQ(0, init());
    EXPECT_EQ("kuvgui: protected", stateLine());

    // A job with two threats recorded while the shell runs (by the back end; here by the store itself).
    ASSERT_NO_FATAL_FAILURE(recordFindings(2));
    EXPECT_TRUE(shelltest::spinUntil(
        [] { return stateLine() == "kuvgui: attention needed - 2 finding(s) waiting for a decision"; }))
        << stateLine();

    // Deciding about them changes the history without a new job: the state follows all the same.
    {
        std::vector<std::string> notices;
        std::string error;
        std::unique_ptr<kuv::store::StoreDb> db = kuv::store::openUserDb(kuv::store::userDataDir(), notices, error);
        ASSERT_TRUE(db) << error;
        const std::vector<kuv::store::JobRecord> jobs = db->jobs(1);
        ASSERT_EQ(1u, jobs.size());
        EXPECT_TRUE(db->setFindingAction(jobs[0].id, "/home/user/f0", "ignored"));
        EXPECT_TRUE(shelltest::spinUntil(
            [] { return stateLine() == "kuvgui: attention needed - 1 finding(s) waiting for a decision"; }))
            << stateLine();
        EXPECT_TRUE(db->setFindingAction(jobs[0].id, "/home/user/f1", "ignored"));
    }
    EXPECT_TRUE(shelltest::spinUntil([] { return stateLine() == "kuvgui: protected"; })) << stateLine();

    // A second finished job counts again, and so do two more recorded back to back (seen together or not).
    ASSERT_NO_FATAL_FAILURE(recordFindings(1));
    EXPECT_TRUE(shelltest::spinUntil(
        [] { return stateLine() == "kuvgui: attention needed - 1 finding(s) waiting for a decision"; }))
        << stateLine();
    ASSERT_NO_FATAL_FAILURE(recordFindings(3));
    ASSERT_NO_FATAL_FAILURE(recordFindings(4));
    EXPECT_TRUE(shelltest::spinUntil(
        [] { return stateLine() == "kuvgui: attention needed - 8 finding(s) waiting for a decision"; }))
        << stateLine();
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

TEST_F(GuiShellTest, LanguageFromSetLanAndOverriddenByTheSettingsFile)
{
    basegui::Common::setLan("zh-CN");
    ASSERT_EQ(0, init());
    QWidget* w = shelltest::mainWindow();
    EXPECT_EQ("kuvgui - 终端防护", w->windowTitle().toStdString());
    shelltest::Nav nav(w);
    EXPECT_EQ("概览", nav.text(0).toStdString());

    // Chosen in the settings page: saved and applied at once.
    ASSERT_NE(nullptr, shelltest::choosePage(w, "kuvSettingsPage"));
    auto* lang = w->findChild<QComboBox*>("kuvLanguage");
    ASSERT_NE(nullptr, lang);
    lang->setCurrentIndex(0);
    // Translators announce the change with posted events.
    EXPECT_TRUE(shelltest::spinUntil([w] { return w->windowTitle() == QLatin1String("kuvgui - endpoint protection"); }))
        << w->windowTitle().toStdString();
    EXPECT_EQ("Overview", nav.text(0).toStdString());
    // Saved in the user's own settings, not in the installation's.
    Json::Value saved;
    ASSERT_TRUE(CppJson::LoadJsonFile((m_box.userConfDir + "gui_shell.conf").c_str(), saved));
    EXPECT_EQ("en", saved["language"].asString());
    EXPECT_EQ("", ConfigModule::Instance()->getString("gui_shell.conf", "language", ""));
    // "System language" removes the setting: the locale (none here), then setLan, decide again.
    lang->setCurrentIndex(2);
    EXPECT_TRUE(shelltest::spinUntil([w] { return w->windowTitle() == QString::fromUtf8("kuvgui - 终端防护"); }))
        << w->windowTitle().toStdString();
    ASSERT_TRUE(CppJson::LoadJsonFile((m_box.userConfDir + "gui_shell.conf").c_str(), saved));
    EXPECT_FALSE(saved.isMember("language"));
    lang->setCurrentIndex(0);
    EXPECT_TRUE(shelltest::spinUntil([w] { return w->windowTitle() == QLatin1String("kuvgui - endpoint protection"); }));
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());

    // The setting wins over setLan.
    ASSERT_EQ(0, init());
    EXPECT_EQ("kuvgui - endpoint protection", shelltest::mainWindow()->windowTitle().toStdString());
    m_box.writeUserShellConf(R"({"language": "zh-CN"})");
    basegui::Common::setLan("en");
    ASSERT_TRUE(shelltest::spinUntil(
        [] { return shelltest::mainWindow()->windowTitle() == QString::fromUtf8("kuvgui - 终端防护"); }));
    KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
    EXPECT_EQ(0, KuvGuiInterface::exec());
}

TEST(GuiShellNoDisplay, InitFailsInsteadOfAbortingWithoutADisplay)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto initWithoutDisplay = [] {
        setenv("QT_QPA_PLATFORM", "xcb", 1);
        unsetenv("DISPLAY");
        static int argc = 1;
        static char arg0[] = "unit_guishell";
        static char* argv[] = {arg0, nullptr};
        const int rc = KuvGuiInterface::init(argc, argv, sUninstallFunc{nullptr, nullptr});
        std::_Exit(rc != 0 ? 7 : 0);
    };
    EXPECT_EXIT(initWithoutDisplay(), ::testing::ExitedWithCode(7), "");
}

} // namespace

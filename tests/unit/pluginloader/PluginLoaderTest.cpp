// SPDX-License-Identifier: GPL-2.0-or-later
// The plugin loader against real plugin modules: descriptions, load failures, unload signals, order.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QWidget>

#include "CLogDebug.h"
#include "CQPluginManager.h"
#include "IKuvGuiPlugin.h"
#include "PluginInitParas.h"
#include "TempDir.h"

namespace {

bool waitFor(const std::function<bool()>& done, int timeoutMs = 30000)
{
    QElapsedTimer t;
    t.start();
    while (!done()) {
        if (t.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

std::string readFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        return {};
    }
    return f.readAll().toStdString();
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

QVariant paras(void* endpoint)
{
    sPluginInitParas p;
    p.mapParas.insert(QStringLiteral("IZellMREndPoint4"), QVariant::fromValue<void*>(endpoint));
    p.mapParas.insert(QStringLiteral("CGlobalTag"), QVariant::fromValue<void*>(nullptr));
    return QVariant::fromValue(p);
}

class PluginLoaderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_configDir = inDir("plugins");
        ASSERT_TRUE(QDir().mkpath(m_configDir));
        m_trace = inDir("trace.txt");
        qputenv("FAKE_PLUGIN_TRACE", m_trace.toLocal8Bit());
        // Each test has its own log file so its lines can be looked for.
        CLogDebug* log = CLogDebug::Instance();
        log->SetProperty(LOG_PROPERTY_PATH, m_dir.path().c_str());
        log->SetProperty(LOG_PROPERTY_NAME, "loader");
        log->SetProperty(LOG_PROPERTY_LEVEL, "0");
        m_mgr = CQPluginManager::singleInstance();
        m_mgr->setPluginRelativeRootPath(QStringLiteral(FAKE_PLUGIN_DIR));
        m_mgr->setPluginConfigFilePath(m_configDir + "/");
        QObject::connect(m_mgr, &CQPluginManager::sig_unstallPluginComplete, m_mgr,
                         [this](QString name, int result) { m_completions.emplace_back(name.toStdString(), result); });
    }

    void TearDown() override
    {
        CQPluginManager::UninitInstance();
        CLogDebug::Instance()->Flush();
    }

    void describe(const QString& id, const QString& library, const QString& file = QString(),
                  const QString& iid = QString::fromLatin1(KUV_GUI_PLUGIN_IID))
    {
        const QString json = QStringLiteral("{\"id\": \"%1\", \"library\": \"%2\", \"iid\": \"%3\", \"version\": "
                                            "\"1.2.3\", \"guid\": \"11111111-2222-3333-4444-%4\", "
                                            "\"description\": \"test plugin %1\"}")
                                 .arg(id, library, iid, QStringLiteral("%1").arg(qHash(id) % 1000000000000ULL, 12,
                                                                                   10, QLatin1Char('0')));
        writeConfig(file.isEmpty() ? id + ".json" : file, json.toUtf8());
    }

    void writeConfig(const QString& file, const QByteArray& content)
    {
        QFile f(m_configDir + "/" + file);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(content);
    }

    CQPluginManager::PluginStatus status(const QString& id)
    {
        for (const auto& s : m_mgr->pluginStatus()) {
            if (s.id == id) {
                return s;
            }
        }
        CQPluginManager::PluginStatus none;
        none.id = QStringLiteral("<absent>");
        return none;
    }

    // Asks for every id, then waits until each one has loaded or failed.
    bool installAndSettle(const QStringList& ids)
    {
        for (const QString& id : ids) {
            m_mgr->installPluginAsyn(id, paras(nullptr));
        }
        return waitFor([&] { return std::all_of(ids.begin(), ids.end(), [&](const QString& id) { return settled(id); }); });
    }

    bool settled(const QString& id)
    {
        const auto st = status(id).state;
        return st == CQPluginManager::PLUGIN_LOADED || st == CQPluginManager::PLUGIN_FAILED;
    }

    std::string log()
    {
        CLogDebug::Instance()->Flush(); // the process log is staged: flushed, every record is in the file
        return readFile(inDir("loader.log"));
    }
    QString inDir(const char* name) const { return QString::fromStdString(m_dir / name); }
    std::vector<std::string> trace() { return lines(readFile(m_trace)); }

    kuv::test::TempDir m_dir{"kuvloader"};
    QString m_configDir;
    QString m_trace;
    CQPluginManager* m_mgr = nullptr;
    std::vector<std::pair<std::string, int>> m_completions;
};

TEST_F(PluginLoaderTest, ReadsDescriptionsAndSkipsBadFilesWithEscapedPath)
{
    describe("alpha", "fake_good_a.so");
    describe("beta", "fake_good_b.so");
    writeConfig("broken\nname.json", "{ not json");
    writeConfig("noid.json", R"({"library": "fake_good_c.so", "iid": "x"})");
    writeConfig("absolute.json", R"({"id": "abs", "library": "/usr/lib/evil.so", "iid": "x"})");
    writeConfig("updir.json", R"({"id": "up", "library": "../evil.so", "iid": "x"})");
    writeConfig("array.json", "[1, 2]");
    writeConfig("notes.txt", "ignored: not a description");
    ASSERT_TRUE(QFile::link(m_configDir + "/alpha.json", m_configDir + "/link.json"));
    describe("alpha", "fake_good_c.so", "zz-duplicate.json");

    EXPECT_EQ(2, m_mgr->loadAllPluginInfo());
    const auto all = m_mgr->pluginStatus();
    ASSERT_EQ(2, all.size());
    EXPECT_EQ(QStringLiteral("alpha"), all[0].id);
    EXPECT_EQ(QStringLiteral("1.2.3"), all[0].version);
    EXPECT_EQ(QStringLiteral("test plugin alpha"), all[0].description);
    EXPECT_EQ(CQPluginManager::PLUGIN_KNOWN, all[0].state);
    EXPECT_EQ(QStringLiteral("beta"), all[1].id);

    const std::string text = log();
    EXPECT_NE(std::string::npos, text.find("broken\\nname.json] skipped: is not valid JSON")) << text;
    EXPECT_EQ(std::string::npos, text.find("broken\nname")) << "a file name must not split a record";
    EXPECT_NE(std::string::npos, text.find("noid.json] skipped: missing \"id\""));
    EXPECT_NE(std::string::npos, text.find("absolute.json] skipped: \"library\" must be a relative path"));
    EXPECT_NE(std::string::npos, text.find("updir.json] skipped: \"library\" must be a relative path"));
    EXPECT_NE(std::string::npos, text.find("array.json] skipped: is not a JSON object"));
    EXPECT_NE(std::string::npos, text.find("link.json] skipped: is a symbolic link"));
    EXPECT_NE(std::string::npos, text.find("zz-duplicate.json] skipped: id [alpha] already described"));
    EXPECT_EQ(std::string::npos, text.find("notes.txt"));
}

TEST_F(PluginLoaderTest, OversizedDescriptionIsSkipped)
{
    QByteArray big = "{\"id\": \"big\", \"library\": \"fake_good_a.so\", \"iid\": \"x\", \"description\": \"";
    big.append(QByteArray(70 * 1024, 'a'));
    big.append("\"}");
    writeConfig("big.json", big);
    EXPECT_EQ(0, m_mgr->loadAllPluginInfo());
    EXPECT_NE(std::string::npos, log().find("big.json] skipped: is larger than"));
}

TEST_F(PluginLoaderTest, AFifoDescriptionIsSkippedWithoutWaiting)
{
    const QString fifo = m_configDir + "/fifo.json";
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    describe("alpha", "fake_good_c.so", "alpha.json");
    EXPECT_EQ(1, m_mgr->loadAllPluginInfo());
    EXPECT_NE(std::string::npos, log().find("fifo.json] skipped: is not a regular file")) << log();
}

TEST_F(PluginLoaderTest, LoadsOnTheEventLoopAndHandsOverParasWithGuid)
{
    describe("alpha", "fake_good_a.so");
    ASSERT_EQ(1, m_mgr->loadAllPluginInfo());
    int endpointStandIn = 0;
    EXPECT_EQ(0, m_mgr->installPluginAsyn("alpha", paras(&endpointStandIn)));
    // Not loaded before the event loop turns.
    EXPECT_EQ(CQPluginManager::PLUGIN_KNOWN, status("alpha").state);
    EXPECT_TRUE(trace().empty());
    ASSERT_TRUE(waitFor([&] { return settled("alpha"); }));
    const auto s = status("alpha");
    ASSERT_EQ(CQPluginManager::PLUGIN_LOADED, s.state) << s.reason.toStdString();
    EXPECT_EQ(kuv::PluginLoadReason::None, s.reasonCode);
    EXPECT_FALSE(s.page.isNull());
    EXPECT_EQ(QStringLiteral("Page of fake_good_a"), s.pageTitle);
    const auto t = trace();
    ASSERT_EQ(1u, t.size());
    EXPECT_EQ(0u, t[0].find("init fake_good_a thread=gui guid=11111111-2222-3333-4444-")) << t[0];
    EXPECT_NE(std::string::npos, t[0].find("endpoint=set"));
    EXPECT_EQ(QStringList{"alpha"}, m_mgr->loadedPlugins());
    EXPECT_NE(std::string::npos, log().find("plugin [alpha] loaded from"));
}

TEST_F(PluginLoaderTest, AskingAgainForALoadedPluginChangesNothing)
{
    describe("alpha", "fake_good_a.so");
    m_mgr->loadAllPluginInfo();
    m_mgr->installPluginAsyn("alpha", paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return settled("alpha"); }));
    QPointer<QWidget> page = status("alpha").page;
    m_mgr->installPluginAsyn("alpha", paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return log().find("plugin [alpha] is already loaded; request ignored") != std::string::npos; }));
    EXPECT_EQ(1u, trace().size());
    EXPECT_EQ(page, status("alpha").page);
    EXPECT_EQ(CQPluginManager::PLUGIN_LOADED, status("alpha").state);
}

struct FailureCase {
    const char* id;
    const char* library; // nullptr: no description names the id
    const char* iid;
    kuv::PluginLoadReason reason;
    const char* uninitTrace; // the fake whose uninit and deletion must follow its failed init, or nullptr
};

void PrintTo(const FailureCase& c, std::ostream* os)
{
    *os << c.id << " -> " << kuv::pluginLoadReasonName(c.reason);
}

class PluginLoadFailure : public PluginLoaderTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(PluginLoadFailure, IsLoggedMarkedWithItsReasonAndSurvived)
{
    const FailureCase& c = GetParam();
    if (c.library != nullptr) {
        describe(c.id, c.library, QString(), c.iid);
    }
    describe("alpha", "fake_good_a.so");
    m_mgr->loadAllPluginInfo();
    m_mgr->installPluginAsyn(c.id, paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return settled(c.id); })) << c.id;

    const auto s = status(c.id);
    EXPECT_EQ(CQPluginManager::PLUGIN_FAILED, s.state);
    EXPECT_EQ(kuv::pluginLoadReasonName(c.reason), std::string(kuv::pluginLoadReasonName(s.reasonCode)))
        << s.reason.toStdString();
    EXPECT_FALSE(s.reason.isEmpty());
    EXPECT_TRUE(s.page.isNull());
    EXPECT_TRUE(m_mgr->loadedPlugins().isEmpty());
    const std::string line = std::string("plugin [") + c.id + "] failed to load: " + s.reason.toStdString();
    EXPECT_NE(std::string::npos, log().find(line)) << line;
    if (c.uninitTrace != nullptr) {
        // A failed init gets its uninit so it can let go of what it took; the object is deleted.
        const auto t = trace();
        const auto has = [&t](const std::string& l) { return std::find(t.begin(), t.end(), l) != t.end(); };
        EXPECT_TRUE(has(std::string("uninit ") + c.uninitTrace + " thread=gui"));
        EXPECT_TRUE(has(std::string("deleted ") + c.uninitTrace));
    }

    // The process carries on: a good plugin still loads after that.
    m_mgr->installPluginAsyn("alpha", paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return settled("alpha"); }));
    EXPECT_EQ(CQPluginManager::PLUGIN_LOADED, status("alpha").state);
    EXPECT_EQ(kuv::PluginLoadReason::None, status("alpha").reasonCode);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, PluginLoadFailure,
    ::testing::Values(
        FailureCase{"nosuch", nullptr, KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::UnknownId, nullptr},
        FailureCase{"missing", "no_such_plugin.so", KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::NotFound, nullptr},
        FailureCase{"wrongiid", "fake_wrong_iid.so", KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::WrongInterface,
                    nullptr},
        FailureCase{"descriid", "fake_good_c.so", "org.other/1.0", kuv::PluginLoadReason::BadDescription, nullptr},
        FailureCase{"failing", "fake_failing.so", KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::InitFailed,
                    "fake_failing"},
        FailureCase{"throwing", "fake_throwing.so", KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::InitThrew,
                    "fake_throwing"},
        FailureCase{"notplugin", "fake_not_a_plugin.so", KUV_GUI_PLUGIN_IID, kuv::PluginLoadReason::NotAPlugin,
                    nullptr}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.id); });

// The texts beside the codes still say what went wrong in the plugin's own terms.
TEST_F(PluginLoaderTest, FailureTextsNameTheCause)
{
    describe("wrongiid", "fake_wrong_iid.so");
    describe("failing", "fake_failing.so");
    describe("throwing", "fake_throwing.so");
    m_mgr->loadAllPluginInfo();
    ASSERT_TRUE(installAndSettle({"wrongiid", "failing", "throwing"}));
    EXPECT_EQ(QStringLiteral("wrong IID [org.kuv.gui.IKuvGuiPlugin/0.9], expected [%1]").arg(KUV_GUI_PLUGIN_IID),
              status("wrongiid").reason);
    EXPECT_EQ(QStringLiteral("init returned 3"), status("failing").reason);
    EXPECT_EQ(QStringLiteral("plugin threw: init exploded"), status("throwing").reason);
}

TEST_F(PluginLoaderTest, TwoIdsOnOneLibraryDoNotShareAnInstance)
{
    describe("alpha", "fake_good_a.so");
    describe("alias", "fake_good_a.so");
    m_mgr->loadAllPluginInfo();
    ASSERT_TRUE(installAndSettle({"alpha", "alias"}));
    EXPECT_EQ(CQPluginManager::PLUGIN_LOADED, status("alpha").state);
    EXPECT_EQ(CQPluginManager::PLUGIN_FAILED, status("alias").state);
    EXPECT_EQ(kuv::PluginLoadReason::LibraryInUse, status("alias").reasonCode) << status("alias").reason.toStdString();
}

TEST_F(PluginLoaderTest, OneSignalPerUnloadRequestIncludingNeverLoaded)
{
    describe("alpha", "fake_good_a.so");
    describe("failing", "fake_failing.so");
    m_mgr->loadAllPluginInfo();
    ASSERT_TRUE(installAndSettle({"alpha", "failing"}));
    QPointer<QWidget> page = status("alpha").page;
    ASSERT_FALSE(page.isNull());

    EXPECT_EQ(0, m_mgr->unstallPluginAsyn("alpha"));
    EXPECT_EQ(0, m_mgr->unstallPluginAsyn("alpha"));
    EXPECT_EQ(0, m_mgr->unstallPluginAsyn("failing"));
    EXPECT_EQ(0, m_mgr->unstallPluginAsyn("never-described"));
    EXPECT_EQ(4, m_mgr->pendingUnloads());
    EXPECT_TRUE(m_completions.empty()) << "unloads complete later, on the event loop";
    ASSERT_TRUE(waitFor([&] { return m_completions.size() >= 4; }));
    // Let any duplicate show up before counting.
    QCoreApplication::processEvents();
    ASSERT_EQ(4u, m_completions.size());
    EXPECT_EQ(std::make_pair(std::string("alpha"), 0), m_completions[0]);
    EXPECT_EQ("alpha", m_completions[1].first);
    EXPECT_NE(0, m_completions[1].second);
    EXPECT_EQ("failing", m_completions[2].first);
    EXPECT_NE(0, m_completions[2].second);
    EXPECT_EQ("never-described", m_completions[3].first);
    EXPECT_NE(0, m_completions[3].second);
    EXPECT_EQ(0, m_mgr->pendingUnloads());
    EXPECT_TRUE(page.isNull()) << "the page goes with its plugin";
    EXPECT_EQ(CQPluginManager::PLUGIN_UNLOADED, status("alpha").state);
    const auto t = trace();
    ASSERT_GE(t.size(), 3u);
    EXPECT_EQ("uninit fake_good_a thread=gui", t[t.size() - 2]);
    EXPECT_EQ("deleted fake_good_a", t.back());

    // Unloaded code stays mapped; loading again makes a fresh instance.
    m_mgr->installPluginAsyn("alpha", paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return status("alpha").state == CQPluginManager::PLUGIN_LOADED; }));
    EXPECT_FALSE(status("alpha").page.isNull());
}

TEST_F(PluginLoaderTest, UninitThatThrowsStillUnloadsWithNonZeroResult)
{
    describe("grumpy", "fake_uninit_throwing.so");
    m_mgr->loadAllPluginInfo();
    m_mgr->installPluginAsyn("grumpy", paras(nullptr));
    ASSERT_TRUE(waitFor([&] { return settled("grumpy"); }));
    ASSERT_EQ(CQPluginManager::PLUGIN_LOADED, status("grumpy").state);
    m_mgr->unstallPluginAsyn("grumpy");
    ASSERT_TRUE(waitFor([&] { return !m_completions.empty(); }));
    EXPECT_EQ("grumpy", m_completions[0].first);
    EXPECT_NE(0, m_completions[0].second);
    EXPECT_EQ(CQPluginManager::PLUGIN_UNLOADED, status("grumpy").state);
    EXPECT_NE(std::string::npos, log().find("plugin [grumpy]: uninit threw: uninit exploded"));
    EXPECT_EQ("deleted fake_uninit_throwing", trace().back());
}

TEST_F(PluginLoaderTest, UnloadAllGoesInReverseLoadOrder)
{
    describe("a", "fake_good_a.so");
    describe("b", "fake_good_b.so");
    describe("c", "fake_good_c.so");
    m_mgr->loadAllPluginInfo();
    // Load order b, c, a: reverse is a, c, b, whatever the names say.
    m_mgr->installPluginAsyn("b", paras(nullptr));
    m_mgr->installPluginAsyn("c", paras(nullptr));
    m_mgr->installPluginAsyn("a", paras(nullptr));
    EXPECT_EQ(0, m_mgr->unstallAllPlugin()); // queued behind the loads
    EXPECT_GT(m_mgr->pendingUnloads(), 0);
    ASSERT_TRUE(waitFor([&] { return m_completions.size() >= 3 && m_mgr->pendingUnloads() == 0; }));
    QCoreApplication::processEvents();
    ASSERT_EQ(3u, m_completions.size());
    EXPECT_EQ(std::make_pair(std::string("a"), 0), m_completions[0]);
    EXPECT_EQ(std::make_pair(std::string("c"), 0), m_completions[1]);
    EXPECT_EQ(std::make_pair(std::string("b"), 0), m_completions[2]);
    std::vector<std::string> uninits;
    for (const auto& l : trace()) {
        if (l.rfind("uninit ", 0) == 0) {
            uninits.push_back(l);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"uninit fake_good_a thread=gui", "uninit fake_good_c thread=gui",
                                        "uninit fake_good_b thread=gui"}),
              uninits);
    EXPECT_TRUE(m_mgr->loadedPlugins().isEmpty());
}

TEST_F(PluginLoaderTest, RequestsFromOtherThreadsRunOnTheGuiThread)
{
    describe("a", "fake_good_a.so");
    describe("b", "fake_good_b.so");
    m_mgr->loadAllPluginInfo();
    std::atomic<int> queued{0};
    std::vector<std::thread> threads;
    for (const char* id : {"a", "b"}) {
        threads.emplace_back([this, id, &queued] {
            if (m_mgr->installPluginAsyn(id, paras(nullptr)) == 0) {
                ++queued;
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(2, queued.load());
    ASSERT_TRUE(waitFor([&] { return settled("a") && settled("b"); }));
    EXPECT_EQ(CQPluginManager::PLUGIN_LOADED, status("a").state);
    EXPECT_EQ(CQPluginManager::PLUGIN_LOADED, status("b").state);

    threads.clear();
    for (const char* id : {"a", "b", "a"}) {
        threads.emplace_back([this, id] { m_mgr->unstallPluginAsyn(id); });
    }
    for (auto& t : threads) {
        t.join();
    }
    ASSERT_TRUE(waitFor([&] { return m_completions.size() >= 3; }));
    QCoreApplication::processEvents();
    EXPECT_EQ(3u, m_completions.size());
    int ok = 0;
    for (const auto& c : m_completions) {
        ok += c.second == 0 ? 1 : 0;
    }
    EXPECT_EQ(2, ok);
    for (const auto& l : trace()) {
        if (l.rfind("deleted", 0) != 0) {
            EXPECT_NE(std::string::npos, l.find("thread=gui")) << l;
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The installed back end: kuv-zelld, kuv-scand and kuvctl scan from a private copy of the staged installation,
// with a private runtime directory. Run as root, everything runs as nobody (setpriv), so that a file of
// mode 000 really is unreadable.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include <json/json.h>

#include "Harness.h"
#include "RealClamd.h"

using kuvtest::Install;
using kuvtest::Process;
using kuvtest::RunResult;

namespace {

const char* const kScand = "5CA4D0E1-7B2F-4E8A-9C31-0F6B2D8E4A17";
constexpr uid_t kNobody = 65534;

// Built here, never stored: the standard antivirus test file.
std::string eicar()
{
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-" + "TEST-FILE!$H+H*";
}

bool parseJson(const std::string& text, Json::Value& out)
{
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    return Json::parseFromStream(builder, in, &out, &errors);
}

pid_t parentOf(pid_t pid)
{
    std::string stat = kuvtest::readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream rest(stat.substr(close + 2));
    char state = 0;
    int ppid = 0;
    rest >> state >> ppid;
    return ppid;
}

bool alive(pid_t pid)
{
    if (pid <= 0 || ::kill(pid, 0) != 0) {
        return false;
    }
    const std::string stat = kuvtest::readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

class Backend : public ::testing::Test {
protected:
    void SetUp() override
    {
        install = std::make_unique<Install>();
        base = install->runtime.substr(0, install->runtime.rfind('/'));
        scanDir = base + "/scan";
        ::mkdir(scanDir.c_str(), 0755);
        if (geteuid() == 0) {
            // Everything belongs to, and runs as, an ordinary user.
            ASSERT_EQ(std::system(("chown -R 65534:65534 '" + base + "' && chmod 0755 '" + base + "'").c_str()), 0);
        }
    }
    void TearDown() override
    {
        stopAll();
        install.reset();
    }

    std::vector<std::string> as(std::vector<std::string> argv) const
    {
        if (geteuid() == 0) {
            argv.insert(argv.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"});
        }
        return argv;
    }
    RunResult run(const std::vector<std::string>& argv, int timeoutMs = 60000)
    {
        return kuvtest::run(as(argv), install->env(), timeoutMs);
    }
    std::unique_ptr<Process> spawn(const std::vector<std::string>& argv)
    {
        return std::make_unique<Process>(as(argv), install->env());
    }
    // The test's bus client, as the user, from the installation's libraries.
    std::unique_ptr<Process> probe(std::vector<std::string> args)
    {
        const std::string copy = base + "/scand_probe";
        if (::access(copy.c_str(), X_OK) != 0) {
            const char* built = getenv("KUV_SCAND_PROBE");
            EXPECT_NE(built, nullptr);
            EXPECT_EQ(std::system(("cp '" + std::string(built) + "' '" + copy + "'").c_str()), 0);
        }
        args.insert(args.begin(), copy);
        std::vector<std::string> env = install->env();
        env.push_back("KUV_INSTALL_DIR=" + install->dir);
        env.push_back("LD_LIBRARY_PATH=" + install->dir + "lib");
        return std::make_unique<Process>(as(args), env);
    }
    std::string bodyFile(const std::string& name, const std::string& body)
    {
        const std::string path = base + "/" + name;
        kuvtest::writeFile(path, body);
        own(path);
        return path;
    }
    RunResult kuvctl(std::vector<std::string> args, int timeoutMs = 60000)
    {
        args.insert(args.begin(), install->bin("kuvctl"));
        return run(args, timeoutMs);
    }
    std::string lockFile(const std::string& name) const { return install->runtime + "/kuv/" + name; }
    pid_t pidIn(const std::string& lock) const { return static_cast<pid_t>(atoi(kuvtest::readFile(lock).c_str())); }
    pid_t scandPid() const { return pidIn(lockFile("kuv-scand.lock")); }
    std::string scandLog() const { return install->dir + "log/kuv-scand.log"; }
    std::string marker() const { return install->dir + "data/pubcfg/.guiexit"; }

    void startBroker()
    {
        const RunResult r = run({install->bin("kuv-zelld")});
        ASSERT_EQ(r.status, 0) << r.err;
        brokerPid = pidIn(lockFile("kuv_zell.lock"));
    }
    // The back end in the background (supervised); returns once it serves.
    void startScand()
    {
        const RunResult r = run({install->bin("kuv-scand")});
        ASSERT_EQ(r.status, 0) << r.out << r.err;
        const pid_t worker = scandPid();
        ASSERT_TRUE(alive(worker)) << "the lock names the serving process";
        supervisorPid = parentOf(worker);
        ASSERT_TRUE(waitReady()) << kuvtest::readFile(scandLog());
    }
    // Ready: it answers on the bus with its engine loaded.
    bool waitReady()
    {
        return kuvtest::waitUntil(
            [&] {
                const RunResult r = kuvctl({"scan", "--timeout", "2000", "/dev/null"}, 20000);
                return r.status == 0 || r.status == 1 || r.out.find("SKIPPED") != std::string::npos;
            },
            60000, 200);
    }
    void stopAll()
    {
        for (pid_t pid : {supervisorPid, scandPid(), brokerPid}) {
            if (pid > 0 && alive(pid)) {
                ::kill(pid, SIGKILL);
            }
        }
        kuvtest::waitUntil([&] { return !alive(supervisorPid) && !alive(brokerPid); }, 10000);
    }

    // Files from root's point of view are created as root and then handed to nobody.
    void own(const std::string& path)
    {
        if (geteuid() == 0) {
            ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0) << path;
        }
    }
    std::string writeFile(const std::string& name, const std::string& content)
    {
        const std::string path = scanDir + "/" + name;
        kuvtest::writeFile(path, content);
        own(path);
        return path;
    }
    // A tree of files, each folder listed many times over so a scan surely outlasts the test's reaction.
    std::vector<std::string> bigTree()
    {
        const std::string tree = base + "/tree";
        ::mkdir(tree.c_str(), 0755);
        std::string content(2048, 'k');
        for (int d = 0; d < 10; ++d) {
            const std::string dir = tree + "/d" + std::to_string(d);
            ::mkdir(dir.c_str(), 0755);
            for (int f = 0; f < 300; ++f) {
                content[0] = static_cast<char>('a' + f % 26);
                content[1] = static_cast<char>('a' + d);
                kuvtest::writeFile(dir + "/f" + std::to_string(f), content + std::to_string(f));
            }
        }
        if (geteuid() == 0) {
            EXPECT_EQ(std::system(("chown -R 65534:65534 '" + tree + "'").c_str()), 0);
        }
        std::vector<std::string> args = {install->bin("kuvctl"), "scan", "--json"};
        for (int i = 0; i < 60; ++i) {
            args.push_back(tree + "/");
        }
        return args;
    }

    std::unique_ptr<Install> install;
    std::string base;
    std::string scanDir;
    pid_t brokerPid = 0;
    pid_t supervisorPid = 0;
};

} // namespace

TEST_F(Backend, AFolderGivesOneVerdictOfEachKind)
{
    startBroker();
    startScand();
    writeFile("eicar.com", eicar());
    const std::string clean = writeFile("clean\nname.txt", "just text\n");
    const std::string secret = writeFile("secret.txt", "private\n");
    ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
    const std::string fifo = scanDir + "/pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    own(fifo);

    const RunResult r = kuvctl({"scan", "--json", scanDir});
    EXPECT_EQ(r.status, 1) << "something found: " << r.err;
    Json::Value doc;
    ASSERT_TRUE(parseJson(r.out, doc)) << r.out;
    int infected = 0, cleanCount = 0, denied = 0, skipped = 0;
    for (const Json::Value& result : doc["results"]) {
        const std::string verdict = result["verdict"].asString();
        const std::string path = result["path"].asString();
        if (verdict == "infected") {
            ++infected;
            EXPECT_EQ(path, scanDir + "/eicar.com");
            EXPECT_EQ(result["signature"].asString().rfind("Kuv.Test.EICAR", 0), 0u);
        } else if (verdict == "clean") {
            ++cleanCount;
            EXPECT_EQ(path, clean) << "the line feed travels byte for byte";
        } else if (verdict == "error") {
            ++denied;
            EXPECT_EQ(path, secret);
            EXPECT_EQ(result["reason"].asString(), "permission denied");
        } else if (verdict == "skipped") {
            ++skipped;
            EXPECT_EQ(path, fifo);
            EXPECT_EQ(result["reason"].asString(), "fifo");
        }
    }
    EXPECT_EQ(infected, 1);
    EXPECT_EQ(cleanCount, 1);
    EXPECT_EQ(denied, 1);
    EXPECT_EQ(skipped, 1);
    EXPECT_EQ(doc["results"].size(), 4u) << r.out;
    EXPECT_EQ(doc["end"]["state"].asString(), "done");
    EXPECT_EQ(doc["end"]["infected"].asInt(), 1);
    EXPECT_EQ(doc["end"]["errors"].asInt(), 1);
    EXPECT_EQ(doc["end"]["skipped"].asInt(), 1);

    // The plain form: one line per file, the line feed escaped.
    const RunResult plain = kuvctl({"scan", scanDir + "/eicar.com", clean});
    EXPECT_EQ(plain.status, 1);
    EXPECT_NE(plain.out.find(scanDir + "/eicar.com: Kuv.Test.EICAR"), std::string::npos) << plain.out;
    EXPECT_NE(plain.out.find(scanDir + "/clean\\nname.txt: OK\n"), std::string::npos) << plain.out;
    EXPECT_EQ(kuvctl({"scan", clean}).status, 0);
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "found in " + scanDir + "/eicar.com"));
}

TEST_F(Backend, WithoutTheBackEndKuvctlSaysSoAndStartsNothing)
{
    startBroker();
    const RunResult r = kuvctl({"scan", scanDir});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("not running"), std::string::npos) << r.err;
    struct stat st;
    EXPECT_NE(::stat(lockFile("kuv-scand.lock").c_str(), &st), 0) << "no back end was started";
}

TEST_F(Backend, CancelEndsAJobOnALargeTree)
{
    startBroker();
    startScand();
    auto scan = spawn(bigTree());
    ASSERT_TRUE(kuvtest::waitForFileContains(scandLog(), "accepted: 60 path(s)", 30000));
    const auto start = std::chrono::steady_clock::now();
    scan->signal(SIGINT); // kuvctl's Ctrl-C: it sends the cancel and waits for the job end
    ASSERT_TRUE(scan->wait(60000));
    const auto took =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(scan->exitStatus(), 2);
    Json::Value doc;
    ASSERT_TRUE(parseJson(scan->out(), doc)) << scan->out() << scan->err();
    EXPECT_EQ(doc["end"]["state"].asString(), "cancelled");
    EXPECT_LT(took, 2000) << "from Ctrl-C to the job end";
    std::cout << "[ measure  ] cancel to job end, seen by kuvctl: " << took << " ms" << std::endl;
    EXPECT_EQ(kuvctl({"scan", "--json", scanDir}).status, 0) << "and the back end serves on";
}

TEST_F(Backend, AKilledBackEndFailsTheJobAndComesBack)
{
    startBroker();
    startScand();
    auto scan = spawn(bigTree());
    ASSERT_TRUE(kuvtest::waitForFileContains(scandLog(), "accepted: 60 path(s)", 30000));
    const pid_t killed = scandPid();
    ASSERT_EQ(::kill(killed, SIGKILL), 0);
    ASSERT_TRUE(scan->wait(30000)) << "never a hang";
    EXPECT_EQ(scan->exitStatus(), 2);
    EXPECT_NE(scan->err().find("stopped during the scan"), std::string::npos) << scan->err();
    Json::Value doc;
    ASSERT_TRUE(parseJson(scan->out(), doc)) << scan->out();
    EXPECT_EQ(doc["end"]["state"].asString(), "failed");

    ASSERT_TRUE(kuvtest::waitUntil([&] { return scandPid() != killed && alive(scandPid()); }, 30000))
        << "restarted after the crash";
    writeFile("eicar.com", eicar());
    EXPECT_TRUE(kuvtest::waitUntil([&] { return kuvctl({"scan", scanDir}, 30000).status == 1; }, 60000, 500))
        << kuvtest::readFile(scandLog());
}

TEST_F(Backend, ACorruptSignatureFileKeepsThePreviousEngine)
{
    startBroker();
    startScand();
    auto subscriber = probe({"--send", "4007", bodyFile("subscribe.json", "{\"subscribe\":true}"), "--until",
                             "\"kept\"", "--timeout", "60000"});
    ASSERT_TRUE(kuvtest::waitUntil([&] { return subscriber->out().find("type=4008") != std::string::npos; }, 30000))
        << subscriber->err();

    const std::string broken = install->dir + "data/signatures/broken.ndb";
    kuvtest::writeFile(broken, "Broken.Sig:0:*:zz\n");
    own(broken);
    ASSERT_TRUE(subscriber->wait(60000));
    EXPECT_EQ(subscriber->exitStatus(), 0) << "an engine event says the running engine was kept: "
                                           << subscriber->out();
    const std::string out = subscriber->out();
    EXPECT_NE(out.find("type=4009 body="), std::string::npos);
    EXPECT_NE(out.find("\"kind\":\"engine\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"db_error\":\"" + broken), std::string::npos) << "the status says why: " << out;
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "the previous engine stays in use"));
    writeFile("eicar.com", eicar());
    EXPECT_EQ(kuvctl({"scan", scanDir}).status, 1) << "the previous engine still finds it";
}

TEST_F(Backend, AMalformedRequestGetsAnErrorAndTheBackEndServesOn)
{
    startBroker();
    startScand();
    const std::string big = bodyFile("big.json", "{\"job\":\"big\",\"paths\":[\"" + std::string(5 * 1024 * 1024, 'a') + "\"]}");
    auto client = probe({"--send", "4001", bodyFile("bad1.json", "{not json"),                       //
                         "--send", "4001", bodyFile("bad2.json", "{\"job\":\"j\",\"paths\":[]}"),     //
                         "--send", "4001", big,                                                      //
                         "--send", "4006", bodyFile("bad3.json", "{\"job\":\"nope\"}"),               //
                         "--send", "4999", bodyFile("bad4.json", "{}"),                              //
                         "--send", "4007", bodyFile("status.json", "{}"),                            //
                         "--until", "\"pid\"", "--timeout", "30000"});
    ASSERT_TRUE(client->wait(60000));
    EXPECT_EQ(client->exitStatus(), 0) << client->err();
    const std::string out = client->out();
    for (const char* error : {"bad_json", "bad_request", "too_large", "unknown_job", "unknown_type"}) {
        EXPECT_NE(out.find(std::string("\"error\":\"") + error + "\""), std::string::npos) << error << ": " << out;
    }
    EXPECT_EQ(kuvtest::countInFile(scandLog(), "refused"), 5);
    writeFile("eicar.com", eicar());
    EXPECT_EQ(kuvctl({"scan", scanDir}).status, 1) << "it serves on";
}

TEST_F(Backend, TheMarkerStopsTheBackEndAndItsRemovalStartsItAgain)
{
    startBroker();
    startScand();
    const pid_t worker = scandPid();
    kuvtest::writeFile(marker(), "");
    own(marker());
    EXPECT_TRUE(kuvtest::waitUntil([&] { return !alive(worker) && !alive(supervisorPid); }, 30000));
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "stop marker"));
    EXPECT_EQ(kuvctl({"scan", scanDir}).status, 2);

    // While the marker stands, a start does nothing.
    RunResult r = run({install->bin("kuv-scand")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(kuvctl({"scan", scanDir}).status, 2);

    // kuvgui removes the marker as it starts, and its guard brings the back end up.
    auto gui = spawn({install->bin("kuvgui")});
    EXPECT_TRUE(kuvtest::waitUntil([&] { return ::access(marker().c_str(), F_OK) != 0; }, 60000));
    writeFile("eicar.com", eicar());
    EXPECT_TRUE(kuvtest::waitUntil([&] { return kuvctl({"scan", scanDir}, 30000).status == 1; }, 60000, 500))
        << kuvtest::readFile(install->dir + "log/starttaviksd.log");
    supervisorPid = parentOf(scandPid());
    run({install->bin("kuvgui"), "quit"});
    gui->wait(30000);
}

TEST_F(Backend, AnInstallationThatGoesAwayTakesItsBackEndWithIt)
{
    startBroker();
    startScand();
    const pid_t worker = scandPid();
    ASSERT_EQ(std::system(("rm -rf '" + install->dir + "data/pubcfg'").c_str()), 0);
    EXPECT_TRUE(kuvtest::waitUntil([&] { return !alive(worker) && !alive(supervisorPid); }, 30000));
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "pubcfg/ went away"));
}

TEST_F(Backend, ASystemDatabaseThatAppearsLaterIsLoaded)
{
    // The system's database directory does not exist yet, as before freshclam is installed.
    const std::string sysdb = base + "/sysdb";
    kuvtest::writeFile(install->dir + "etc/kuv-scand.conf",
                       "{\"system_db_dir\": \"" + sysdb + "\", \"reload_delay_ms\": 200}\n");
    own(install->dir + "etc/kuv-scand.conf");
    startBroker();
    startScand();
    const std::string marked = writeFile("marked.txt", "kuv later signature test string\n");
    EXPECT_EQ(kuvctl({"scan", marked}).status, 0);

    ASSERT_EQ(::mkdir(sysdb.c_str(), 0755), 0);
    own(sysdb);
    std::string hex;
    for (const char c : std::string("kuv later signature test string")) {
        char two[3];
        snprintf(two, sizeof(two), "%02x", static_cast<unsigned char>(c));
        hex += two;
    }
    kuvtest::writeFile(sysdb + "/later.ndb", "Kuv.Test.Later:0:*:" + hex + "\n");
    own(sysdb + "/later.ndb");
    EXPECT_TRUE(kuvtest::waitUntil([&] { return kuvctl({"scan", marked}).status == 1; }, 30000, 200))
        << kuvtest::readFile(scandLog());
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "the database directory " + sysdb + " appeared"));
    EXPECT_NE(kuvctl({"scan", marked}).out.find("Kuv.Test.Later"), std::string::npos);
}

TEST_F(Backend, AnEndpointListedBeforeTheBackEndStartsGetsItsStatus)
{
    startBroker();
    const std::string listener = "5A1B2C3D-0000-4000-8000-00000000C0DE";
    auto listen = spawn({install->bin("kuvctl"), "bus", "listen", "--guid", listener, "--type", "4008", "--count",
                         "1"});
    ASSERT_TRUE(kuvtest::waitUntil([&] { return listen->err().find("listening") != std::string::npos; }, 30000))
        << listen->err();
    // A line that is no GUID and an endpoint that is not on the bus are passed over.
    const std::string list = install->runtime + "/kuv/scand-subscribers";
    kuvtest::writeFile(list, "not a guid\n0BADF00D-0000-4000-8000-000000000001\n" + listener + "\n");
    ::chmod(list.c_str(), 0600);
    own(list);
    startScand();
    ASSERT_TRUE(listen->wait(30000)) << kuvtest::readFile(scandLog());
    EXPECT_EQ(listen->exitStatus(), 0);
    const std::string out = listen->out();
    EXPECT_NE(out.find("type=4008"), std::string::npos) << out;
    EXPECT_NE(out.find("\"pid\":" + std::to_string(scandPid())), std::string::npos) << out;
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "listed subscriber " + listener + " subscribed"))
        << kuvtest::readFile(scandLog());
}

TEST_F(Backend, ClamdChosenInTheUserSettingsIsUsedWithoutARestart)
{
    kuvclamd::RealClamd clamd;
    startBroker();
    startScand();
    writeFile("eicar.com", eicar());
    // Saved whole and renamed into place, as the settings page does.
    auto saveSettings = [&](const std::string& socket) {
        const std::string dir = install->configHome() + "/kuv";
        const std::string tmp = dir + "/.scan.json.new";
        kuvtest::writeFile(tmp, "{\"use_clamd\": true, \"clamd_socket\": \"" + socket + "\"}\n");
        ::chmod(tmp.c_str(), 0600);
        own(tmp);
        ASSERT_EQ(::rename(tmp.c_str(), (dir + "/scan.json").c_str()), 0);
    };
    auto status = [&] {
        auto asker = probe({"--send", "4007", bodyFile("status.json", "{}"), "--until", "\"pid\"", "--timeout", "30000"});
        EXPECT_TRUE(asker->wait(60000));
        return asker->out();
    };

    // A clamd that cannot be reached leaves the engine as it is, and says why.
    auto watcher = probe({"--send", "4007", bodyFile("subscribe.json", "{\"subscribe\":true}"), "--until",
                          "\"kept\"", "--timeout", "30000"});
    ASSERT_TRUE(kuvtest::waitUntil([&] { return watcher->out().find("type=4008") != std::string::npos; }, 30000));
    saveSettings(base + "/no-clamd.sock");
    ASSERT_TRUE(watcher->wait(60000));
    EXPECT_EQ(watcher->exitStatus(), 0) << watcher->out() << kuvtest::readFile(scandLog());
    EXPECT_NE(watcher->out().find("\"kind\":\"engine\""), std::string::npos) << watcher->out();
    std::string now = status();
    EXPECT_NE(now.find("\"engine\":\"libclamav\""), std::string::npos) << now;
    EXPECT_NE(now.find("no-clamd.sock cannot be used"), std::string::npos) << "db_error says why: " << now;
    EXPECT_EQ(kuvctl({"scan", scanDir}).status, 1);

    watcher = probe({"--send", "4007", bodyFile("subscribe.json", "{\"subscribe\":true}"), "--until",
                     "\"switched\"", "--timeout", "30000"});
    ASSERT_TRUE(kuvtest::waitUntil([&] { return watcher->out().find("type=4008") != std::string::npos; }, 30000));
    saveSettings(clamd.socket());
    ASSERT_TRUE(watcher->wait(60000));
    EXPECT_EQ(watcher->exitStatus(), 0) << watcher->out() << kuvtest::readFile(scandLog());
    now = status();
    EXPECT_NE(now.find("\"engine\":\"clamd\""), std::string::npos) << now;
    EXPECT_NE(now.find("\"db_error\":\"\""), std::string::npos) << now;
    const RunResult r = kuvctl({"scan", scanDir});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.out.find("EICAR"), std::string::npos) << r.out;
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "now scanning with clamd at " + clamd.socket()));
}

// At logout the user's runtime directory is removed: a broker and a back end left behind would serve
// nobody while the next login starts new ones beside them.
TEST_F(Backend, RemovingTheRuntimeDirectoryStopsBrokerAndBackEnd)
{
    startBroker();
    startScand();
    const pid_t worker = scandPid();
    ASSERT_TRUE(alive(brokerPid));
    ASSERT_EQ(std::system(("rm -rf '" + install->runtime + "/kuv'").c_str()), 0);
    EXPECT_TRUE(kuvtest::waitUntil([&] { return !alive(brokerPid); }, 10000)) << "the broker stopped";
    EXPECT_TRUE(kuvtest::waitUntil([&] { return !alive(worker) && !alive(supervisorPid); }, 10000))
        << "the back end and its supervisor stopped";
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "kuv-scand.lock was removed"));
    EXPECT_TRUE(kuvtest::fileContains(install->dir + "log/kuv-zelld.log", "kuv_zell was removed: stopping"));
}

// The back end keeps the user's history open from job to job; a history file deleted or replaced by a
// damaged one while it runs is noticed at the next job, as when the database is opened.
TEST_F(Backend, AHistoryFileDeletedOrReplacedWhileTheBackEndRunsIsStartedAgain)
{
    startBroker();
    startScand();
    const std::string clean = writeFile("clean.txt", "nothing to see here\n");
    const std::string db = install->dataHome() + "/kuv/history.sqlite";
    auto jobsWith = [&](const std::string& path) {
        const RunResult r = kuvctl({"history", "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        Json::Value doc;
        EXPECT_TRUE(parseJson(r.out, doc)) << r.out;
        int total = 0, with = 0;
        for (const Json::Value& j : doc["jobs"]) {
            ++total;
            with += Json::FastWriter().write(j).find(path) != std::string::npos ? 1 : 0;
        }
        return std::make_pair(total, with);
    };
    ASSERT_EQ(kuvctl({"scan", clean}).status, 0);
    ASSERT_EQ(jobsWith(clean).second, 1) << "the job went into the history";

    // Deleted as a person would: the file alone, its log files left where they were.
    ASSERT_EQ(::unlink(db.c_str()), 0);
    ASSERT_EQ(kuvctl({"scan", clean}).status, 0);
    EXPECT_EQ(jobsWith(clean), std::make_pair(1, 1)) << kuvtest::readFile(scandLog());

    // Replaced by a damaged file: kept aside, and the job goes into a new database.
    const std::string damaged = std::string("no database at all ").append(6000, '#');
    const std::string incoming = install->dataHome() + "/kuv/incoming";
    kuvtest::writeFile(incoming, damaged);
    own(incoming);
    ASSERT_EQ(::rename(incoming.c_str(), db.c_str()), 0);
    ASSERT_EQ(kuvctl({"scan", clean}).status, 0);
    EXPECT_TRUE(kuvtest::fileContains(scandLog(), "kept it as " + db + ".corrupt-")) << kuvtest::readFile(scandLog());
    int kept = 0;
    for (const auto& e : std::filesystem::directory_iterator(install->dataHome() + "/kuv")) {
        const std::string name = e.path().filename().string();
        if (name.rfind("history.sqlite.corrupt-", 0) == 0 && name.find("-wal") == std::string::npos &&
            name.find("-shm") == std::string::npos) {
            ++kept;
            EXPECT_EQ(kuvtest::readFile(e.path().string()), damaged);
        }
    }
    EXPECT_EQ(kept, 1);
    EXPECT_EQ(jobsWith(clean), std::make_pair(1, 1));
    EXPECT_EQ(kuvctl({"scan", clean}).status, 0);
    EXPECT_EQ(jobsWith(clean), std::make_pair(2, 2)) << "and the back end records on";
}

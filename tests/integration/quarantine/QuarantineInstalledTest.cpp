// SPDX-License-Identifier: GPL-2.0-or-later
// The installed kuvctl on the user's quarantine and history: an EICAR file round-trips with its path,
// mode, times and content; same names stay apart; restore never overwrites; kuvctl killed between
// the steps of a move never loses the file; a damaged database is kept aside; history persists.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <json/json.h>

#include "Harness.h"
#include "StoreDb.h"
#include "UniqueFd.h"

using kuvtest::Install;
using kuvtest::RunResult;

namespace {

// Built at run time so that no file of the project carries it whole.
std::string eicar()
{
    std::string s = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$";
    s += "EICAR";
    s += "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    return s;
}

bool exists(const std::string& p)
{
    struct stat st {};
    return lstat(p.c_str(), &st) == 0;
}

std::vector<std::string> listDir(const std::string& dir)
{
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    while (d != nullptr) {
        struct dirent* e = readdir(d);
        if (e == nullptr) {
            break;
        }
        const std::string n = e->d_name;
        if (n != "." && n != "..") {
            out.push_back(n);
        }
    }
    if (d != nullptr) {
        closedir(d);
    }
    return out;
}

Json::Value parse(const std::string& text)
{
    Json::Value v;
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    std::string errs;
    r->parse(text.data(), text.data() + text.size(), &v, &errs);
    return v;
}

std::string findProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::string p = path != nullptr ? path : "/usr/bin:/bin";
    size_t i = 0;
    while (i <= p.size()) {
        const size_t j = p.find(':', i) == std::string::npos ? p.size() : p.find(':', i);
        const std::string cand = p.substr(i, j - i) + "/" + name;
        if (access(cand.c_str(), X_OK) == 0) {
            return cand;
        }
        i = j + 1;
    }
    return std::string();
}

class QuarantineInstalled : public ::testing::Test {
public:
    void SetUp() override
    {
        inst = std::make_unique<Install>();
        files = std::make_unique<kuvtest::TempDir>("kuvfiles");
    }
    RunResult kuvctl(std::vector<std::string> args, const std::vector<std::string>& extraEnv = {})
    {
        args.insert(args.begin(), inst->bin("kuvctl"));
        std::vector<std::string> env = inst->env();
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return kuvtest::run(args, env, 60000);
    }
    std::string qdir() const { return inst->dataHome() + "/kuv/quarantine"; }
    Json::Value list()
    {
        const RunResult r = kuvctl({"quarantine", "list", "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        return parse(r.out)["entries"];
    }
    std::string add(const std::string& path, const std::string& signature = "Eicar-Test-Signature")
    {
        const RunResult r = kuvctl({"quarantine", "add", path, "--signature", signature, "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        return parse(r.out)["id"].asString();
    }
    void makeFile(const std::string& path, const std::string& content, mode_t mode)
    {
        kuvtest::writeFile(path, content);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        const struct timespec t[2] = {{1500000000, 111111111}, {1600000000, 222222222}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0);
    }

    std::unique_ptr<Install> inst;
    std::unique_ptr<kuvtest::TempDir> files;
};

TEST_F(QuarantineInstalled, EicarRoundTripsPathModeTimesAndContentAndIsNeutralisedInBetween)
{
    const std::string path = files->path() + "/eicar test.com";
    makeFile(path, eicar(), 0640);
    const std::string id = add(path);
    ASSERT_EQ(id.size(), 32u);
    EXPECT_FALSE(exists(path));

    struct stat st {};
    ASSERT_EQ(stat(qdir().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    const std::string stored = qdir() + "/" + id + ".kq";
    ASSERT_EQ(stat(stored.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "stored files are never executable";
    const std::string raw = kuvtest::readFile(stored);
    EXPECT_EQ(raw.find("EICAR"), std::string::npos);
    EXPECT_EQ(raw.find("X5O!P%@AP"), std::string::npos);

    // Another scanner does not take the stored file for what it was.
    const std::string clamscan = findProgram("clamscan");
    if (!clamscan.empty()) {
        kuvtest::TempDir db("kuvsigs");
        std::string hex;
        for (unsigned char c : std::string("EICAR-STANDARD-ANTIVIRUS")) {
            char b[3];
            snprintf(b, sizeof b, "%02x", c);
            hex += b;
        }
        kuvtest::writeFile(db.path() + "/test.ndb", "Kuv.Test.Eicar:0:*:" + hex + "\n");
        const std::string probe = files->path() + "/probe.com";
        kuvtest::writeFile(probe, eicar());
        const RunResult onOriginal = kuvtest::run({clamscan, "--no-summary", "-d", db.path(), probe}, {}, 120000);
        EXPECT_EQ(onOriginal.status, 1) << onOriginal.out << onOriginal.err;
        const RunResult onStore = kuvtest::run({clamscan, "--no-summary", "-r", "-d", db.path(), qdir()}, {}, 120000);
        EXPECT_EQ(onStore.status, 0) << onStore.out << onStore.err;
        unlink(probe.c_str());
    }

    const Json::Value entries = list();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["path"].asString(), path);
    EXPECT_EQ(entries[0]["mode"].asUInt(), 0640u);
    EXPECT_EQ(entries[0]["size"].asUInt64(), eicar().size());
    EXPECT_EQ(entries[0]["signature"].asString(), "Eicar-Test-Signature");
    EXPECT_EQ(entries[0]["sha256"].asString(), "275a021bbfb6489e54d471899f7db9d1663fc695ec2fe2a2c4538aabf651fd0f");
    EXPECT_EQ(entries[0]["mtime_ns"].asInt64(), 1600000000222222222LL);

    const RunResult r = kuvctl({"quarantine", "restore", id});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1600000000);
    EXPECT_EQ(st.st_mtim.tv_nsec, 222222222);
    EXPECT_EQ(st.st_atim.tv_sec, 1500000000);
    EXPECT_EQ(st.st_atim.tv_nsec, 111111111);
    EXPECT_EQ(kuvtest::readFile(path), eicar());
    EXPECT_EQ(list().size(), 0u);
    EXPECT_FALSE(exists(stored));
}

TEST_F(QuarantineInstalled, SameNamesStayApartAndRestoreNeverOverwrites)
{
    const std::string path = files->path() + "/report.exe";
    makeFile(path, "first " + eicar(), 0755);
    const std::string a = add(path);
    makeFile(path, "second " + eicar(), 0700);
    const std::string b = add(path);
    ASSERT_NE(a, b);
    EXPECT_EQ(list().size(), 2u);

    kuvtest::writeFile(path, "the user's own file");
    RunResult r = kuvctl({"quarantine", "restore", a});
    EXPECT_EQ(r.status, 4) << r.out << r.err;
    EXPECT_NE(r.err.find("--beside"), std::string::npos) << r.err;
    EXPECT_EQ(kuvtest::readFile(path), "the user's own file");
    EXPECT_EQ(list().size(), 2u);

    r = kuvctl({"quarantine", "restore", a, "--beside", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(parse(r.out)["restored"].asString(), path + ".restored");
    EXPECT_EQ(kuvtest::readFile(path + ".restored"), "first " + eicar());
    r = kuvctl({"quarantine", "restore", b, "--beside"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(kuvtest::readFile(path + ".restored-2"), "second " + eicar());
    EXPECT_EQ(kuvtest::readFile(path), "the user's own file");

    EXPECT_EQ(kuvctl({"quarantine", "restore", a}).status, 3);
    EXPECT_EQ(kuvctl({"quarantine", "delete", "0123456789abcdef0123456789abcdef"}).status, 3);
    EXPECT_EQ(kuvctl({"quarantine", "frobnicate"}).status, 2);
    const std::string c = add(path);
    EXPECT_EQ(kuvctl({"quarantine", "delete", c}).status, 0);
    EXPECT_EQ(list().size(), 0u);
    EXPECT_FALSE(exists(path));
}

// kuvctl is killed at step n of a quarantine (1..7) or a restore (11..14); the file must be where it
// was or complete in the quarantine, and the next kuvctl finishes or undoes what was cut short.
void crashCase(QuarantineInstalled& t, const std::string& dir, int n)
{
    SCOPED_TRACE("step " + std::to_string(n) + " in " + dir);
    const std::string path = dir + "/victim-" + std::to_string(n) + ".exe";
    const std::string content = eicar() + std::string(200000, 'z');
    t.makeFile(path, content, 0750);
    if (n > 10) {
        ASSERT_FALSE(t.add(path).empty());
    }
    const std::string crash = "KUV_QUARANTINE_CRASH_AT=" + std::to_string(n);
    RunResult r;
    if (n > 10) {
        const Json::Value entries = t.list();
        ASSERT_EQ(entries.size(), 1u);
        r = t.kuvctl({"quarantine", "restore", entries[0]["id"].asString()}, {crash});
    } else {
        r = t.kuvctl({"quarantine", "add", path}, {crash});
    }
    ASSERT_EQ(r.signal, SIGKILL) << "status " << r.status << " " << r.err;

    bool stored = false;
    for (const std::string& name : listDir(t.qdir())) {
        stored = stored || name.find(".kq") != std::string::npos || name.find(".raw") != std::string::npos;
    }
    const bool inPlace = exists(path) && kuvtest::readFile(path) == content;
    EXPECT_TRUE(inPlace || stored) << "the file is neither where it was nor in the quarantine";

    const Json::Value entries = t.list(); // opening the store finishes or undoes the operation
    for (const std::string& name : listDir(t.qdir())) {
        EXPECT_TRUE(name == ".lock" || name.find(".kq") == 32) << "left over: " << name;
    }
    for (const std::string& name : listDir(dir)) {
        EXPECT_EQ(name.find(".kuv-restore-"), std::string::npos) << "left over: " << name;
    }
    if (exists(path)) {
        EXPECT_EQ(entries.size(), 0u);
        EXPECT_EQ(kuvtest::readFile(path), content);
        ASSERT_FALSE(t.add(path).empty());
    } else {
        ASSERT_EQ(entries.size(), 1u) << "the file was lost";
    }
    const Json::Value again = t.list();
    ASSERT_EQ(again.size(), 1u);
    r = t.kuvctl({"quarantine", "restore", again[0]["id"].asString()});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(kuvtest::readFile(path), content);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1600000000);
    unlink(path.c_str());
}

TEST_F(QuarantineInstalled, KilledBetweenTheStepsOnTheSameFileSystem)
{
    for (int n : {1, 2, 3, 4, 5, 6, 7, 11, 12, 13, 14}) {
        crashCase(*this, files->path(), n);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(QuarantineInstalled, KilledBetweenTheStepsAcrossFileSystems)
{
    std::unique_ptr<kuvtest::TempDir> shm;
    try {
        shm = std::make_unique<kuvtest::TempDir>("kuvq", "/dev/shm");
    } catch (const std::runtime_error&) {
        GTEST_SKIP() << "no /dev/shm for a second file system";
    }
    const std::string dir = shm->path();
    struct stat a {}, b {};
    stat(dir.c_str(), &a);
    stat(files->path().c_str(), &b);
    if (a.st_dev != b.st_dev) {
        for (int n : {1, 3, 4, 5, 6, 7, 11, 12, 13, 14}) {
            crashCase(*this, dir, n);
            if (HasFatalFailure()) {
                break;
            }
        }
    }
    for (const std::string& n : listDir(dir)) {
        unlink((dir + "/" + n).c_str());
    }
    rmdir(dir.c_str());
    if (a.st_dev == b.st_dev) {
        GTEST_SKIP() << "/dev/shm is on the same file system as the temporary folder here";
    }
}

TEST_F(QuarantineInstalled, DamagedDatabaseIsKeptAsideAndTheToolGoesOn)
{
    const std::string path = files->path() + "/x.exe";
    makeFile(path, eicar(), 0644);
    const std::string id = add(path);
    const std::string db = inst->dataHome() + "/kuv/history.sqlite";
    kuvtest::writeFile(db, std::string("definitely not SQLite ") + std::string(5000, '#'));
    unlink((db + "-wal").c_str());
    unlink((db + "-shm").c_str());

    RunResult r = kuvctl({"quarantine", "list", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("kept it as " + db + ".corrupt-"), std::string::npos) << r.err;
    const Json::Value entries = parse(r.out)["entries"];
    ASSERT_EQ(entries.size(), 1u) << "the index is rebuilt from the stored files";
    EXPECT_EQ(entries[0]["id"].asString(), id);
    int aside = 0;
    for (const std::string& n : listDir(inst->dataHome() + "/kuv")) {
        aside += n.rfind("history.sqlite.corrupt-", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(aside, 1);
    r = kuvctl({"history", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(parse(r.out)["jobs"].size(), 0u);
    EXPECT_EQ(kuvctl({"quarantine", "restore", id}).status, 0);
    EXPECT_EQ(kuvtest::readFile(path), eicar());

    // A database from a newer version is kept aside the same way.
    const std::string sqlite = findProgram("sqlite3");
    if (!sqlite.empty()) {
        ASSERT_EQ(kuvtest::run({sqlite, db, "PRAGMA user_version=7;"}).status, 0);
        r = kuvctl({"history"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.err.find("newer version"), std::string::npos) << r.err;
    }
}

TEST_F(QuarantineInstalled, HistorySurvivesARestartAndIsPrunedByTheRetentionSetting)
{
    // Recorded the way the back end records a finished job, by another process than the readers.
    setenv("XDG_DATA_HOME", inst->dataHome().c_str(), 1);
    setenv("XDG_CONFIG_HOME", inst->configHome().c_str(), 1);
    kuv::store::JobRecord old;
    old.job = "old";
    old.startMs = kuv::store::nowMs() - 40LL * 86400000;
    old.state = "done";
    kuv::store::JobRecord j;
    j.job = "job-1";
    j.startMs = kuv::store::nowMs() - 5000;
    j.durationMs = 1234;
    j.state = "done";
    j.paths = {files->path(), std::string("/tmp/\xff-not-utf8")};
    j.files = 3;
    j.infected = 1;
    j.findings.push_back({files->path() + "/bad.com", "infected", "Eicar-Test-Signature", "", "quarantined 1"});
    std::vector<std::string> notices;
    std::string error;
    ASSERT_TRUE(kuv::store::recordJob(inst->dataHome() + "/kuv", old, notices, error)) << error;
    ASSERT_TRUE(kuv::store::recordJob(inst->dataHome() + "/kuv", j, notices, error)) << error;

    RunResult r = kuvctl({"history", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    Json::Value jobs = parse(r.out)["jobs"];
    ASSERT_EQ(jobs.size(), 2u);
    EXPECT_EQ(jobs[0]["job"].asString(), "job-1");
    EXPECT_EQ(jobs[0]["paths"][1]["b64"].asString(), "L3RtcC//LW5vdC11dGY4");
    r = kuvctl({"history", std::to_string(j.id), "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json::Value one = parse(r.out);
    ASSERT_EQ(one["findings"].size(), 1u);
    EXPECT_EQ(one["findings"][0]["signature"].asString(), "Eicar-Test-Signature");
    EXPECT_EQ(one["duration_ms"].asInt64(), 1234);
    r = kuvctl({"history"});
    EXPECT_NE(r.out.find("1 found"), std::string::npos) << r.out;
    EXPECT_EQ(kuvctl({"history", "99999"}).status, 3);

    // Retention: 30 days drops the 40-day-old job at the next read.
    mkdir(inst->configHome().c_str(), 0700);
    mkdir((inst->configHome() + "/kuv").c_str(), 0700);
    kuvtest::writeFile(inst->configHome() + "/kuv/scan.json", R"({"history_days": 30})");
    jobs = parse(kuvctl({"history", "--json"}).out)["jobs"];
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0]["job"].asString(), "job-1");
}

} // namespace

namespace {

bool alive(pid_t pid)
{
    if (pid <= 0 || ::kill(pid, 0) != 0) {
        return false;
    }
    const std::string stat = kuvtest::readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

pid_t parentOf(pid_t pid)
{
    const std::string stat = kuvtest::readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    int ppid = 0;
    char state = 0;
    std::sscanf(stat.c_str() + close + 2, "%c %d", &state, &ppid);
    return ppid;
}

// The broker and the back end of the installation, stopped (killed) when it goes.
class BackEnd {
public:
    explicit BackEnd(QuarantineInstalled& t) : m_t(t) {}
    ~BackEnd() { stop(); }
    std::string start()
    {
        if (m_broker <= 0) {
            const RunResult r = kuvtest::run({m_t.inst->bin("kuv-zelld")}, m_t.inst->env(), 60000);
            if (r.status != 0) {
                return "kuv-zelld: " + r.err;
            }
            m_broker = pid("kuv_zell.lock");
        }
        const RunResult r = kuvtest::run({m_t.inst->bin("kuv-scand")}, m_t.inst->env(), 60000);
        if (r.status != 0) {
            return "kuv-scand: " + r.out + r.err;
        }
        m_worker = pid("kuv-scand.lock");
        m_supervisor = parentOf(m_worker);
        const bool ready = kuvtest::waitUntil(
            [&] {
                const RunResult s = m_t.kuvctl({"scan", "--timeout", "2000", "/dev/null"});
                return s.status == 0 || s.status == 1;
            },
            60000, 200);
        return ready ? std::string() : "kuv-scand does not answer: " + kuvtest::readFile(m_t.inst->dir + "log/kuv-scand.log");
    }
    void stopScand()
    {
        for (pid_t p : {m_supervisor, m_worker}) {
            if (alive(p)) {
                ::kill(p, SIGKILL);
            }
        }
        kuvtest::waitUntil([&] { return !alive(m_supervisor) && !alive(m_worker); }, 20000);
        // A process reported dead may still hold the lock for a moment (its last descriptor closes late
        // under the sanitizers); the next start must find it free.
        kuvtest::waitUntil([&] { return lockFree("kuv-scand.lock"); }, 20000);
    }
    void stop()
    {
        stopScand();
        if (alive(m_broker)) {
            ::kill(m_broker, SIGKILL);
            kuvtest::waitUntil([&] { return !alive(m_broker); }, 20000);
        }
    }

private:
    bool lockFree(const std::string& lock) const
    {
        const kuv::UniqueFd fd(::open((m_t.inst->runtime + "/kuv/" + lock).c_str(), O_RDONLY | O_CLOEXEC));
        return !fd.valid() || ::flock(fd.get(), LOCK_EX | LOCK_NB) == 0;
    }
    pid_t pid(const std::string& lock) const
    {
        return static_cast<pid_t>(std::atoi(kuvtest::readFile(m_t.inst->runtime + "/kuv/" + lock).c_str()));
    }
    QuarantineInstalled& m_t;
    pid_t m_broker = 0;
    pid_t m_worker = 0;
    pid_t m_supervisor = 0;
};

} // namespace

TEST_F(QuarantineInstalled, ScanWithQuarantineThroughTheBackEndAndItsHistoryAfterARestart)
{
    if (access(inst->bin("kuv-scand").c_str(), X_OK) != 0) {
        GTEST_SKIP() << "this installation has no back end kuv-scand";
    }
    BackEnd backend(*this);
    ASSERT_EQ(backend.start(), "");
    const std::string dir = files->path() + "/scan";
    mkdir(dir.c_str(), 0755);
    const std::string bad = dir + "/eicar.com";
    makeFile(bad, eicar(), 0644);
    kuvtest::writeFile(dir + "/clean.txt", "nothing here\n");

    RunResult r = kuvctl({"scan", "--json", "--quarantine", dir});
    ASSERT_EQ(r.status, 1) << r.out << r.err;
    const Json::Value doc = parse(r.out);
    bool quarantined = false;
    for (const Json::Value& res : doc["results"]) {
        quarantined = quarantined || (res["path"].asString() == bad && res["verdict"].asString() == "quarantined");
    }
    EXPECT_TRUE(quarantined) << r.out;
    EXPECT_FALSE(exists(bad));
    Json::Value entries = list();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0]["path"].asString(), bad);
    EXPECT_EQ(entries[0]["job"].asString(), doc["job"].asString());

    // A scan without --quarantine leaves what it finds where it is.
    makeFile(dir + "/second.com", eicar(), 0644);
    r = kuvctl({"scan", dir});
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_TRUE(exists(dir + "/second.com"));

    // The back end goes and comes back: the history is still there.
    backend.stopScand();
    ASSERT_EQ(backend.start(), "");
    r = kuvctl({"history", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json::Value jobs = parse(r.out)["jobs"];
    const Json::Value* first = nullptr;
    for (const Json::Value& j : jobs) {
        if (j["job"].asString() == doc["job"].asString()) {
            first = &j;
        }
    }
    ASSERT_NE(first, nullptr) << r.out;
    EXPECT_EQ((*first)["state"].asString(), "done");
    EXPECT_EQ((*first)["paths"][0].asString(), dir);
    EXPECT_GE((*first)["files"].asInt(), 2);
    EXPECT_EQ((*first)["infected"].asInt(), 1);
    r = kuvctl({"history", std::to_string((*first)["id"].asInt64()), "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json::Value one = parse(r.out);
    ASSERT_GE(one["findings"].size(), 1u);
    EXPECT_EQ(one["findings"][0]["verdict"].asString(), "quarantined");
    EXPECT_EQ(one["findings"][0]["action"].asString(), "quarantined " + entries[0]["id"].asString());
    EXPECT_EQ(list().size(), 1u);
}

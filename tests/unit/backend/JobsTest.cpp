// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <map>
#include <set>
#include <thread>

#include "TempDir.h"
#include "Jobs.h"
#include "KuvScanProtocol.h"
#include "ScanPaths.h"

using kuv::scand::JobManager;
using kuv::scand::ScanRequest;

namespace {

// Verdicts from the file's first word: VIRUS, LIMIT, FAIL, SLOW (waits for the cancel), else clean.
class ScriptedEngine : public kuv::scan::IScanEngine {
public:
    kuv::scan::ScanResult scanFd(int fd, const std::string&, const kuv::scan::ScanLimits&,
                                 const std::atomic<bool>* cancel) override
    {
        char buffer[16] = {0};
        const ssize_t n = pread(fd, buffer, sizeof(buffer) - 1, 0);
        const std::string word(buffer, n > 0 ? static_cast<size_t>(n) : 0);
        kuv::scan::ScanResult r;
        r.bytesScanned = word.size();
        if (word.rfind("SLOW", 0) == 0) {
            for (int i = 0; i < 1000 && !(cancel && cancel->load()); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (cancel && cancel->load()) {
                r.reason = "cancelled";
                return r;
            }
        }
        if (word.rfind("VIRUS", 0) == 0) {
            r.verdict = kuv::scan::Verdict::Infected;
            r.signature = "Test.Sig";
        } else if (word.rfind("LIMIT", 0) == 0) {
            r.verdict = kuv::scan::Verdict::Partial;
            r.reason = "not fully scanned: MaxScanSize";
        } else if (word.rfind("FAIL", 0) == 0) {
            r.reason = "engine: broken";
        } else {
            r.verdict = kuv::scan::Verdict::Clean;
        }
        return r;
    }
    kuv::scan::EngineInfo info() const override { return {}; }
};

struct Message {
    std::string to;
    int64_t type;
    Json::Value body;
};

class Recorder : public kuv::scand::IJobReporter {
public:
    bool toRequester(const std::string& requester, int64_t type, const Json::Value& body) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back({requester, type, body});
        cv.notify_all();
        return gone.count(requester) == 0;
    }
    void event(const Json::Value& e) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(e);
    }
    void jobsChanged() override {}

    // Waits for the job end of job; false after 30 s.
    bool waitEnd(const std::string& job, Json::Value* end = nullptr)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(30), [&] {
            for (const Message& m : messages) {
                if (m.type == kuvscan::KUV_SCAN_MSG_JOB_END && m.body["job"].asString() == job) {
                    if (end) {
                        *end = m.body;
                    }
                    return true;
                }
            }
            return false;
        });
    }
    bool waitType(int64_t type, const std::string& job)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(30), [&] {
            for (const Message& m : messages) {
                if (m.type == type && m.body["job"].asString() == job) {
                    return true;
                }
            }
            return false;
        });
    }
    std::vector<Message> of(const std::string& job)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<Message> out;
        for (const Message& m : messages) {
            if (m.body["job"].asString() == job) {
                out.push_back(m);
            }
        }
        return out;
    }

    std::mutex mutex;
    std::condition_variable cv;
    std::vector<Message> messages;
    std::vector<Json::Value> events;
    std::set<std::string> gone;
};

class Tree {
public:
    Tree() : dir("kuvjobs"), root(dir.path()) {}
    std::string file(const std::string& name, const std::string& content)
    {
        std::ofstream(root + "/" + name) << content;
        return root + "/" + name;
    }
    kuv::test::TempDir dir;
    std::string root;
};

ScanRequest request(const std::string& job, std::vector<std::string> paths, bool reportClean = true)
{
    ScanRequest r;
    r.job = job;
    r.paths = std::move(paths);
    r.options.reportClean = reportClean;
    return r;
}

std::map<std::string, std::string> verdicts(const std::vector<Message>& messages)
{
    std::map<std::string, std::string> out;
    for (const Message& m : messages) {
        if (m.type == kuvscan::KUV_SCAN_MSG_RESULTS) {
            for (const Json::Value& r : m.body["results"]) {
                std::string path;
                kuvscan::pathFromJson(r["path"], path);
                out[path] = r["verdict"].asString() + (r["reason"].asString().empty() ? "" : ":" + r["reason"].asString());
            }
        }
    }
    return out;
}

} // namespace

TEST(Jobs, OneJobReportsEveryVerdictAndEndsLast)
{
    Tree t;
    const std::string virus = t.file("v", "VIRUS");
    const std::string clean = t.file("c", "hello");
    const std::string limit = t.file("l", "LIMIT");
    const std::string fail = t.file("f", "FAIL");
    ASSERT_EQ(mkfifo((t.root + "/p").c_str(), 0600), 0);
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 2);
    jobs.setEngineReady();
    ASSERT_EQ(jobs.submit(request("j1", {t.root}), "R"), JobManager::Submit::Accepted);
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("j1", &end));
    jobs.stop("test over");
    const auto messages = rec.of("j1");
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages.front().type, kuvscan::KUV_SCAN_MSG_ACCEPTED);
    EXPECT_EQ(messages.front().body["position"].asInt(), 0);
    EXPECT_EQ(messages.back().type, kuvscan::KUV_SCAN_MSG_JOB_END);
    EXPECT_EQ(end["state"].asString(), "done");
    EXPECT_EQ(end["files"].asUInt64(), 2u);
    EXPECT_EQ(end["infected"].asUInt64(), 1u);
    EXPECT_EQ(end["partial"].asUInt64(), 1u);
    EXPECT_EQ(end["errors"].asUInt64(), 1u);
    EXPECT_EQ(end["skipped"].asUInt64(), 1u);
    auto v = verdicts(messages);
    EXPECT_EQ(v[virus], "infected");
    EXPECT_EQ(v[clean], "clean");
    EXPECT_EQ(v[limit], "partial:not fully scanned: MaxScanSize");
    EXPECT_EQ(v[fail], "error:engine: broken");
    EXPECT_EQ(v[t.root + "/p"], "skipped:fifo");
    bool progress = false;
    for (const Message& m : messages) {
        if (m.type == kuvscan::KUV_SCAN_MSG_PROGRESS) {
            progress = true;
            EXPECT_EQ(m.to, "R");
        }
    }
    EXPECT_TRUE(progress);
    std::lock_guard<std::mutex> lock(rec.mutex);
    ASSERT_FALSE(rec.events.empty());
    EXPECT_EQ(rec.events.front()["kind"].asString(), "detection");
    EXPECT_EQ(rec.events.front()["signature"].asString(), "Test.Sig");
}

TEST(Jobs, CleanVerdictsOnlyWhenAskedFor)
{
    Tree t;
    t.file("c", "hello");
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 1);
    jobs.setEngineReady();
    jobs.submit(request("quiet", {t.root}, false), "R");
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("quiet", &end));
    EXPECT_EQ(end["files"].asUInt64(), 1u);
    EXPECT_TRUE(verdicts(rec.of("quiet")).empty());
}

TEST(Jobs, ASecondRequestWaitsAndRunsAfterTheFirst)
{
    Tree t;
    const std::string slow = t.file("slow", "SLOW");
    const std::string quick = t.file("quick", "hello");
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 2);
    // Both are queued before the engine is ready, so the second surely waits behind the first.
    jobs.submit(request("first", {slow}), "A");
    EXPECT_EQ(jobs.submit(request("second", {quick}), "B"), JobManager::Submit::Accepted);
    EXPECT_EQ(jobs.submit(request("second", {quick}), "B"), JobManager::Submit::Duplicate);
    EXPECT_EQ(jobs.queued(), 2);
    jobs.setEngineReady();
    ASSERT_TRUE(rec.waitType(kuvscan::KUV_SCAN_MSG_PROGRESS, "first"));
    ASSERT_TRUE(jobs.cancel("first"));
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("first", &end));
    EXPECT_EQ(end["state"].asString(), "cancelled");
    ASSERT_TRUE(rec.waitEnd("second", &end));
    EXPECT_EQ(end["state"].asString(), "done");
    const auto second = rec.of("second");
    EXPECT_EQ(second.front().body["position"].asInt(), 1);
    // The second job's reports come after the first job's end.
    std::lock_guard<std::mutex> lock(rec.mutex);
    size_t firstEnd = 0, secondProgress = 0;
    for (size_t i = 0; i < rec.messages.size(); ++i) {
        const Message& m = rec.messages[i];
        if (m.type == kuvscan::KUV_SCAN_MSG_JOB_END && m.body["job"] == "first") {
            firstEnd = i;
        }
        if (m.type == kuvscan::KUV_SCAN_MSG_PROGRESS && m.body["job"] == "second" && secondProgress == 0) {
            secondProgress = i;
        }
    }
    EXPECT_LT(firstEnd, secondProgress);
}

TEST(Jobs, CancelEndsARunningScanAtOnce)
{
    Tree t;
    for (int i = 0; i < 4; ++i) {
        t.file("slow" + std::to_string(i), "SLOW");
    }
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 2);
    jobs.setEngineReady();
    jobs.submit(request("c", {t.root}), "R");
    ASSERT_TRUE(rec.waitType(kuvscan::KUV_SCAN_MSG_PROGRESS, "c"));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(jobs.cancel("c"));
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("c", &end));
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_EQ(end["state"].asString(), "cancelled");
    EXPECT_EQ(rec.of("c").back().type, kuvscan::KUV_SCAN_MSG_JOB_END);
    EXPECT_LT(took.count(), 5000) << "the scan waits for the cancel, not for its 5 s";
    EXPECT_FALSE(jobs.cancel("c")) << "an ended job is unknown";
}

TEST(Jobs, CancelOfAQueuedJobAndStop)
{
    Tree t;
    const std::string slow = t.file("slow", "SLOW");
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 1);
    jobs.setEngineReady();
    jobs.submit(request("run", {slow}), "R");
    ASSERT_TRUE(rec.waitType(kuvscan::KUV_SCAN_MSG_PROGRESS, "run"));
    jobs.submit(request("wait1", {slow}), "R");
    jobs.submit(request("wait2", {slow}), "R");
    ASSERT_TRUE(jobs.cancel("wait1"));
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("wait1", &end));
    EXPECT_EQ(end["state"].asString(), "cancelled");
    EXPECT_EQ(rec.of("wait1").size(), 2u) << "accepted and the end, nothing else";
    jobs.stop("the back end is stopping");
    ASSERT_TRUE(rec.waitEnd("run", &end));
    EXPECT_EQ(end["state"].asString(), "failed");
    EXPECT_EQ(end["reason"].asString(), "the back end is stopping");
    ASSERT_TRUE(rec.waitEnd("wait2", &end));
    EXPECT_EQ(end["state"].asString(), "failed");
    EXPECT_EQ(jobs.submit(request("late", {slow}), "R"), JobManager::Submit::Stopping);
}

TEST(Jobs, ARequesterThatLeftGetsNothingMoreAndTheNextJobRuns)
{
    Tree t;
    const std::string slow = t.file("slow", "SLOW");
    const std::string quick = t.file("quick", "x");
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 1);
    jobs.setEngineReady();
    {
        std::lock_guard<std::mutex> lock(rec.mutex);
        rec.gone.insert("Gone");
    }
    jobs.submit(request("orphan", {slow}), "Gone");
    jobs.submit(request("next", {quick}), "R");
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("next", &end));
    EXPECT_EQ(end["state"].asString(), "done");
    for (const Message& m : rec.of("orphan")) {
        EXPECT_NE(m.type, kuvscan::KUV_SCAN_MSG_JOB_END);
    }
}

TEST(Jobs, NoEngineFailsTheJob)
{
    Tree t;
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 1);
    jobs.setEngineCheck([] { return std::string("no signature database is loaded"); });
    jobs.setEngineReady();
    jobs.submit(request("j", {t.root}), "R");
    Json::Value end;
    ASSERT_TRUE(rec.waitEnd("j", &end));
    EXPECT_EQ(end["state"].asString(), "failed");
    EXPECT_EQ(end["reason"].asString(), "no signature database is loaded");
}

// Many jobs from several requesters, back to back and some cancelled while queued: each is walked in
// full by the one walker thread (its own files, not the job before's) and ends once.
TEST(Jobs, ManyJobsFromSeveralThreadsAreEachWalkedAndEnded)
{
    Tree t;
    constexpr int kThreads = 4;
    constexpr int kEach = 15;
    for (int r = 0; r < kThreads; ++r) {
        for (int i = 0; i < 3; ++i) {
            t.file("r" + std::to_string(r) + "-" + std::to_string(i), i == 0 ? "VIRUS" : "fine");
        }
    }
    ScriptedEngine engine;
    Recorder rec;
    JobManager jobs(engine, rec, 2);
    jobs.setEngineReady();
    std::vector<std::thread> threads;
    for (int r = 0; r < kThreads; ++r) {
        threads.emplace_back([&, r]() {
            const std::string prefix = t.root + "/r" + std::to_string(r) + "-";
            for (int i = 0; i < kEach; ++i) {
                const std::string job = "r" + std::to_string(r) + "j" + std::to_string(i);
                const std::string requester = "R" + std::to_string(r);
                EXPECT_EQ(jobs.submit(request(job, {prefix + "0", prefix + "1", prefix + "2", prefix + "gone"}),
                                      requester),
                          JobManager::Submit::Accepted);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    for (int r = 0; r < kThreads; ++r) {
        for (int i = 0; i < kEach; ++i) {
            const std::string job = "r" + std::to_string(r) + "j" + std::to_string(i);
            Json::Value end;
            ASSERT_TRUE(rec.waitEnd(job, &end)) << job;
            EXPECT_EQ(end["state"].asString(), "done") << job;
            EXPECT_EQ(end["files"].asUInt64(), 3u) << job;
            EXPECT_EQ(end["infected"].asUInt64(), 1u) << job;
            EXPECT_EQ(end["errors"].asUInt64(), 1u) << job;
            const auto got = verdicts(rec.of(job));
            ASSERT_EQ(got.size(), 4u) << job;
            const std::string prefix = t.root + "/r" + std::to_string(r) + "-";
            EXPECT_EQ(got.at(prefix + "0"), "infected") << job;
            EXPECT_EQ(got.at(prefix + "1"), "clean") << job;
            int ends = 0;
            for (const Message& m : rec.of(job)) {
                ends += m.type == kuvscan::KUV_SCAN_MSG_JOB_END ? 1 : 0;
            }
            EXPECT_EQ(ends, 1) << job;
        }
    }
    // The runner lets go of the last job just after its end went out.
    for (int i = 0; i < 3000 && jobs.running() != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(jobs.running(), 0);
    EXPECT_EQ(jobs.queued(), 0);
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <thread>
#include <vector>

#include <json/json.h>

#include "Harness.h"
#include "JobLog.h"
#include "KuvScanProtocol.h"
#include "Quarantine.h"
#include "ScanPaths.h"

using namespace kuv::store;

namespace {

Json::Value result(const std::string& path, const char* verdict, const char* signature, const char* reason = "")
{
    Json::Value r(Json::objectValue);
    r["path"] = kuvscan::pathToJson(path);
    r["verdict"] = verdict;
    r["signature"] = signature;
    r["reason"] = reason;
    return r;
}

} // namespace

TEST(JobLog, JobsGoIntoTheHistoryAndFindingsIntoTheQuarantineWhenAsked)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/data/kuv";
    const std::string bad = dir.path() + std::string("/bad \xff.com");
    const std::string gone = dir.path() + "/gone.com";
    kuvtest::writeFile(bad, "payload");
    JobLog log(data);
    log.started("j1", {dir.path()}, true);
    Json::Value body(Json::objectValue);
    body["job"] = "j1";
    body["results"].append(result(bad, "infected", "Eicar-Test-Signature"));
    body["results"].append(result(gone, "infected", "Eicar-Test-Signature"));
    body["results"].append(result(dir.path() + "/ok.txt", "clean", ""));
    body["results"].append(result(dir.path() + "/locked", "error", "", "permission denied"));
    log.results("j1", body);
    EXPECT_EQ(body["results"][0]["verdict"].asString(), "quarantined");
    EXPECT_EQ(body["results"][1]["verdict"].asString(), "infected");
    EXPECT_EQ(body["results"][1]["reason"].asString().rfind("not quarantined: ", 0), 0u);
    struct stat st {};
    EXPECT_NE(lstat(bad.c_str(), &st), 0);

    Json::Value end(Json::objectValue);
    end["job"] = "j1";
    end["state"] = "done";
    end["files"] = 4;
    end["infected"] = 2;
    end["errors"] = 1;
    end["duration_ms"] = 777;
    std::string error;
    ASSERT_TRUE(log.ended("j1", end, &error)) << error;
    EXPECT_FALSE(log.ended("j1", end));

    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store) << error;
    const auto entries = store->list();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].originalPath, bad);
    EXPECT_EQ(entries[0].job, "j1");
    const auto jobs = store->db().jobs();
    ASSERT_EQ(jobs.size(), 1u);
    JobRecord j;
    ASSERT_TRUE(store->db().job(jobs[0].id, j));
    EXPECT_EQ(j.job, "j1");
    EXPECT_EQ(j.durationMs, 777);
    EXPECT_EQ(j.files, 4);
    EXPECT_EQ(j.infected, 2);
    ASSERT_EQ(j.paths.size(), 1u);
    ASSERT_EQ(j.findings.size(), 3u); // clean verdicts are not findings
    EXPECT_EQ(j.findings[0].verdict, "quarantined");
    EXPECT_EQ(j.findings[0].action, "quarantined " + entries[0].id);
    EXPECT_EQ(j.findings[1].verdict, "infected");
    EXPECT_EQ(j.findings[2].reason, "permission denied");
    EXPECT_EQ(store->db().pendingFindings(), 1);
}

TEST(JobLog, WithoutQuarantineFilesStayAndUnknownJobsAreIgnored)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/data/kuv";
    kuvtest::writeFile(dir.path() + "/x.com", "payload");
    JobLog log(data);
    log.started("j2", {dir.path()}, false);
    Json::Value body(Json::objectValue);
    body["results"].append(result(dir.path() + "/x.com", "infected", "S"));
    Json::Value stray = body;
    log.results("unknown", stray);
    log.results("j2", body);
    EXPECT_EQ(body["results"][0]["verdict"].asString(), "infected");
    EXPECT_EQ(kuvtest::readFile(dir.path() + "/x.com"), "payload");
    Json::Value end(Json::objectValue);
    end["state"] = "cancelled";
    ASSERT_TRUE(log.ended("j2", end));
    std::string error;
    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store);
    EXPECT_TRUE(store->list().empty());
    ASSERT_EQ(store->db().jobs().size(), 1u);
    EXPECT_EQ(store->db().jobs()[0].state, "cancelled");
}

TEST(JobLog, JobsFromSeveralThreadsAtOnce)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/data/kuv";
    JobLog log(data);
    constexpr int kJobs = 4;
    for (int t = 0; t < kJobs; ++t) {
        const std::string d = dir.path() + "/d" + std::to_string(t);
        mkdir(d.c_str(), 0700);
        for (int i = 0; i < 5; ++i) {
            kuvtest::writeFile(d + "/f" + std::to_string(i), "payload " + std::to_string(i));
        }
        log.started("t" + std::to_string(t), {d}, t % 2 == 0);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < kJobs; ++t) {
        threads.emplace_back([&log, &dir, t]() {
            const std::string job = "t" + std::to_string(t);
            const std::string d = dir.path() + "/d" + std::to_string(t);
            for (int i = 0; i < 5; ++i) {
                Json::Value body(Json::objectValue);
                body["results"].append(result(d + "/f" + std::to_string(i), "infected", "S"));
                log.results(job, body);
            }
            Json::Value end(Json::objectValue);
            end["state"] = "done";
            end["infected"] = 5;
            EXPECT_TRUE(log.ended(job, end));
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    std::string error;
    auto store = QuarantineStore::open(data, error);
    ASSERT_TRUE(store) << error;
    // What a finding that was not quarantined says about why.
    std::string why;
    for (const JobRecord& listed : store->db().jobs()) {
        JobRecord job;
        if (store->db().job(listed.id, job)) {
            for (const FindingRecord& f : job.findings) {
                if (!f.reason.empty()) {
                    why += job.job + " " + f.path + ": " + f.reason + "\n";
                }
            }
        }
    }
    for (const std::string& notice : log.takeNotices()) {
        why += "notice: " + notice + "\n";
    }
    EXPECT_EQ(store->list().size(), 10u) << why; // the jobs that asked for it: t0 and t2
    EXPECT_EQ(store->db().jobs().size(), size_t(kJobs));
    EXPECT_EQ(store->db().pendingFindings(), 10) << why;
}

// A new database opened by several openers at once (the job log's quarantine and a job's record, or the
// back end and the shell): every one of them gets it.
TEST(JobLog, ANewDatabaseOpenedFromSeveralThreadsAtOnceOpensForAll)
{
    constexpr int kOpeners = 6;
    for (int round = 0; round < 30; ++round) {
        kuvtest::TempDir dir;
        const std::string path = dir.path() + "/history.sqlite";
        std::atomic<int> ready{0};
        std::atomic<int> opened{0};
        std::vector<std::string> errors(kOpeners);
        std::vector<std::thread> threads;
        for (int t = 0; t < kOpeners; ++t) {
            threads.emplace_back([&, t]() {
                ready.fetch_add(1);
                while (ready.load() < kOpeners) {
                    std::this_thread::yield(); // all start together
                }
                std::vector<std::string> notices;
                if (StoreDb::open(path, notices, errors[t])) {
                    opened.fetch_add(1);
                }
            });
        }
        for (auto& th : threads) {
            th.join();
        }
        std::string why;
        for (const std::string& e : errors) {
            why += e.empty() ? std::string() : e + "\n";
        }
        ASSERT_EQ(opened.load(), kOpeners) << why;
    }
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The back end's history connection: kept open from job to job, and started again when its file goes.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "Harness.h"
#include "HistoryDb.h"
#include "JobLog.h"

using namespace kuv::store;

namespace {

JobRecord jobNamed(const std::string& name, int64_t startMs = nowMs())
{
    JobRecord j;
    j.job = name;
    j.startMs = startMs;
    j.durationMs = 5;
    j.state = "done";
    j.paths = {"/a b", "/c"};
    j.errors = 2;
    j.findings.push_back({"/a b", "error", "", "No such file or directory", ""});
    j.findings.push_back({"/c", "error", "", "No such file or directory", ""});
    return j;
}

// The names of the jobs in the database at path, oldest first; opened by a connection of its own.
std::vector<std::string> jobsIn(const std::string& path)
{
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(path, notices, error);
    EXPECT_TRUE(db) << error;
    std::vector<std::string> names;
    if (db) {
        for (const JobRecord& j : db->jobs(100000)) {
            names.insert(names.begin(), j.job);
        }
    }
    return names;
}

// A job as the back end has it go through its job log: started, then ended with its JOB_END body.
void endJob(JobLog& log, const std::string& job)
{
    log.started(job, {"/a b", "/c"}, false);
    Json::Value end(Json::objectValue);
    end["job"] = job;
    end["state"] = "done";
    end["errors"] = 2;
    std::string error;
    EXPECT_TRUE(log.ended(job, end, &error)) << job << ": " << error;
}

const std::string kGarbage = "this was a history database once, and now it is just some bytes\n";

} // namespace

TEST(HistoryDb, OneConnectionServesManyJobs)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    HistoryDb history(data);
    for (int i = 0; i < 50; ++i) {
        JobRecord j = jobNamed("j" + std::to_string(i));
        std::vector<std::string> notices;
        std::string error;
        ASSERT_TRUE(history.record(j, notices, error)) << error;
        EXPECT_TRUE(notices.empty());
        EXPECT_EQ(j.id, i + 1);
    }
    EXPECT_EQ(history.opens(), 1) << "opened (and checked) once, not for every job";
    EXPECT_EQ(jobsIn(data + "/history.sqlite").size(), 50u);
}

TEST(HistoryDb, ManyJobsFromSeveralThreadsAllLand)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    HistoryDb history(data);
    constexpr int kThreads = 6;
    constexpr int kEach = 40;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&history, t]() {
            for (int i = 0; i < kEach; ++i) {
                JobRecord j = jobNamed("t" + std::to_string(t) + "-" + std::to_string(i));
                std::vector<std::string> notices;
                std::string error;
                EXPECT_TRUE(history.record(j, notices, error)) << error;
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(history.opens(), 1);
    std::vector<std::string> names = jobsIn(data + "/history.sqlite");
    ASSERT_EQ(names.size(), size_t(kThreads * kEach));
    std::sort(names.begin(), names.end());
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kEach; ++i) {
            const std::string want = "t" + std::to_string(t) + "-" + std::to_string(i);
            EXPECT_TRUE(std::binary_search(names.begin(), names.end(), want)) << want;
        }
    }
    // Each job with all of its findings.
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(data + "/history.sqlite", notices, error);
    ASSERT_TRUE(db) << error;
    for (const JobRecord& listed : db->jobs(100000)) {
        JobRecord j;
        ASSERT_TRUE(db->job(listed.id, j));
        EXPECT_EQ(j.findings.size(), 2u) << j.job;
        EXPECT_EQ(j.paths.size(), 2u) << j.job;
    }
}

TEST(HistoryDb, AFileRenamedAwayKeepsWhatItHadAndTheNextJobStartsANewOne)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    const std::string path = data + "/history.sqlite";
    HistoryDb history(data);
    std::vector<std::string> notices;
    std::string error;
    JobRecord j1 = jobNamed("before");
    ASSERT_TRUE(history.record(j1, notices, error)) << error;
    ASSERT_EQ(::rename(path.c_str(), (data + "/moved.sqlite").c_str()), 0);
    JobRecord j2 = jobNamed("after");
    ASSERT_TRUE(history.record(j2, notices, error)) << error;
    EXPECT_EQ(history.opens(), 2);
    EXPECT_EQ(jobsIn(path), std::vector<std::string>{"after"});
    EXPECT_EQ(jobsIn(data + "/moved.sqlite"), std::vector<std::string>{"before"})
        << "the old connection put its log back into its own file";
}

TEST(HistoryDb, TheWholeDataFolderRemovedIsMadeAgain)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    HistoryDb history(data);
    std::vector<std::string> notices;
    std::string error;
    JobRecord j1 = jobNamed("before");
    ASSERT_TRUE(history.record(j1, notices, error)) << error;
    std::filesystem::remove_all(data);
    JobRecord j2 = jobNamed("after");
    ASSERT_TRUE(history.record(j2, notices, error)) << error;
    EXPECT_EQ(jobsIn(data + "/history.sqlite"), std::vector<std::string>{"after"});
    struct stat st {};
    ASSERT_EQ(::stat(data.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(HistoryDb, OldHistoryGoesWhenTheDatabaseIsOpenedNotWithEveryJob)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    const int64_t longAgo = nowMs() - 400LL * 86400000; // past the default retention of 90 days
    {
        HistoryDb history(data);
        std::vector<std::string> notices;
        std::string error;
        JobRecord old = jobNamed("old", longAgo);
        ASSERT_TRUE(history.record(old, notices, error)) << error;
        EXPECT_TRUE(jobsIn(data + "/history.sqlite").empty()) << "pruned as the database was opened";
        JobRecord older = jobNamed("older", longAgo);
        ASSERT_TRUE(history.record(older, notices, error)) << error;
        EXPECT_EQ(jobsIn(data + "/history.sqlite"), std::vector<std::string>{"older"}) << "not pruned per job";
    }
    HistoryDb again(data);
    std::vector<std::string> notices;
    std::string error;
    JobRecord fresh = jobNamed("fresh");
    ASSERT_TRUE(again.record(fresh, notices, error)) << error;
    EXPECT_EQ(jobsIn(data + "/history.sqlite"), std::vector<std::string>{"fresh"});
}

// The back end's job log, with its history file deleted while it runs: the next job starts a new one.
TEST(JobLog, AJobAfterTheHistoryFileWasDeletedLandsInANewDatabase)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    const std::string path = data + "/history.sqlite";
    JobLog log(data);
    endJob(log, "first");
    endJob(log, "second");
    ASSERT_EQ(jobsIn(path), (std::vector<std::string>{"first", "second"}));
    // As a person would: the database file alone; its log files stay where they are.
    ASSERT_EQ(::unlink(path.c_str()), 0);
    endJob(log, "third");
    EXPECT_EQ(jobsIn(path), std::vector<std::string>{"third"});
    endJob(log, "fourth");
    EXPECT_EQ(jobsIn(path), (std::vector<std::string>{"third", "fourth"}));
    EXPECT_TRUE(log.takeNotices().empty());
}

// Replaced by a damaged file while the back end runs: kept aside as when it is opened damaged.
TEST(JobLog, AJobAfterTheHistoryFileWasReplacedByADamagedOneKeepsItAsideAndStartsANewOne)
{
    kuvtest::TempDir dir;
    const std::string data = dir.path() + "/kuv";
    const std::string path = data + "/history.sqlite";
    JobLog log(data);
    endJob(log, "first");
    const std::string damaged = std::string(kGarbage).append(8192, '#');
    kuvtest::writeFile(data + "/incoming", damaged);
    ASSERT_EQ(::rename((data + "/incoming").c_str(), path.c_str()), 0);
    endJob(log, "second");
    const std::vector<std::string> notices = log.takeNotices();
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_NE(notices[0].find("history database " + path + " cannot be used ("), std::string::npos) << notices[0];
    EXPECT_NE(notices[0].find("kept it as " + path + ".corrupt-"), std::string::npos) << notices[0];
    std::vector<std::string> aside = kuvtest::entriesStartingWith(data, "history.sqlite.corrupt-");
    // With it, the log files that stood at the path (the old connection's, emptied).
    aside.erase(std::remove_if(aside.begin(), aside.end(),
                               [](const std::string& n) { return n.size() > 4 && n[n.size() - 4] == '-'; }),
                aside.end());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(kuvtest::readFile(data + "/" + aside[0]), damaged) << "kept as it was";
    EXPECT_EQ(jobsIn(path), std::vector<std::string>{"second"});
    endJob(log, "third");
    EXPECT_EQ(jobsIn(path), (std::vector<std::string>{"second", "third"}));
    EXPECT_TRUE(log.takeNotices().empty());
}

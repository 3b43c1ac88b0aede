// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "StoreDb.h"

using namespace kuv::store;

namespace {

JobRecord sampleJob(int64_t start)
{
    JobRecord j;
    j.job = "job-" + std::to_string(start);
    j.startMs = start;
    j.durationMs = 1234;
    j.state = "done";
    j.paths = {"/home/a", std::string("/home/\xff\xfe-odd")};
    j.files = 10;
    j.bytes = 4096;
    j.infected = 1;
    j.findings.push_back({std::string("/home/a/bad\xff"), "infected", "Eicar-Signature", "", ""});
    return j;
}

} // namespace

TEST(StoreDb, JobsWithPathsAndFindingsRoundTrip)
{
    kuvtest::TempDir dir;
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(dir.path() + "/h.sqlite", notices, error);
    ASSERT_TRUE(db) << error;
    EXPECT_TRUE(notices.empty());
    struct stat st {};
    ASSERT_EQ(stat((dir.path() + "/h.sqlite").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    JobRecord j = sampleJob(1000);
    ASSERT_TRUE(db->addJob(j));
    EXPECT_GT(j.id, 0);
    ASSERT_TRUE(db->setFindingAction(j.id, std::string("/home/a/bad\xff"), "quarantined 0123"));
    JobRecord back;
    ASSERT_TRUE(db->job(j.id, back));
    EXPECT_EQ(back.paths, j.paths);
    ASSERT_EQ(back.findings.size(), 1u);
    EXPECT_EQ(back.findings[0].path, std::string("/home/a/bad\xff"));
    EXPECT_EQ(back.findings[0].signature, "Eicar-Signature");
    EXPECT_EQ(back.findings[0].action, "quarantined 0123");
    EXPECT_EQ(back.durationMs, 1234);
    EXPECT_EQ(back.infected, 1);

    // WAL mode is on.
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open((dir.path() + "/h.sqlite").c_str(), &raw), SQLITE_OK);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(raw, "PRAGMA journal_mode", -1, &s, nullptr);
    ASSERT_EQ(sqlite3_step(s), SQLITE_ROW);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(sqlite3_column_text(s, 0))), "wal");
    sqlite3_finalize(s);
    sqlite3_close(raw);
}

TEST(StoreDb, PruneDropsOnlyOldJobsAndTheirFindings)
{
    kuvtest::TempDir dir;
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(dir.path() + "/h.sqlite", notices, error);
    ASSERT_TRUE(db);
    const int64_t now = 100LL * 86400000;
    JobRecord old = sampleJob(now - 31LL * 86400000);
    JobRecord recent = sampleJob(now - 29LL * 86400000);
    ASSERT_TRUE(db->addJob(old));
    ASSERT_TRUE(db->addJob(recent));
    EXPECT_EQ(db->pruneHistory(0, now), 0); // 0 keeps everything
    EXPECT_EQ(db->jobs().size(), 2u);
    EXPECT_EQ(db->pruneHistory(30, now), 1);
    const auto left = db->jobs();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].id, recent.id);
    JobRecord gone;
    EXPECT_FALSE(db->job(old.id, gone));
}

TEST(StoreDb, CorruptFileIsKeptAsideAndANewOneStarts)
{
    kuvtest::TempDir dir;
    const std::string path = dir.path() + "/h.sqlite";
    const std::string garbage = "this is not a database, just some bytes that were written here by accident\n";
    kuvtest::writeFile(path, std::string(garbage).append(8192, 'x'));
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(path, notices, error);
    ASSERT_TRUE(db) << error;
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_NE(notices[0].find("kept it as"), std::string::npos) << notices[0];
    const auto aside = kuvtest::entriesStartingWith(dir.path(), "h.sqlite.corrupt-");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(kuvtest::readFile(dir.path() + "/" + aside[0]).substr(0, garbage.size()), garbage);
    JobRecord j = sampleJob(5);
    EXPECT_TRUE(db->addJob(j));
}

TEST(StoreDb, NewerSchemaIsKeptAside)
{
    kuvtest::TempDir dir;
    const std::string path = dir.path() + "/h.sqlite";
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "CREATE TABLE future(x); PRAGMA user_version=99", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    std::vector<std::string> notices;
    std::string error;
    auto db = StoreDb::open(path, notices, error);
    ASSERT_TRUE(db) << error;
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_NE(notices[0].find("newer version"), std::string::npos) << notices[0];
    EXPECT_EQ(kuvtest::entriesStartingWith(dir.path(), "h.sqlite.corrupt-").size(), 1u);
    EXPECT_TRUE(db->jobs().empty());
}

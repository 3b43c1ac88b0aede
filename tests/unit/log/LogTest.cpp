// SPDX-License-Identifier: GPL-2.0-or-later
// CLogDebug on real files: layout, level rule, escaping, rotation, failures that cost only the log.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "CLogDebug.h"
#include "KuvTestDir.h"

using kuvtest::TempDir;

namespace {

const char* kFile = "gui/service/core/bin/cAfxGuiMain";

std::unique_ptr<CLogDebug> makeLog(const std::string& dir, const std::string& name, int level = 0)
{
    auto log = std::make_unique<CLogDebug>();
    EXPECT_EQ(log->SetProperty(LOG_PROPERTY_PATH, (dir + "/").c_str()), 1);
    EXPECT_EQ(log->SetProperty(LOG_PROPERTY_NAME, name.c_str()), 1);
    EXPECT_EQ(log->SetProperty(LOG_PROPERTY_LEVEL, std::to_string(level).c_str()), 1);
    return log;
}

off_t sizeOf(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string ownPrefix()
{
    return std::to_string(::getpid()) + ":" + std::to_string(::gettid());
}

} // namespace

TEST(LogTest, LineLayout)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "kuvgui", 2);
    const int n = log->LogPrint(LOG_LEVEL_INFO, kFile, "init", 123, "value %d of %s", 7, "seven");
    log->Flush(); // the process log is staged: in the file within moments, at once after Flush
    const std::string content = kuvtest::readFile(dir / "kuvgui.log");
    EXPECT_EQ(static_cast<size_t>(n), content.size());
    const std::regex layout(R"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\] \[)" + ownPrefix() +
                            R"(\] \[INFO\] \[gui/service/core/bin/cAfxGuiMain:init:123\] value 7 of seven\n$)");
    EXPECT_TRUE(std::regex_match(content, layout)) << content;
}

TEST(LogTest, LevelNamesAndLevelRule)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "levels", 3);
    EXPECT_FALSE(log->CheckLogLevel(LOG_LEVEL_TRACE, 1));
    EXPECT_FALSE(log->CheckLogLevel(LOG_LEVEL_INFO, 1));
    EXPECT_TRUE(log->CheckLogLevel(LOG_LEVEL_WARN, 1));
    EXPECT_TRUE(log->CheckLogLevel(LOG_LEVEL_ERROR, 1));
    EXPECT_EQ(log->LogPrintStr(LOG_LEVEL_TRACE, kFile, "f", 1, "t"), 0);
    EXPECT_EQ(log->LogPrintStr(LOG_LEVEL_DEBUG, kFile, "f", 1, "d"), 0);
    EXPECT_EQ(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "i"), 0);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_WARN, kFile, "f", 1, "w"), 0);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "e"), 0);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_LEVEL, "0"), 1);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_TRACE, kFile, "f", 1, "t"), 0);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_DEBUG, kFile, "f", 1, "d"), 0);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "i"), 0);

    log->Flush();
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "levels.log"));
    ASSERT_EQ(lines.size(), 5u);
    const char* expected[] = {"[WARN] [gui/service/core/bin/cAfxGuiMain:f:1] w",
                              "[ERROR] [gui/service/core/bin/cAfxGuiMain:f:1] e",
                              "[TRACE] [gui/service/core/bin/cAfxGuiMain:f:1] t",
                              "[DEBUG] [gui/service/core/bin/cAfxGuiMain:f:1] d",
                              "[INFO] [gui/service/core/bin/cAfxGuiMain:f:1] i"};
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_NE(lines[i].find(std::string("] ") + expected[i]), std::string::npos) << lines[i];
    }
}

TEST(LogTest, MessageNeverSpansLines)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "esc");
    log->LogPrintStr(LOG_LEVEL_INFO, kFile, "RecvData", 9, "path /a\n[2026-01-01 00:00:00.000] forged\n");
    log->LogPrint(LOG_LEVEL_INFO, kFile, "RecvData", 9, "%s", "tab\there\rcr\x01\x7f end\n\n");
    log->LogPrintStr(LOG_LEVEL_INFO, kFile, "RecvData", 9, "删除文件时发生异常: x");
    log->Flush();
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "esc.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("] path /a\\n[2026-01-01 00:00:00.000] forged"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 6), "forged");
    EXPECT_NE(lines[1].find("] tab\\there\\rcr\\x01\\x7f end\\n"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[1].substr(lines[1].size() - 2), "\\n");
    EXPECT_NE(lines[2].find("] 删除文件时发生异常: x"), std::string::npos);
}

TEST(LogTest, RotationNamesAndSizes)
{
    TempDir dir;
    // Every record has the same length; find it first.
    auto probe = makeLog(dir.path(), "probe");
    const int record = probe->LogPrint(LOG_LEVEL_INFO, kFile, "f", 1, "message %02d", 0);
    ASSERT_GT(record, 0);

    auto log = std::make_unique<CLogDebug>();
    // Properties in the order the service sets them after LogInit.
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_PATH, (dir.path() + "/").c_str()), 1);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_NAME, "kuvgui.zell"), 1);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_SIZE, std::to_string(4 * record).c_str()), 1);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_BACKUP, "2"), 1);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_LEVEL, "2"), 1);
    for (int i = 1; i <= 15; ++i) {
        ASSERT_EQ(log->LogPrint(LOG_LEVEL_INFO, kFile, "f", 1, "message %02d", i), record);
    }
    log->Flush();
    // 1-4, 5-8, 9-12, 13-15: the oldest file is gone, two backups are kept.
    EXPECT_EQ(sizeOf(dir / "kuvgui.zell.log"), 3 * record);
    EXPECT_EQ(sizeOf(dir / "kuvgui.zell.1.log"), 4 * record);
    EXPECT_EQ(sizeOf(dir / "kuvgui.zell.2.log"), 4 * record);
    EXPECT_FALSE(kuvtest::exists(dir / "kuvgui.zell.3.log"));
    const auto first = [&](const std::string& file) {
        const auto l = kuvtest::lines(kuvtest::readFile(dir / file));
        return l.empty() ? std::string() : l.front().substr(l.front().size() - 10);
    };
    EXPECT_EQ(first("kuvgui.zell.log"), "message 13");
    EXPECT_EQ(first("kuvgui.zell.1.log"), "message 09");
    EXPECT_EQ(first("kuvgui.zell.2.log"), "message 05");
}

TEST(LogTest, NoBackupsMeansTruncation)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "solo");
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_BACKUP, "0"), 1);
    ASSERT_EQ(log->SetProperty(LOG_PROPERTY_SIZE, "100"), 1);
    for (int i = 0; i < 10; ++i) {
        log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "0123456789");
    }
    EXPECT_LE(sizeOf(dir / "solo.log"), 100 + 100);
    EXPECT_FALSE(kuvtest::exists(dir / "solo.1.log"));
}

TEST(LogTest, BadPropertiesAreRefused)
{
    CLogDebug log;
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_LEVEL, "two"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_LEVEL, ""), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_SIZE, "0"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_SIZE, "-5"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_SIZE, "10k"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_BACKUP, "-1"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_NAME, "a/b"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_NAME, ""), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_PATH, nullptr), 0);
    EXPECT_EQ(log.SetProperty(static_cast<_LOG_PROPERTY>(3), "1"), 0);
    EXPECT_EQ(log.SetProperty(LOG_PROPERTY_LEVEL, " 4 "), 1);
    EXPECT_FALSE(log.CheckLogLevel(LOG_LEVEL_WARN, 1));
    // Nothing configured to write to: nothing written, nothing thrown.
    EXPECT_EQ(log.LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "x"), 0);
    EXPECT_EQ(log.LogPrintStr(LOG_LEVEL_ERROR, nullptr, nullptr, 1, nullptr), 0);
}

TEST(LogTest, UnwritableDirectoryCostsOnlyTheLogAndIsReportedOnce)
{
    auto log = std::make_unique<CLogDebug>();
    log->SetProperty(LOG_PROPERTY_PATH, "/proc/kuv-no-such-dir/log/");
    log->SetProperty(LOG_PROPERTY_NAME, "kuvgui");
    log->SetProperty(LOG_PROPERTY_LEVEL, "0");
    testing::internal::CaptureStderr();
    int written = 0;
    for (int i = 0; i < 50; ++i) {
        written += log->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "lost");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1100)); // past the reopen pause
    written += log->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "lost");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written, 0);
    EXPECT_EQ(kuvtest::lines(err).size(), 1u) << err;
    EXPECT_NE(err.find("/proc/kuv-no-such-dir/log/"), std::string::npos) << err;
}

TEST(LogTest, ReadOnlyDirectory)
{
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root writes anywhere";
    }
    TempDir dir;
    ::chmod(dir.path().c_str(), 0500);
    auto log = makeLog(dir.path(), "ro");
    testing::internal::CaptureStderr();
    EXPECT_EQ(log->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "lost"), 0);
    testing::internal::GetCapturedStderr();
    ::chmod(dir.path().c_str(), 0700);
}

TEST(LogTest, CreatesDirectoryAndFollowsPathAndNameChanges)
{
    TempDir dir;
    auto log = std::make_unique<CLogDebug>();
    // Any order; the file appears at the first write.
    log->SetProperty(LOG_PROPERTY_LEVEL, "2");
    log->SetProperty(LOG_PROPERTY_NAME, "kuvgui");
    log->SetProperty(LOG_PROPERTY_SIZE, "1048576");
    log->SetProperty(LOG_PROPERTY_PATH, (dir / "install//log").c_str());
    EXPECT_FALSE(kuvtest::exists(dir / "install/log/kuvgui.log"));
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "one"), 0);
    EXPECT_TRUE(kuvtest::exists(dir / "install/log/kuvgui.log"));
    log->Flush();
    log->SetProperty(LOG_PROPERTY_NAME, "other");
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "two"), 0);
    log->SetProperty(LOG_PROPERTY_PATH, (dir / "second/").c_str());
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "three"), 0);
    log->Flush();
    EXPECT_EQ(kuvtest::lines(kuvtest::readFile(dir / "install/log/kuvgui.log")).size(), 1u);
    EXPECT_EQ(kuvtest::lines(kuvtest::readFile(dir / "install/log/other.log")).size(), 1u);
    EXPECT_EQ(kuvtest::lines(kuvtest::readFile(dir / "second/other.log")).size(), 1u);
}

TEST(LogTest, ProcessLogCloseStartsFresh)
{
    TempDir dir;
    CLogDebug* log = CLogDebug::Instance();
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log, CLogDebug::Instance());
    log->SetProperty(LOG_PROPERTY_PATH, dir.path().c_str());
    log->SetProperty(LOG_PROPERTY_NAME, "kuvgui");
    log->SetProperty(LOG_PROPERTY_LEVEL, "4");
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "before close"), 0);
    CLogDebug::Close();
    CLogDebug* again = CLogDebug::Instance();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->LogPrintStr(LOG_LEVEL_ERROR, kFile, "f", 1, "after close"), 0);
    EXPECT_TRUE(again->CheckLogLevel(LOG_LEVEL_INFO, 1)); // default level again
    EXPECT_EQ(kuvtest::lines(kuvtest::readFile(dir / "kuvgui.log")).size(), 1u);
    CLogDebug::Close();
}

TEST(LogTest, IndependentLogsThroughLogInit)
{
    TempDir dir;
    CLogDebug* zell = LogInit("kuvgui.zell");
    ASSERT_NE(zell, nullptr);
    zell->SetProperty(LOG_PROPERTY_PATH, dir.path().c_str());
    zell->SetProperty(LOG_PROPERTY_LEVEL, "3");
    EXPECT_EQ(LogPrintStrEx(zell, LOG_LEVEL_DEBUG, "gui/service/core/bin/CContainerMgr", "zellLogCallback", 168, "x"), 0);
    EXPECT_GT(LogPrintStrEx(zell, LOG_LEVEL_ERROR, "gui/service/core/bin/CContainerMgr", "zellLogCallback", 168,
                            "bus says hi\n"),
              0);
    EXPECT_EQ(LogPrintStrEx(nullptr, LOG_LEVEL_ERROR, "f", "g", 1, "x"), 0);
    LogUninit(zell);
    LogUninit(nullptr);
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "kuvgui.zell.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("[ERROR] [gui/service/core/bin/CContainerMgr:zellLogCallback:168] bus says hi"),
              std::string::npos);
    EXPECT_EQ(lines[0].back(), 'i');
}

TEST(LogTest, LongMessageIsCutWithAMarker)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "long");
    const std::string big(100000, 'x');
    EXPECT_GT(log->LogPrint(LOG_LEVEL_INFO, kFile, "f", 1, "%s|", big.c_str()), 16384);
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 2, (big + "|").c_str()), 16384);
    log->Flush();
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "long.log"));
    ASSERT_EQ(lines.size(), 2u);
    for (const auto& line : lines) {
        const std::string tail = std::string(16384, 'x') + " [... 83617 bytes cut]";
        ASSERT_GE(line.size(), tail.size());
        EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
    }
}

TEST(LogTest, FilesArePrivateAndNeverFollowALink)
{
    TempDir dir;
    TempDir other;
    ASSERT_EQ(::symlink((other / "target").c_str(), (dir / "planted.log").c_str()), 0);
    auto planted = makeLog(dir.path(), "planted");
    EXPECT_EQ(planted->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "secret"), 0);
    EXPECT_FALSE(kuvtest::exists(other / "target"));

    auto log = makeLog(dir.path() + "/sub", "own");
    EXPECT_GT(log->LogPrintStr(LOG_LEVEL_INFO, kFile, "f", 1, "x"), 0);
    struct stat st;
    ASSERT_EQ(::stat((dir / "sub/own.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat((dir / "sub").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(LogTest, ForgedRecordsAreEscaped)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "forged");
    log->LogPrintStr(LOG_LEVEL_INFO, kFile, "RecvData", 9,
                     "a\xc2\x85[x] b\xe2\x80\xa8[y] c\xe2\x80\xa9[z] \xc2\x9b[2J lit\\n \xff\xfe end");
    log->Flush();
    const std::string content = kuvtest::readFile(dir / "forged.log");
    ASSERT_EQ(content.back(), '\n');
    EXPECT_EQ(content.find('\n'), content.size() - 1);
    EXPECT_NE(content.find("] a\\u0085[x] b\\u2028[y] c\\u2029[z] \\u009b[2J lit\\\\n \\xff\\xfe end\n"),
              std::string::npos)
        << content;
}

TEST(LogTest, ConcurrentWritersGiveWholeRecords)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "mt");
    log->SetProperty(LOG_PROPERTY_SIZE, "20000");
    log->SetProperty(LOG_PROPERTY_BACKUP, "1000");
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 300; ++i) {
                log->LogPrint(LOG_LEVEL_INFO, kFile, "worker", 1, "t%d i%d", t, i);
                if (i % 50 == 0) {
                    log->SetProperty(LOG_PROPERTY_LEVEL, "0");
                    log->CheckLogLevel(LOG_LEVEL_INFO, 0);
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    log->Flush();
    std::set<std::string> seen;
    const std::regex record(R"(^\[[^\]]+\] \[\d+:\d+\] \[INFO\] \[gui/service/core/bin/cAfxGuiMain:worker:1\] (t\d i\d+)$)");
    for (int k = 0; k < 1000; ++k) {
        const std::string file = k == 0 ? dir / "mt.log" : dir / ("mt." + std::to_string(k) + ".log");
        if (!kuvtest::exists(file)) {
            break;
        }
        for (const std::string& line : kuvtest::lines(kuvtest::readFile(file))) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, record)) << line;
            EXPECT_TRUE(seen.insert(m[1]).second) << line;
        }
    }
    EXPECT_EQ(seen.size(), 1800u);
}

TEST(LogTest, ThreadsAndForkedChildrenNameThemselves)
{
    TempDir dir;
    auto log = makeLog(dir.path(), "ids", 2);
    log->LogPrint(LOG_LEVEL_INFO, kFile, "main", 1, "from the main thread");
    std::string workerIds;
    std::thread worker([&] {
        workerIds = ownPrefix();
        log->LogPrint(LOG_LEVEL_INFO, kFile, "worker", 2, "from a worker");
    });
    worker.join();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        log->LogPrint(LOG_LEVEL_INFO, kFile, "child", 3, "from the child");
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    log->Flush();
    const std::string content = kuvtest::readFile(dir / "ids.log");
    EXPECT_NE(content.find("] [" + ownPrefix() + "] [INFO] [" + kFile + ":main:1] from the main thread"),
              std::string::npos)
        << content;
    EXPECT_NE(content.find("] [" + workerIds + "] [INFO] [" + kFile + ":worker:2] from a worker"), std::string::npos)
        << content;
    const std::string childIds = std::to_string(child) + ":" + std::to_string(child);
    EXPECT_NE(content.find("] [" + childIds + "] [INFO] [" + kFile + ":child:3] from the child"), std::string::npos)
        << content;
}

namespace {
CLogDebug* g_atExitLog = nullptr;
}

// Records may come while the process ends (from atexit handlers and static destructors), after the
// thread's own objects are gone: the writer keeps nothing per thread that exit() destroys.
TEST(LogTest, ARecordWrittenWhileTheProcessExitsIsWhole)
{
    TempDir dir;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        g_atExitLog = makeLog(dir.path(), "exiting", 2).release();
        g_atExitLog->LogPrint(LOG_LEVEL_INFO, kFile, "main", 1, "%s", std::string(300, 'a').c_str());
        std::atexit([] {
            g_atExitLog->LogPrint(LOG_LEVEL_INFO, kFile, "atexit", 2, "leaving %s", std::string(300, 'b').c_str());
            g_atExitLog->Flush();
        });
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    const std::string content = kuvtest::readFile(dir / "exiting.log");
    EXPECT_NE(content.find(":atexit:2] leaving " + std::string(300, 'b') + "\n"), std::string::npos) << content;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The shared log file and record formatter: rotation, whole records, the level filter, the one layout of
// the process log, the bus module's log and the broker's log.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "CLogDebug.h"
#include "FileUtils.h"
#include "KuvLogFile.h"
#include "KuvTestDir.h"
#include "ZellLogFile.h"

using kuv::LogLevel;
using kuvtest::TempDir;

namespace {

KUV_LOG_SOURCE("tests/unit/log/LogFileTest");

off_t sizeOf(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// What follows the timestamp, which is the only part that differs between two writers.
std::string afterTimestamp(const std::string& line)
{
    const size_t end = line.find("] ");
    return end == std::string::npos ? line : line.substr(end + 2);
}

std::string messageOf(const std::string& record)
{
    // "[time] [ids] [LEVEL] [src:fn:line] message\n"
    size_t at = 0;
    for (int i = 0; i < 4; ++i) {
        at = record.find("] ", at) + 2;
    }
    return record.substr(at, record.size() - at - 1);
}

} // namespace

TEST(LogLevelNames, OneTableInBothScales)
{
    EXPECT_STREQ(kuv::logLevelName(LogLevel::Trace), "TRACE");
    EXPECT_STREQ(kuv::logLevelName(LogLevel::Debug), "DEBUG");
    EXPECT_STREQ(kuv::logLevelName(LogLevel::Info), "INFO");
    EXPECT_STREQ(kuv::logLevelName(LogLevel::Warn), "WARN");
    EXPECT_STREQ(kuv::logLevelName(LogLevel::Error), "ERROR");
    EXPECT_STREQ(kuv::logLevelName(static_cast<LogLevel>(-3)), "TRACE");
    EXPECT_STREQ(kuv::logLevelName(static_cast<LogLevel>(9)), "ERROR");
    EXPECT_STREQ(kuv::logLevelWord(LogLevel::Warn), "warning");
    // The bus module's interface counts from the most severe.
    EXPECT_EQ(kuv::fromBusLevel(0), LogLevel::Error);
    EXPECT_EQ(kuv::fromBusLevel(1), LogLevel::Warn);
    EXPECT_EQ(kuv::fromBusLevel(2), LogLevel::Info);
    EXPECT_EQ(kuv::fromBusLevel(3), LogLevel::Debug);
    EXPECT_EQ(kuv::fromBusLevel(4), LogLevel::Trace);
    EXPECT_EQ(kuv::fromBusLevel(-1), LogLevel::Error);
    EXPECT_EQ(kuv::fromBusLevel(17), LogLevel::Trace);
}

TEST(LogFile, TheProcessLogTheBusLogAndTheBrokerLogWriteOneLayout)
{
    TempDir dir;
    CLogDebug process;
    process.SetProperty(LOG_PROPERTY_PATH, dir.path().c_str());
    process.SetProperty(LOG_PROPERTY_NAME, "process");
    ASSERT_GT(process.LogPrint(LOG_LEVEL_WARN, "src/File", "fn", 42, "value %d\n", 7), 0);
    process.Flush();

    zell::LogFile bus;
    std::string error;
    ASSERT_TRUE(bus.open(dir / "bus.log", "", 1 << 20, 1, &error)) << error;
    bus.write(kuv::LogLevel::Warn, "src/File", "fn", 42, "value 7\n");

    kuv::LogFile broker;
    ASSERT_TRUE(broker.open(dir / "broker.log", "", 1 << 20, 1, &error)) << error;
    ASSERT_GT(kuv::logPrint(&broker, LOG_LEVEL_WARN, "src/File", "fn", 42, "value %d\n", 7), 0);

    const std::regex layout(R"(^\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\] \[\d+:\d+\] \[WARN\] \[src/File:fn:42\] value 7\n$)");
    const std::string fromProcess = kuvtest::readFile(dir / "process.log");
    const std::string fromBus = kuvtest::readFile(dir / "bus.log");
    const std::string fromBroker = kuvtest::readFile(dir / "broker.log");
    EXPECT_TRUE(std::regex_match(fromProcess, layout)) << fromProcess;
    EXPECT_EQ(afterTimestamp(fromBus), afterTimestamp(fromProcess));
    EXPECT_EQ(afterTimestamp(fromBroker), afterTimestamp(fromProcess));
    EXPECT_EQ(afterTimestamp(fromProcess),
              "[" + std::to_string(::getpid()) + ":" + std::to_string(::gettid()) + "] [WARN] [src/File:fn:42] value 7\n");
}

TEST(LogFile, TheLevelFilter)
{
    TempDir dir;
    kuv::LogFile log;
    ASSERT_TRUE(log.open(dir / "levels.log", "", 0, 0));
    log.setLevel(LogLevel::Warn);
    EXPECT_FALSE(log.enabled(LogLevel::Info));
    EXPECT_TRUE(log.enabled(LogLevel::Warn));
    EXPECT_EQ(KUV_LOG_TO(&log, LogLevel::Trace, "t"), 0);
    EXPECT_EQ(KUV_LOG_TO(&log, LogLevel::Debug, "d"), 0);
    EXPECT_EQ(KUV_LOG_TO(&log, LogLevel::Info, "i"), 0);
    EXPECT_EQ(log.write(LogLevel::Info, "s", "f", 1, "i"), 0);
    EXPECT_GT(KUV_LOG_TO(&log, LogLevel::Warn, "w"), 0);
    EXPECT_GT(KUV_LOG_TO(&log, LogLevel::Error, "e"), 0);
    // Past the most severe level still counts as the most severe.
    EXPECT_GT(log.write(static_cast<LogLevel>(7), "s", "f", 1, "x"), 0);
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "levels.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("] [WARN] [tests/unit/log/LogFileTest:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("] [ERROR] [tests/unit/log/LogFileTest:"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("] [ERROR] [s:f:1] x"), std::string::npos) << lines[2];
    // Nothing open: nothing written, no crash.
    kuv::LogFile closed;
    closed.setLevel(LogLevel::Trace);
    EXPECT_EQ(closed.write(LogLevel::Error, "s", "f", 1, "x"), -1);
    EXPECT_EQ(kuv::logPrint(static_cast<kuv::LogFile*>(nullptr), LOG_LEVEL_ERROR, "s", "f", 1, "x"), 0);
}

// Backups in a directory of their own, the oldest dropped: the files stay bounded however much is written.
TEST(LogFile, RotationIsBoundedAndKeepsTheNewestRecords)
{
    TempDir dir;
    kuv::LogFile log;
    log.setLevel(LogLevel::Trace);
    const std::string record = [] {
        std::string r;
        kuv::formatLogRecord(r, LogLevel::Info, "s", "f", 1, "message 00");
        return r;
    }();
    std::string error;
    ASSERT_TRUE(log.open(dir / "logs/app.log", dir / "logs/old", 3 * record.size(), 2, &error)) << error;
    for (int i = 1; i <= 11; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "message %02d", i);
        ASSERT_EQ(log.write(LogLevel::Info, "s", "f", 1, text), static_cast<long>(record.size()));
    }
    // 1-3 and 4-6 are gone, 7-9 and 10-11 stay.
    EXPECT_EQ(sizeOf(dir / "logs/app.log"), static_cast<off_t>(2 * record.size()));
    EXPECT_EQ(sizeOf(dir / "logs/old/app.1.log"), static_cast<off_t>(3 * record.size()));
    EXPECT_EQ(sizeOf(dir / "logs/old/app.2.log"), static_cast<off_t>(3 * record.size()));
    EXPECT_FALSE(kuvtest::exists(dir / "logs/old/app.3.log"));
    EXPECT_FALSE(kuvtest::exists(dir / "logs/app.1.log"));
    EXPECT_NE(kuvtest::readFile(dir / "logs/old/app.2.log").find("message 04"), std::string::npos);
    EXPECT_NE(kuvtest::readFile(dir / "logs/app.log").find("message 11"), std::string::npos);

    // Without backups the file starts afresh.
    kuv::LogFile solo;
    ASSERT_TRUE(solo.open(dir / "solo.log", "", 2 * record.size(), 0));
    for (int i = 0; i < 5; ++i) {
        solo.write(LogLevel::Info, "s", "f", 1, "message 00");
    }
    EXPECT_EQ(sizeOf(dir / "solo.log"), static_cast<off_t>(record.size()));
}

// A record the file cannot take (EFBIG here, ENOSPC alike) leaves no fragment behind.
TEST(LogFile, ARecordIsWrittenWholeOrNotAtAll)
{
    TempDir dir;
    const std::string path = dir / "full.log";
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit {1000, 1000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        kuv::LogFile log;
        if (!log.open(path, "", 0, 0)) {
            _exit(10);
        }
        int failed = 0;
        for (int i = 0; i < 40; ++i) {
            if (log.write(LogLevel::Info, "s", "f", 1, "a record of some length " + std::to_string(i)) < 0) {
                failed += errno == EFBIG ? 1 : 100;
            }
        }
        _exit(failed > 0 && failed < 100 ? 0 : 11);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    const std::string content = kuvtest::readFile(path);
    ASSERT_FALSE(content.empty());
    EXPECT_LE(content.size(), 1000u);
    EXPECT_EQ(content.back(), '\n');
    const std::regex record(R"(^\[[^\]]+\] \[\d+:\d+\] \[INFO\] \[s:f:1\] a record of some length \d+$)");
    for (const std::string& line : kuvtest::lines(content)) {
        EXPECT_TRUE(std::regex_match(line, record)) << line;
    }
}

TEST(LogFile, PrivateFilesNeverThroughALink)
{
    TempDir dir;
    TempDir other;
    ASSERT_EQ(::symlink((other / "target").c_str(), (dir / "planted.log").c_str()), 0);
    kuv::LogFile planted;
    std::string error;
    EXPECT_FALSE(planted.open(dir / "planted.log", "", 0, 0, &error));
    EXPECT_NE(error.find("planted.log"), std::string::npos) << error;
    EXPECT_FALSE(kuvtest::exists(other / "target"));
    EXPECT_FALSE(planted.isOpen());

    kuv::LogFile log;
    ASSERT_TRUE(log.open(dir / "new/dir/own.log", "", 0, 0, &error)) << error;
    struct stat st;
    ASSERT_EQ(::stat((dir / "new/dir/own.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat((dir / "new/dir").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(LogFile, ToStderrInTheForeground)
{
    kuv::LogFile log;
    log.openStderr();
    EXPECT_TRUE(log.isOpen());
    testing::internal::CaptureStderr();
    EXPECT_GT(KUV_LOG_TO(&log, LogLevel::Error, "to %s\n", "stderr"), 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("] [ERROR] [tests/unit/log/LogFileTest:"), std::string::npos) << err;
    EXPECT_EQ(err.substr(err.size() - 12), "] to stderr\n");
    log.close();
    EXPECT_FALSE(log.isOpen());
}

// Plain text skips the escaper; whatever the text, the message is what the log rule makes of it.
class RecordMessage : public testing::TestWithParam<std::string> {};

TEST_P(RecordMessage, IsTheLogRuleOfItsText)
{
    const std::string& text = GetParam();
    std::string record;
    kuv::formatLogRecord(record, LogLevel::Info, "s", "f", 1, text);
    EXPECT_EQ(messageOf(record), kuv::logMessage(text));
    EXPECT_EQ(record.find('\n'), record.size() - 1);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RecordMessage,
    testing::Values(std::string(), "plain ascii", "one final line feed\n", "two\n\n", "tab\there", "back\\slash",
                    "del\x7f", "加载插件: plugin_1", "c1 \xc2\x85 nel", "\xc2\xa0 nbsp", "\xe2\x80\xa8 ls \xe2\x80\xa9 ps",
                    "\xe2\x80\xa7 near ls", "overlong \xc0\xaf", "surrogate \xed\xa0\x80", "max \xf4\x8f\xbf\xbf",
                    "past max \xf4\x90\x80\x80", "cut \xe4\xb8", "emoji \xf0\x9f\x98\x80", std::string(16384, 'x'),
                    std::string(16385, 'x'), std::string(16384, 'x') + "\n", std::string("nul\0inside", 10)));

TEST(RecordMessageRandom, IsTheLogRuleOfItsText)
{
    std::mt19937 random(18);
    // Bytes drawn mostly from the interesting ones: ASCII, continuation bytes and lead bytes.
    const std::string alphabet = std::string("ab \\\n\x7f\x01", 7) + "\x80\x85\x9f\xa0\xa8\xa9\xbf\xc2\xe2\xe0\xed\xf0\xf4\xf5\xff";
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        const size_t length = random() % 12;
        for (size_t i = 0; i < length; ++i) {
            text += alphabet[random() % alphabet.size()];
        }
        std::string record;
        kuv::formatLogRecord(record, LogLevel::Info, "s", "f", 1, text);
        ASSERT_EQ(messageOf(record), kuv::logMessage(text)) << kuv::escapeControl(text);
    }
}

// Plain text is recognised a word at a time: every byte that is not plain, at every place in a word
// and across words, still goes to the escaper.
TEST(RecordMessageWords, EveryByteAtEveryPlace)
{
    const std::string bytes = std::string("\x00\x01\x1f\x20\x21\x5b\x5c\x5d\x7e\x7f\x80\xc2\xff", 13);
    for (const char b : bytes) {
        for (size_t at = 0; at < 24; ++at) {
            std::string text(24, 'a');
            text[at] = b;
            std::string record;
            kuv::formatLogRecord(record, LogLevel::Info, "s", "f", 1, text);
            ASSERT_EQ(messageOf(record), kuv::logMessage(text)) << kuv::escapeControl(text);
        }
    }
}

TEST(LogFile, SourceAndFunctionAreEscaped)
{
    std::string record;
    kuv::formatLogRecord(record, LogLevel::Info, "src\n[x]", "f\\n", 3, "m");
    EXPECT_NE(record.find("] [src\\n[x]:f\\\\n:3] m\n"), std::string::npos) << record;
}

TEST(LogFile, ConcurrentWritersGiveWholeRecordsAcrossRotations)
{
    TempDir dir;
    kuv::LogFile log;
    log.setLevel(LogLevel::Trace);
    ASSERT_TRUE(log.open(dir / "mt.log", "", 8000, 1000));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 250; ++i) {
                KUV_LOG_TO(&log, LogLevel::Info, "t%d i%d", t, i);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    std::set<std::string> seen;
    const std::regex record(R"(^\[[^\]]+\] \[\d+:\d+\] \[INFO\] \[tests/unit/log/LogFileTest:operator\(\):\d+\] (t\d i\d+)$)");
    for (int k = 0; k < 1000; ++k) {
        const std::string file = k == 0 ? dir / "mt.log" : dir / ("mt." + std::to_string(k) + ".log");
        if (!kuvtest::exists(file)) {
            break;
        }
        EXPECT_LE(sizeOf(file), 8000);
        for (const std::string& line : kuvtest::lines(kuvtest::readFile(file))) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, record)) << line;
            EXPECT_TRUE(seen.insert(m[1]).second) << line;
        }
    }
    EXPECT_EQ(seen.size(), 1000u);
}

// The process id is cached, not asked per record: a forked child still writes its own ids.
TEST(LogFile, AForkedChildWritesItsOwnIds)
{
    TempDir dir;
    kuv::LogFile log;
    ASSERT_TRUE(log.open(dir / "fork.log", "", 0, 0));
    ASSERT_GT(log.write(LogLevel::Info, "s", "f", 1, "parent"), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(log.write(LogLevel::Info, "s", "f", 1, "child") > 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "fork.log"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(afterTimestamp(lines[0]),
              "[" + std::to_string(::getpid()) + ":" + std::to_string(::gettid()) + "] [INFO] [s:f:1] parent");
    // The child is single-threaded: its thread id is its process id.
    EXPECT_EQ(afterTimestamp(lines[1]),
              "[" + std::to_string(child) + ":" + std::to_string(child) + "] [INFO] [s:f:1] child");
}

// A record is in the stage when the call returns, so a killed process loses none: the next open of the
// log (the next start of the service) appends what the stage holds.
TEST(LogFile, AKilledProcessLosesNoRecord)
{
    TempDir dir;
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(pipeFds[0]);
        CLogDebug log;
        log.SetProperty(LOG_PROPERTY_PATH, dir.path().c_str());
        log.SetProperty(LOG_PROPERTY_NAME, "killed");
        for (int i = 0; i < 500; ++i) {
            log.LogPrint(LOG_LEVEL_INFO, "s", "f", 1, "record %d", i);
        }
        const char done = 'x';
        (void)!::write(pipeFds[1], &done, 1);
        ::pause();
        _exit(0);
    }
    ::close(pipeFds[1]);
    char done = 0;
    ASSERT_EQ(::read(pipeFds[0], &done, 1), 1);
    ::close(pipeFds[0]);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    kuv::LogFile next;
    next.setStaged(true);
    ASSERT_TRUE(next.open(dir / "killed.log", "", 0, 0));
    EXPECT_TRUE(next.staged());
    const auto lines = kuvtest::lines(kuvtest::readFile(dir / "killed.log"));
    ASSERT_EQ(lines.size(), 500u);
    for (int i = 0; i < 500; ++i) {
        const std::string want = " record " + std::to_string(i);
        ASSERT_EQ(lines[i].substr(lines[i].size() - want.size()), want) << i;
    }
}

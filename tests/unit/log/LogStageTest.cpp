// SPDX-License-Identifier: GPL-2.0-or-later
// The staged log file: records survive a killed writer exactly once and in order, a stage left behind
// is recovered by the next open, a bad stage costs nothing, a second writer, a forked child and exit()
// write directly or drain, rotation keeps whole records, and the flusher sleeps when there is nothing.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "KuvLogFile.h"
#include "KuvTestDir.h"
#include "LogStage.h"

using kuv::LogLevel;
using kuvtest::TempDir;
using namespace std::chrono_literals;

namespace {

off_t sizeOf(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string stageOf(const std::string& log)
{
    return kuv::logstage::stagePathFor(log);
}

std::string record(const std::string& message)
{
    std::string r;
    kuv::formatLogRecord(r, LogLevel::Info, "s", "f", 1, message);
    return r;
}

void append(const std::string& path, const std::string& text)
{
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << text;
}

std::string messageOf(const std::string& line)
{
    const size_t at = line.rfind("] ");
    return at == std::string::npos ? line : line.substr(at + 2);
}

std::vector<std::string> messages(const std::string& path)
{
    std::vector<std::string> out;
    for (const std::string& line : kuvtest::lines(kuvtest::readFile(path))) {
        out.push_back(messageOf(line));
    }
    return out;
}

// Waits for a child for up to a minute; a child still running then is killed and reported as hung.
int waitChild(pid_t child)
{
    int status = 0;
    for (int i = 0; i < 6000; ++i) {
        const pid_t r = ::waitpid(child, &status, WNOHANG);
        if (r == child) {
            return status;
        }
        std::this_thread::sleep_for(10ms);
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return -1;
}

// The threads of this process named as the flusher, with their voluntary context switches.
std::map<std::string, long> flusherSwitches()
{
    std::map<std::string, long> out;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string comm = kuvtest::readFile(task.path().string() + "/comm");
        if (comm != "kuv-logflush\n") {
            continue;
        }
        std::ifstream status(task.path().string() + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
                out[task.path().filename().string()] = std::stol(line.substr(line.find(':') + 1));
            }
        }
    }
    return out;
}

} // namespace

TEST(LogStage, RecordsReachTheFileWithoutBeingAskedAndTheStageIsPrivate)
{
    TempDir dir;
    const std::string path = dir / "logs/app.log";
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    ASSERT_TRUE(log.staged());
    EXPECT_EQ(log.write(LogLevel::Info, "s", "f", 1, "one"), static_cast<long>(record("one").size()));
    // No flush: the flusher takes it within moments.
    bool seen = false;
    for (int i = 0; i < 3000 && !seen; ++i) {
        seen = kuvtest::readFile(path).find("] one\n") != std::string::npos;
        if (!seen) {
            std::this_thread::sleep_for(10ms);
        }
    }
    EXPECT_TRUE(seen);
    struct stat st;
    ASSERT_EQ(::lstat(stageOf(path).c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(stageOf(path), dir / "logs/.app.log.stage");
    log.close();
    EXPECT_EQ(messages(path), std::vector<std::string>{"one"});
    // stderr is never staged.
    kuv::LogFile err;
    err.setStaged(true);
    err.openStderr();
    EXPECT_FALSE(err.staged());
}

// The next open of a log (the next start of the service) appends what a killed writer left in the stage:
// each record exactly once, in order, whenever the kill came, also in the middle of a big batch or
// of a rotation.
struct KillCase {
    uint64_t maxSize;
    size_t backups;
};

class KilledWhileFlushing : public testing::TestWithParam<KillCase> {};

TEST_P(KilledWhileFlushing, BigBatchesLoseAndRepeatNothing)
{
    const KillCase c = GetParam();
    TempDir dir;
    const std::string path = dir / "killed.log";
    auto* written = static_cast<std::atomic<long>*>(
        ::mmap(nullptr, sizeof(std::atomic<long>) * 8, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(written, MAP_FAILED);
    std::mt19937 random(16);
    constexpr int kRounds = 6;
    for (int round = 0; round < kRounds; ++round) {
        new (&written[round]) std::atomic<long>(0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            kuv::LogFile log;
            log.setStaged(true);
            if (!log.open(path, "", c.maxSize, c.backups) || !log.staged()) {
                _exit(3);
            }
            // Long records make big batches.
            const std::string pad(100, 'p');
            for (long i = 0;; ++i) {
                if (log.write(LogLevel::Info, "s", "f", 1, "r" + std::to_string(round) + " " + std::to_string(i) + " " + pad) <= 0) {
                    _exit(4);
                }
                written[round].store(i + 1);
            }
        }
        // Until it has written enough to fill a file or two, then at a random moment.
        for (int i = 0; i < 30000 && written[round].load() < 2500; ++i) {
            std::this_thread::sleep_for(1ms);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 15000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "child ended with " << status;
    }
    {
        kuv::LogFile next;
        next.setStaged(true);
        ASSERT_TRUE(next.open(path, "", c.maxSize, c.backups));
    }
    // Oldest backup first.
    std::vector<std::string> files;
    for (size_t k = c.backups; k >= 1; --k) {
        const std::string backup = dir / ("killed." + std::to_string(k) + ".log");
        if (kuvtest::exists(backup)) {
            files.push_back(backup);
        }
    }
    ASSERT_FALSE(kuvtest::exists(dir / ("killed." + std::to_string(c.backups + 1) + ".log")));
    files.push_back(path);
    if (c.maxSize > 0) {
        EXPECT_GT(files.size(), 2u) << "rotated";
    }
    const std::regex form(R"(^r(\d+) (\d+) p+$)");
    int round = 0;
    long expected = 0;
    long total = 0;
    for (const std::string& file : files) {
        if (c.maxSize > 0) {
            EXPECT_LE(static_cast<uint64_t>(sizeOf(file)), c.maxSize) << file;
        }
        for (const std::string& m : messages(file)) {
            std::smatch parts;
            ASSERT_TRUE(std::regex_match(m, parts, form)) << file << ": " << m;
            const int r = std::stoi(parts[1]);
            const long i = std::stol(parts[2]);
            if (r != round) {
                ASSERT_GE(expected, written[round].load()) << "round " << round << " lost records";
                ASSERT_EQ(r, round + 1) << m;
                round = r;
                expected = 0;
            }
            ASSERT_EQ(i, expected) << "round " << r << ": out of order or repeated";
            ++expected;
            ++total;
        }
    }
    EXPECT_EQ(round, kRounds - 1);
    EXPECT_GE(expected, written[round].load());
    EXPECT_GT(total, 1000);
    ::munmap(written, sizeof(std::atomic<long>) * 8);
}

INSTANTIATE_TEST_SUITE_P(LogStage, KilledWhileFlushing,
                         testing::Values(KillCase{0, 0}, KillCase{256 * 1024, 1000}),
                         [](const testing::TestParamInfo<KillCase>& info) {
                             return info.param.maxSize == 0 ? std::string("OneFile") : std::string("Rotating");
                         });

namespace {

// Leaves a stage as a writer killed during a write would: the records staged, the batch in flight
// [0, flightEnd) bound for the log at the log's present size.
void leaveStage(const std::string& log, const std::string& staged, size_t flightEnd)
{
    auto stage = kuv::logstage::Stage::open(stageOf(log));
    ASSERT_NE(stage, nullptr);
    const uint64_t at = stage->tail();
    stage->copyIn(at, staged.data(), staged.size());
    stage->setTail(at + staged.size());
    if (flightEnd > 0) {
        struct stat st;
        ASSERT_EQ(::stat(log.c_str(), &st), 0);
        stage->setFlight({static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                          static_cast<uint64_t>(st.st_size), at + flightEnd});
    }
}

} // namespace

TEST(LogStage, AFlightAlreadyInTheLogIsNotWrittenAgain)
{
    TempDir dir;
    const std::string path = dir / "flight.log";
    append(path, record("before"));
    const std::string batch = record("a") + record("b");
    const std::string rest = record("c");
    leaveStage(path, batch + rest, batch.size());
    append(path, batch); // the write went through, then the writer died
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    log.write(LogLevel::Info, "s", "f", 1, "after");
    log.close();
    EXPECT_EQ(messages(path), (std::vector<std::string>{"before", "a", "b", "c", "after"}));
}

TEST(LogStage, AFlightNotInTheLogIsAppended)
{
    TempDir dir;
    const std::string path = dir / "flight.log";
    append(path, record("before"));
    const std::string batch = record("a") + record("b");
    leaveStage(path, batch + record("c"), batch.size());
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    log.close();
    EXPECT_EQ(messages(path), (std::vector<std::string>{"before", "a", "b", "c"}));
}

// A write cut short inside a record: the fragment goes, the record is written whole once.
TEST(LogStage, AFlightCutShortLeavesNoFragment)
{
    TempDir dir;
    const std::string path = dir / "flight.log";
    append(path, record("before"));
    const std::string batch = record("a") + record("b") + record("c");
    leaveStage(path, batch, batch.size());
    append(path, batch.substr(0, record("a").size() + 5));
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    log.close();
    const std::string content = kuvtest::readFile(path);
    EXPECT_EQ(messages(path), (std::vector<std::string>{"before", "a", "b", "c"})) << content;
    EXPECT_EQ(content.size(), record("before").size() + batch.size());
}

// Whatever lies where the stage goes, the log loses nothing, nothing crashes, nothing foreign is
// appended, and nothing is written through a link.
TEST(LogStage, ABadStageIsRefusedOrResetWithNothingLost)
{
    TempDir dir;
    TempDir elsewhere;
    const auto check = [&](const std::string& name, bool staged, const std::function<void(const std::string&)>& plant) {
        SCOPED_TRACE(name);
        const std::string path = dir / (name + ".log");
        append(path, record("kept"));
        plant(stageOf(path));
        kuv::LogFile log;
        log.setStaged(true);
        ASSERT_TRUE(log.open(path, "", 0, 0));
        EXPECT_EQ(log.staged(), staged);
        EXPECT_GT(log.write(LogLevel::Info, "s", "f", 1, "new"), 0);
        log.close();
        EXPECT_EQ(messages(path), (std::vector<std::string>{"kept", "new"}));
    };
    const auto patched = [](uint64_t head, uint64_t tail) {
        return [head, tail](const std::string& stage) {
            {
                auto s = kuv::logstage::Stage::open(stage);
                ASSERT_NE(s, nullptr);
                s->copyIn(0, "forged [x]\n", 11);
            }
            const int fd = ::open(stage.c_str(), O_RDWR);
            ASSERT_GE(fd, 0);
            ASSERT_EQ(::pwrite(fd, &head, 8, offsetof(kuv::logstage::Header, head)), 8);
            ASSERT_EQ(::pwrite(fd, &tail, 8, offsetof(kuv::logstage::Header, tail)), 8);
            ::close(fd);
        };
    };
    check("magic", true, [](const std::string& stage) {
        std::string junk(kuv::logstage::kHeaderPage + kuv::logstage::kRingSize, 'j');
        junk.replace(kuv::logstage::kHeaderPage, 11, "forged [x]\n");
        std::ofstream(stage, std::ios::binary) << junk;
        ::chmod(stage.c_str(), 0600);
    });
    check("short", true, [](const std::string& stage) {
        std::ofstream(stage, std::ios::binary) << "KUVLSTG1";
        ::chmod(stage.c_str(), 0600);
    });
    check("empty", true, [](const std::string& stage) {
        std::ofstream(stage, std::ios::binary) << "";
        ::chmod(stage.c_str(), 0600);
    });
    check("headpasttail", true, patched(20, 9));
    check("overfull", true, patched(0, kuv::logstage::kRingSize + 11));
    check("link", false, [&](const std::string& stage) {
        ASSERT_EQ(::symlink((elsewhere / "target").c_str(), stage.c_str()), 0);
    });
    EXPECT_FALSE(kuvtest::exists(elsewhere / "target"));
    check("fifo", false, [](const std::string& stage) { ASSERT_EQ(::mkfifo(stage.c_str(), 0600), 0); });
    check("directory", false, [](const std::string& stage) { ASSERT_EQ(::mkdir(stage.c_str(), 0700), 0); });
    // Open to others: whatever it holds may be forged, so it is replaced, not appended.
    check("loose", true, [&](const std::string& stage) {
        {
            auto s = kuv::logstage::Stage::open(stage);
            ASSERT_NE(s, nullptr);
            s->copyIn(0, "forged [x]\n", 11);
            s->setTail(11);
        }
        ASSERT_EQ(::chmod(stage.c_str(), 0666), 0);
    });
    struct stat st;
    ASSERT_EQ(::stat(stageOf(dir / "loose.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    if (::geteuid() == 0) {
        check("foreign", false, [](const std::string& stage) {
            std::ofstream(stage, std::ios::binary) << "";
            ASSERT_EQ(::chown(stage.c_str(), 4321, 4321), 0);
            ASSERT_EQ(::chmod(stage.c_str(), 0600), 0);
        });
    }
}

// Only one writer uses a stage; a second one of the same log writes directly, and nothing of either is lost.
TEST(LogStage, ASecondWriterOfTheSameLogWritesDirectly)
{
    TempDir dir;
    const std::string path = dir / "two.log";
    kuv::LogFile first;
    first.setStaged(true);
    ASSERT_TRUE(first.open(path, "", 0, 0));
    kuv::LogFile second;
    second.setStaged(true);
    ASSERT_TRUE(second.open(path, "", 0, 0));
    EXPECT_TRUE(first.staged());
    EXPECT_FALSE(second.staged());
    for (int i = 0; i < 300; ++i) {
        ASSERT_GT(first.write(LogLevel::Info, "s", "f", 1, "first " + std::to_string(i)), 0);
        ASSERT_GT(second.write(LogLevel::Info, "s", "f", 1, "second " + std::to_string(i)), 0);
    }
    first.close();
    second.close();
    int nextFirst = 0;
    int nextSecond = 0;
    for (const std::string& m : messages(path)) {
        if (m.rfind("first ", 0) == 0) {
            ASSERT_EQ(m, "first " + std::to_string(nextFirst++));
        } else {
            ASSERT_EQ(m, "second " + std::to_string(nextSecond++));
        }
    }
    EXPECT_EQ(nextFirst, 300);
    EXPECT_EQ(nextSecond, 300);
    // The first one gone, the next writer takes the stage.
    kuv::LogFile third;
    third.setStaged(true);
    ASSERT_TRUE(third.open(path, "", 0, 0));
    EXPECT_TRUE(third.staged());
}

TEST(LogStage, RotationKeepsNamesSizesAndWholeRecords)
{
    TempDir dir;
    const std::string one = record("message 00");
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(dir / "logs/app.log", dir / "logs/old", 3 * one.size(), 2));
    ASSERT_TRUE(log.staged());
    for (int i = 1; i <= 11; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "message %02d", i);
        ASSERT_EQ(log.write(LogLevel::Info, "s", "f", 1, text), static_cast<long>(one.size()));
    }
    ASSERT_TRUE(log.flush());
    EXPECT_EQ(sizeOf(dir / "logs/app.log"), static_cast<off_t>(2 * one.size()));
    EXPECT_EQ(sizeOf(dir / "logs/old/app.1.log"), static_cast<off_t>(3 * one.size()));
    EXPECT_EQ(sizeOf(dir / "logs/old/app.2.log"), static_cast<off_t>(3 * one.size()));
    EXPECT_FALSE(kuvtest::exists(dir / "logs/old/app.3.log"));
    EXPECT_EQ(messages(dir / "logs/old/app.2.log"), (std::vector<std::string>{"message 04", "message 05", "message 06"}));
    EXPECT_EQ(messages(dir / "logs/app.log"), (std::vector<std::string>{"message 10", "message 11"}));

    // Records of many lengths across many rotations: every file whole records within the size (a record
    // larger than the size alone in its file), all of them in order.
    kuv::LogFile many;
    many.setStaged(true);
    ASSERT_TRUE(many.open(dir / "many.log", "", 5000, 1000));
    std::mt19937 random(7);
    constexpr int kCount = 3000;
    for (int i = 0; i < kCount; ++i) {
        const size_t pad = i % 500 == 0 ? 6000 : random() % 300;
        ASSERT_GT(many.write(LogLevel::Info, "s", "f", 1, std::to_string(i) + " " + std::string(pad, 'x')), 0);
    }
    many.close();
    std::vector<std::string> files;
    for (int k = 1000; k >= 1; --k) {
        if (kuvtest::exists(dir / ("many." + std::to_string(k) + ".log"))) {
            files.push_back(dir / ("many." + std::to_string(k) + ".log"));
        }
    }
    files.push_back(dir / "many.log");
    int next = 0;
    for (const std::string& file : files) {
        const std::string content = kuvtest::readFile(file);
        ASSERT_FALSE(content.empty()) << file;
        ASSERT_EQ(content.back(), '\n') << file;
        const auto lines = kuvtest::lines(content);
        if (lines.size() > 1) {
            EXPECT_LE(content.size(), 5000u) << file;
        }
        for (const std::string& line : lines) {
            const std::string m = messageOf(line);
            ASSERT_EQ(m.substr(0, m.find(' ')), std::to_string(next)) << file;
            ++next;
        }
    }
    EXPECT_EQ(next, kCount);
}

// What the disk refuses is cut back to whole records and reported by flush() (or the next write).
TEST(LogStage, AFileThatRefusesRecordsKeepsWholeOnesAndSaysSo)
{
    TempDir dir;
    const std::string path = dir / "full.log";
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        kuv::LogFile log;
        log.setStaged(true);
        // The stage is made before the limit, as it would be on a disk that fills up later.
        if (!log.open(path, "", 0, 0) || !log.staged()) {
            _exit(10);
        }
        const struct rlimit limit {1000, 1000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        for (int i = 0; i < 40; ++i) {
            if (log.write(LogLevel::Info, "s", "f", 1, "a record of some length " + std::to_string(i)) <= 0) {
                _exit(errno == EFBIG ? 0 : 11);
            }
        }
        const bool flushed = log.flush();
        _exit(!flushed && errno == EFBIG ? 0 : 12);
    }
    ASSERT_EQ(waitChild(child), 0);
    const std::string content = kuvtest::readFile(path);
    ASSERT_FALSE(content.empty());
    EXPECT_LE(content.size(), 1000u);
    EXPECT_EQ(content.back(), '\n');
    int next = 0;
    for (const std::string& line : kuvtest::lines(content)) {
        ASSERT_EQ(messageOf(line), "a record of some length " + std::to_string(next++)) << line;
    }
}

// A forked child writes directly, with its own ids, while the parent's threads go on logging; it neither
// deadlocks nor touches the parent's stage, and even destroying its copy of the log returns.
TEST(LogStage, AForkedChildWritesDirectlyWithoutDeadlock)
{
    TempDir dir;
    const std::string path = dir / "fork.log";
    auto log = std::make_unique<kuv::LogFile>();
    log->setStaged(true);
    ASSERT_TRUE(log->open(path, "", 0, 0));
    std::atomic<bool> stop{false};
    std::atomic<int> busyWritten{0};
    std::thread busy([&] {
        for (int i = 0; !stop.load(); ++i) {
            log->write(LogLevel::Info, "s", "f", 1, "busy " + std::to_string(i));
            busyWritten.store(i + 1);
        }
    });
    while (busyWritten.load() < 100) {
        std::this_thread::yield();
    }
    std::vector<pid_t> children;
    for (int i = 0; i < 20; ++i) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const bool direct = !log->staged();
            const long n = log->write(LogLevel::Info, "s", "f", 1, "child " + std::to_string(i));
            log.reset();
            _exit(direct && n > 0 ? 0 : 1);
        }
        children.push_back(child);
        std::this_thread::sleep_for(1ms);
    }
    for (pid_t child : children) {
        EXPECT_EQ(waitChild(child), 0);
    }
    stop = true;
    busy.join();
    ASSERT_TRUE(log->staged());
    log->close();
    const auto all = messages(path);
    int kids = 0;
    int nextBusy = 0;
    for (const std::string& m : all) {
        if (m.rfind("child ", 0) == 0) {
            ++kids;
        } else {
            ASSERT_EQ(m, "busy " + std::to_string(nextBusy++));
        }
    }
    EXPECT_EQ(kids, 20);
    EXPECT_GT(nextBusy, 0);
}

// A process that ends with exit() appends what it staged before it goes: nothing waits for a next start.
TEST(LogStage, ExitAppendsWhatIsStaged)
{
    TempDir dir;
    const std::string path = dir / "exit.log";
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Never destroyed, as the process log is not.
        static kuv::LogFile* log = std::make_unique<kuv::LogFile>().release();
        log->setStaged(true);
        if (!log->open(path, "", 0, 0) || !log->staged()) {
            _exit(3);
        }
        for (int i = 0; i < 2000; ++i) {
            log->write(LogLevel::Info, "s", "f", 1, "at exit " + std::to_string(i));
        }
        std::exit(0);
    }
    ASSERT_EQ(waitChild(child), 0);
    const auto all = messages(path);
    ASSERT_EQ(all.size(), 2000u);
    EXPECT_EQ(all.back(), "at exit 1999");
}

// Larger than the ring: written directly once the ring is empty, in its place among the others.
TEST(LogStage, ARecordLargerThanTheStageKeepsItsPlace)
{
    TempDir dir;
    const std::string path = dir / "big.log";
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    log.write(LogLevel::Info, "s", "f", 1, "small 1");
    const std::string big = "[big] " + std::string(kuv::logstage::kRingSize + 100, 'b') + "\n";
    EXPECT_EQ(log.writeRecord(big), static_cast<long>(big.size()));
    log.write(LogLevel::Info, "s", "f", 1, "small 2");
    log.close();
    const auto lines = kuvtest::lines(kuvtest::readFile(path));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(messageOf(lines[0]), "small 1");
    EXPECT_EQ(lines[1].size(), big.size() - 1);
    EXPECT_EQ(messageOf(lines[2]), "small 2");
}

// Idle means idle: once the records are written the flusher sleeps until the next one, with no timer.
TEST(LogStage, TheFlusherDoesNotWakeWhenIdle)
{
    TempDir dir;
    EXPECT_TRUE(flusherSwitches().empty()) << "no flusher before the first staged record";
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(dir / "idle.log", "", 0, 0));
    EXPECT_TRUE(flusherSwitches().empty()) << "started at the first record, not at open";
    for (int i = 0; i < 5000; ++i) {
        log.write(LogLevel::Info, "s", "f", 1, "burst " + std::to_string(i));
    }
    ASSERT_TRUE(log.flush());
    std::this_thread::sleep_for(50ms); // it may still give the ring's pages back
    const auto before = flusherSwitches();
    ASSERT_EQ(before.size(), 1u);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(flusherSwitches(), before);
    // And it still answers.
    log.write(LogLevel::Info, "s", "f", 1, "later");
    ASSERT_TRUE(log.flush());
    EXPECT_EQ(messages(dir / "idle.log").back(), "later");
    log.close();
    EXPECT_TRUE(flusherSwitches().empty()) << "joined at close";
}

TEST(LogStage, ManyThreadsKeepEachRecordOnceAndTheirOwnOrder)
{
    TempDir dir;
    const std::string path = dir / "mt.log";
    kuv::LogFile log;
    log.setStaged(true);
    ASSERT_TRUE(log.open(path, "", 0, 0));
    constexpr int kThreads = 4;
    constexpr int kEach = 4000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            const std::string pad(t * 40, 'q');
            for (int i = 0; i < kEach; ++i) {
                log.write(LogLevel::Info, "s", "f", 1, "t" + std::to_string(t) + " " + std::to_string(i) + " " + pad);
            }
        });
    }
    // A reader meanwhile sees whole records only.
    for (int k = 0; k < 20; ++k) {
        const std::string content = kuvtest::readFile(path);
        const size_t lastLf = content.rfind('\n');
        for (const std::string& line : kuvtest::lines(content.substr(0, lastLf == std::string::npos ? 0 : lastLf + 1))) {
            ASSERT_EQ(line[0], '[') << line;
        }
        std::this_thread::sleep_for(2ms);
    }
    for (auto& th : threads) {
        th.join();
    }
    log.close();
    int next[kThreads] = {};
    const std::regex form(R"(^t(\d) (\d+) q*$)");
    for (const std::string& m : messages(path)) {
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(m, parts, form)) << m;
        const int t = std::stoi(parts[1]);
        ASSERT_EQ(std::stoi(parts[2]), next[t]) << m;
        ++next[t];
    }
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(next[t], kEach);
    }
}

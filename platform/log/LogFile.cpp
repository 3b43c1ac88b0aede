// SPDX-License-Identifier: GPL-2.0-or-later
// The record formatter and the rotating log file shared by every log of the platform, on spdlog: each
// LogFile owns an spdlog::logger (never registered, synchronous, never flushed on a timer) with one
// LogSink, whose RecordFormatter writes the record layout of the platform's logs.
#include "KuvLogFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "FileUtils.h"
#include "LogStage.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace kuv {

namespace {

// Whether eight bytes are all printable ASCII other than DEL and the backslash (the bytewise tests of
// "a byte below n" and "a zero byte", which are exact for the word as a whole).
inline bool plainAscii8(const unsigned char* p)
{
    constexpr uint64_t ones = 0x0101010101010101ULL;
    constexpr uint64_t high = 0x8080808080808080ULL;
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    const uint64_t del = v ^ (0x7f * ones);
    const uint64_t backslash = v ^ (0x5c * ones);
    return ((v & high) | ((v - 0x20 * ones) & ~v & high) | ((del - ones) & ~del & high) |
            ((backslash - ones) & ~backslash & high)) == 0;
}

// Whether the log rule leaves text as it stands: well-formed UTF-8 without C0 controls, DEL, backslash,
// C1 controls, U+2028 or U+2029. Most records are, and skip the escaper; every record's source,
// function and message pass here, plain ASCII eight bytes at a time.
bool plainLogText(std::string_view text)
{
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    auto cont = [&](const unsigned char* q) { return q < end && (*q & 0xc0) == 0x80; };
    while (p < end) {
        if (end - p >= 8 && plainAscii8(p)) {
            p += 8;
            continue;
        }
        const unsigned char b = *p;
        if (b < 0x80) {
            if (b < 0x20 || b == 0x7f || b == '\\') {
                return false;
            }
            ++p;
        } else if (b >= 0xc2 && b <= 0xdf) {
            // 0xc2 0x80..0x9f are the C1 controls.
            if (!cont(p + 1) || (b == 0xc2 && p[1] < 0xa0)) {
                return false;
            }
            p += 2;
        } else if (b >= 0xe0 && b <= 0xef) {
            if (!cont(p + 1) || !cont(p + 2) || (b == 0xe0 && p[1] < 0xa0) || (b == 0xed && p[1] > 0x9f) ||
                (b == 0xe2 && p[1] == 0x80 && (p[2] == 0xa8 || p[2] == 0xa9))) {
                return false;
            }
            p += 3;
        } else if (b >= 0xf0 && b <= 0xf4) {
            if (!cont(p + 1) || !cont(p + 2) || !cont(p + 3) || (b == 0xf0 && p[1] < 0x90) ||
                (b == 0xf4 && p[1] > 0x8f)) {
                return false;
            }
            p += 4;
        } else {
            return false;
        }
    }
    return true;
}

// std::string and spdlog's memory buffer alike.
template <typename Buffer>
void put(Buffer& out, std::string_view text)
{
    out.append(text.data(), text.data() + text.size());
}

template <typename Buffer>
void appendEscaped(Buffer& out, const char* text)
{
    if (text == nullptr) {
        return;
    }
    const std::string_view view(text);
    if (plainLogText(view)) {
        put(out, view);
    } else {
        put(out, escapeControl(std::string(view)));
    }
}

// The message as a record carries it (kuv::logMessage); plain text as it stands, without a copy. The
// rule needs what the caller cut, which spdlog's message does not carry, so it is applied before the
// message is handed to the logger.
std::string_view ruledMessage(std::string_view message, size_t alreadyCut, std::string& scratch)
{
    std::string_view body = message;
    if (alreadyCut == 0 && !body.empty() && body.back() == '\n') {
        body.remove_suffix(1);
    }
    if (alreadyCut == 0 && body.size() <= kMaxLogMessage && plainLogText(body)) {
        return body;
    }
    scratch = logMessage(std::string(message), kMaxLogMessage, alreadyCut);
    return scratch;
}

template <typename Buffer, typename Int>
void appendNumber(Buffer& out, Int value)
{
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, value);
    out.append(digits, result.ptr);
}

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. The calendar part changes once a second, so each thread keeps
// it and writes only the milliseconds afresh.
template <typename Buffer>
void appendTimestamp(Buffer& out, std::chrono::system_clock::time_point time)
{
    struct Cache {
        std::time_t secs = -1;
        char text[32] = {0};
        size_t size = 0;
    };
    thread_local Cache cache;
    const auto sinceEpoch = time.time_since_epoch();
    const auto secs = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const std::time_t now = static_cast<std::time_t>(secs.count());
    if (now != cache.secs) {
        struct tm local {};
        localtime_r(&now, &local);
        const int n = std::snprintf(cache.text, sizeof cache.text, "%04d-%02d-%02d %02d:%02d:%02d.",
                                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                    local.tm_min, local.tm_sec);
        cache.size = n > 0 ? std::min(static_cast<size_t>(n), sizeof cache.text - 1) : 0;
        cache.secs = now;
    }
    out.append(cache.text, cache.text + cache.size);
    const long ms = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch - secs).count());
    out.push_back(static_cast<char>('0' + ms / 100));
    out.push_back(static_cast<char>('0' + ms / 10 % 10));
    out.push_back(static_cast<char>('0' + ms % 10));
}

// The process id, asked once and again only in a forked child.
std::atomic<pid_t> g_pid{::getpid()};
const bool g_pidAtFork = [] {
    pthread_atfork(nullptr, nullptr, [] { g_pid.store(::getpid(), std::memory_order_relaxed); });
    return true;
}();

// "<pid>:<tid>" of the calling thread, made once per thread (and again in a forked child, where spdlog's
// own cached thread id would still be the parent's).
template <typename Buffer>
void appendIds(Buffer& out)
{
    struct Ids {
        pid_t pid = -1;
        char text[32] = {0};
        size_t size = 0;
    };
    thread_local Ids ids;
    const pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (ids.pid != pid) {
        const int n = std::snprintf(ids.text, sizeof ids.text, "%d:%d", static_cast<int>(pid),
                                    static_cast<int>(::gettid()));
        ids.size = n > 0 ? std::min(static_cast<size_t>(n), sizeof ids.text - 1) : 0;
        ids.pid = pid;
    }
    out.append(ids.text, ids.text + ids.size);
}

// One record from a message already under the log rule.
template <typename Buffer>
void appendRecord(Buffer& out, std::chrono::system_clock::time_point time, LogLevel level, const char* source,
                  const char* function, unsigned int line, std::string_view message)
{
    (void)g_pidAtFork;
    out.push_back('[');
    appendTimestamp(out, time);
    put(out, "] [");
    appendIds(out);
    put(out, "] [");
    put(out, logLevelName(level));
    put(out, "] [");
    appendEscaped(out, source);
    out.push_back(':');
    appendEscaped(out, function);
    out.push_back(':');
    appendNumber(out, line);
    put(out, "] ");
    put(out, message);
    out.push_back('\n');
}

// kuv::LogLevel and spdlog's levels count alike from trace to error; past either end is the nearest.
spdlog::level::level_enum toSpdlog(LogLevel level)
{
    return static_cast<spdlog::level::level_enum>(std::clamp<int>(static_cast<int>(level), LOG_LEVEL_TRACE, LOG_LEVEL_ERROR));
}

LogLevel fromSpdlog(spdlog::level::level_enum level)
{
    return static_cast<LogLevel>(std::clamp<int>(static_cast<int>(level), LOG_LEVEL_TRACE, LOG_LEVEL_ERROR));
}

// The record layout of the platform's logs. The payload is the message under the log rule.
class RecordFormatter final : public spdlog::formatter {
public:
    void format(const spdlog::details::log_msg& msg, spdlog::memory_buf_t& dest) override
    {
        appendRecord(dest, msg.time, fromSpdlog(msg.level), msg.source.filename, msg.source.funcname,
                     static_cast<unsigned int>(msg.source.line), std::string_view(msg.payload.data(), msg.payload.size()));
    }
    std::unique_ptr<spdlog::formatter> clone() const override { return std::make_unique<RecordFormatter>(); }
};

// What the sink made of the calling thread's last record: spdlog's logger returns nothing, and the
// sink runs on the caller's thread.
struct SinkResult {
    long written = -1;
    int error = 0;
};
thread_local SinkResult t_result;

// Writes the whole record or leaves the file as it was: a fragment would join the next record.
long appendWhole(int fd, std::string_view record, bool cutBack)
{
    const ssize_t n = safeWrite(fd, record.data(), record.size());
    if (n == static_cast<ssize_t>(record.size())) {
        return n;
    }
    const int failure = n < 0 ? errno : (errno != 0 ? errno : ENOSPC);
    if (n > 0 && cutBack) {
        // With O_APPEND the offset now ends the fragment.
        const off_t end = ::lseek(fd, 0, SEEK_CUR);
        if (end < n || ::ftruncate(fd, end - n) != 0) {
            const char lf = '\n';
            (void)!::write(fd, &lf, 1);
        }
    }
    errno = failure;
    return -1;
}

// All of iov unless an error stops it: the bytes written, with errno set when short.
size_t writevAll(int fd, struct iovec* iov, int count)
{
    size_t done = 0;
    while (count > 0) {
        const ssize_t n = ::writev(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return done;
        }
        if (n == 0) {
            errno = ENOSPC;
            return done;
        }
        done += static_cast<size_t>(n);
        size_t left = static_cast<size_t>(n);
        while (count > 0 && left >= iov->iov_len) {
            left -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    return done;
}

std::string directoryOf(const std::string& path)
{
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    return dir.empty() ? std::string(".") : dir.string() + "/";
}

// Set once exit() has flushed every stage: a log opened afterwards writes directly.
std::atomic<bool> g_exiting{false};

// What the flusher of one stage does and is told, under the sink's mutex.
struct Staging {
    std::unique_ptr<logstage::Stage> stage;
    pthread_t thread{};
    bool started = false;  // the flusher runs
    bool noThread = false; // it could not be started: the writer appends each record itself
    bool asleep = false;   // waiting for a writer's signal
    bool urgent = false;   // write what there is now: the ring fills up, or someone waits for it
    bool stop = false;     // drain, then end
    bool exited = false;   // the flusher has ended
    bool writing = false;  // the flusher is writing a range: the log file is its own
    int error = 0;         // why the last batch could not be written, for the next writer
    uint64_t sinceTrim = 0;
};

// The ring's pages are given back once this much went through it since the last time.
constexpr uint64_t kTrimAfter = 64 * 1024;
// How long a batch gathers once the first record of it is staged. A flusher that took records as they
// came would, being as fast as the writer, take them one by one: a write(2) and a wake-up per record.
constexpr auto kGather = std::chrono::milliseconds(1);

} // namespace

// The file under the logger: size rotation into numbered backups, private files never opened through
// a link; or stderr. A staged file copies each record into its stage and a flusher thread appends
// them in batches; otherwise (stderr, a stage that cannot be had, a forked child) one write(2) per record.
class LogSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    LogSink();
    ~LogSink() override;

    bool open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
              std::string* error);
    void openStderr();
    bool isOpen();
    void close();
    bool drain();
    bool staged();
    long writeRecord(std::string_view record);
    void setStaged(bool staged) { m_wantStage.store(staged, std::memory_order_relaxed); }

    // Drains and ends the stage; later records are written directly.
    void unstage();

    static void forkPrepare();
    static void forkParent();
    static void forkChild();
    static void flushAllAtExit();

    // The flusher thread's body.
    void flusherLoop();

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        // In the writer's frame, not the sink: a writer waiting for room in the stage lets others in
        // meanwhile. Records fit the buffer's inline part, so none allocates.
        spdlog::memory_buf_t record;
        formatter_->format(msg, record);
        t_result.written = appendLocked(std::string_view(record.data(), record.size()));
        t_result.error = errno;
    }
    // Records are handed to the file as they come; drain() waits for the stage.
    void flush_() override {}

private:
    bool openLocked(std::string* error);
    void rotateLocked();
    long appendLocked(std::string_view record);
    long appendDirect(std::string_view record);
    long stageLocked(std::string_view record);
    // Waits on m_progress with the sink's mutex, which the caller holds (spdlog's lock_guard or ours).
    template <typename Done>
    void waitLocked(Done done)
    {
        std::unique_lock<std::mutex> lock(mutex_, std::adopt_lock);
        m_progress.wait(lock, done);
        lock.release();
    }
    void wakeFlusherLocked(Staging& s);
    void hurryFlusherLocked(Staging& s);
    void makeStageLocked();
    void recoverFlight(logstage::Stage& stage);
    int writeRange(logstage::Stage& stage, uint64_t from, uint64_t to);
    std::string backupName(size_t index) const;

    UniqueFd m_fd;
    bool m_stderr = false;
    std::string m_path;
    std::string m_backupStem; // backup directory and stem: "<dir>/<stem>."
    uint64_t m_maxSize = 0;
    uint64_t m_size = 0;
    size_t m_backups = 0;

    // While a stage is in use, the log file (m_fd, m_size, rotation) belongs to whoever writes a range
    // of it: the flusher, or a holder of the mutex who finds the ring empty and the flusher not writing.
    std::atomic<bool> m_wantStage{false};
    std::unique_ptr<Staging> m_stage;
    std::condition_variable m_wake;     // the flusher waits here
    std::condition_variable m_progress; // writers waiting for room, flush() and unstage() wait here

    // Every sink, for fork() and exit().
    LogSink* m_prev = nullptr;
    LogSink* m_next = nullptr;
};

namespace {

// Not destroyed at exit (trivially destructible), so that a sink outliving the others can still leave.
std::mutex g_sinksMutex;
LogSink* g_sinks = nullptr;

const bool g_hooks = [] {
    pthread_atfork(&LogSink::forkPrepare, &LogSink::forkParent, &LogSink::forkChild);
    std::atexit(&LogSink::flushAllAtExit);
    return true;
}();

void* runFlusher(void* sink);

} // namespace

LogSink::LogSink() : base_sink(std::make_unique<RecordFormatter>())
{
    (void)g_hooks;
    std::lock_guard<std::mutex> lock(g_sinksMutex);
    m_next = g_sinks;
    if (g_sinks != nullptr) {
        g_sinks->m_prev = this;
    }
    g_sinks = this;
}

LogSink::~LogSink()
{
    {
        std::lock_guard<std::mutex> lock(g_sinksMutex);
        (m_prev != nullptr ? m_prev->m_next : g_sinks) = m_next;
        if (m_next != nullptr) {
            m_next->m_prev = m_prev;
        }
    }
    unstage();
}

// No other thread is inside a sink while the process forks, and no flusher is writing: the child
// finds every mutex free and every log file as its holder left it between two batches.
void LogSink::forkPrepare()
{
    g_sinksMutex.lock();
    for (LogSink* s = g_sinks; s != nullptr; s = s->m_next) {
        s->mutex_.lock();
        s->waitLocked([s] { return s->m_stage == nullptr || !s->m_stage->writing; });
    }
}

void LogSink::forkParent()
{
    for (LogSink* s = g_sinks; s != nullptr; s = s->m_next) {
        s->mutex_.unlock();
    }
    g_sinksMutex.unlock();
}

// The child shares the parent's stage and its lock but has no flusher: it writes directly and leaves the
// ring alone. The condition variables are made anew: the parent's count the parent's waiters, which a
// destructor in the child would wait for.
void LogSink::forkChild()
{
    for (LogSink* s = g_sinks; s != nullptr; s = s->m_next) {
        s->m_stage.reset();
        new (&s->m_wake) std::condition_variable();
        new (&s->m_progress) std::condition_variable();
        s->mutex_.unlock();
    }
    g_sinksMutex.unlock();
}

// Records staged when the process exits are appended before it ends.
void LogSink::flushAllAtExit()
{
    g_exiting.store(true);
    std::lock_guard<std::mutex> lock(g_sinksMutex);
    for (LogSink* s = g_sinks; s != nullptr; s = s->m_next) {
        s->unstage();
    }
}

void formatLogRecord(std::string& out, LogLevel level, const char* source, const char* function, unsigned int line,
                     std::string_view message, size_t alreadyCut)
{
    std::string scratch;
    appendRecord(out, std::chrono::system_clock::now(), level, source, function, line,
                 ruledMessage(message, alreadyCut, scratch));
}

bool LogSink::open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
                   std::string* error)
{
    unstage();
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = false;
    m_path = userStatePath(path);
    const std::filesystem::path file(m_path);
    const std::string stem = file.extension() == ".log" ? file.stem().string() : file.filename().string();
    std::string dir = backupDir.empty() ? directoryOf(m_path) : userStatePath(backupDir);
    if (!dir.empty() && dir.back() != '/') {
        dir += '/';
    }
    m_backupStem = dir + stem + '.';
    m_maxSize = maxSize;
    m_backups = backups;
    if (stem.empty()) {
        if (error != nullptr) {
            *error = "no log file name in " + escapeControl(m_path);
        }
        return false;
    }
    if (!openLocked(error)) {
        return false;
    }
    if (m_wantStage.load(std::memory_order_relaxed) && !g_exiting.load()) {
        makeStageLocked();
    }
    return true;
}

// Never through a planted link, never anything but a regular file, private to the user. Read as well
// as written: a stage left by a killed writer is compared with what the file holds.
bool LogSink::openLocked(std::string* error)
{
    const std::string dir = directoryOf(m_path);
    if (!CDir::mkpath(dir, 0700)) {
        if (error != nullptr) {
            *error = "cannot open " + escapeControl(m_path) + ": cannot create its directory: " + std::strerror(errno);
        }
        return false;
    }
    UniqueFd fd(::open(m_path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd.valid() && errno == EACCES) {
        // A file the user made write-only is still written; only a batch in flight cannot be compared.
        fd.reset(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    }
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        const int why = fd.valid() ? EINVAL : errno;
        if (error != nullptr) {
            *error = "cannot open " + escapeControl(m_path) + ": " +
                     (why == EINVAL ? std::string("not a regular file") : std::string(std::strerror(why)));
        }
        errno = why;
        return false;
    }
    m_fd = std::move(fd);
    m_size = static_cast<uint64_t>(st.st_size);
    return true;
}

// A stage that cannot be had (another writer holds it, no room, no mapping) leaves the file written
// directly. One left by a killed writer is appended first, before any new record.
void LogSink::makeStageLocked()
{
    try {
        auto stage = logstage::Stage::open(logstage::stagePathFor(m_path));
        if (stage == nullptr) {
            return;
        }
        recoverFlight(*stage);
        if (stage->head() != stage->tail()) {
            writeRange(*stage, stage->head(), stage->tail());
        }
        auto staging = std::make_unique<Staging>();
        staging->stage = std::move(stage);
        m_stage = std::move(staging);
    } catch (...) {
        m_stage.reset();
    }
}

// The batch that was being written when the writer died may already be in the file, whole or in part:
// what is there is not written again. A part that ends inside a record is cut back to whole records.
void LogSink::recoverFlight(logstage::Stage& stage)
{
    const logstage::Flight f = stage.flight();
    const uint64_t head = stage.head();
    if (f.end == 0 || f.end <= head || f.end > stage.tail()) {
        stage.clearFlight();
        return;
    }
    struct stat st {};
    if (::fstat(m_fd.get(), &st) != 0 || static_cast<uint64_t>(st.st_dev) != f.dev ||
        static_cast<uint64_t>(st.st_ino) != f.ino || static_cast<uint64_t>(st.st_size) <= f.offset) {
        stage.clearFlight();
        return;
    }
    const size_t batch = static_cast<size_t>(f.end - head);
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    std::vector<char> staged(batch);
    stage.copyOut(head, batch, staged.data());
    // Another writer of the file may have appended between the size taken and the batch: look a little
    // further than the offset for the whole batch.
    const size_t window = static_cast<size_t>(std::min<uint64_t>(size - f.offset, batch + 4 * 1024 * 1024));
    std::vector<char> inFile(window);
    const ssize_t got = ::pread(m_fd.get(), inFile.data(), window, static_cast<off_t>(f.offset));
    if (got <= 0) {
        stage.clearFlight();
        return;
    }
    const size_t have = static_cast<size_t>(got);
    const size_t prefix = std::min(have, batch);
    if (std::memcmp(inFile.data(), staged.data(), prefix) == 0) {
        if (prefix == batch) {
            stage.setHead(f.end);
        } else if (f.offset + have == size) {
            // The write was cut short and the file ends there.
            const void* lf = ::memrchr(staged.data(), '\n', prefix);
            const size_t whole = lf == nullptr ? 0 : static_cast<size_t>(static_cast<const char*>(lf) - staged.data()) + 1;
            if (whole == prefix || ::ftruncate(m_fd.get(), static_cast<off_t>(f.offset + whole)) == 0) {
                stage.setHead(head + whole);
                m_size = f.offset + whole;
            }
        }
    } else if (std::search(inFile.begin(), inFile.begin() + static_cast<std::ptrdiff_t>(have), staged.begin(),
                           staged.end()) != inFile.begin() + static_cast<std::ptrdiff_t>(have)) {
        stage.setHead(f.end);
    }
    stage.clearFlight();
}

void LogSink::openStderr()
{
    unstage();
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = true;
    m_maxSize = 0;
}

bool LogSink::isOpen()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return m_stderr || m_stage != nullptr || m_fd.valid();
}

bool LogSink::staged()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return m_stage != nullptr;
}

void LogSink::close()
{
    unstage();
    std::lock_guard<std::mutex> lock(mutex_);
    m_fd.reset();
    m_stderr = false;
}

bool LogSink::drain()
{
    std::lock_guard<std::mutex> lock(mutex_);
    Staging* const s = m_stage.get();
    if (s == nullptr) {
        return true;
    }
    if (s->started) {
        hurryFlusherLocked(*s);
        waitLocked([&] { return m_stage.get() != s || s->stage->head() == s->stage->tail(); });
    }
    if (m_stage.get() == s && s->error != 0) {
        errno = std::exchange(s->error, 0);
        return false;
    }
    return true;
}

void LogSink::unstage()
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (m_stage == nullptr) {
        return;
    }
    Staging& s = *m_stage;
    if (s.started) {
        s.stop = true;
        s.asleep = false;
        m_wake.notify_one();
        m_progress.wait(lock, [&] { return s.exited; });
        pthread_join(s.thread, nullptr);
    }
    // What was staged after the flusher ended, or everything when it never ran.
    if (s.stage->head() != s.stage->tail()) {
        writeRange(*s.stage, s.stage->head(), s.stage->tail());
    }
    m_stage.reset();
    m_progress.notify_all();
}

std::string LogSink::backupName(size_t index) const
{
    return m_backupStem + std::to_string(index) + ".log";
}

void LogSink::rotateLocked()
{
    if (m_backups > 0) {
        CDir::mkpath(directoryOf(m_backupStem), 0700);
        ::unlink(backupName(m_backups).c_str());
        for (size_t i = m_backups; i > 1; --i) {
            ::rename(backupName(i - 1).c_str(), backupName(i).c_str());
        }
        if (::rename(m_path.c_str(), backupName(1).c_str()) == 0) {
            m_fd.reset();
            openLocked(nullptr);
            return;
        }
    }
    // No backups, or the old file cannot be kept (another file system): start it afresh rather than let
    // it grow without end.
    if (::ftruncate(m_fd.get(), 0) == 0) {
        m_size = 0;
    }
}

long LogSink::appendDirect(std::string_view record)
{
    if (m_stderr) {
        return appendWhole(STDERR_FILENO, record, false);
    }
    if (!m_fd.valid()) {
        errno = EBADF;
        return -1;
    }
    if (m_maxSize > 0 && m_size > 0 && m_size + record.size() > m_maxSize) {
        rotateLocked();
        if (!m_fd.valid()) {
            return -1;
        }
    }
    const long n = appendWhole(m_fd.get(), record, true);
    if (n > 0) {
        m_size += static_cast<uint64_t>(n);
    }
    return n;
}

long LogSink::appendLocked(std::string_view record)
{
    return m_stage != nullptr ? stageLocked(record) : appendDirect(record);
}

void LogSink::wakeFlusherLocked(Staging& s)
{
    if (s.asleep) {
        s.asleep = false;
        m_wake.notify_one();
    }
}

void LogSink::hurryFlusherLocked(Staging& s)
{
    s.asleep = false;
    if (!s.urgent) {
        s.urgent = true;
        m_wake.notify_one();
    }
}

// Copies the record into the ring (waiting for room when it is full) and signals the flusher if it
// sleeps. The record counts as written: it survives the process from here on.
long LogSink::stageLocked(std::string_view record)
{
    Staging* const s = m_stage.get();
    logstage::Stage& stage = *s->stage;
    if (s->error != 0) {
        errno = std::exchange(s->error, 0);
        return -1;
    }
    const uint64_t size = record.size();
    if (size > stage.capacity()) {
        // Larger than the ring: once the ring is empty and the flusher between batches, the file is ours.
        if (s->started) {
            hurryFlusherLocked(*s);
            waitLocked([&] { return m_stage.get() != s || (stage.head() == stage.tail() && !s->writing); });
            if (m_stage.get() != s) {
                return appendLocked(record);
            }
        }
        return appendDirect(record);
    }
    while (stage.capacity() - (stage.tail() - stage.head()) < size) {
        if (!s->started) {
            // No flusher: make room ourselves.
            writeRange(stage, stage.head(), stage.tail());
            continue;
        }
        hurryFlusherLocked(*s);
        waitLocked([&] { return m_stage.get() != s || stage.capacity() - (stage.tail() - stage.head()) >= size; });
        if (m_stage.get() != s) {
            return appendLocked(record);
        }
    }
    const uint64_t tail = stage.tail();
    stage.copyIn(tail, record.data(), record.size());
    stage.setTail(tail + size);
    s->sinceTrim += size;
    if (!s->started && !s->stop && !s->noThread) {
        // The flusher takes no signal meant for the process.
        sigset_t all;
        sigset_t old;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);
        s->started = pthread_create(&s->thread, nullptr, &runFlusher, this) == 0;
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
        s->noThread = !s->started;
    }
    if (s->started) {
        if (stage.tail() - stage.head() >= stage.capacity() / 2) {
            hurryFlusherLocked(*s);
        } else {
            wakeFlusherLocked(*s);
        }
    } else {
        const int failure = writeRange(stage, tail, tail + size);
        if (failure != 0) {
            errno = failure;
            return -1;
        }
    }
    return static_cast<long>(size);
}

namespace {
void* runFlusher(void* sink)
{
    pthread_setname_np(pthread_self(), "kuv-logflush");
    static_cast<LogSink*>(sink)->flusherLoop();
    return nullptr;
}
} // namespace

// Sleeps without a timeout while the ring is empty. Woken by a record, it lets the batch gather for a
// moment (unless the ring fills up or someone waits), then takes it all in one piece.
void LogSink::flusherLoop()
{
    std::unique_lock<std::mutex> lock(mutex_);
    Staging& s = *m_stage;
    logstage::Stage& stage = *s.stage;
    for (;;) {
        if (stage.head() != stage.tail() && !s.urgent && !s.stop) {
            m_wake.wait_for(lock, kGather, [&] { return s.urgent || s.stop; });
        }
        s.urgent = false;
        const uint64_t from = stage.head();
        const uint64_t to = stage.tail();
        if (from == to) {
            if (s.stop) {
                break;
            }
            if (s.sinceTrim >= kTrimAfter) {
                s.sinceTrim = 0;
                stage.trim();
                continue;
            }
            s.asleep = true;
            m_wake.wait(lock, [&] { return !s.asleep; });
            continue;
        }
        s.writing = true;
        lock.unlock();
        const int failure = writeRange(stage, from, to);
        lock.lock();
        s.writing = false;
        if (failure != 0 && s.error == 0) {
            s.error = failure;
        }
        m_progress.notify_all();
    }
    s.exited = true;
    m_progress.notify_all();
}

// Appends [from, to) of the ring to the file in as few writes as rotation allows, whole records in each
// file. Before each write the flight record names the file, its size and where the batch ends, so a
// writer killed during the write neither loses nor repeats the batch. What the disk refuses is dropped
// back to whole records; the error is returned.
int LogSink::writeRange(logstage::Stage& stage, uint64_t from, uint64_t to)
{
    uint64_t at = from;
    int failure = 0;
    bool rotated = false; // once per record at most, even when the old file cannot be let go
    while (at < to) {
        struct stat st {};
        if (!m_fd.valid() || ::fstat(m_fd.get(), &st) != 0) {
            failure = m_fd.valid() ? errno : EBADF;
            break;
        }
        m_size = static_cast<uint64_t>(st.st_size);
        const size_t left = static_cast<size_t>(to - at);
        size_t chunk = left;
        if (m_maxSize > 0 && m_size + left > m_maxSize) {
            const size_t room = m_maxSize > m_size ? static_cast<size_t>(m_maxSize - m_size) : 0;
            chunk = stage.throughLastNewline(at, std::min(room, left));
            if (chunk == 0) {
                if (m_size > 0 && !rotated) {
                    rotateLocked();
                    rotated = true;
                    continue;
                }
                // A record larger than a whole file goes in whole.
                chunk = stage.throughFirstNewline(at, left);
                if (chunk == 0) {
                    chunk = left;
                }
            }
        }
        stage.setFlight({static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino), m_size, at + chunk});
        struct iovec iov[2];
        const int count = stage.pieces(at, chunk, iov);
        errno = 0;
        const size_t written = writevAll(m_fd.get(), iov, count);
        if (written == chunk) {
            m_size += chunk;
            at += chunk;
            rotated = false;
            stage.setHead(at);
            stage.clearFlight();
            continue;
        }
        failure = errno != 0 ? errno : ENOSPC;
        const size_t whole = stage.throughLastNewline(at, written);
        if (whole < written && ::ftruncate(m_fd.get(), static_cast<off_t>(m_size + whole)) != 0) {
            const char lf = '\n';
            (void)!::write(m_fd.get(), &lf, 1);
        }
        m_size += whole;
        break;
    }
    // What could not be written is dropped: a full disk must not stop the writers.
    stage.setHead(to);
    stage.clearFlight();
    return failure;
}

long LogSink::writeRecord(std::string_view record)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return appendLocked(record);
}

LogFile::LogFile()
{
    try {
        auto sink = std::make_shared<LogSink>();
        auto logger = std::make_shared<spdlog::logger>("kuv", sink);
        logger->set_level(spdlog::level::trace); // LogFile filters before it formats
        logger->flush_on(spdlog::level::off);
        // A record that fails is reported to the caller by write(); nothing goes to stderr.
        logger->set_error_handler([](const std::string&) {});
        m_sink = std::move(sink);
        m_logger = std::move(logger);
    } catch (...) {
        m_sink.reset();
        m_logger.reset();
    }
}

LogFile::~LogFile()
{
    close();
}

bool LogFile::open(const std::string& path, const std::string& backupDir, uint64_t maxSize, size_t backups,
                   std::string* error)
{
    try {
        if (m_sink == nullptr) {
            if (error != nullptr) {
                *error = "cannot open " + escapeControl(path) + ": out of memory";
            }
            return false;
        }
        return m_sink->open(path, backupDir, maxSize, backups, error);
    } catch (...) {
        errno = ENOMEM;
        return false;
    }
}

void LogFile::setStaged(bool staged)
{
    if (m_sink != nullptr) {
        m_sink->setStaged(staged);
    }
}

bool LogFile::staged() const
{
    return m_sink != nullptr && m_sink->staged();
}

void LogFile::openStderr()
{
    if (m_sink != nullptr) {
        m_sink->openStderr();
    }
}

bool LogFile::isOpen() const
{
    return m_sink != nullptr && m_sink->isOpen();
}

void LogFile::close()
{
    if (m_sink != nullptr) {
        m_sink->close();
    }
}

bool LogFile::flush()
{
    return m_sink == nullptr || m_sink->drain();
}

long LogFile::writeRecord(std::string_view record)
{
    if (m_sink == nullptr) {
        errno = EBADF;
        return -1;
    }
    return m_sink->writeRecord(record);
}

long LogFile::write(LogLevel level, const char* source, const char* function, unsigned int line,
                    std::string_view message, size_t alreadyCut)
{
    if (!enabled(level)) {
        return 0;
    }
    if (m_logger == nullptr) {
        errno = EBADF;
        return -1;
    }
    try {
        std::string scratch; // only a message that needs escaping or cutting fills it
        const std::string_view text = ruledMessage(message, alreadyCut, scratch);
        t_result = SinkResult{-1, ENOMEM}; // what stays when spdlog's error handler took the record
        m_logger->log(spdlog::source_loc{source, static_cast<int>(line), function}, toSpdlog(level),
                      spdlog::string_view_t(text.data(), text.size()));
        errno = t_result.error;
        return t_result.written;
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
}

bool formatLogMessage(LogMessageText& out, const char* format, va_list args)
{
    out.cut = 0;
    out.text = std::string_view();
    if (format == nullptr) {
        return false;
    }
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(out.small, sizeof out.small, format, copy);
    va_end(copy);
    if (n < 0) {
        return false;
    }
    if (static_cast<size_t>(n) < sizeof out.small) {
        out.text = std::string_view(out.small, static_cast<size_t>(n));
        return true;
    }
    // Only what a record can carry is formatted; the rest is counted as cut.
    const size_t keep = std::min(static_cast<size_t>(n), 4 * kMaxLogMessage);
    out.big.resize(keep + 1);
    std::vsnprintf(out.big.data(), out.big.size(), format, args);
    out.big.resize(keep);
    out.text = out.big;
    out.cut = static_cast<size_t>(n) - keep;
    return true;
}

int logPrintV(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
              const char* format, va_list args)
{
    const auto kuvLevel = static_cast<LogLevel>(level);
    if (log == nullptr || !log->enabled(kuvLevel)) {
        return 0;
    }
    try {
        LogMessageText message;
        if (!formatLogMessage(message, format, args)) {
            return 0;
        }
        const long n = log->write(kuvLevel, source, function, line, message.text, message.cut);
        return n > 0 ? static_cast<int>(n) : 0;
    } catch (...) {
        return 0;
    }
}

int logPrint(LogFile* log, _LOG_LEVEL level, const char* source, const char* function, unsigned int line,
             const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = logPrintV(log, level, source, function, line, format, args);
    va_end(args);
    return n;
}

} // namespace kuv

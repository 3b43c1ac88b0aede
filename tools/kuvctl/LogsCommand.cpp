// SPDX-License-Identifier: GPL-2.0-or-later
#include "LogsCommand.h"

#include "ArgParser.h"
#include "ConstConfig.h"
#include "FileUtils.h"
#include "SafeIo.h"
#include "Signals.h"
#include "UniqueFd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace kuvctl {

namespace {

constexpr long kMaxLines = 1000000;
constexpr size_t kChunk = 64 * 1024;
// inotify may miss a rename across file systems or a file on NFS: look anyway this often.
constexpr int kRecheckMs = 500;

using UniqueFd = kuv::UniqueFd;

volatile sig_atomic_t g_stop = 0;
void onStopSignal(int) { g_stop = 1; }

// Standard output through the escaping rule of the log writers, line by line, so a line cannot drive
// the terminal or pass for two; backslashes are left alone, the lines are escaped already. Remembers
// whether the reader went away.
class Output {
public:
    enum State { Open, ReaderGone, Failed };

    // Whole lines are printed; a partial line waits for its end (or for finishLine()).
    bool write(const char* data, size_t size)
    {
        m_pending.append(data, size);
        std::string buf;
        size_t start = 0;
        for (;;) {
            const size_t lf = m_pending.find('\n', start);
            if (lf == std::string::npos) {
                break;
            }
            buf += kuv::escapeControl(m_pending.substr(start, lf - start), false);
            buf += '\n';
            start = lf + 1;
        }
        m_pending.erase(0, start);
        // A line without end is not held without bound.
        if (m_pending.size() > kChunk * 4) {
            buf += kuv::escapeControl(m_pending, false);
            m_pending.clear();
        }
        return put(buf);
    }
    bool finishLine()
    {
        if (m_pending.empty()) {
            return true;
        }
        std::string buf = kuv::escapeControl(m_pending, false);
        m_pending.clear();
        return put(buf);
    }
    State state() const { return m_state; }
    const std::string& error() const { return m_error; }

private:
    bool put(const std::string& buf)
    {
        const ssize_t n = kuv::safeWrite(STDOUT_FILENO, buf.data(), buf.size());
        if (n >= 0 && static_cast<size_t>(n) == buf.size()) {
            return true;
        }
        if (errno == EPIPE) {
            m_state = ReaderGone;
        } else {
            m_state = Failed;
            m_error = std::strerror(errno);
        }
        return false;
    }

    State m_state = Open;
    std::string m_error;
    std::string m_pending;
};

struct Options {
    long lines = 10;
    bool follow = true;
    std::string path;
};

enum OptionId { kHelp, kLines, kNoFollow, kZell, kFile };
const std::vector<OptionSpec> kOptions = {
    {"help", 'h', false}, {"lines", 'n', true, true}, {"no-follow", 0, false}, {"zell", 0, false}, {"file", 0, true},
};

// 0 parsed, 1 help asked, 2 wrong usage (message printed).
int parseOptions(const std::vector<std::string>& args, Options& opt)
{
    bool zell = false;
    std::string file;
    ArgParser parser(args, kOptions);
    ArgParser::Item item;
    while (parser.next(item)) {
        if (item.kind == ArgParser::Item::MissingValue) {
            std::fprintf(stderr, "kuvctl logs: %s needs a value\n", item.text.c_str());
            return 2;
        }
        if (item.kind != ArgParser::Item::Option) {
            std::fprintf(stderr, "kuvctl logs: unknown argument \"%s\" (see kuvctl logs --help)\n",
                         kuv::escapeControl(item.text).c_str());
            return 2;
        }
        long long lines = 0;
        switch (item.option) {
        case kHelp: return 1;
        case kLines:
            if (!parseInteger(item.value, 0, kMaxLines, lines)) {
                std::fprintf(stderr, "kuvctl logs: line count must be a number from 0 to %ld\n", kMaxLines);
                return 2;
            }
            opt.lines = static_cast<long>(lines);
            break;
        case kNoFollow: opt.follow = false; break;
        case kZell: zell = true; break;
        default:
            file = item.value;
            if (file.empty()) {
                std::fprintf(stderr, "kuvctl logs: --file needs a path\n");
                return 2;
            }
        }
    }
    if (zell && !file.empty()) {
        std::fprintf(stderr, "kuvctl logs: --zell and --file exclude each other\n");
        return 2;
    }
    if (!file.empty()) {
        opt.path = file;
    } else {
        const std::string dir = ConstConfig::singleInstance()->getInstallDir();
        opt.path = kuv::userStatePath(dir + (zell ? "log/kuvgui.zell.log" : "log/kuvgui.log"));
    }
    return 0;
}

// Offset at which the last `lines` lines of the file begin (a final line feed ends the last line).
bool lastLinesOffset(int fd, off_t size, long lines, off_t& out)
{
    out = size;
    if (lines == 0 || size == 0) {
        return true;
    }
    std::vector<char> buf(kChunk);
    off_t end = size;
    long found = 0;
    bool skipFinal = true;
    while (end > 0) {
        const off_t begin = end > static_cast<off_t>(kChunk) ? end - static_cast<off_t>(kChunk) : 0;
        const size_t want = static_cast<size_t>(end - begin);
        size_t got = 0;
        while (got < want) {
            const ssize_t n =
                kuv::retryEintr([&] { return ::pread(fd, buf.data() + got, want - got, begin + static_cast<off_t>(got)); });
            if (n <= 0) {
                return false;
            }
            got += static_cast<size_t>(n);
        }
        for (size_t i = want; i-- > 0;) {
            if (buf[i] != '\n') {
                skipFinal = false;
                continue;
            }
            if (skipFinal) {
                skipFinal = false;
                continue;
            }
            if (++found == lines) {
                out = begin + static_cast<off_t>(i) + 1;
                return true;
            }
        }
        end = begin;
    }
    out = 0;
    return true;
}

// The file being read: its descriptor, identity and how far it has been printed.
struct Reader {
    UniqueFd fd;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t pos = 0;

    bool open(const std::string& path)
    {
        UniqueFd f(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        struct stat st {};
        if (!f.valid() || ::fstat(f.get(), &st) != 0) {
            return false;
        }
        fd = std::move(f);
        dev = st.st_dev;
        ino = st.st_ino;
        pos = 0;
        return true;
    }

    // Prints everything from pos to the current end. false on a read error (errno kept).
    bool drain(Output& out)
    {
        std::vector<char> buf(kChunk);
        for (;;) {
            const ssize_t n = kuv::retryEintr([&] { return ::pread(fd.get(), buf.data(), buf.size(), pos); });
            if (n < 0) {
                return false;
            }
            if (n == 0) {
                return true;
            }
            pos += n;
            if (!out.write(buf.data(), static_cast<size_t>(n))) {
                return true;
            }
        }
    }
};

std::string directoryOf(const std::string& path)
{
    const std::string dir = std::filesystem::path(path).parent_path().string();
    return dir.empty() ? "." : dir;
}

int finish(const Output& out)
{
    if (out.state() == Output::Failed) {
        std::fprintf(stderr, "kuvctl logs: cannot write: %s\n", out.error().c_str());
        return 1;
    }
    return 0;
}

// Says why path cannot be read (errno); the exit status.
int cannotRead(const std::string& path)
{
    std::fprintf(stderr, "kuvctl logs: cannot read %s: %s\n", kuv::escapeControl(path).c_str(), std::strerror(errno));
    return 1;
}

// SIGINT, SIGTERM and SIGHUP set g_stop. They stay blocked except inside the wait (the mask returned, for
// ppoll), so a stop request cannot slip in between the check of g_stop and the wait.
sigset_t catchStopSignals()
{
    sigset_t waitMask;
    blockSignals({SIGINT, SIGTERM, SIGHUP}, &waitMask);
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigdelset(&waitMask, sig);
        sigaction(sig, &sa, nullptr);
    }
    return waitMask;
}

// The log's directory under inotify: a change there ends the wait at once.
class DirectoryWatch {
public:
    explicit DirectoryWatch(std::string dir) : m_notify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)), m_dir(std::move(dir)) {}

    // Sets the watch up again after the directory was removed or renamed (or appeared).
    void arm()
    {
        if (m_notify.valid() && !m_watching) {
            m_watching = ::inotify_add_watch(m_notify.get(), m_dir.c_str(),
                                             IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                                 IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF) >= 0;
        }
    }

    // Until something changes, a stop signal, or kRecheckMs.
    void wait(const sigset_t& waitMask)
    {
        struct pollfd pfd {};
        pfd.fd = m_notify.get();
        pfd.events = POLLIN;
        struct timespec timeout {};
        timeout.tv_nsec = static_cast<long>(kRecheckMs) * 1000000L;
        const int rc = ::ppoll(&pfd, m_notify.valid() ? 1 : 0, &timeout, &waitMask);
        if (rc > 0 && (pfd.revents & POLLIN) != 0) {
            while (::read(m_notify.get(), m_events.data(), m_events.size()) > 0) {
            }
            // A removed or renamed directory drops its watch.
            struct stat st {};
            if (::stat(m_dir.c_str(), &st) != 0) {
                m_watching = false;
            }
        }
    }

private:
    UniqueFd m_notify;
    std::string m_dir;
    bool m_watching = false;
    std::vector<char> m_events = std::vector<char>(4096);
};

enum class Look {
    Wait,   // nothing more for now
    Again,  // look again at once
    Failed, // the log cannot be read (said)
};

// The file at path is no longer the one being read: finish the old one and take the new one, if any.
Look onReplaced(const std::string& path, bool exists, Reader& reader, Output& out)
{
    // Print what reached the old file after the last drain.
    if (!reader.drain(out)) {
        cannotRead(path);
        return Look::Failed;
    }
    reader.fd.reset();
    if (exists && reader.open(path)) {
        std::fprintf(stderr, "kuvctl logs: %s was replaced; following the new file\n", kuv::escapeControl(path).c_str());
        return Look::Again;
    }
    std::fprintf(stderr, "kuvctl logs: %s is gone; waiting for it\n", kuv::escapeControl(path).c_str());
    return Look::Wait;
}

// Prints what was appended, and notices a log that appeared, was rotated, removed or truncated.
Look lookAtLog(const std::string& path, Reader& reader, Output& out)
{
    if (!reader.fd.valid()) {
        if (!reader.open(path)) {
            return Look::Wait;
        }
        std::fprintf(stderr, "kuvctl logs: %s appeared\n", kuv::escapeControl(path).c_str());
        return Look::Again;
    }
    if (!reader.drain(out)) {
        cannotRead(path);
        return Look::Failed;
    }
    struct stat now {};
    struct stat opened {};
    const bool exists = ::stat(path.c_str(), &now) == 0;
    if (!exists || now.st_ino != reader.ino || now.st_dev != reader.dev) {
        return onReplaced(path, exists, reader, out);
    }
    if (::fstat(reader.fd.get(), &opened) == 0 && opened.st_size < reader.pos) {
        std::fprintf(stderr, "kuvctl logs: %s was truncated\n", kuv::escapeControl(path).c_str());
        reader.pos = 0;
        return Look::Again;
    }
    return Look::Wait;
}

int follow(const std::string& path, Reader& reader, Output& out)
{
    const sigset_t waitMask = catchStopSignals();
    DirectoryWatch watch(directoryOf(path));
    while (!g_stop && out.state() == Output::Open) {
        watch.arm();
        const Look look = lookAtLog(path, reader, out);
        if (look == Look::Failed) {
            return 1;
        }
        if (look == Look::Wait) {
            watch.wait(waitMask);
        }
    }
    return finish(out);
}

} // namespace

std::string logsUsage()
{
    return "Usage: kuvctl logs [-n N] [--no-follow] [--zell | --file PATH]\n"
           "\n"
           "Prints the last lines of the service log DIR/log/kuvgui.log\n"
           "(in an installation the user does not own: ~/.local/state/kuv/log/kuvgui.log, or under\n"
           "$XDG_STATE_HOME), then follows it like\n"
           "tail -F: every line appended is printed, across rotation (kuvgui.log becomes\n"
           "kuvgui.1.log and a new kuvgui.log is started) and truncation, and a log that does\n"
           "not exist yet is waited for. DIR is $KUV_INSTALL_DIR or the installation of kuvctl.\n"
           "Control characters, Unicode line separators and bytes that are not UTF-8 are printed\n"
           "escaped (\\t, \\xHH, \\u2028), the way the log writers escape them.\n"
           "\n"
           "  -n, --lines N   lines to print first (default 10, 0 for none, at most 1000000)\n"
           "  --no-follow     print the last lines and exit\n"
           "  --zell          the bus log DIR/log/kuvgui.zell.log instead\n"
           "  --file PATH     any other log file\n"
           "  -h, --help      this text\n"
           "\n"
           "Exit status: 0 when the lines were printed (--no-follow), or when following ended by\n"
           "SIGINT, SIGTERM or SIGHUP or because the reader of the output went away; 1 when the log\n"
           "cannot be read (with --no-follow: does not exist) or the output cannot be written;\n"
           "2 on wrong usage.\n";
}

int runLogs(const std::vector<std::string>& args)
{
    Options opt;
    const int parsed = parseOptions(args, opt);
    if (parsed == 1) {
        std::fputs(logsUsage().c_str(), stdout);
        return 0;
    }
    if (parsed != 0) {
        return 2;
    }
    // A closed pipe shows up as EPIPE and ends the command normally.
    signal(SIGPIPE, SIG_IGN);

    Output out;
    Reader reader;
    if (reader.open(opt.path)) {
        struct stat st {};
        off_t from = 0;
        if (::fstat(reader.fd.get(), &st) != 0 || !lastLinesOffset(reader.fd.get(), st.st_size, opt.lines, from)) {
            return cannotRead(opt.path);
        }
        reader.pos = from;
        if (!opt.follow) {
            if (!reader.drain(out)) {
                return cannotRead(opt.path);
            }
            out.finishLine();
            return finish(out);
        }
    } else if (!opt.follow) {
        std::fprintf(stderr, "kuvctl logs: cannot open %s: %s\n", kuv::escapeControl(opt.path).c_str(), std::strerror(errno));
        return 1;
    } else {
        std::fprintf(stderr, "kuvctl logs: cannot open %s yet (%s); waiting for it\n", kuv::escapeControl(opt.path).c_str(),
                     std::strerror(errno));
    }
    return follow(opt.path, reader, out);
}

} // namespace kuvctl

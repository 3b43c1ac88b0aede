#include "LogsCommand.h"

#include "ConstConfig.h"
#include "FileUtils.h"
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
        size_t done = 0;
        while (done < buf.size()) {
            const ssize_t n = ::write(STDOUT_FILENO, buf.data() + done, buf.size() - done);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno == EPIPE) {
                    m_state = ReaderGone;
                } else {
                    m_state = Failed;
                    m_error = std::strerror(errno);
                }
                return false;
            }
            done += static_cast<size_t>(n);
        }
        return true;
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

bool parseCount(const std::string& text, long& out)
{
    if (text.empty() || text.size() > 7) {
        return false;
    }
    long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        v = v * 10 + (c - '0');
    }
    if (v > kMaxLines) {
        return false;
    }
    out = v;
    return true;
}

// 0 parsed, 1 help asked, 2 wrong usage (message printed).
int parseOptions(const std::vector<std::string>& args, Options& opt)
{
    bool zell = false;
    std::string file;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        bool hasValue = false;
        auto takeValue = [&](const std::string& name) {
            if (i + 1 >= args.size()) {
                std::fprintf(stderr, "kuvctl logs: %s needs a value\n", name.c_str());
                return false;
            }
            value = args[++i];
            hasValue = true;
            return true;
        };
        if (a == "-h" || a == "--help") {
            return 1;
        } else if (a == "-n" || a == "--lines") {
            if (!takeValue(a)) {
                return 2;
            }
        } else if (a.compare(0, 8, "--lines=") == 0) {
            value = a.substr(8);
            hasValue = true;
        } else if (a.size() > 2 && a.compare(0, 2, "-n") == 0) {
            value = a.substr(2);
            hasValue = true;
        } else if (a == "--no-follow") {
            opt.follow = false;
            continue;
        } else if (a == "--zell") {
            zell = true;
            continue;
        } else if (a == "--file") {
            if (!takeValue(a)) {
                return 2;
            }
            file = value;
            if (file.empty()) {
                std::fprintf(stderr, "kuvctl logs: --file needs a path\n");
                return 2;
            }
            continue;
        } else {
            std::fprintf(stderr, "kuvctl logs: unknown argument \"%s\" (see kuvctl logs --help)\n",
                         kuv::escapeControl(a).c_str());
            return 2;
        }
        if (hasValue && !parseCount(value, opt.lines)) {
            std::fprintf(stderr, "kuvctl logs: line count must be a number from 0 to %ld\n", kMaxLines);
            return 2;
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
            const ssize_t n = ::pread(fd, buf.data() + got, want - got, begin + static_cast<off_t>(got));
            if (n < 0 && errno == EINTR) {
                continue;
            }
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
            const ssize_t n = ::pread(fd.get(), buf.data(), buf.size(), pos);
            if (n < 0 && errno == EINTR) {
                continue;
            }
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
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

int finish(const Output& out)
{
    if (out.state() == Output::Failed) {
        std::fprintf(stderr, "kuvctl logs: cannot write: %s\n", out.error().c_str());
        return 1;
    }
    return 0;
}

int follow(const std::string& path, Reader& reader, Output& out)
{
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    sigset_t waitMask;
    // Signals stay blocked except inside ppoll, so a stop request cannot slip in between the
    // check of g_stop and the wait.
    sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);
    sigdelset(&waitMask, SIGINT);
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGHUP);
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);

    UniqueFd notify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string dir = directoryOf(path);
    bool watching = false;
    std::vector<char> events(4096);

    while (!g_stop && out.state() == Output::Open) {
        if (notify.valid() && !watching) {
            watching = ::inotify_add_watch(notify.get(), dir.c_str(),
                                           IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                               IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF) >= 0;
        }
        if (reader.fd.valid()) {
            if (!reader.drain(out)) {
                std::fprintf(stderr, "kuvctl logs: cannot read %s: %s\n", kuv::escapeControl(path).c_str(), std::strerror(errno));
                return 1;
            }
            struct stat now {};
            struct stat opened {};
            const bool exists = ::stat(path.c_str(), &now) == 0;
            if (!exists || now.st_ino != reader.ino || now.st_dev != reader.dev) {
                // Rotated or removed: print what reached the old file after the drain above.
                if (!reader.drain(out)) {
                    std::fprintf(stderr, "kuvctl logs: cannot read %s: %s\n", kuv::escapeControl(path).c_str(), std::strerror(errno));
                    return 1;
                }
                reader.fd.reset();
                if (exists && reader.open(path)) {
                    std::fprintf(stderr, "kuvctl logs: %s was replaced; following the new file\n", kuv::escapeControl(path).c_str());
                    continue;
                }
                std::fprintf(stderr, "kuvctl logs: %s is gone; waiting for it\n", kuv::escapeControl(path).c_str());
            } else if (::fstat(reader.fd.get(), &opened) == 0 && opened.st_size < reader.pos) {
                std::fprintf(stderr, "kuvctl logs: %s was truncated\n", kuv::escapeControl(path).c_str());
                reader.pos = 0;
                continue;
            }
        } else if (reader.open(path)) {
            std::fprintf(stderr, "kuvctl logs: %s appeared\n", kuv::escapeControl(path).c_str());
            continue;
        }

        struct pollfd pfd {};
        pfd.fd = notify.get();
        pfd.events = POLLIN;
        struct timespec timeout {};
        timeout.tv_nsec = static_cast<long>(kRecheckMs) * 1000000L;
        const int rc = ::ppoll(&pfd, notify.valid() ? 1 : 0, &timeout, &waitMask);
        if (rc > 0 && (pfd.revents & POLLIN) != 0) {
            while (::read(notify.get(), events.data(), events.size()) > 0) {
            }
            // A removed or renamed directory drops its watch; set it up again next round.
            struct stat st {};
            if (::stat(dir.c_str(), &st) != 0) {
                watching = false;
            }
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
            std::fprintf(stderr, "kuvctl logs: cannot read %s: %s\n", kuv::escapeControl(opt.path).c_str(), std::strerror(errno));
            return 1;
        }
        reader.pos = from;
        if (!opt.follow) {
            if (!reader.drain(out)) {
                std::fprintf(stderr, "kuvctl logs: cannot read %s: %s\n", kuv::escapeControl(opt.path).c_str(), std::strerror(errno));
                return 1;
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

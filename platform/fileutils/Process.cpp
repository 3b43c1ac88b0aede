// CProcess: starts a program without a shell, detached through a double fork, and confirms the exec.
#include "FileUtils.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

extern char** environ;

namespace {

class Pipe {
public:
    Pipe() { m_ok = ::pipe2(m_fds, O_CLOEXEC) == 0; }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    bool ok() const { return m_ok; }
    int readEnd() const { return m_fds[0]; }
    int writeEnd() const { return m_fds[1]; }
    void closeRead() { closeOne(m_fds[0]); }
    void closeWrite() { closeOne(m_fds[1]); }

private:
    static void closeOne(int& fd)
    {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
    }
    int m_fds[2] = {-1, -1};
    bool m_ok = false;
};

std::vector<std::string> splitBlanks(const std::string& text)
{
    std::vector<std::string> words;
    std::string word;
    for (const char c : text) {
        if (c == ' ' || c == '\t') {
            if (!word.empty()) {
                words.push_back(word);
                word.clear();
            }
        } else {
            word += c;
        }
    }
    if (!word.empty()) {
        words.push_back(word);
    }
    return words;
}

// The candidates execvp would try, built before fork so the child only calls execve.
std::vector<std::string> candidates(const std::string& program)
{
    if (program.find('/') != std::string::npos) {
        return {program};
    }
    const char* env = std::getenv("PATH");
    const std::string path = (env != nullptr && env[0] != '\0') ? env : "/usr/local/bin:/usr/bin:/bin";
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        const size_t colon = path.find(':', start);
        std::string dir = path.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
        if (dir.empty()) {
            dir = ".";
        }
        out.push_back(dir + "/" + program);
        if (colon == std::string::npos) {
            break;
        }
        start = colon + 1;
    }
    return out;
}

void writeErrno(int fd, int err)
{
    while (::write(fd, &err, sizeof err) < 0 && errno == EINTR) {
    }
}

// Only async-signal-safe calls from here on: the parent may have other threads.
[[noreturn]] void runGrandchild(int errFd, const std::vector<std::string>& paths, char* const* argv)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        sigaction(sig, &dfl, nullptr);
    }
    // Every descriptor above stderr closes on exec; the error pipe already does.
    if (::syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
        const long max = sysconf(_SC_OPEN_MAX);
        for (int fd = 3; fd < (max > 0 && max < INT_MAX ? static_cast<int>(max) : 65536); ++fd) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    int err = ENOENT;
    for (const std::string& path : paths) {
        ::execve(path.c_str(), argv, environ);
        if (errno != ENOENT && errno != ENOTDIR) {
            err = errno;
        }
    }
    writeErrno(errFd, err);
    _exit(127);
}

} // namespace

CProcess::CProcess() = default;

int CProcess::execute(std::string program, std::string arguments, bool /*wait*/)
{
    if (program.empty()) {
        return 0;
    }
    const std::vector<std::string> paths = candidates(program);
    std::vector<std::string> words = splitBlanks(arguments);
    words.insert(words.begin(), program);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& w : words) {
        argv.push_back(&w[0]);
    }
    argv.push_back(nullptr);

    Pipe errPipe;
    if (!errPipe.ok()) {
        return 0;
    }
    const pid_t child = ::fork();
    if (child < 0) {
        return 0;
    }
    if (child == 0) {
        // The middle child: a new session, then the program in a grandchild that init adopts.
        ::setsid();
        const pid_t grandchild = ::fork();
        if (grandchild < 0) {
            writeErrno(errPipe.writeEnd(), errno);
            _exit(1);
        }
        if (grandchild == 0) {
            runGrandchild(errPipe.writeEnd(), paths, argv.data());
        }
        _exit(0);
    }
    errPipe.closeWrite();
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    // EOF without data: the exec succeeded and closed the pipe; an int: why it failed.
    int err = 0;
    ssize_t n;
    do {
        n = ::read(errPipe.readEnd(), &err, sizeof err);
    } while (n < 0 && errno == EINTR);
    return n == 0 ? 1 : 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// CProcess: starts a program without a shell, detached through two short-lived children, and confirms the
// exec.
#include "FileUtils.h"
#include "SafeIo.h"
#include "UniqueFd.h"
#include "UniqueMapping.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <vector>

extern char** environ;

namespace {

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

// What the two short-lived children share with the caller (CLONE_VM: the same memory).
struct Launch {
    const std::vector<std::string>* paths = nullptr;
    char* const* argv = nullptr;
    char* grandStackTop = nullptr;
    int err = 0;      // written by the grandchild when every exec failed
    int spawnErr = 0; // written by the middle child when it could not start the grandchild
    int errFd = -1;   // forked children share no memory: the grandchild reports err here instead
};

// Only async-signal-safe calls from here on: these run on their own stacks in the caller's memory.
int runGrandchild(void* arg)
{
    Launch& launch = *static_cast<Launch*>(arg);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig) {
        sigaction(sig, &dfl, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // Every descriptor above stderr closes on exec.
    if (::syscall(SYS_close_range, 3u, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
        const long max = sysconf(_SC_OPEN_MAX);
        for (int fd = 3; fd < (max > 0 && max < INT_MAX ? static_cast<int>(max) : 65536); ++fd) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
    int err = ENOENT;
    for (const std::string& path : *launch.paths) {
        ::execve(path.c_str(), launch.argv, environ);
        if (errno != ENOENT && errno != ENOTDIR) {
            err = errno;
        }
    }
    launch.err = err;
    if (launch.errFd >= 0) {
        (void)kuv::safeWrite(launch.errFd, &err, sizeof err);
    }
    _exit(127);
}

// The middle child: a new session, then the program in a grandchild that init adopts once we end.
int runMiddle(void* arg)
{
    Launch& launch = *static_cast<Launch*>(arg);
    ::setsid();
    // CLONE_VFORK: we go on only once the grandchild has exec'd or given up, so launch.err is final.
    if (::clone(&runGrandchild, launch.grandStackTop, CLONE_VM | CLONE_VFORK | SIGCHLD, arg) < 0) {
        launch.spawnErr = errno;
    }
    _exit(0);
}

void reap(pid_t child)
{
    int status = 0;
    kuv::retryEintr([&] { return ::waitpid(child, &status, 0); });
}

// Stacks of the two children, released when the launch is over.
class Stacks {
public:
    static constexpr size_t kSize = 64 * 1024;
    bool ok() const { return m_map.valid(); }
    char* firstTop() const { return m_map.data() + kSize; }
    char* secondTop() const { return m_map.data() + 2 * kSize; }

private:
    kuv::UniqueMapping m_map =
        kuv::UniqueMapping::map(2 * kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK);
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KUV_LAUNCH_BY_FORK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KUV_LAUNCH_BY_FORK 1
#endif
#endif

#ifdef KUV_LAUNCH_BY_FORK
// Both ends close on exec, so only the grandchild's exec or exit ends the read side.
bool makePipe(kuv::UniqueFd& readEnd, kuv::UniqueFd& writeEnd)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

// The sanitizers cannot follow children that run on stacks of their own in our memory (ASan warns on
// standard error about the stack switch), so their builds launch with two plain forks instead.
int launchDetachedByFork(const std::vector<std::string>& paths, char* const* argv)
{
    kuv::UniqueFd readEnd;
    kuv::UniqueFd writeEnd;
    if (!makePipe(readEnd, writeEnd)) {
        return 0;
    }
    const pid_t middle = ::fork();
    if (middle < 0) {
        return 0;
    }
    if (middle == 0) {
        ::setsid();
        const pid_t grandchild = ::fork();
        if (grandchild == 0) {
            Launch launch;
            launch.paths = &paths;
            launch.argv = argv;
            launch.errFd = writeEnd.get();
            runGrandchild(&launch);
        }
        if (grandchild < 0) {
            const int err = errno;
            (void)kuv::safeWrite(writeEnd.get(), &err, sizeof err);
        }
        _exit(0);
    }
    writeEnd.reset();
    reap(middle);
    // End of file once the grandchild has exec'd (the pipe closes on exec); an errno when it could not.
    int err = 0;
    const ssize_t n = kuv::safeRead(readEnd.get(), &err, sizeof err);
    return n == static_cast<ssize_t>(sizeof err) ? 0 : 1;
}
#endif

// Spawning with fork() would copy the page tables of this (large, threaded) process twice; children
// that share our memory until they exec cost next to nothing.
int launchDetached(const std::vector<std::string>& paths, char* const* argv)
{
#ifdef KUV_LAUNCH_BY_FORK
    return launchDetachedByFork(paths, argv);
#endif
    Stacks stacks;
    if (!stacks.ok()) {
        return 0;
    }
    Launch launch;
    launch.paths = &paths;
    launch.argv = argv;
    launch.grandStackTop = stacks.secondTop();
    // No handler of ours may run in a child that shares our memory: block everything until the
    // grandchild has reset its handlers.
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    const pid_t middle = ::clone(&runMiddle, stacks.firstTop(), CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (middle < 0) {
        return 0;
    }
    reap(middle);
    return launch.spawnErr == 0 && launch.err == 0 ? 1 : 0;
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

    if (kuv::deferLaunch([paths, words]() mutable {
            std::vector<char*> args;
            for (std::string& w : words) {
                args.push_back(&w[0]);
            }
            args.push_back(nullptr);
            launchDetached(paths, args.data());
        })) {
        // Started later (see kuv::setLaunchDeferral); what can be known now is whether it can run.
        for (const std::string& path : paths) {
            struct stat st;
            if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0) {
                return 1;
            }
        }
        return 0;
    }
    return launchDetached(paths, argv.data());
}

namespace kuv {

namespace {
std::mutex g_deferralMutex;
LaunchDeferral g_deferral;
} // namespace

void setLaunchDeferral(LaunchDeferral deferral)
{
    std::lock_guard<std::mutex> lock(g_deferralMutex);
    g_deferral = std::move(deferral);
}

bool deferLaunch(std::function<void()> launch)
{
    LaunchDeferral deferral;
    {
        std::lock_guard<std::mutex> lock(g_deferralMutex);
        deferral = g_deferral;
    }
    return deferral && deferral(std::move(launch));
}

} // namespace kuv

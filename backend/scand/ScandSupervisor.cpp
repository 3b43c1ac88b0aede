// SPDX-License-Identifier: GPL-2.0-or-later
// The per-user lock, and supervision: in the background the service runs in a child that is started again
// when it crashes (killed by a signal or failing), a few times in a row at most; the parent holds the lock
// throughout.
#include "ScandSupervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "Daemon.h"
#include "FileUtils.h"
#include "KuvLog.h"
#include "SafeIo.h"
#include "ScandOptions.h"
#include "ScandService.h"
#include "WriteSignals.h"

namespace kuv {
namespace scand {

KUV_LOG_SOURCE("backend/scand/ScandSupervisor");

namespace {

constexpr size_t kMaxCrashes = 5;
constexpr auto kCrashWindow = std::chrono::minutes(5);
constexpr int kMaxBackOffSeconds = 30;

volatile sig_atomic_t g_supervisorStop = 0;
volatile pid_t g_child = 0;

void forwardSignal(int sig)
{
    g_supervisorStop = 1;
    if (g_child > 0) {
        ::kill(g_child, sig);
    }
}

// The lock file names the process that serves, for people and scripts.
void writePid(int fd)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (::ftruncate(fd, 0) == 0) {
        (void)!::pwrite(fd, text.data(), text.size(), 0);
    }
}

void forwardStopSignals()
{
    struct sigaction sa {};
    sa.sa_handler = &forwardSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGHUP, SIG_IGN);
    kuv::ignoreWriteSignals();
}

// A status that starting again would not change: a clean stop, another instance, a usage error.
bool finalStatus(int status)
{
    return WIFEXITED(status) && (WEXITSTATUS(status) == kExitOk || WEXITSTATUS(status) == kExitRunning ||
                                 WEXITSTATUS(status) == kExitUsage);
}

void logCrash(pid_t child, int status)
{
    if (WIFSIGNALED(status)) {
        KUV_LOG(kuv::LogLevel::Error, "kuv-scand pid %d was killed by signal %d", static_cast<int>(child),
                WTERMSIG(status));
    } else {
        KUV_LOG(kuv::LogLevel::Error, "kuv-scand pid %d failed with status %d", static_cast<int>(child),
                WEXITSTATUS(status));
    }
}

// The crashes within the window, this one included.
size_t countCrash(std::vector<std::chrono::steady_clock::time_point>& crashes)
{
    const auto now = std::chrono::steady_clock::now();
    crashes.erase(std::remove_if(crashes.begin(), crashes.end(), [&](const auto& t) { return now - t > kCrashWindow; }),
                  crashes.end());
    crashes.push_back(now);
    return crashes.size();
}

} // namespace

bool takeLock(const std::string& path, UniqueFd& lock, std::string& why)
{
    lock.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock.valid()) {
        why = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = {0};
        const ssize_t n = ::pread(lock.get(), pid, sizeof(pid) - 1, 0);
        std::string text = n > 0 ? std::string(pid, static_cast<size_t>(n)) : std::string("?");
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
            text.pop_back();
        }
        why = "another kuv-scand serves this user (pid " + kuv::escapeControl(text) + ")";
        lock.reset();
        return false;
    }
    return true;
}

int serve(const Settings& settings, const std::string& installDir, UniqueFd& ready, const HeldLock& lock)
{
    writePid(lock.fd);
    // Signals are taken through a descriptor; blocked before any thread starts so none sees them.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGHUP);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    kuv::ignoreWriteSignals();
    Service service(settings, installDir);
    service.watchLock(lock.path);
    return service.run([&](int status) { kuv::reportReady(ready, status); });
}

int supervise(const Settings& settings, const std::string& installDir, UniqueFd& ready, const HeldLock& lock)
{
    forwardStopSignals();
    std::vector<std::chrono::steady_clock::time_point> crashes;
    int delay = 1;
    for (;;) {
        const pid_t child = ::fork();
        if (child < 0) {
            KUV_LOG(kuv::LogLevel::Error, "fork: %s", strerror(errno));
            kuv::reportReady(ready, kExitFailure);
            return kExitFailure;
        }
        if (child == 0) {
            signal(SIGTERM, SIG_DFL);
            signal(SIGINT, SIG_DFL);
            _exit(serve(settings, installDir, ready, lock));
        }
        g_child = child;
        ready.reset(); // the child reports; a restarted one has no one to report to
        int status = 0;
        kuv::retryEintr([&] { return ::waitpid(child, &status, 0); });
        g_child = 0;
        if (g_supervisorStop) {
            return kExitOk;
        }
        if (finalStatus(status)) {
            return WEXITSTATUS(status);
        }
        const size_t recent = countCrash(crashes);
        logCrash(child, status);
        if (recent > kMaxCrashes) {
            KUV_LOG(kuv::LogLevel::Error, "kuv-scand ended abnormally %zu times within 5 minutes; not starting it again",
                    recent);
            return kExitFailure;
        }
        if (recent > 1) {
            // Back off only when it keeps failing; the first restart is immediate.
            sleep(static_cast<unsigned>(delay));
            delay = std::min(delay * 2, kMaxBackOffSeconds);
            if (g_supervisorStop) {
                return kExitOk;
            }
        }
        KUV_LOG(kuv::LogLevel::Info, "starting kuv-scand again");
    }
}

} // namespace scand
} // namespace kuv

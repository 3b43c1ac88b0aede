// SPDX-License-Identifier: GPL-2.0-or-later
#include "Daemon.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "SafeIo.h"

namespace kuv {

namespace {

// The original process: its exit status is the daemon's report.
[[noreturn]] void waitForReport(UniqueFd readEnd, pid_t child, int failureStatus, const char* failureMessage)
{
    unsigned char status = static_cast<unsigned char>(failureStatus);
    const ssize_t n = safeRead(readEnd.get(), &status, 1);
    retryEintr([&] { return ::waitpid(child, nullptr, 0); });
    const int exitStatus = n == 1 ? status : failureStatus;
    if (exitStatus != 0 && failureMessage != nullptr) {
        std::fputs(failureMessage, stderr);
    }
    _exit(exitStatus);
}

void detachStandardStreams()
{
    const UniqueFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (null.valid()) {
        // dup2 clears close-on-exec on the copies.
        ::dup2(null.get(), STDIN_FILENO);
        ::dup2(null.get(), STDOUT_FILENO);
        ::dup2(null.get(), STDERR_FILENO);
    }
}

} // namespace

bool daemonize(UniqueFd& ready, int failureStatus, const char* failureMessage)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        return false;
    }
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);
    const pid_t child = ::fork();
    if (child < 0) {
        return false;
    }
    if (child > 0) {
        writeEnd.reset(); // so that a daemon that dies without a word is seen as end of file
        waitForReport(std::move(readEnd), child, failureStatus, failureMessage);
    }
    readEnd.reset();
    ::setsid();
    // The session leader forks once more and leaves, so the daemon can never regain a terminal.
    const pid_t grandchild = ::fork();
    if (grandchild != 0) {
        _exit(grandchild < 0 ? failureStatus : 0);
    }
    ready = std::move(writeEnd);
    if (::chdir("/") != 0) {
        // Staying in the start directory is harmless.
    }
    detachStandardStreams();
    return true;
}

void reportReady(UniqueFd& ready, int status)
{
    if (ready.valid()) {
        const unsigned char byte = static_cast<unsigned char>(status);
        (void)safeWrite(ready.get(), &byte, 1);
        ready.reset();
    }
}

} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// The handler only writes the signal number to a pipe; everything else happens on the GUI thread,
// through the same control request as `kuvgui quit`.
#include "QuitSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <QCoreApplication>
#include <QSocketNotifier>

#include "KuvLog.h"
#include "SafeIo.h"
#include "KuvGuiInterface.h"

namespace kuv {
namespace shell {

namespace {

KUV_LOG_SOURCE("platform/guishell/QuitSignals");
// A shut-down that has not ended this long after the signal is ended with SIGKILL.
constexpr unsigned kShutdownLimitS = 10;
const int kQuitSignals[] = {SIGTERM, SIGINT, SIGHUP};

int g_pipe[2] = {-1, -1};
bool g_shuttingDown = false;
QSocketNotifier* g_notifier = nullptr;

void onSignal(int sig)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(sig);
    // Non-blocking: a full pipe already holds a pending quit.
    ssize_t ignored = ::write(g_pipe[1], &byte, 1);
    (void)ignored;
    errno = saved;
}

void onShutdownTimeout(int)
{
    static const char text[] = "kuvgui: shut-down did not end within 10 s after a signal; SIGKILL\n";
    ssize_t ignored = ::write(STDERR_FILENO, text, sizeof(text) - 1);
    (void)ignored;
    ::kill(::getpid(), SIGKILL);
}

void armWatchdog()
{
    struct sigaction sa {};
    sa.sa_handler = &onShutdownTimeout;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, nullptr);
    ::alarm(kShutdownLimitS);
}

const char* signalName(int sig)
{
    switch (sig) {
    case SIGTERM:
        return "SIGTERM";
    case SIGINT:
        return "SIGINT";
    case SIGHUP:
        return "SIGHUP";
    }
    return "signal";
}

void drain()
{
    unsigned char buf[64];
    for (;;) {
        // Non-blocking: ends at EAGAIN once the pipe is empty.
        const ssize_t n = kuv::retryEintr([&buf] { return ::read(g_pipe[0], buf, sizeof(buf)); });
        if (n <= 0) {
            return;
        }
        for (ssize_t i = 0; i < n; ++i) {
            const int sig = buf[i];
            if (g_shuttingDown) {
                KUV_LOG(kuv::LogLevel::Info, "%s during shut-down: ignored", signalName(sig));
                continue;
            }
            g_shuttingDown = true;
            KUV_LOG(kuv::LogLevel::Info, "%s: quitting (shut-down limit %u s)", signalName(sig), kShutdownLimitS);
            armWatchdog();
            KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
        }
    }
}

} // namespace

void installQuitSignals()
{
    if (g_pipe[0] >= 0) {
        return;
    }
    if (::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        KUV_LOG(kuv::LogLevel::Error, "no signal pipe (%s): SIGTERM, SIGINT and SIGHUP keep their default",
                                        std::strerror(errno));
        g_pipe[0] = g_pipe[1] = -1;
        return;
    }
    struct sigaction sa {};
    sa.sa_handler = &onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int sig : kQuitSignals) {
        sigaction(sig, &sa, nullptr);
    }
}

void watchQuitSignals()
{
    if (g_pipe[0] < 0 || g_notifier != nullptr || QCoreApplication::instance() == nullptr) {
        return;
    }
    // Lives as long as the application object: signals during the exit sequence only fill the pipe.
    g_notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(g_notifier, &QSocketNotifier::activated, g_notifier, [](int) { drain(); });
}

} // namespace shell
} // namespace kuv

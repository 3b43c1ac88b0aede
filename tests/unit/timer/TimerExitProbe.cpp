// SPDX-License-Identifier: GPL-2.0-or-later
// Starts fast timers in both modes plus one whose callback never returns, then leaves main.
// Mode "uninit" calls UninitInstance from inside a callback first.
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "CCronTimer.h"

namespace {
// Never destroyed: destroying a condition variable that a thread waits on would itself hang.
std::mutex* g_never = new std::mutex;
std::condition_variable* g_neverCv = new std::condition_variable;
std::atomic<int> g_runs{0};
std::atomic<bool> g_blocked{false};
std::atomic<bool> g_uninitDone{false};
} // namespace

int main(int argc, char** argv)
{
    const bool fromCallback = argc > 1 && std::strcmp(argv[1], "uninit") == 0;
    CCronTimerInterface* timers = CCronTimerInterface::singleInstance();
    CCronTimerInterface::TimerFunc none;
    CCronTimerInterface::TimerFunc count = [](void*) { ++g_runs; };
    timers->addDelayTimerInline(1, count, "fast-inline", none, nullptr, 0, true, CCronTimer::TIMER_EXEC_INLINE);
    timers->addDelayTimerInline(1, count, "fast-worker", none, nullptr, 0, true, CCronTimer::TIMER_EXEC_WORKER);
    if (fromCallback) {
        CCronTimerInterface::TimerFunc uninit = [](void*) {
            if (!g_uninitDone.exchange(true)) {
                CCronTimerInterface::UninitInstance();
            }
        };
        timers->addDelayTimerInline(5, uninit, "uninit", none, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE);
        while (!g_uninitDone) {
            ::usleep(1000);
        }
    } else {
        CCronTimerInterface::TimerFunc block = [](void*) {
            g_blocked = true;
            std::unique_lock<std::mutex> lock(*g_never);
            g_neverCv->wait(lock, [] { return false; });
        };
        timers->addDelayTimerInline(1, block, "blocked", none, nullptr, 0, true, CCronTimer::TIMER_EXEC_WORKER);
        while (!g_blocked || g_runs < 20) {
            ::usleep(1000);
        }
    }
    std::printf("leaving main after %d runs\n", g_runs.load());
    return 0;
}

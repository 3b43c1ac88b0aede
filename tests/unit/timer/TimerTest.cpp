// SPDX-License-Identifier: GPL-2.0-or-later
// The timer service on real threads: repetition, cancel, scale, data freeing, callbacks that call back.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CCronTimer.h"
#include "KuvTestDir.h"

using kuvtest::eventually;
using kuvtest::ScopedEnv;
using TimerFunc = CCronTimerInterface::TimerFunc;
using namespace std::chrono_literals;

namespace {

// Every test ends its timers itself: their callbacks and free functions point into the test's frame.
class TimerTest : public ::testing::Test {
protected:
    void TearDown() override { CCronTimerInterface::UninitInstance(); }
    CCronTimerInterface* timers() { return CCronTimerInterface::singleInstance(); }
};

struct Counter {
    std::atomic<int> runs{0};
    std::atomic<int> frees{0};
    TimerFunc run = [this](void*) { ++runs; };
    TimerFunc free = [this](void*) { ++frees; };
};

int runChild(const char* program, const char* arg)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(program, program, arg, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = -1;
    const bool ended = eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 60s);
    if (!ended) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return -2;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST_F(TimerTest, FiresRepeatedlyAndStopsAtCancel)
{
    Counter c;
    ASSERT_EQ(timers()->addDelayTimerInline(10, c.run, "repeat", c.free, &c, 0, false, CCronTimer::TIMER_EXEC_INLINE),
              1);
    ASSERT_TRUE(eventually([&] { return c.runs >= 5; }));
    EXPECT_EQ(c.frees, 0);
    EXPECT_EQ(timers()->cancelTimerInline("repeat"), 1);
    // A run that was under way when cancel came may still end; then nothing more.
    ASSERT_TRUE(eventually([&] { return c.frees == 1; }));
    const int after = c.runs;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(c.runs, after);
    EXPECT_EQ(c.frees, 1);
    EXPECT_EQ(timers()->cancelTimerInline("repeat"), 0);
}

TEST_F(TimerTest, ScaleDividesIntervals)
{
    ScopedEnv scale("KUV_TIMER_SCALE", "1000");
    Counter c;
    const auto start = std::chrono::steady_clock::now();
    // 60 s unscaled; 60 ms with the scale.
    ASSERT_EQ(
        timers()->addDelayTimerInline(60000, c.run, "scaled", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE),
        1);
    ASSERT_TRUE(eventually([&] { return c.runs >= 3; }, 30s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 59s);
    EXPECT_EQ(timers()->cancelTimerInline("scaled"), 1);
}

TEST_F(TimerTest, BadScaleMeansOne)
{
    ScopedEnv scale("KUV_TIMER_SCALE", "fast");
    Counter c;
    ASSERT_EQ(
        timers()->addDelayTimerInline(60000, c.run, "unscaled", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE),
        1);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(c.runs, 0);
    EXPECT_EQ(timers()->cancelTimerInline("unscaled"), 1);
    EXPECT_EQ(c.frees, 1);
}

TEST_F(TimerTest, RepeatCountRunNowAndNameReuse)
{
    Counter c;
    ASSERT_EQ(timers()->addDelayTimerInline(5, c.run, "thrice", c.free, nullptr, 3, false, CCronTimer::TIMER_EXEC_INLINE),
              1);
    ASSERT_TRUE(eventually([&] { return c.frees == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(c.runs, 3);
    EXPECT_EQ(c.frees, 1);
    EXPECT_EQ(timers()->cancelTimerInline("thrice"), 0);

    Counter now;
    ASSERT_EQ(
        timers()->addDelayTimerInline(3600000, now.run, "thrice", now.free, nullptr, 0, true, CCronTimer::TIMER_EXEC_INLINE),
        1);
    ASSERT_TRUE(eventually([&] { return now.runs == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(now.runs, 1);
    EXPECT_EQ(timers()->cancelTimerInline("thrice"), 1);
}

TEST_F(TimerTest, RefusedTimersAreNotFreed)
{
    Counter c;
    TimerFunc empty;
    EXPECT_EQ(timers()->addDelayTimerInline(0, c.run, "a", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE), 0);
    EXPECT_EQ(timers()->addDelayTimerInline(-5, c.run, "a", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE), 0);
    EXPECT_EQ(timers()->addDelayTimerInline(10, empty, "a", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE), 0);
    ASSERT_EQ(timers()->addDelayTimerInline(100000, c.run, "a", c.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE),
              1);
    Counter other;
    EXPECT_EQ(
        timers()->addDelayTimerInline(10, other.run, "a", other.free, nullptr, 0, false, CCronTimer::TIMER_EXEC_INLINE), 0);
    EXPECT_EQ(timers()->cancelTimerInline("no such timer"), 0);
    EXPECT_EQ(timers()->cancelTimerInline("BaseMgrPluginMonitorVersion"), 0);
    EXPECT_EQ(c.frees, 0);
    EXPECT_EQ(other.frees, 0);
    CCronTimerInterface::UninitInstance();
    EXPECT_EQ(c.frees, 1); // the service's end frees what is left
    EXPECT_EQ(other.frees, 0);
}

TEST_F(TimerTest, StandardFreeReleasesMallocData)
{
    void* data = std::malloc(64);
    std::memset(data, 0, 64);
    std::atomic<void*> seen{nullptr};
    TimerFunc run = [&seen](void* d) { seen = d; };
    TimerFunc freeFn = &CCronTimerInterface::g_funcFree;
    ASSERT_EQ(timers()->addDelayTimerInline(5, run, "owned", freeFn, data, 0, true, CCronTimer::TIMER_EXEC_INLINE), 1);
    ASSERT_TRUE(eventually([&] { return seen.load() == data; }));
    EXPECT_EQ(timers()->cancelTimerInline("owned"), 1);
    CCronTimerInterface::g_funcFree(nullptr);
    // LeakSanitizer would report the 64 bytes if they were not freed.
}

TEST_F(TimerTest, WorkerRunsDoNotHoldUpTheTimerThread)
{
    std::atomic<int> inlineRuns{0};
    std::atomic<bool> workerSawInlineRuns{false};
    std::atomic<bool> inlineOnCallerThread{false};
    const auto caller = std::this_thread::get_id();
    TimerFunc none;
    TimerFunc inl = [&](void*) {
        inlineOnCallerThread = inlineOnCallerThread || std::this_thread::get_id() == caller;
        ++inlineRuns;
    };
    // The worker's first run waits for inline runs, which only come if the timer thread is free.
    TimerFunc wrk = [&](void*) {
        workerSawInlineRuns = eventually([&] { return inlineRuns >= 5; });
    };
    ASSERT_EQ(timers()->addDelayTimerInline(5, wrk, "worker", none, nullptr, 1, true, CCronTimer::TIMER_EXEC_WORKER), 1);
    ASSERT_EQ(timers()->addDelayTimerInline(5, inl, "inline", none, nullptr, 0, true, CCronTimer::TIMER_EXEC_INLINE), 1);
    ASSERT_TRUE(eventually([&] { return workerSawInlineRuns.load(); }));
    CCronTimerInterface::UninitInstance();
    EXPECT_FALSE(inlineOnCallerThread);
}

TEST_F(TimerTest, CallbackCancelsItselfWithoutDeadlockAndDataOutlivesTheRun)
{
    for (auto mode : {CCronTimer::TIMER_EXEC_INLINE, CCronTimer::TIMER_EXEC_WORKER}) {
        std::atomic<int> runs{0};
        std::atomic<bool> inside{false};
        std::atomic<int> freedWhileInside{0};
        std::atomic<int> frees{0};
        TimerFunc run = [&](void*) {
            inside = true;
            ++runs;
            EXPECT_EQ(CCronTimerInterface::singleInstance()->cancelTimerInline("self"), 1);
            std::this_thread::sleep_for(20ms);
            inside = false;
        };
        TimerFunc freeFn = [&](void*) {
            freedWhileInside += inside ? 1 : 0;
            ++frees;
        };
        ASSERT_EQ(timers()->addDelayTimerInline(5, run, "self", freeFn, nullptr, 0, true, mode), 1);
        ASSERT_TRUE(eventually([&] { return frees == 1; }));
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(runs, 1);
        EXPECT_EQ(frees, 1);
        EXPECT_EQ(freedWhileInside, 0);
    }
}

TEST_F(TimerTest, CancelFromAnotherThreadWhileRunningFreesAfterTheRun)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    std::atomic<int> freedWhileInside{0};
    std::atomic<int> frees{0};
    TimerFunc run = [&](void*) {
        inside = true;
        while (!release) {
            std::this_thread::sleep_for(1ms);
        }
        inside = false;
    };
    TimerFunc freeFn = [&](void*) {
        freedWhileInside += inside ? 1 : 0;
        ++frees;
    };
    ASSERT_EQ(timers()->addDelayTimerInline(5, run, "busy", freeFn, nullptr, 0, true, CCronTimer::TIMER_EXEC_INLINE), 1);
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    EXPECT_EQ(timers()->cancelTimerInline("busy"), 1);
    EXPECT_EQ(frees, 0);
    release = true;
    ASSERT_TRUE(eventually([&] { return frees == 1; }));
    EXPECT_EQ(freedWhileInside, 0);
}

TEST_F(TimerTest, NoCallbackAfterUninit)
{
    std::atomic<int> runs{0};
    std::atomic<int> inside{0};
    std::atomic<int> frees{0};
    TimerFunc run = [&](void*) {
        ++inside;
        ++runs;
        std::this_thread::sleep_for(3ms);
        --inside;
    };
    TimerFunc freeFn = [&](void*) { ++frees; };
    for (int i = 0; i < 4; ++i) {
        const auto mode = i % 2 == 0 ? CCronTimer::TIMER_EXEC_INLINE : CCronTimer::TIMER_EXEC_WORKER;
        ASSERT_EQ(timers()->addDelayTimerInline(1, run, "t" + std::to_string(i), freeFn, nullptr, 0, true, mode), 1);
    }
    ASSERT_TRUE(eventually([&] { return runs >= 40; }));
    CCronTimerInterface::UninitInstance();
    EXPECT_EQ(inside, 0);
    EXPECT_EQ(frees, 4);
    const int after = runs;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(runs, after);
    // A new service starts clean.
    Counter c;
    ASSERT_EQ(timers()->addDelayTimerInline(5, c.run, "t0", c.free, nullptr, 2, true, CCronTimer::TIMER_EXEC_INLINE), 1);
    ASSERT_TRUE(eventually([&] { return c.frees == 1; }));
}

TEST_F(TimerTest, UninitFromInsideACallback)
{
    std::atomic<int> runs{0};
    std::atomic<bool> returned{false};
    std::atomic<int> frees{0};
    TimerFunc run = [&](void*) {
        if (++runs == 1) {
            CCronTimerInterface::UninitInstance();
            returned = true;
        }
    };
    TimerFunc freeFn = [&](void*) { ++frees; };
    ASSERT_EQ(timers()->addDelayTimerInline(2, run, "ender", freeFn, nullptr, 0, true, CCronTimer::TIMER_EXEC_INLINE), 1);
    ASSERT_TRUE(eventually([&] { return returned && frees == 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(runs, 1);
}

TEST_F(TimerTest, ProcessExitDoesNotHangOnABlockedCallback)
{
    EXPECT_EQ(runChild(KUV_TIMER_EXIT_PROBE, "blocked"), 0);
}

TEST_F(TimerTest, ProcessExitAfterUninitInsideACallback)
{
    EXPECT_EQ(runChild(KUV_TIMER_EXIT_PROBE, "uninit"), 0);
}

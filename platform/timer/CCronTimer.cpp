// SPDX-License-Identifier: GPL-2.0-or-later
// CCronTimerInterface: named timers on one thread that sleeps until the next deadline.
#include "CCronTimer.h"

#include <pthread.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using TimerFunc = CCronTimerInterface::TimerFunc;

// How long process exit waits for a callback that is still running before it lets it be.
constexpr auto kExitGrace = std::chrono::seconds(2);

struct Timer {
    std::string name;
    TimerFunc fn;
    TimerFunc freeFn;
    void* data = nullptr;
    Clock::duration interval{};
    int remaining = 0; // runs left; 0 = until cancelled
    bool inlineMode = true;
    Clock::time_point due;
    bool running = false;
    bool done = false; // no further run: cancelled, last run taken, or the service ended
    bool freed = false;
};

struct Worker {
    std::thread thread;
    bool finished = false;
};

struct State {
    std::mutex mutex;
    std::condition_variable wake; // the timer thread: deadlines changed
    std::condition_variable idle; // a callback finished
    std::map<std::string, std::shared_ptr<Timer>> timers;
    std::list<std::shared_ptr<Worker>> workers;
    std::thread thread;
    bool stopping = false;
    bool threadsHandled = false;
    int inflight = 0;
};

// The service whose callback this thread is running, to notice calls from inside a callback.
thread_local const State* tl_inCallback = nullptr;

void callSafely(const TimerFunc& fn, void* data)
{
    if (!fn) {
        return;
    }
    try {
        fn(data);
    } catch (...) {
        // A throwing callback must not take the timer thread down.
    }
}

// Marks a timer's data as freed; returns whether the caller is the one to free it.
bool claimFree(Timer& t)
{
    if (t.freed) {
        return false;
    }
    t.freed = true;
    return true;
}

void runCallback(const std::shared_ptr<State>& s, const std::shared_ptr<Timer>& t)
{
    const State* outer = tl_inCallback;
    tl_inCallback = s.get();
    callSafely(t->fn, t->data);
    tl_inCallback = outer;
}

// After a run: frees the data of a timer that ended meanwhile, wakes whoever waits. Lock held on entry and exit.
void finishRun(State& s, Timer& t, std::unique_lock<std::mutex>& lock)
{
    t.running = false;
    if (t.done && claimFree(t)) {
        lock.unlock();
        callSafely(t.freeFn, t.data);
        lock.lock();
    }
    --s.inflight;
    s.idle.notify_all();
    s.wake.notify_all();
}

void reapWorkers(State& s, std::unique_lock<std::mutex>& lock)
{
    std::vector<std::shared_ptr<Worker>> done;
    for (auto it = s.workers.begin(); it != s.workers.end();) {
        if ((*it)->finished) {
            done.push_back(*it);
            it = s.workers.erase(it);
        } else {
            ++it;
        }
    }
    if (done.empty()) {
        return;
    }
    lock.unlock();
    for (auto& w : done) {
        if (w->thread.joinable()) {
            w->thread.join();
        }
    }
    lock.lock();
}

void fire(const std::shared_ptr<State>& s, const std::shared_ptr<Timer>& t, std::unique_lock<std::mutex>& lock)
{
    const auto now = Clock::now();
    t->running = true;
    ++s->inflight;
    if (t->remaining > 0 && --t->remaining == 0) {
        t->done = true;
        auto it = s->timers.find(t->name);
        if (it != s->timers.end() && it->second == t) {
            s->timers.erase(it);
        }
    } else {
        t->due += t->interval;
        if (t->due < now) {
            t->due = now + t->interval; // fell behind: no burst of catch-up runs
        }
    }
    if (!t->inlineMode) {
        auto w = std::make_shared<Worker>();
        try {
            w->thread = std::thread([s, t, w] {
                pthread_setname_np(pthread_self(), "kuv-timer-run");
                runCallback(s, t);
                std::unique_lock<std::mutex> lk(s->mutex);
                finishRun(*s, *t, lk);
                w->finished = true;
            });
            s->workers.push_back(w);
            return;
        } catch (const std::system_error&) {
            // No thread to be had: run it here rather than not at all.
        }
    }
    lock.unlock();
    runCallback(s, t);
    lock.lock();
    finishRun(*s, *t, lock);
}

void timerThread(std::shared_ptr<State> s)
{
    pthread_setname_np(pthread_self(), "kuv-timer");
    std::unique_lock<std::mutex> lock(s->mutex);
    while (!s->stopping) {
        reapWorkers(*s, lock);
        if (s->stopping) {
            break;
        }
        std::shared_ptr<Timer> next;
        for (const auto& kv : s->timers) {
            const auto& t = kv.second;
            if (!t->running && !t->done && (!next || t->due < next->due)) {
                next = t;
            }
        }
        if (!next) {
            s->wake.wait(lock);
        } else if (next->due > Clock::now()) {
            s->wake.wait_until(lock, next->due);
        } else {
            fire(s, next, lock);
        }
    }
}

long timerScale()
{
    const char* env = std::getenv("KUV_TIMER_SCALE");
    if (env == nullptr || env[0] == '\0') {
        return 1;
    }
    const char* end = env + std::strlen(env);
    long v = 0;
    const auto [stop, ec] = std::from_chars(env, end, v);
    return (ec == std::errc() && stop == end && v >= 1 && v <= 1000000) ? v : 1;
}

class CronTimerService final : public CCronTimerInterface {
public:
    CronTimerService() : m_state(std::make_shared<State>())
    {
        m_state->thread = std::thread(&timerThread, m_state);
    }

    ~CronTimerService() override { shutdown(false); }

    int addDelayTimerInline(int intervalMs, TimerFunc& fn, const std::string& name, TimerFunc& freeFn, void* data,
                            int repeat, bool runNow, CCronTimer::TimerExecMode mode) override
    {
        if (intervalMs <= 0 || !fn || repeat < 0) {
            return 0;
        }
        auto t = std::make_shared<Timer>();
        t->name = name;
        t->fn = fn;
        t->freeFn = freeFn;
        t->data = data;
        t->interval = std::max<Clock::duration>(std::chrono::microseconds(intervalMs * 1000LL / timerScale()),
                                                std::chrono::microseconds(100));
        t->remaining = repeat;
        t->inlineMode = mode != CCronTimer::TIMER_EXEC_WORKER;
        t->due = Clock::now() + (runNow ? Clock::duration::zero() : t->interval);
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->stopping || m_state->timers.count(name) != 0) {
            return 0;
        }
        m_state->timers.emplace(name, t);
        m_state->wake.notify_all();
        return 1;
    }

    int cancelTimerInline(const std::string& name) override
    {
        std::shared_ptr<Timer> t;
        bool freeNow = false;
        {
            std::lock_guard<std::mutex> lock(m_state->mutex);
            auto it = m_state->timers.find(name);
            if (it == m_state->timers.end()) {
                return 0;
            }
            t = it->second;
            m_state->timers.erase(it);
            t->done = true;
            // A running callback still uses the data; its end frees it.
            freeNow = !t->running && claimFree(*t);
            m_state->wake.notify_all();
        }
        if (freeNow) {
            callSafely(t->freeFn, t->data);
        }
        return 1;
    }

    // Stops every timer. Waits for running callbacks (at most kExitGrace when bounded), except the
    // one this thread may be inside; frees the data of the timers that are not running.
    void shutdown(bool bounded)
    {
        State& s = *m_state;
        std::unique_lock<std::mutex> lock(s.mutex);
        if (s.threadsHandled) {
            return;
        }
        s.stopping = true;
        s.wake.notify_all();
        const int own = tl_inCallback == &s ? 1 : 0;
        const auto settled = [&] { return s.inflight <= own; };
        bool timedOut = false;
        if (bounded) {
            timedOut = !s.idle.wait_for(lock, kExitGrace, settled);
        } else {
            s.idle.wait(lock, settled);
        }
        std::vector<std::shared_ptr<Timer>> toFree;
        for (auto& kv : s.timers) {
            kv.second->done = true;
            if (!kv.second->running && claimFree(*kv.second)) {
                toFree.push_back(kv.second);
            }
        }
        s.timers.clear();
        std::list<std::shared_ptr<Worker>> workers;
        workers.swap(s.workers);
        std::thread thread = std::move(s.thread);
        s.threadsHandled = true;
        lock.unlock();

        for (auto& t : toFree) {
            callSafely(t->freeFn, t->data);
        }
        const auto self = std::this_thread::get_id();
        // A thread still in a callback (ours, or one past the grace period) is left to finish alone;
        // it holds the state and runs nothing more.
        if (thread.joinable()) {
            if (thread.get_id() == self || timedOut) {
                thread.detach();
            } else {
                thread.join();
            }
        }
        for (auto& w : workers) {
            if (!w->thread.joinable()) {
                continue;
            }
            if (w->thread.get_id() == self || timedOut) {
                w->thread.detach();
            } else {
                w->thread.join();
            }
        }
    }

private:
    std::shared_ptr<State> m_state;
};

// Plain statics with trivial destructors: usable at any point of process exit. g_instance only
// points at the service; whoever takes it out owns it.
std::mutex g_mutex;
CronTimerService* g_instance = nullptr;
bool g_exitHookSet = false;

std::unique_ptr<CronTimerService> takeInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return std::unique_ptr<CronTimerService>(std::exchange(g_instance, nullptr));
}

// Runs at exit before the statics of anything created later are gone; never waits long.
void exitHook()
{
    if (const auto s = takeInstance()) {
        s->shutdown(true);
    }
}

} // namespace

CCronTimerInterface* CCronTimerInterface::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        try {
            g_instance = std::make_unique<CronTimerService>().release();
        } catch (...) {
            return nullptr;
        }
        if (!g_exitHookSet) {
            g_exitHookSet = std::atexit(&exitHook) == 0;
        }
    }
    return g_instance;
}

void CCronTimerInterface::UninitInstance()
{
    if (const auto s = takeInstance()) {
        s->shutdown(false);
    }
}

void CCronTimerInterface::g_funcFree(void* data)
{
    if (data != nullptr) {
        std::free(data);
    }
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Timer double: keeps registered timers; tests fire them by name instead of waiting.
#include <cstdlib>
#include <map>
#include <mutex>

#include "CCronTimer.h"
#include "FakePlatform.h"
#include "ResetHook.h"

namespace {

struct Active {
    CCronTimerInterface::TimerFunc fn;
    CCronTimerInterface::TimerFunc freeFn;
    void* data;
};

std::mutex g_mutex;
std::vector<fake::TimerEntry> g_added;
std::vector<std::string> g_cancelled;
std::map<std::string, Active> g_active;

class FakeTimer : public CCronTimerInterface {
public:
    int addDelayTimerInline(int intervalMs, TimerFunc& fn, const std::string& name, TimerFunc& freeFn, void* data,
                            int repeat, bool runNow, CCronTimer::TimerExecMode mode) override
    {
        fake::record("timer.add " + name + " " + std::to_string(intervalMs));
        std::lock_guard<std::mutex> lock(g_mutex);
        g_added.push_back({name, intervalMs, repeat, runNow, static_cast<int>(mode)});
        if (g_active.count(name) != 0) {
            return 0;
        }
        g_active[name] = Active{fn, freeFn, data};
        return 1;
    }

    int cancelTimerInline(const std::string& name) override
    {
        fake::record("timer.cancel " + name);
        Active entry;
        {
            std::lock_guard<std::mutex> lock(g_mutex);
            g_cancelled.push_back(name);
            auto it = g_active.find(name);
            if (it == g_active.end()) {
                return 0;
            }
            entry = it->second;
            g_active.erase(it);
        }
        if (entry.freeFn) {
            entry.freeFn(entry.data);
        }
        return 1;
    }
};

FakeTimer* g_timer = nullptr;

void resetTimer()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_added.clear();
    g_cancelled.clear();
    g_active.clear();
}
fake::ResetHook g_hook(&resetTimer);

} // namespace

CCronTimerInterface* CCronTimerInterface::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_timer == nullptr) {
        g_timer = new FakeTimer;
    }
    return g_timer;
}

void CCronTimerInterface::UninitInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    delete g_timer;
    g_timer = nullptr;
}

void CCronTimerInterface::g_funcFree(void* data) { free(data); }

namespace fake {
std::vector<TimerEntry> timersAdded()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_added;
}
std::vector<std::string> timersCancelled()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_cancelled;
}
bool timerActive(const std::string& name)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_active.count(name) != 0;
}
bool fireTimer(const std::string& name)
{
    Active entry;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_active.find(name);
        if (it == g_active.end()) {
            return false;
        }
        entry = it->second;
    }
    entry.fn(entry.data);
    return true;
}
} // namespace fake

// SPDX-License-Identifier: GPL-2.0-or-later
// The timer service: named repeating timers run by the service's own thread.
#pragma once

#include "KuvExport.h"

#include <string>
#include <functional>

class KUV_EXPORT CCronTimer {
public:
    enum TimerExecMode {
        TIMER_EXEC_WORKER = 0, // the callback runs on a short-lived worker thread
        TIMER_EXEC_INLINE = 1, // the callback runs on the timer service's own thread
    };
};

class KUV_EXPORT CCronTimerInterface {
public:
    // Callbacks take the timer's data pointer.
    typedef std::function<void(void*)> TimerFunc;

    static CCronTimerInterface* singleInstance();
    // Stops the timer thread; no callback runs afterwards. Waits for callbacks under way (not for the
    // caller's own when called from a callback); at process exit that wait is bounded.
    static void UninitInstance();
    // The standard free function for timer data: free() on non-null data.
    static void g_funcFree(void* data);

    virtual ~CCronTimerInterface() = default;

    // Runs fn(data) every intervalMs (divided by KUV_TIMER_SCALE) until cancelled.
    // repeat: number of runs, 0 = until cancelled; runNow: first run at once instead of after one interval.
    // freeFn(data) runs once when the timer is cancelled or the service ends. 1 on success, 0 otherwise
    // (bad interval, empty function, or a timer of that name exists).
    virtual int addDelayTimerInline(int intervalMs, TimerFunc& fn, const std::string& name, TimerFunc& freeFn,
                                    void* data, int repeat, bool runNow, CCronTimer::TimerExecMode mode) = 0;
    // Cancels the named timer; an unknown name does nothing. 1 when a timer was cancelled, else 0.
    // A run under way finishes and its freeFn follows it; callable from inside a callback.
    virtual int cancelTimerInline(const std::string& name) = 0;

protected:
    CCronTimerInterface() = default;
};

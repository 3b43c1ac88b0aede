// SPDX-License-Identifier: GPL-2.0-or-later
// Blocking signals for kuvctl's commands, which take them synchronously (sigtimedwait, signalfd, ppoll).
#pragma once

#include <signal.h>

#include <initializer_list>

namespace kuvctl {

// Blocks the signals in this thread (and every thread it starts afterwards); returns them as a set.
// previous, when given, gets the mask from before.
inline sigset_t blockSignals(std::initializer_list<int> signals, sigset_t* previous = nullptr)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : signals) {
        sigaddset(&set, sig);
    }
    sigprocmask(SIG_BLOCK, &set, previous);
    return set;
}

} // namespace kuvctl

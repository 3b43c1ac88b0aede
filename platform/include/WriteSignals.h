// SPDX-License-Identifier: GPL-2.0-or-later
// Write errors as return values: a closed pipe (SIGPIPE) or a file-size limit (SIGXFSZ) must not kill.
#pragma once

#include <signal.h>

namespace kuv {

// Every process of the project calls this first: a reader that went away or `ulimit -f` then costs
// a write (EPIPE, EFBIG), which the caller notes, never the process.
inline void ignoreWriteSignals()
{
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGPIPE, &sa, nullptr);
    sigaction(SIGXFSZ, &sa, nullptr);
}

} // namespace kuv

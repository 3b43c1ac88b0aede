// SPDX-License-Identifier: GPL-2.0-or-later
// Going to the background the classic way, with the start-up status handed back to the caller's shell.
#pragma once

#include "KuvExport.h"
#include "UniqueFd.h"

namespace kuv {

// Forks twice into a new session (working directory "/", standard streams on /dev/null) and returns in the
// daemon only, with ready holding the write end of a pipe to the original process. The original process
// waits for one status byte (reportReady) and exits with it, or with failureStatus when the daemon ends
// without a report; failureMessage, when given, goes to its stderr for any status but 0. false in the
// original process, errno set, when the pipe or the first fork fails.
KUV_EXPORT bool daemonize(UniqueFd& ready, int failureStatus, const char* failureMessage = nullptr);

// Tells the process waiting in daemonize() the start-up status; ready is closed, so later calls do nothing.
KUV_EXPORT void reportReady(UniqueFd& ready, int status);

} // namespace kuv

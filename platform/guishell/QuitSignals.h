// SPDX-License-Identifier: GPL-2.0-or-later
// SIGTERM, SIGINT and SIGHUP as quit requests of the shell, with a shut-down watchdog.
#pragma once

namespace kuv {
namespace shell {

// Installs the handlers (a self-pipe); signals that arrive before the notifier exists wait in it.
// Idempotent; main thread.
void installQuitSignals();
// Watches the self-pipe from the GUI thread's event loop; needs the application object. Idempotent.
void watchQuitSignals();

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// The process around the service: the per-user lock, serving in this process, or supervising a child
// that serves and is started again after a crash.
#pragma once

#include <string>

#include "Settings.h"
#include "UniqueFd.h"

namespace kuv {
namespace scand {

// The per-user lock's name in the runtime directory.
inline constexpr char kLockName[] = "kuv-scand.lock";

// Takes the per-user lock at path, held by lock; false with why (lock left empty) when it cannot be opened
// or another kuv-scand holds it.
bool takeLock(const std::string& path, UniqueFd& lock, std::string& why);

// Tells whoever started us in the background how the start went (one byte on ready), once.
void report(UniqueFd& ready, int status);

// Where the lock is held: its descriptor and its path (the service stops when the path goes away).
struct HeldLock {
    int fd = -1;
    std::string path;
};

// Runs the service in this process; returns its exit status.
int serve(const Settings& settings, const std::string& installDir, UniqueFd& ready, const HeldLock& lock);

// Runs the service in a child, started again when it crashes; returns the exit status.
int supervise(const Settings& settings, const std::string& installDir, UniqueFd& ready, const HeldLock& lock);

} // namespace scand
} // namespace kuv

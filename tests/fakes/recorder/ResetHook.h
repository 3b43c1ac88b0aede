// SPDX-License-Identifier: GPL-2.0-or-later
// Lets each platform double take part in fake::resetAll().
#pragma once

#include <vector>

namespace fake {
std::vector<void (*)()>& resetHooks();
struct ResetHook {
    explicit ResetHook(void (*hook)()) { resetHooks().push_back(hook); }
};
} // namespace fake

// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl quarantine": list, restore, delete (and add) entries of the user's quarantine.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

int runQuarantine(const std::vector<std::string>& args);
std::string quarantineUsage();

} // namespace kuvctl

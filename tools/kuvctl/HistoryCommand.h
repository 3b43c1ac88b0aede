// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl history": the user's past scan jobs, and one job with its findings.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

int runHistory(const std::vector<std::string>& args);
std::string historyUsage();

} // namespace kuvctl

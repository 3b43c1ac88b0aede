// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl status": the running service's instance tag and its published attributes.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

// args: the words after "status". Returns the process exit status (see statusUsage()).
int runStatus(const std::vector<std::string>& args);
std::string statusUsage();

} // namespace kuvctl

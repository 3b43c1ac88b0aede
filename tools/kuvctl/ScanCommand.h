// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl scan": one scan job on the back end kuv-scand over the bus, its results printed.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

// args: the words after "scan". Exit status 0 nothing found, 1 something found, 2 an error (see scanUsage()).
int runScan(const std::vector<std::string>& args);
std::string scanUsage();

} // namespace kuvctl

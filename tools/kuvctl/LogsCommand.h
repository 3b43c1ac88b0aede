// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl logs": prints and follows the service log across rotation, like tail -F.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

// args: the words after "logs". Returns the process exit status (see logsUsage()).
int runLogs(const std::vector<std::string>& args);

// The --help text, exit statuses included.
std::string logsUsage();

} // namespace kuvctl

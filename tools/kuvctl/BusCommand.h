// SPDX-License-Identifier: GPL-2.0-or-later
// "kuvctl bus send" and "kuvctl bus listen": a real client of the message bus.
#pragma once

#include <string>
#include <vector>

namespace kuvctl {

// args: the words after "bus". Returns the process exit status (see busUsage()).
int runBus(const std::vector<std::string>& args);
std::string busUsage();

// Body bytes as one line: backslash, control characters and DEL escaped (\\ \n \r \t \xHH).
std::string escapeBody(const std::string& body);

} // namespace kuvctl

// SPDX-License-Identifier: GPL-2.0-or-later
// kuv-scand's command line, its exit statuses, and the settings that result from both with the config file.
#pragma once

#include <string>
#include <vector>

#include "Settings.h"

namespace kuv {
namespace scand {

constexpr int kExitOk = 0;
constexpr int kExitRunning = 1;
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 3;

struct Options {
    std::string config;
    std::string clamd;
    std::vector<std::string> dbDirs;
    bool foreground = false;
    int logLevel = -1;
};

// false when the process is to end at once with exitCode (--help, --version, a usage error, all printed).
bool parseOptions(int argc, char** argv, Options& options, int& exitCode);

// The settings file (--config, else DIR/etc/kuv-scand.conf when there is one) with the command line over it.
// false with exitCode when the file cannot be used (printed).
bool loadSettings(const Options& options, Settings& settings, int& exitCode);

} // namespace scand
} // namespace kuv

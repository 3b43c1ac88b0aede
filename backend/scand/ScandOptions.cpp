// SPDX-License-Identifier: GPL-2.0-or-later
// The command line reads like the manual page: a few flags and options that take one value each.
#include "ScandOptions.h"

#include <charconv>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "ConstConfig.h"
#include "FileUtils.h"

namespace kuv {
namespace scand {

namespace {

const char* const kUsage =
    "Usage: kuv-scand [options]\n"
    "The per-user scan service of kuvgui: scans files on request over the user's message bus with\n"
    "ClamAV's engine (libclamav), or hands them to the system's clamd.\n"
    "\n"
    "Options:\n"
    "  --foreground       stay in the foreground (as a systemd unit runs it); otherwise it goes to the\n"
    "                     background and restarts itself after a crash\n"
    "  --config FILE      settings (default DIR/etc/kuv-scand.conf, JSON; see the manual page)\n"
    "  --clamd SOCKET     hand files to the clamd listening on SOCKET instead of loading an engine\n"
    "  --db-dir DIR       one more signature database directory (may be repeated)\n"
    "  --log-level N      lowest level logged: 0 trace .. 4 error (default 2)\n"
    "  --version          print the version\n"
    "  --help             this text\n"
    "\n"
    "It stops on SIGTERM or SIGINT, and when the file data/pubcfg/.guiexit appears (the user chose to\n"
    "stop the back end when quitting kuvgui); a start while that file exists does nothing.\n"
    "Exit status: 0 stopped, or not started because of that file; 1 another kuv-scand serves this\n"
    "user; 2 usage error; 3 could not start.\n";

constexpr size_t kMaxConfigBytes = 1 << 20;

// Stores an option's value; false (printed) when the value is not acceptable.
using TakeValue = bool (*)(Options& options, const std::string& value);

struct ValueOption {
    const char* name;
    TakeValue take;
};

const ValueOption kValueOptions[] = {
    {"--config", [](Options& o, const std::string& v) { o.config = v; return true; }},
    {"--clamd", [](Options& o, const std::string& v) { o.clamd = v; return true; }},
    {"--db-dir", [](Options& o, const std::string& v) { o.dbDirs.push_back(v); return true; }},
    {"--log-level",
     [](Options& o, const std::string& v) {
         // One digit: "04" or "+4" is not a level.
         int level = -1;
         if (v.size() != 1 || std::from_chars(v.data(), v.data() + 1, level).ec != std::errc() || level > 4) {
             fprintf(stderr, "kuv-scand: --log-level takes 0..4\n");
             return false;
         }
         o.logLevel = level;
         return true;
     }},
};

const ValueOption* findValueOption(const std::string& arg)
{
    for (const ValueOption& option : kValueOptions) {
        if (arg == option.name) {
            return &option;
        }
    }
    return nullptr;
}

bool readFile(const std::string& path, std::string& content, size_t cap)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    content = text.str();
    return content.size() <= cap;
}

} // namespace

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    exitCode = kExitUsage;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            exitCode = kExitOk;
            return false;
        }
        if (arg == "--version") {
            printf("kuv-scand %s\n", KUV_VERSION);
            exitCode = kExitOk;
            return false;
        }
        if (arg == "--foreground" || arg == "-f") {
            options.foreground = true;
            continue;
        }
        const ValueOption* option = findValueOption(arg);
        if (option == nullptr) {
            fprintf(stderr, "kuv-scand: unknown argument '%s'\nTry 'kuv-scand --help'.\n",
                    kuv::escapeControl(arg).c_str());
            return false;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "kuv-scand: %s needs a value\nTry 'kuv-scand --help'.\n", arg.c_str());
            if (arg == "--log-level") {
                fprintf(stderr, "kuv-scand: --log-level takes 0..4\n");
            }
            return false;
        }
        if (!option->take(options, argv[++i])) {
            return false;
        }
    }
    exitCode = kExitOk;
    return true;
}

bool loadSettings(const Options& options, Settings& settings, int& exitCode)
{
    exitCode = kExitUsage;
    const std::string configPath =
        options.config.empty() ? ConstConfig::singleInstance()->getConfigurationDir() + "kuv-scand.conf" : options.config;
    std::string text;
    if (readFile(configPath, text, kMaxConfigBytes)) {
        std::string error;
        if (!parseSettings(text, settings, error)) {
            fprintf(stderr, "kuv-scand: %s: %s\n", configPath.c_str(), kuv::escapeControl(error).c_str());
            return false;
        }
    } else if (!options.config.empty()) {
        fprintf(stderr, "kuv-scand: cannot read %s\n", configPath.c_str());
        return false;
    }
    if (!options.clamd.empty()) {
        settings.engine = "clamd";
        settings.clamdSocket = options.clamd;
    }
    for (const std::string& dir : options.dbDirs) {
        settings.extraDbDirs.push_back(dir);
    }
    if (options.logLevel >= 0) {
        settings.logLevel = options.logLevel;
    }
    exitCode = kExitOk;
    return true;
}

} // namespace scand
} // namespace kuv

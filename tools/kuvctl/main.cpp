// SPDX-License-Identifier: GPL-2.0-or-later
// kuvctl: the command-line tool for people and scripts. Each command lives in its own file and is listed
// in kCommands below.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BusCommand.h"
#include "ConstConfig.h"
#include "FileUtils.h"
#include "ScanCommand.h"
#include "HistoryCommand.h"
#include "LogsCommand.h"
#include "QuarantineCommand.h"
#include "StatusCommand.h"
#include "WriteSignals.h"

namespace {

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const std::vector<std::string>& args);
};

const Command kCommands[] = {
    {"status", "is kuvgui running, and what it publishes (pid, status)", &kuvctl::runStatus},
    {"bus", "send to and listen on the message bus", &kuvctl::runBus},
    {"scan", "scan files and folders with the back end kuv-scand", &kuvctl::runScan},
    {"quarantine", "list, restore and delete quarantined files", &kuvctl::runQuarantine},
    {"history", "past scan jobs and their findings", &kuvctl::runHistory},
    {"logs", "print and follow the service log", &kuvctl::runLogs},
};

// kuvgui itself takes no options (a word it does not know is forwarded as nothing), so its help is here.
const char* const kKuvguiHelp =
    "\n"
    "kuvgui, the per-user service, takes no options; its command words are:\n"
    "  kuvgui                start the service, or show the main window of the running one\n"
    "  kuvgui right FILE...  scan files and folders (what the file manager's context menu runs)\n"
    "  kuvgui quit           quit the running service (SIGTERM, SIGINT and SIGHUP quit it the same way)\n"
    "A start that finds kuvgui running prints \"Container[...] is Running\" and hands its words over.\n"
    "kuvgui exit status: 1 handed over to the running instance; 0 nothing sent (unknown word,\n"
    "\"right\" without paths), or the first instance after a normal run; 255 the start failed.\n"
    "Manual: man kuvgui, man kuvctl (in a build tree: man -l packaging/man/kuvgui.1).\n";

void usage(FILE* out)
{
    fputs("Usage: kuvctl <command> [options]   (kuvctl <command> --help for details)\n\nCommands:\n", out);
    for (const Command& command : kCommands) {
        fprintf(out, "  %-8s %s\n", command.name, command.summary);
    }
    fprintf(out, "  %-8s %s\n", "version", "versions of the tools and of the installed client");
    fputs("\nExit status: 0 success; 1 not running, not delivered or failed; 2 usage error.\n", out);
    fputs(kKuvguiHelp, out);
}

int version()
{
    ConstConfig* config = ConstConfig::singleInstance();
    const std::string dir = config != nullptr ? config->getInstallDir() : std::string();
    const std::string client = config != nullptr ? config->getClientVersion() : std::string();
    printf("kuvctl %s\n", KUVCTL_BUILD_VERSION);
    printf("kuvgui %s (%sVERSION)\n", client.empty() ? "unknown" : kuv::escapeControl(client).c_str(),
           kuv::escapeControl(dir).c_str());
    printf("installation %s\n", kuv::escapeControl(dir).c_str());
    return client.empty() ? 1 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    kuv::ignoreWriteSignals();
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        usage(stdout);
        return 0;
    }
    if (name == "version" || name == "--version") {
        return version();
    }
    const std::vector<std::string> args(argv + 2, argv + argc);
    for (const Command& command : kCommands) {
        if (name == command.name) {
            return command.run(args);
        }
    }
    fprintf(stderr, "kuvctl: unknown command '%s'\n", kuv::escapeControl(name).c_str());
    usage(stderr);
    return 2;
}

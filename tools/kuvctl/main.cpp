// kuvctl: the command-line tool for people and scripts. Each command lives in its own file and is listed
// in kCommands below.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BusCommand.h"
#include "FileUtils.h"
#include "ScanCommand.h"
#include "StatusCommand.h"
#ifdef KUVCTL_HAVE_LOGS
#include "LogsCommand.h"
#endif

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
#ifdef KUVCTL_HAVE_LOGS
    {"logs", "print and follow the service log", &kuvctl::runLogs},
#endif
};

void usage(FILE* out)
{
    fputs("Usage: kuvctl <command> [options]   (kuvctl <command> --help for details)\n\nCommands:\n", out);
    for (const Command& command : kCommands) {
        fprintf(out, "  %-8s %s\n", command.name, command.summary);
    }
    fputs("\nExit status: 0 success; 1 not running, not delivered or failed; 2 usage error.\n", out);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        usage(stderr);
        return 2;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        usage(stdout);
        return 0;
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

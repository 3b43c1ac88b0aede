// SPDX-License-Identifier: GPL-2.0-or-later
#include "StatusCommand.h"

#include <cstdio>
#include <map>

#include "ArgParser.h"
#include "CGlobalTag.h"
#include "FileUtils.h"

namespace kuvctl {

namespace {

// The service's per-user instance tag.
const char* const kServiceTag = "A5F24530-52D7-11EE-AF47-4B159A309AD8";

} // namespace

std::string statusUsage()
{
    return "Usage: kuvctl status\n"
           "Tells whether kuvgui runs for this user and prints the attributes its instance publishes:\n"
           "  pid=<process id>\n"
           "  status=<0 starting, 1 bus client up, 2/3 running>\n"
           "(an attribute not published yet is printed empty).\n"
           "\n"
           "Exit status: 0 an instance holds the tag; 1 no instance runs (or the runtime directory is\n"
           "unusable); 2 usage error.\n";
}

int runStatus(const std::vector<std::string>& args)
{
    ArgParser parser(args, {{"help", 'h', false}});
    ArgParser::Item item;
    if (parser.next(item)) {
        if (item.kind == ArgParser::Item::Option) {
            fputs(statusUsage().c_str(), stdout);
            return 0;
        }
        fprintf(stderr, "kuvctl: unknown argument '%s'\nTry 'kuvctl status --help'.\n",
                kuv::escapeControl(item.text).c_str());
        return 2;
    }
    const CGlobalTag::TagConfig config = CGlobalTag::TagConfig::getUserConfig();
    if (config.dir.empty()) {
        fprintf(stderr, "kuvctl: the runtime directory cannot be used: %s\n", config.error.c_str());
        return 1;
    }
    if (!CGlobalTag::isHeld(kServiceTag, config)) {
        fprintf(stderr, "kuvctl: kuvgui is not running\n");
        return 1;
    }
    std::map<std::string, std::string> attributes;
    CGlobalTag::readAttributes(kServiceTag, config, attributes);
    for (const char* key : {"pid", "status"}) {
        auto found = attributes.find(key);
        printf("%s=%s\n", key, found == attributes.end() ? "" : kuv::escapeControl(found->second).c_str());
    }
    return 0;
}

} // namespace kuvctl

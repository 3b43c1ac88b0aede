// SPDX-License-Identifier: GPL-2.0-or-later
#include "QuarantineCommand.h"

#include <cstdio>

#include <json/json.h>

#include "ArgParser.h"
#include "FileUtils.h"
#include "Quarantine.h"
#include "ScanPaths.h"
#include "StoreOutput.h"
#include "StorePaths.h"

namespace kuvctl {

namespace {

using kuv::store::QStatus;

// Exit statuses, listed in the man page.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNoEntry = 3;
constexpr int kPathTaken = 4;

int exitFor(QStatus s)
{
    switch (s) {
    case QStatus::Ok: return kOk;
    case QStatus::NotFound: return kNoEntry;
    case QStatus::Exists: return kPathTaken;
    default: return kFailed;
    }
}

void printNotices(const kuv::store::QuarantineStore& store)
{
    for (const std::string& n : store.notices()) {
        std::fprintf(stderr, "kuvctl: %s\n", kuv::escapeControl(n).c_str());
    }
}

int usageError(const std::string& what)
{
    std::fprintf(stderr, "kuvctl quarantine: %s\nTry 'kuvctl quarantine --help'.\n", kuv::escapeControl(what).c_str());
    return kUsage;
}

} // namespace

std::string quarantineUsage()
{
    return "Usage: kuvctl quarantine list [--json]\n"
           "       kuvctl quarantine restore ID [--beside] [--json]\n"
           "       kuvctl quarantine delete ID [--json]\n"
           "       kuvctl quarantine add PATH [--signature NAME] [--json]\n"
           "Works on this user's quarantine in $XDG_DATA_HOME/kuv/quarantine (default ~/.local/share/kuv).\n"
           "  list     every entry: id, date, size, signature and original path\n"
           "  restore  puts the file back where it was, with its mode and times; never overwrites:\n"
           "           with --beside it is restored as NAME.restored (or NAME.restored-N) when the\n"
           "           original path is taken\n"
           "  delete   removes the entry and its stored file for good\n"
           "  add      moves a file into the quarantine\n"
           "--json prints one JSON object instead of text (paths that are not UTF-8 as {\"b64\": ...}).\n"
           "\n"
           "Exit status: 0 done; 1 failed (the store or the file cannot be used); 2 usage error;\n"
           "3 no such entry (or file, for add); 4 restore refused: something stands at the original path.\n";
}

namespace {

constexpr int kGoOn = -1; // parsed, and not only asked for help

struct Request {
    std::vector<std::string> words; // the subcommand and its argument
    bool json = false;
    bool beside = false;
    std::string signature = "manual";
};

// kGoOn when the words name something to do; else the exit status (usage error, or help printed).
int parseRequest(const std::vector<std::string>& args, Request& req)
{
    enum { kHelp, kJson, kBeside, kSignature };
    ArgParser parser(args, {{"help", 'h', false}, {"json", 0, false}, {"beside", 0, false}, {"signature", 0, true}});
    ArgParser::Item item;
    while (parser.next(item)) {
        switch (item.kind) {
        case ArgParser::Item::Word: req.words.push_back(item.value); break;
        case ArgParser::Item::DoubleDash: break;
        case ArgParser::Item::MissingValue: return usageError("--signature needs a value");
        case ArgParser::Item::Unknown: return usageError("unknown option '" + item.text + "'");
        case ArgParser::Item::Option:
            if (item.option == kHelp) {
                std::fputs(quarantineUsage().c_str(), stdout);
                return kOk;
            }
            req.json = req.json || item.option == kJson;
            req.beside = req.beside || item.option == kBeside;
            if (item.option == kSignature) {
                req.signature = item.value;
            }
        }
    }
    if (req.words.empty()) {
        return usageError("a subcommand is needed (list, restore, delete, add)");
    }
    const std::string& sub = req.words[0];
    const bool takesArg = sub == "restore" || sub == "delete" || sub == "add";
    if (sub != "list" && !takesArg) {
        return usageError("unknown subcommand '" + sub + "'");
    }
    if ((takesArg && req.words.size() != 2) || (!takesArg && req.words.size() != 1)) {
        return usageError(takesArg ? sub + " takes exactly one " + (sub == "add" ? "path" : "entry id")
                                   : "list takes no arguments");
    }
    if (req.beside && sub != "restore") {
        return usageError("--beside belongs to restore");
    }
    return kGoOn;
}

int listEntries(kuv::store::QuarantineStore& store, bool json)
{
    const auto entries = store.list();
    std::string out;
    if (json) {
        Json::Value v(Json::objectValue);
        v["entries"] = Json::Value(Json::arrayValue);
        for (const auto& e : entries) {
            v["entries"].append(entryJson(e));
        }
        out = compactJson(v) + "\n";
    } else {
        for (const auto& e : entries) {
            char line[256];
            std::snprintf(line, sizeof line, "%s  %s  %10llu  %s  ", e.id.c_str(), utcTime(e.quarantinedAt).c_str(),
                          static_cast<unsigned long long>(e.size), kuv::escapeControl(e.signature).c_str());
            out += line + kuv::escapeControl(e.originalPath) + "\n";
        }
        if (entries.empty()) {
            std::fputs("kuvctl: the quarantine is empty\n", stderr);
        }
    }
    return printOut(out) ? kOk : kFailed;
}

// restore, delete or add: what was done (v as JSON, text as a line) or why not.
int changeEntry(kuv::store::QuarantineStore& store, const Request& req)
{
    const std::string& sub = req.words[0];
    const std::string& arg = req.words[1];
    kuv::store::QResult r;
    Json::Value v(Json::objectValue);
    std::string text;
    if (sub == "restore") {
        std::string to;
        r = store.restore(arg, req.beside ? kuv::store::RestoreMode::Beside : kuv::store::RestoreMode::Refuse, &to);
        v["id"] = arg;
        if (r.ok()) {
            v["restored"] = kuvscan::pathToJson(to);
            text = "restored " + kuv::escapeControl(to) + "\n";
        }
    } else if (sub == "delete") {
        r = store.remove(arg);
        v["id"] = arg;
        if (r.ok()) {
            v["deleted"] = true;
            text = "deleted " + arg + "\n";
        }
    } else {
        kuv::store::QuarantineEntry e;
        r = store.quarantine(arg, req.signature, std::string(), &e);
        if (r.ok()) {
            v = entryJson(e);
            text = e.id + "\n";
        }
    }
    printNotices(store);
    if (!r.ok()) {
        if (req.json) {
            v["error"] = kuv::store::statusName(r.status);
            v["detail"] = r.message;
            printOut(compactJson(v) + "\n");
        }
        std::fprintf(stderr, "kuvctl: %s\n", kuv::escapeControl(r.message).c_str());
        if (r.status == QStatus::Exists) {
            std::fputs("kuvctl: use --beside to restore it next to what stands there\n", stderr);
        }
        return exitFor(r.status);
    }
    return printOut(req.json ? compactJson(v) + "\n" : text) ? kOk : kFailed;
}

} // namespace

int runQuarantine(const std::vector<std::string>& args)
{
    Request req;
    if (const int rc = parseRequest(args, req); rc != kGoOn) {
        return rc;
    }
    std::string error;
    auto store = kuv::store::QuarantineStore::open(kuv::store::userDataDir(), error);
    if (!store) {
        std::fprintf(stderr, "kuvctl: the quarantine cannot be used: %s\n", kuv::escapeControl(error).c_str());
        return kFailed;
    }
    printNotices(*store);
    return req.words[0] == "list" ? listEntries(*store, req.json) : changeEntry(*store, req);
}

} // namespace kuvctl

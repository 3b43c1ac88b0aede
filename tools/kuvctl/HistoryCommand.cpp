// SPDX-License-Identifier: GPL-2.0-or-later
#include "HistoryCommand.h"

#include <climits>
#include <cstdio>
#include <memory>

#include <json/json.h>

#include "ArgParser.h"
#include "FileUtils.h"
#include "ScanSettings.h"
#include "StoreDb.h"
#include "StoreOutput.h"
#include "StorePaths.h"

namespace kuvctl {

namespace {

int usageError(const std::string& what)
{
    std::fprintf(stderr, "kuvctl history: %s\nTry 'kuvctl history --help'.\n", kuv::escapeControl(what).c_str());
    return 2;
}

std::string joinPaths(const std::vector<std::string>& paths)
{
    std::string out;
    for (const std::string& p : paths) {
        out += (out.empty() ? "" : " ") + kuv::escapeControl(p);
    }
    return out;
}

} // namespace

std::string historyUsage()
{
    return "Usage: kuvctl history [--json] [ID]\n"
           "Prints this user's past scan jobs, newest first: number, start, duration, state, files\n"
           "scanned, findings and the paths asked for; with ID, that job with each finding and what\n"
           "was done with it. History older than the retention setting (history_days in\n"
           "$XDG_CONFIG_HOME/kuv/scan.json) is dropped first.\n"
           "--json prints one JSON object instead of text (paths that are not UTF-8 as {\"b64\": ...}).\n"
           "\n"
           "Exit status: 0 printed; 1 the history cannot be read; 2 usage error; 3 no such job.\n";
}

namespace {

constexpr int kGoOn = -1; // parsed, and not only asked for help

// kGoOn when parsed (jobId 0 for every job); else the exit status (usage error, or help printed).
int parseArgs(const std::vector<std::string>& args, bool& json, long long& jobId)
{
    std::string id;
    ArgParser parser(args, {{"help", 'h', false}, {"json", 0, false}});
    ArgParser::Item item;
    while (parser.next(item)) {
        if (item.kind == ArgParser::Item::Option && item.option == 0) {
            std::fputs(historyUsage().c_str(), stdout);
            return 0;
        }
        if (item.kind == ArgParser::Item::Option) {
            json = true;
        } else if (item.kind == ArgParser::Item::Word && !item.value.empty() && item.value[0] != '-' && id.empty()) {
            id = item.value;
        } else {
            return usageError("unknown argument '" + item.text + "'");
        }
    }
    if (!id.empty() && !parseInteger(id, 1, LLONG_MAX, jobId)) {
        return usageError("not a job number: '" + id + "'");
    }
    return kGoOn;
}

// The history database, pruned by the retention setting; null after saying why it cannot be read.
std::unique_ptr<kuv::store::StoreDb> openPrunedHistory()
{
    std::vector<std::string> notices;
    std::string error;
    auto db = kuv::store::openUserDb(kuv::store::userDataDir(), notices, error);
    for (const std::string& n : notices) {
        std::fprintf(stderr, "kuvctl: %s\n", kuv::escapeControl(n).c_str());
    }
    if (!db) {
        std::fprintf(stderr, "kuvctl: the history cannot be read: %s\n", kuv::escapeControl(error).c_str());
        return db;
    }
    kuv::store::ScanSettings settings;
    std::string why;
    if (!kuv::store::loadScanSettings(settings, &why)) {
        std::fprintf(stderr, "kuvctl: %s\n", kuv::escapeControl(why).c_str());
    }
    db->pruneHistory(settings.historyDays, kuv::store::nowMs());
    return db;
}

std::string jobText(const kuv::store::JobRecord& j)
{
    char line[512];
    std::snprintf(line, sizeof line,
                  "job %lld (%s)\nstarted:  %s\nduration: %.1f s\nstate:    %s\nfiles:    %lld (%lld bytes), "
                  "%lld infected, %lld errors, %lld skipped, %lld partial\n",
                  static_cast<long long>(j.id), kuv::escapeControl(j.job).c_str(), utcTime(j.startMs).c_str(),
                  double(j.durationMs) / 1000.0, j.state.c_str(), static_cast<long long>(j.files),
                  static_cast<long long>(j.bytes), static_cast<long long>(j.infected), static_cast<long long>(j.errors),
                  static_cast<long long>(j.skipped), static_cast<long long>(j.partial));
    std::string out = line;
    out += "paths:    " + joinPaths(j.paths) + "\n";
    for (const auto& f : j.findings) {
        out += "  " + f.verdict + "  " + kuv::escapeControl(f.signature.empty() ? f.reason : f.signature) + "  " +
               kuv::escapeControl(f.path) + (f.action.empty() ? "" : "  [" + kuv::escapeControl(f.action) + "]") + "\n";
    }
    return out;
}

std::string jobsText(const std::vector<kuv::store::JobRecord>& jobs)
{
    std::string out;
    for (const auto& j : jobs) {
        char line[256];
        std::snprintf(line, sizeof line, "%6lld  %s  %8.1f s  %-9s  %6lld files  %4lld found  ", static_cast<long long>(j.id),
                      utcTime(j.startMs).c_str(), double(j.durationMs) / 1000.0, j.state.c_str(),
                      static_cast<long long>(j.files), static_cast<long long>(j.infected));
        out += line + joinPaths(j.paths) + "\n";
    }
    if (jobs.empty()) {
        std::fputs("kuvctl: no scan in the history\n", stderr);
    }
    return out;
}

std::string jobsJson(const std::vector<kuv::store::JobRecord>& jobs)
{
    Json::Value v(Json::objectValue);
    v["jobs"] = Json::Value(Json::arrayValue);
    for (const auto& j : jobs) {
        v["jobs"].append(jobJson(j, false));
    }
    return compactJson(v) + "\n";
}

} // namespace

int runHistory(const std::vector<std::string>& args)
{
    bool json = false;
    long long jobId = 0;
    if (const int rc = parseArgs(args, json, jobId); rc != kGoOn) {
        return rc;
    }
    const auto db = openPrunedHistory();
    if (!db) {
        return 1;
    }
    std::string out;
    if (jobId > 0) {
        kuv::store::JobRecord j;
        if (!db->job(jobId, j)) {
            std::fprintf(stderr, "kuvctl: no job %lld in the history\n", jobId);
            return 3;
        }
        out = json ? compactJson(jobJson(j, true)) + "\n" : jobText(j);
    } else {
        const auto jobs = db->jobs();
        out = json ? jobsJson(jobs) : jobsText(jobs);
    }
    return printOut(out) ? 0 : 1;
}

} // namespace kuvctl

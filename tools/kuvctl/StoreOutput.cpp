// SPDX-License-Identifier: GPL-2.0-or-later
#include "StoreOutput.h"

#include <cstdio>
#include <ctime>

#include <json/json.h>

#include "Quarantine.h"
#include "ScanPaths.h"

namespace kuvctl {

Json::Value entryJson(const kuv::store::QuarantineEntry& e)
{
    return kuv::store::entryToJson(e, "path", kuvscan::pathToJson(e.originalPath));
}

Json::Value jobJson(const kuv::store::JobRecord& j, bool withFindings)
{
    Json::Value v(Json::objectValue);
    v["id"] = Json::Int64(j.id);
    v["job"] = j.job;
    v["start"] = Json::Int64(j.startMs);
    v["duration_ms"] = Json::Int64(j.durationMs);
    v["state"] = j.state;
    v["paths"] = Json::Value(Json::arrayValue);
    for (const std::string& p : j.paths) {
        v["paths"].append(kuvscan::pathToJson(p));
    }
    v["files"] = Json::Int64(j.files);
    v["bytes"] = Json::Int64(j.bytes);
    v["infected"] = Json::Int64(j.infected);
    v["errors"] = Json::Int64(j.errors);
    v["skipped"] = Json::Int64(j.skipped);
    v["partial"] = Json::Int64(j.partial);
    if (withFindings) {
        v["findings"] = Json::Value(Json::arrayValue);
        for (const auto& f : j.findings) {
            Json::Value o(Json::objectValue);
            o["path"] = kuvscan::pathToJson(f.path);
            o["verdict"] = f.verdict;
            o["signature"] = f.signature;
            o["reason"] = f.reason;
            o["action"] = f.action;
            v["findings"].append(o);
        }
    }
    return v;
}

std::string compactJson(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

std::string utcTime(int64_t ms)
{
    const std::time_t t = std::time_t(ms / 1000);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[40];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
    return buf;
}

bool printOut(const std::string& text)
{
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

} // namespace kuvctl

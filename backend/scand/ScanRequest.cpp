// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanRequest.h"

#include <memory>

#include <json/json.h>

#include "KuvScanProtocol.h"
#include "ScanPaths.h"

namespace kuv {
namespace scand {

namespace {

bool fail(RequestError& error, const char* code, const std::string& detail)
{
    error.error = code;
    error.detail = detail;
    return false;
}

// One JSON object, strictly: no comments, nothing after it, no duplicate keys, shallow nesting.
bool parseObject(const char* body, size_t length, Json::Value& root, RequestError& error)
{
    if (length > static_cast<size_t>(kuvscan::kMaxRequestBytes)) {
        return fail(error, "too_large",
                    "the body has " + std::to_string(length) + " bytes, at most " +
                        std::to_string(kuvscan::kMaxRequestBytes) + " are taken");
    }
    Json::CharReaderBuilder builder;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    builder["allowSpecialFloats"] = false;
    builder["stackLimit"] = 16;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    bool ok = false;
    try {
        ok = reader->parse(body, body + length, &root, &errors);
    } catch (const std::exception& e) {
        errors = e.what();
        ok = false;
    }
    if (!ok) {
        while (!errors.empty() && (errors.back() == '\n' || errors.back() == ' ')) {
            errors.pop_back();
        }
        return fail(error, "bad_json", errors.empty() ? std::string("not JSON") : errors);
    }
    if (!root.isObject()) {
        return fail(error, "bad_request", "the body is not a JSON object");
    }
    return true;
}

bool readJob(const Json::Value& root, std::string& job, RequestError& error)
{
    const Json::Value& value = root["job"];
    if (!value.isString()) {
        return fail(error, "bad_request", "\"job\" must be a string");
    }
    job = value.asString();
    if (job.empty() || job.size() > static_cast<size_t>(kuvscan::kMaxJobIdBytes)) {
        return fail(error, "bad_request",
                    "\"job\" must have 1 to " + std::to_string(kuvscan::kMaxJobIdBytes) + " bytes");
    }
    if (job.find('\0') != std::string::npos) {
        return fail(error, "bad_request", "\"job\" holds a NUL byte");
    }
    error.job = job;
    return true;
}

bool readPath(const Json::Value& value, const char* what, std::string& out, RequestError& error)
{
    if (!kuvscan::pathFromJson(value, out)) {
        return fail(error, "bad_request", std::string(what) + ": a path is a string or {\"b64\": ...}");
    }
    if (out.empty() || out.size() > kMaxPathBytes || out.find('\0') != std::string::npos) {
        return fail(error, "bad_request",
                    std::string(what) + ": a path has 1 to " + std::to_string(kMaxPathBytes) + " bytes and no NUL");
    }
    return true;
}

bool readBool(const Json::Value& options, const char* key, bool& out, RequestError& error)
{
    if (!options.isMember(key)) {
        return true;
    }
    if (!options[key].isBool()) {
        return fail(error, "bad_request", std::string("\"") + key + "\" must be true or false");
    }
    out = options[key].asBool();
    return true;
}

} // namespace

bool parseScanRequest(const char* body, size_t length, ScanRequest& out, RequestError& error)
{
    Json::Value root;
    if (!parseObject(body, length, root, error) || !readJob(root, out.job, error)) {
        return false;
    }
    const Json::Value& paths = root["paths"];
    if (!paths.isArray() || paths.empty()) {
        return fail(error, "bad_request", "\"paths\" must be a non-empty array");
    }
    if (paths.size() > static_cast<Json::ArrayIndex>(kuvscan::kMaxRequestPaths)) {
        return fail(error, "bad_request",
                    "at most " + std::to_string(kuvscan::kMaxRequestPaths) + " paths in one request");
    }
    out.paths.clear();
    out.paths.reserve(paths.size());
    for (const Json::Value& item : paths) {
        std::string path;
        if (!readPath(item, "paths", path, error)) {
            return false;
        }
        out.paths.push_back(std::move(path));
    }
    out.options = ScanOptions();
    if (!root.isMember("options")) {
        return true;
    }
    const Json::Value& options = root["options"];
    if (!options.isObject()) {
        return fail(error, "bad_request", "\"options\" must be an object");
    }
    if (!readBool(options, "report_clean", out.options.reportClean, error) ||
        !readBool(options, "scan_archives", out.options.scanArchives, error) ||
        !readBool(options, "quarantine", out.options.quarantine, error)) {
        return false;
    }
    if (options.isMember("max_file_size")) {
        const Json::Value& size = options["max_file_size"];
        if (!size.isIntegral() || (size.isInt64() && size.asInt64() < 0)) {
            return fail(error, "bad_request", "\"max_file_size\" must be a byte count");
        }
        out.options.maxFileSize = size.asUInt64();
    }
    if (options.isMember("exclude")) {
        const Json::Value& exclude = options["exclude"];
        if (!exclude.isArray() || exclude.size() > kMaxExcludes) {
            return fail(error, "bad_request",
                        "\"exclude\" must be an array of at most " + std::to_string(kMaxExcludes) + " paths");
        }
        for (const Json::Value& item : exclude) {
            std::string path;
            if (!readPath(item, "exclude", path, error)) {
                return false;
            }
            out.options.exclude.push_back(std::move(path));
        }
    }
    return true;
}

bool parseCancel(const char* body, size_t length, std::string& job, RequestError& error)
{
    Json::Value root;
    return parseObject(body, length, root, error) && readJob(root, job, error);
}

bool parseStatusRequest(const char* body, size_t length, bool& subscribe, RequestError& error)
{
    subscribe = false;
    if (length == 0) {
        return true;
    }
    Json::Value root;
    if (!parseObject(body, length, root, error)) {
        return false;
    }
    if (root.isMember("subscribe")) {
        if (!root["subscribe"].isBool()) {
            return fail(error, "bad_request", "\"subscribe\" must be true or false");
        }
        subscribe = root["subscribe"].asBool();
    }
    return true;
}

} // namespace scand
} // namespace kuv

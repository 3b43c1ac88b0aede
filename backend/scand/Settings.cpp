// SPDX-License-Identifier: GPL-2.0-or-later
#include "Settings.h"

#include <memory>

#include <json/json.h>

namespace kuv {
namespace scand {

namespace {

bool readUInt(const Json::Value& root, const char* key, uint64_t min, uint64_t max, uint64_t& out,
              std::string& error)
{
    if (!root.isMember(key)) {
        return true;
    }
    const Json::Value& v = root[key];
    if (!v.isIntegral() || (v.isInt64() && v.asInt64() < 0) || v.asUInt64() < min || v.asUInt64() > max) {
        error = std::string("\"") + key + "\" must be a whole number from " + std::to_string(min) + " to " +
                std::to_string(max);
        return false;
    }
    out = v.asUInt64();
    return true;
}

bool readString(const Json::Value& root, const char* key, std::string& out, std::string& error)
{
    if (!root.isMember(key)) {
        return true;
    }
    if (!root[key].isString()) {
        error = std::string("\"") + key + "\" must be a string";
        return false;
    }
    out = root[key].asString();
    return true;
}

// The settings file's JSON object, comments allowed.
bool parseObject(const std::string& text, Json::Value& root, std::string& error)
{
    Json::CharReaderBuilder builder;
    builder["allowComments"] = true;
    builder["failIfExtra"] = true;
    builder["stackLimit"] = 16;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) {
        error = errors.empty() ? std::string("not a JSON object") : errors;
        while (!error.empty() && error.back() == '\n') {
            error.pop_back();
        }
        return false;
    }
    return true;
}

bool readDbDirs(const Json::Value& root, Settings& s, std::string& error)
{
    if (!root.isMember("db_dirs")) {
        return true;
    }
    const Json::Value& dirs = root["db_dirs"];
    if (!dirs.isArray() || dirs.size() > 16) {
        error = "\"db_dirs\" must be an array of at most 16 directories";
        return false;
    }
    s.extraDbDirs.clear();
    for (const Json::Value& d : dirs) {
        if (!d.isString() || d.asString().empty()) {
            error = "\"db_dirs\" holds directory names";
            return false;
        }
        s.extraDbDirs.push_back(d.asString());
    }
    return true;
}

} // namespace

bool parseSettings(const std::string& text, Settings& s, std::string& error)
{
    Json::Value root;
    if (!parseObject(text, root, error)) {
        return false;
    }
    uint64_t workers = s.workers, level = static_cast<uint64_t>(s.logLevel), size = static_cast<uint64_t>(s.logSize),
             backups = static_cast<uint64_t>(s.logBackups), recursion = s.maxRecursion, files = s.maxFiles,
             scanTime = s.maxScanTimeMs, delay = static_cast<uint64_t>(s.reloadDelayMs);
    if (!readString(root, "engine", s.engine, error) || !readString(root, "clamd_socket", s.clamdSocket, error) ||
        !readString(root, "system_db_dir", s.systemDbDir, error) || !readString(root, "socket_addr", s.socket, error) ||
        !readUInt(root, "workers", 0, 64, workers, error) ||
        !readUInt(root, "max_file_size", 1, 1ull << 40, s.maxFileSize, error) ||
        !readUInt(root, "max_scan_size", 1, 1ull << 40, s.maxScanSize, error) ||
        !readUInt(root, "max_recursion", 1, 64, recursion, error) ||
        !readUInt(root, "max_files", 1, 1000000, files, error) ||
        !readUInt(root, "max_scan_time_ms", 1000, 3600000, scanTime, error) ||
        !readUInt(root, "reload_delay_ms", 0, 600000, delay, error) ||
        !readUInt(root, "log_level", 0, 4, level, error) ||
        !readUInt(root, "log_size", 4096, 1ull << 30, size, error) ||
        !readUInt(root, "log_backup_max_num", 0, 1000, backups, error)) {
        return false;
    }
    if (s.engine != "libclamav" && s.engine != "clamd") {
        error = "\"engine\" is \"libclamav\" or \"clamd\"";
        return false;
    }
    if (!readDbDirs(root, s, error)) {
        return false;
    }
    s.workers = static_cast<unsigned>(workers);
    s.logLevel = static_cast<int>(level);
    s.logSize = static_cast<int>(size);
    s.logBackups = static_cast<int>(backups);
    s.maxRecursion = static_cast<uint32_t>(recursion);
    s.maxFiles = static_cast<uint32_t>(files);
    s.maxScanTimeMs = static_cast<uint32_t>(scanTime);
    s.reloadDelayMs = static_cast<int>(delay);
    return true;
}

} // namespace scand
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
#include "ZellSettings.h"

#include <json/json.h>

#include <cstring>
#include <memory>

namespace zell {

namespace {

constexpr size_t kMaxSettingsText = 64 * 1024;
constexpr size_t kMaxPath = 4096;

bool readString(const Json::Value& root, const char* key, std::string& out, std::string& error)
{
    if (!root.isMember(key)) {
        return true;
    }
    const Json::Value& value = root[key];
    if (!value.isString() || value.asString().size() > kMaxPath ||
        value.asString().find('\0') != std::string::npos) {
        error = std::string("\"") + key + "\" must be a text of at most 4096 bytes";
        return false;
    }
    out = value.asString();
    return true;
}

bool readInt(const Json::Value& root, const char* key, int64_t min, int64_t max, int64_t& out, std::string& error)
{
    if (!root.isMember(key)) {
        return true;
    }
    const Json::Value& value = root[key];
    if (!value.isIntegral() || !value.isInt64() || value.asInt64() < min || value.asInt64() > max) {
        error = std::string("\"") + key + "\" must be an integer from " + std::to_string(min) + " to " +
                std::to_string(max);
        return false;
    }
    out = value.asInt64();
    return true;
}

} // namespace

namespace {

// The document as a JSON object, its size capped before it is parsed.
bool parseObject(const char* text, Json::Value& root, std::string& error)
{
    if (text == nullptr) {
        error = "no settings";
        return false;
    }
    const size_t length = strnlen(text, kMaxSettingsText + 1);
    if (length > kMaxSettingsText) {
        error = "settings longer than 64 KiB";
        return false;
    }
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["stackLimit"] = 64;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string why;
    bool parsed = false;
    try {
        parsed = reader->parse(text, text + length, &root, &why);
    } catch (const std::exception& e) {
        why = e.what();
    }
    if (!parsed) {
        error = "settings are not JSON: " + why;
        return false;
    }
    if (!root.isObject()) {
        error = "settings are not a JSON object";
        return false;
    }
    return true;
}

} // namespace

bool parseSettings(const char* text, Settings& out, std::string& error)
{
    Json::Value root;
    if (!parseObject(text, root, error)) {
        return false;
    }
    Settings settings;
    int64_t threads = settings.threadNums;
    int64_t level = settings.logLevel;
    int64_t size = static_cast<int64_t>(settings.logSize);
    if (!readString(root, "log_path", settings.logPath, error) ||
        !readString(root, "log_backup_path", settings.logBackupPath, error) ||
        !readString(root, "socket_addr", settings.socketAddr, error) ||
        !readInt(root, "thread_nums", 1, 64, threads, error) || !readInt(root, "log_level", 0, 4, level, error) ||
        !readInt(root, "log_size", 4096, int64_t(1) << 32, size, error)) {
        return false;
    }
    if (settings.socketAddr.empty()) {
        error = "\"socket_addr\" is empty";
        return false;
    }
    settings.threadNums = static_cast<int>(threads);
    settings.logLevel = static_cast<int>(level);
    settings.logSize = static_cast<uint64_t>(size);
    out = settings;
    return true;
}

} // namespace zell

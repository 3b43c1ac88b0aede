// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanSettings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <json/json.h>

#include "SafeIo.h"
#include "StorePaths.h"

namespace kuv {
namespace store {

namespace {

constexpr size_t kMaxSettingsBytes = 1024 * 1024;
constexpr int kMaxExcluded = 10000;

// Folders are written as JSON strings when they are UTF-8, else as {"hex": bytes}.
Json::Value pathValue(const std::string& p)
{
    Json::Value v = Json::Value(p);
    Json::StreamWriterBuilder b;
    // JsonCpp would write invalid UTF-8 mangled: check by a round trip.
    Json::CharReaderBuilder rb;
    std::unique_ptr<Json::CharReader> r(rb.newCharReader());
    const std::string text = Json::writeString(b, v);
    Json::Value back;
    std::string errs;
    if (r->parse(text.data(), text.data() + text.size(), &back, &errs) && back.isString() && back.asString() == p) {
        return v;
    }
    Json::Value o(Json::objectValue);
    o["hex"] = hexEncode(p);
    return o;
}

bool pathFrom(const Json::Value& v, std::string& out)
{
    if (v.isString()) {
        out = v.asString();
        return !out.empty();
    }
    return v.isObject() && v["hex"].isString() && hexDecode(v["hex"].asString(), out) && !out.empty();
}

// Takes v[key] into to when it is there; when its value cannot be used, why becomes problem.
template <typename T>
void readField(const Json::Value& v, const char* key, const char* problem, std::string& why, T& to,
               bool (*take)(const Json::Value&, T&))
{
    if (v.isMember(key) && !take(v[key], to)) {
        why = problem;
    }
}

bool takeBytes(const Json::Value& x, uint64_t& to)
{
    return x.isUInt64() && (to = x.asUInt64(), true);
}

bool takeFlag(const Json::Value& x, bool& to)
{
    return x.isBool() && (to = x.asBool(), true);
}

bool takePath(const Json::Value& x, std::string& to)
{
    return x.isString() && !x.asString().empty() && (to = x.asString(), true);
}

bool takeDays(const Json::Value& x, int& to)
{
    return x.isInt() && x.asInt() >= 0 && x.asInt() <= 36500 && (to = x.asInt(), true);
}

void readExcluded(const Json::Value& v, ScanSettings& out, std::string& why)
{
    if (!v.isMember("excluded")) {
        return;
    }
    if (!v["excluded"].isArray()) {
        why = "\"excluded\" is not a list";
        return;
    }
    for (const Json::Value& e : v["excluded"]) {
        std::string p;
        if (pathFrom(e, p) && int(out.excluded.size()) < kMaxExcluded) {
            out.excluded.push_back(p);
        } else {
            why = "an excluded folder that cannot be used was ignored";
        }
    }
}

// The settings v gives over the defaults in out; why says what could not be used (the last such value).
void readSettings(const Json::Value& v, ScanSettings& out, std::string& why)
{
    readExcluded(v, out, why);
    readField(v, "max_file_size", "\"max_file_size\" is not a number of bytes", why, out.maxFileSize, takeBytes);
    readField(v, "scan_archives", "\"scan_archives\" is not true or false", why, out.scanArchives, takeFlag);
    readField(v, "use_clamd", "\"use_clamd\" is not true or false", why, out.useClamd, takeFlag);
    readField(v, "clamd_socket", "\"clamd_socket\" is not a path", why, out.clamdSocket, takePath);
    readField(v, "history_days", "\"history_days\" is not a number of days (0 to 36500)", why, out.historyDays,
              takeDays);
}

} // namespace

std::string scanSettingsPath(const std::string& dir)
{
    return (dir.empty() ? userConfigDir() : dir) + "/scan.json";
}

bool loadScanSettings(ScanSettings& out, std::string* error, const std::string& dir)
{
    out = ScanSettings();
    const std::string path = scanSettingsPath(dir);
    auto fail = [&](const std::string& why) {
        if (error != nullptr) {
            *error = path + ": " + why;
        }
        return false;
    };
    const kuv::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        return errno == ENOENT ? true : fail(std::strerror(errno));
    }
    std::string text;
    if (!readUpTo(fd.get(), kMaxSettingsBytes, text)) {
        return fail("larger than 1 MiB; defaults used");
    }
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    Json::Value v;
    std::string errs;
    if (!r->parse(text.data(), text.data() + text.size(), &v, &errs) || !v.isObject()) {
        return fail("not a JSON object; defaults used");
    }
    std::string why;
    readSettings(v, out, why);
    return why.empty() ? true : fail(why);
}

bool saveScanSettings(const ScanSettings& s, std::string* error, const std::string& dir)
{
    const std::string folder = dir.empty() ? userConfigDir() : dir;
    auto fail = [&](const std::string& why) {
        if (error != nullptr) {
            *error = why;
        }
        return false;
    };
    std::string err;
    kuv::UniqueFd dfd = openPrivateDir(folder, 1, &err);
    if (!dfd.valid()) {
        return fail(err);
    }
    Json::Value v(Json::objectValue);
    v["excluded"] = Json::Value(Json::arrayValue);
    for (const std::string& p : s.excluded) {
        v["excluded"].append(pathValue(p));
    }
    v["max_file_size"] = Json::UInt64(s.maxFileSize);
    v["scan_archives"] = s.scanArchives;
    v["use_clamd"] = s.useClamd;
    v["clamd_socket"] = s.clamdSocket;
    v["history_days"] = s.historyDays;
    Json::StreamWriterBuilder b;
    b["indentation"] = "  ";
    const std::string text = Json::writeString(b, v) + "\n";
    const std::string tmp = ".scan.json." + randomId().substr(0, 8) + ".tmp";
    kuv::UniqueFd fd(::openat(dfd.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid()) {
        return fail(folder + ": " + std::strerror(errno));
    }
    if (kuv::safeWrite(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        const std::string why = std::strerror(errno);
        ::unlinkat(dfd.get(), tmp.c_str(), 0);
        return fail(folder + ": " + why);
    }
    if (::fsync(fd.get()) != 0 || ::renameat(dfd.get(), tmp.c_str(), dfd.get(), "scan.json") != 0) {
        const std::string why = std::strerror(errno);
        ::unlinkat(dfd.get(), tmp.c_str(), 0);
        return fail(folder + ": " + why);
    }
    syncDir(dfd.get());
    return true;
}

} // namespace store
} // namespace kuv

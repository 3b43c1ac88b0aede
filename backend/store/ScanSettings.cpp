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
    bool clean = true;
    std::string why;
    if (v.isMember("excluded")) {
        if (v["excluded"].isArray()) {
            for (const Json::Value& e : v["excluded"]) {
                std::string p;
                if (pathFrom(e, p) && int(out.excluded.size()) < kMaxExcluded) {
                    out.excluded.push_back(p);
                } else {
                    clean = false;
                    why = "an excluded folder that cannot be used was ignored";
                }
            }
        } else {
            clean = false;
            why = "\"excluded\" is not a list";
        }
    }
    if (v.isMember("max_file_size")) {
        if (v["max_file_size"].isUInt64()) {
            out.maxFileSize = v["max_file_size"].asUInt64();
        } else {
            clean = false;
            why = "\"max_file_size\" is not a number of bytes";
        }
    }
    if (v.isMember("scan_archives")) {
        if (v["scan_archives"].isBool()) {
            out.scanArchives = v["scan_archives"].asBool();
        } else {
            clean = false;
            why = "\"scan_archives\" is not true or false";
        }
    }
    if (v.isMember("use_clamd")) {
        if (v["use_clamd"].isBool()) {
            out.useClamd = v["use_clamd"].asBool();
        } else {
            clean = false;
            why = "\"use_clamd\" is not true or false";
        }
    }
    if (v.isMember("clamd_socket")) {
        if (v["clamd_socket"].isString() && !v["clamd_socket"].asString().empty()) {
            out.clamdSocket = v["clamd_socket"].asString();
        } else {
            clean = false;
            why = "\"clamd_socket\" is not a path";
        }
    }
    if (v.isMember("history_days")) {
        if (v["history_days"].isInt() && v["history_days"].asInt() >= 0 && v["history_days"].asInt() <= 36500) {
            out.historyDays = v["history_days"].asInt();
        } else {
            clean = false;
            why = "\"history_days\" is not a number of days (0 to 36500)";
        }
    }
    return clean ? true : fail(why);
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

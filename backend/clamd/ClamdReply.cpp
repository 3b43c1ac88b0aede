// SPDX-License-Identifier: GPL-2.0-or-later
// clamd answers are short NUL-terminated texts; everything here is bounded and never trusts them.
#include "ClamdReply.h"

#include <charconv>
#include <ctime>

namespace kuv {
namespace scan {
namespace clamd {

namespace {

bool endsWith(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// clamd's texts go into results and logs: keep them printable and short.
std::string printable(const std::string& s, size_t max = 200)
{
    std::string out;
    for (const char c : s) {
        if (out.size() >= max) {
            out += "...";
            break;
        }
        const auto u = static_cast<unsigned char>(c);
        out += (u >= 0x20 && u < 0x7f) ? c : '?';
    }
    return out;
}

bool isSignatureName(const std::string& s)
{
    if (s.empty() || s.size() > 512) {
        return false;
    }
    for (const char c : s) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u >= 0x7f) {
            return false;
        }
    }
    return true;
}

ScanResult error(const std::string& reason)
{
    ScanResult r;
    r.verdict = Verdict::Error;
    r.reason = reason;
    return r;
}

} // namespace

bool stripSessionId(std::string& reply, unsigned expectedId)
{
    const size_t colon = reply.find(": ");
    if (colon == std::string::npos || colon == 0 || colon > 10) {
        return false;
    }
    unsigned long id = 0;
    const char* const last = reply.data() + colon;
    const std::from_chars_result digits = std::from_chars(reply.data(), last, id);
    if (digits.ec != std::errc() || digits.ptr != last || id != expectedId) {
        return false;
    }
    reply.erase(0, colon + 2);
    return true;
}

ScanResult parseScanReply(const std::string& reply)
{
    std::string body = reply;
    // Answers to FILDES name the file "fd[N]"; answers to a bad command have no name at all.
    if (body.compare(0, 3, "fd[") == 0) {
        const size_t end = body.find("]: ");
        if (end == std::string::npos) {
            return error("engine: unexpected clamd reply: " + printable(reply));
        }
        body.erase(0, end + 3);
    }
    if (body == "OK") {
        ScanResult r;
        r.verdict = Verdict::Clean;
        return r;
    }
    static const std::string kFound = " FOUND";
    static const std::string kError = " ERROR";
    if (endsWith(body, kFound)) {
        const std::string name = body.substr(0, body.size() - kFound.size());
        if (!isSignatureName(name)) {
            return error("engine: unexpected clamd reply: " + printable(reply));
        }
        ScanResult r;
        const std::string limitPrefix = kLimitPrefix;
        if (name.size() > limitPrefix.size() && name.compare(0, limitPrefix.size(), limitPrefix) == 0) {
            r.verdict = Verdict::Partial;
            r.reason = "not fully scanned: " + name.substr(limitPrefix.size());
        } else if (name + "." == limitPrefix) {
            r.verdict = Verdict::Partial;
            r.reason = "not fully scanned: limit";
        } else {
            r.verdict = Verdict::Infected;
            r.signature = name;
        }
        return r;
    }
    if (endsWith(body, kError)) {
        return error("engine: clamd: " + printable(body.substr(0, body.size() - kError.size())));
    }
    if (body.empty()) {
        return error("engine: empty clamd reply");
    }
    return error("engine: unexpected clamd reply: " + printable(reply));
}

bool parseVersion(const std::string& reply, VersionInfo& out)
{
    static const std::string kPrefix = "ClamAV ";
    if (reply.size() > kMaxReply || reply.compare(0, kPrefix.size(), kPrefix) != 0) {
        return false;
    }
    const std::string rest = reply.substr(kPrefix.size());
    const size_t slash = rest.find('/');
    VersionInfo v;
    v.engineVersion = printable(rest.substr(0, slash), 64);
    if (v.engineVersion.empty()) {
        return false;
    }
    if (slash != std::string::npos) {
        const size_t slash2 = rest.find('/', slash + 1);
        const std::string db = rest.substr(slash + 1, slash2 == std::string::npos ? std::string::npos
                                                                                   : slash2 - slash - 1);
        if (db.empty() || db.size() > 12 || db.find_first_not_of("0123456789") != std::string::npos) {
            return false;
        }
        // Without a daily database clamd may say 0; that is no version.
        if (db.find_first_not_of('0') != std::string::npos) {
            v.dbVersion = db;
        }
        if (slash2 != std::string::npos) {
            // ctime() layout in clamd's local time: "Sun Nov 22 09:00:00 2026".
            struct tm tm = {};
            const std::string date = rest.substr(slash2 + 1);
            const char* end = strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &tm);
            if (end != nullptr) {
                tm.tm_isdst = -1;
                const time_t t = mktime(&tm);
                if (t != static_cast<time_t>(-1)) {
                    v.dbTime = static_cast<int64_t>(t);
                }
            }
        }
    }
    out = v;
    return true;
}

} // namespace clamd
} // namespace scan
} // namespace kuv

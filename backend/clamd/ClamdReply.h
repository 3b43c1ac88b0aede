// SPDX-License-Identifier: GPL-2.0-or-later
// Parsing of clamd's answers: scan verdicts ("fd[N]: X FOUND", "OK", "... ERROR") and VERSION.
#pragma once

#include <cstdint>
#include <string>

#include "ScanEngine.h"

namespace kuv {
namespace scan {
namespace clamd {

// Longest answer accepted for one command; anything longer is a protocol error.
constexpr size_t kMaxReply = 8192;
// The prefix clamd puts on the names of limits that cut a scan short (with AlertExceedsMax).
constexpr const char* kLimitPrefix = "Heuristics.Limits.Exceeded.";

// Strips the "<id>: " prefix of an IDSESSION answer; false when it is missing or not expectedId.
bool stripSessionId(std::string& reply, unsigned expectedId);

// Turns one scan answer (without the session prefix and NUL) into a result; verdict and texts only.
ScanResult parseScanReply(const std::string& reply);

struct VersionInfo {
    std::string engineVersion; // "1.4.6"
    std::string dbVersion;     // "27000", empty without a daily database
    int64_t dbTime = 0;        // unix seconds, 0 when not given
};
// "ClamAV 1.4.6/27000/Sun Nov 22 09:00:00 2026"; false when it does not look like that.
bool parseVersion(const std::string& reply, VersionInfo& out);

} // namespace clamd
} // namespace scan
} // namespace kuv

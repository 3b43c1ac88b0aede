// SPDX-License-Identifier: GPL-2.0-or-later
// Parsing of the requests the back end takes over the bus (scan, cancel, status), with every size capped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kuv {
namespace scand {

struct ScanOptions {
    bool reportClean = false;
    uint64_t maxFileSize = 0; // 0: the daemon's setting
    bool scanArchives = true;
    bool quarantine = false;
    std::vector<std::string> exclude;
};

struct ScanRequest {
    std::string job;
    std::vector<std::string> paths; // exact bytes
    ScanOptions options;
};

// Why a request cannot be used: error is a short code ("too_large", "bad_json", "bad_request"), detail says
// what in words, job is the request's job id when it could be read.
struct RequestError {
    std::string error;
    std::string detail;
    std::string job;
};

constexpr size_t kMaxExcludes = 1000;
constexpr size_t kMaxPathBytes = 4096;

bool parseScanRequest(const char* body, size_t length, ScanRequest& out, RequestError& error);
bool parseCancel(const char* body, size_t length, std::string& job, RequestError& error);
// An empty body is a plain status request.
bool parseStatusRequest(const char* body, size_t length, bool& subscribe, RequestError& error);

} // namespace scand
} // namespace kuv

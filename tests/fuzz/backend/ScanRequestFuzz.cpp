// SPDX-License-Identifier: GPL-2.0-or-later
// Feeds arbitrary bytes to the back end's request parsers; a request that parses must survive a round trip
// through the path codec unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <json/json.h>

#include "ScanPaths.h"
#include "ScanRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    kuv::scand::RequestError error;
    std::string job;
    bool subscribe = false;
    kuv::scand::parseCancel(text, size, job, error);
    kuv::scand::parseStatusRequest(text, size, subscribe, error);

    kuv::scand::ScanRequest request;
    if (!kuv::scand::parseScanRequest(text, size, request, error)) {
        if (error.error.empty() || error.detail.empty()) {
            abort(); // every refusal says why
        }
        return 0;
    }
    Json::Value again(Json::objectValue);
    again["job"] = "j";
    for (const std::string& path : request.paths) {
        again["paths"].append(kuvscan::pathToJson(path));
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    const std::string body = Json::writeString(writer, again);
    kuv::scand::ScanRequest parsed;
    if (!kuv::scand::parseScanRequest(body.data(), body.size(), parsed, error) || parsed.paths != request.paths) {
        abort();
    }
    return 0;
}

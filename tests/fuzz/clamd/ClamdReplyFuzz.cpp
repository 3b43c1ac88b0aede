// SPDX-License-Identifier: GPL-2.0-or-later
// clamd's answers parsed from arbitrary bytes: verdicts, session prefixes and VERSION.
#include <cstddef>
#include <cstdint>
#include <string>

#include "ClamdReply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    kuv::scan::clamd::parseScanReply(text);
    kuv::scan::clamd::VersionInfo v;
    kuv::scan::clamd::parseVersion(text, v);
    if (kuv::scan::clamd::stripSessionId(text, 1)) {
        kuv::scan::clamd::parseScanReply(text);
    }
    return 0;
}

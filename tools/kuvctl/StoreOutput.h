// SPDX-License-Identifier: GPL-2.0-or-later
// Printing store records for kuvctl: JSON objects with byte-exact paths, and plain-text fields.
#pragma once

#include <cstdint>
#include <string>

#include <json/value.h>

#include "StoreDb.h"

namespace kuvctl {

Json::Value entryJson(const kuv::store::QuarantineEntry& e);
Json::Value jobJson(const kuv::store::JobRecord& j, bool withFindings);
std::string compactJson(const Json::Value& v);
// "2026-11-22 15:04:05 UTC" from unix ms.
std::string utcTime(int64_t ms);
// Writes text to stdout; false when it cannot be written.
bool printOut(const std::string& text);

} // namespace kuvctl

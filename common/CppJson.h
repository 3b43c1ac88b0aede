// SPDX-License-Identifier: GPL-2.0-or-later
// JSON text in and out through JsonCpp; every failure is a result, never an exception.
#pragma once

#include <string>

#include <json/json.h>

namespace CppJson {

bool LoadJsonFile(const char* path, Json::Value& value);
bool LoadJsonString(const std::string& text, Json::Value& value);
// compact true: one line (FastWriter); false: indented (StyledWriter). No trailing line feed.
bool WriteJsonToString(const Json::Value& value, std::string& out, bool compact);
int GetInt(const char* key, const Json::Value& value, int defaultValue);

} // namespace CppJson

namespace kuv {

// Parses [begin, end) as strict JSON for a settings file: comments dropped, nesting capped at 64 levels,
// text after the value refused when failIfExtra. false with the reader's words in why when it fails.
bool parseJsonStrict(const char* begin, const char* end, Json::Value& root, std::string& why, bool failIfExtra);

} // namespace kuv

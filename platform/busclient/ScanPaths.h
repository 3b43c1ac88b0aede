// SPDX-License-Identifier: GPL-2.0-or-later
// Paths in the back end's bus messages: a JSON string when valid UTF-8, else {"b64": exact bytes}.
#pragma once

#include <string>

#include <json/value.h>

namespace kuvscan {

bool isValidUtf8(const std::string& bytes);
// A JSON value that carries bytes exactly.
Json::Value pathToJson(const std::string& bytes);
// The exact bytes of a path written by pathToJson; false (out untouched) for anything else.
bool pathFromJson(const Json::Value& value, std::string& out);

std::string base64Encode(const std::string& bytes);
// false for text that is not canonical base64 (padding required).
bool base64Decode(const std::string& text, std::string& out);

} // namespace kuvscan

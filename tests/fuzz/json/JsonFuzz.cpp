// SPDX-License-Identifier: GPL-2.0-or-later
// Feeds arbitrary bytes through every JSON entry point the service uses on outside input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "CppJson.h"
#include "JRGUIContextMenuScan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    Json::Value value;
    if (CppJson::LoadJsonString(text, value)) {
        std::string out;
        CppJson::WriteJsonToString(value, out, true);
        CppJson::WriteJsonToString(value, out, false);
        CppJson::GetInt("index", value, 0);
    }
    JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan record;
    // The command server reads the payload up to the first NUL byte.
    if (record.FromJsonString(std::string(text.c_str()))) {
        std::string out;
        record.ToJsonString(out, true);
    }
    return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Feeds arbitrary bytes to readOneMapFile as the content of one map file and checks what it reports.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "CPluginMgr.h"
#include "CppJson.h"
#include "FakePlatform.h"
#include "Harness.h"

namespace {

std::string g_path;
CPluginMgr* g_mgr = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Removed with its content when the process exits.
    static const kuvtest::TempDir scratch("kuvfuzz");
    g_path = scratch.path() + "/combo.json";
    static CPluginMgr mgr;
    g_mgr = &mgr;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FILE* f = fopen(g_path.c_str(), "wb");
    if (f == nullptr || (size != 0 && fwrite(data, 1, size, f) != size) || fclose(f) != 0) {
        abort();
    }
    fake::resetLog();

    sComboPluginInfo info;
    const int rc = g_mgr->readOneMapFile(g_path, info);

    const std::string text(reinterpret_cast<const char*>(data), size);
    Json::Value parsed;
    const bool valid = CppJson::LoadJsonString(text, parsed);
    // A file that exists and was just written is always opened and read.
    if (rc == -1 || rc == -2 || rc < -4 || rc > 0) {
        __builtin_trap();
    }
    if ((rc == -3) == valid) {
        __builtin_trap();
    }
    if (rc == 0 || rc == -4) {
        for (char c : info.strCombo) {
            if (c >= 'A' && c <= 'Z') {
                __builtin_trap();
            }
        }
    }
    if (rc == 0 && info.pluginList.size() != parsed["pluginList"].size()) {
        __builtin_trap();
    }
    // Every failure is logged once, at error level.
    const auto lines = fake::logLines();
    if ((rc != 0) != (lines.size() == 1) || (rc != 0 && lines[0].level != 4)) {
        __builtin_trap();
    }
    return 0;
}

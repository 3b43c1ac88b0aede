// SPDX-License-Identifier: GPL-2.0-or-later
// A configuration module for the proxy tests, built in four variants (see CMakeLists.txt).
// It reports into the test's journal through a weak reference, so it loads in any process.
#include <string>

#include "IMervoConfig.h"

namespace fake {
__attribute__((weak)) void record(const std::string& event);
}

namespace {

void note(const std::string& event)
{
    if (&fake::record != nullptr) {
        fake::record(event);
    }
}

class TestConfig : public IMervoConfig {
public:
    int getString(const char*, char* value, int size) override
    {
        if (value != nullptr && size > 0) {
            value[0] = '\0';
        }
        return 0;
    }
    int setString(const char*, const char*) override { return 0; }
    int removeKey(const char*) override { return 0; }
    int save() override { return 0; }
    // Echoes its arguments so the caller can see they arrived unchanged.
    int64_t request(int64_t op, int64_t key, int64_t value, int size) override
    {
        note("cfgmod.request " + std::to_string(op) + " " + std::to_string(key) + " " + std::to_string(value) + " " +
             std::to_string(size));
        return op * 1000000 + key * 10000 + value * 100 + size;
    }
    virtual ~TestConfig() = default;
};

TestConfig g_config;

} // namespace

extern "C" {

#ifdef CFG_HAS_CREATE
__attribute__((visibility("default"))) IMervoConfig* CFGCreateInstance(const char* guid, sCfgCreateParas* paras)
{
    note(std::string("cfgmod.create ") + (guid ? guid : "(null)") + " " + (paras && paras->path ? paras->path : "") +
         " " + (paras && paras->version ? paras->version : ""));
#ifdef CFG_CREATE_NULL
    return nullptr;
#else
    return &g_config;
#endif
}
#endif

#ifdef CFG_HAS_RELEASE
__attribute__((visibility("default"))) void CFGRelease(const char* guid)
{
    note(std::string("cfgmod.release ") + (guid ? guid : "(null)"));
}
#endif

} // extern "C"

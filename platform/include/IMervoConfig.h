// The configuration module as loaded at run time: per-GUID string settings objects.
#pragma once

#include <cstdint>

struct sCfgCreateParas {
    const char* path;    // configuration directory, with a final "/"
    const char* version; // "1.0.0"
};

class IMervoConfig {
public:
    // value receives up to size bytes (NUL-terminated). 0 on success.
    virtual int getString(const char* key, char* value, int size) = 0;
    virtual int setString(const char* key, const char* value) = 0;
    virtual int removeKey(const char* key) = 0;
    virtual int save() = 0;
    // The general request entry the service's proxy forwards: operation code, key, value, size.
    virtual int64_t request(int64_t op, int64_t key, int64_t value, int size) = 0;

protected:
    ~IMervoConfig() = default;
};

extern "C" {
typedef IMervoConfig* (*PFN_CFGCreateInstance)(const char* guid, sCfgCreateParas* paras);
typedef void (*PFN_CFGRelease)(const char* guid);
}

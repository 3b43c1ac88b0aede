// SPDX-License-Identifier: GPL-2.0-or-later
// The configuration module as loaded at run time: per-GUID string settings objects.
#pragma once

#include <cstdint>

struct sCfgCreateParas {
    // The directory the module was loaded from (the installation directory), with a final "/". Settings
    // live in its "etc/config/<guid>.json", or in $KUV_CONFIG_DIR "config/<guid>.json" when that is set.
    const char* path;
    const char* version; // "1.0.0"
};

// Operation codes of IMervoConfig::request(op, key, value, size).
enum _CFG_OP {
    CFG_OP_GET = 1,    // key: const char*; value: char* buffer; size: its size in bytes
    CFG_OP_SET = 2,    // key: const char*; value: const char* (NUL-terminated); size unused
    CFG_OP_REMOVE = 3, // key: const char*; value and size unused
    CFG_OP_SAVE = 4,   // writes the file now; key, value and size unused
    CFG_OP_SIZE = 5,   // key: const char*; value: int64_t* that receives the bytes a GET needs (with the NUL)
};

// Result codes of IMervoConfig's operations.
enum _CFG_RESULT {
    CFG_OK = 0,
    CFG_NOT_FOUND = 1,
    CFG_BUFFER_TOO_SMALL = 2, // the buffer gets an empty string
    CFG_BAD_ARGUMENT = 3,     // null pointer, empty or oversized key or value, size <= 0
    CFG_IO_ERROR = 4,         // the change is kept in memory but could not be written
    CFG_UNKNOWN_OP = 5,
    CFG_NO_MODULE = 13, // not returned by the module: the service's proxy when the module cannot be loaded
};

// One settings object per instance GUID; keys and values are text. Every change is written to disk at
// once (atomically). Results are _CFG_RESULT codes.
class IMervoConfig {
public:
    // value receives the text and its NUL when it fits in size bytes.
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
// The object of guid, made on first use; a later call with the same guid and directory returns the same
// object (each call is matched by one CFGRelease). Null for a malformed guid (letters, digits and '-'
// only, at most 64) or another directory.
typedef IMervoConfig* (*PFN_CFGCreateInstance)(const char* guid, sCfgCreateParas* paras);
typedef void (*PFN_CFGRelease)(const char* guid);
}

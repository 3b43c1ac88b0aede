// SPDX-License-Identifier: GPL-2.0-or-later
// Builds command-channel messages by hand, byte for byte.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

inline std::string frame(uint64_t type, uint64_t length, const std::string& payload)
{
    std::string bytes(16, '\0');
    memcpy(&bytes[0], &type, 8);
    memcpy(&bytes[8], &length, 8);
    return bytes + payload;
}

inline std::string frame(uint64_t type, const std::string& payload) { return frame(type, payload.size(), payload); }

inline uint64_t headType(const std::string& bytes)
{
    uint64_t v = 0;
    memcpy(&v, bytes.data(), 8);
    return v;
}

inline uint64_t headLength(const std::string& bytes)
{
    uint64_t v = 0;
    memcpy(&v, bytes.data() + 8, 8);
    return v;
}

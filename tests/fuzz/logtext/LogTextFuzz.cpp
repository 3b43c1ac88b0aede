// SPDX-License-Identifier: GPL-2.0-or-later
// The escaping rule of the log writers on arbitrary bytes: nothing that ends a line for any reader gets
// through, the result is well-formed UTF-8, it reads back to the very input, and the cap holds.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FileUtils.h"
#include "Utf8.h"

namespace {

int hexValue(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

void appendUtf8(std::string& out, unsigned cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xc0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else {
        out += static_cast<char>(0xe0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    }
}

// The reverse of the rule; false for text the rule never writes.
bool unescape(const std::string& in, std::string& out)
{
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '\\') {
            out += in[i];
            continue;
        }
        if (++i >= in.size()) {
            return false;
        }
        switch (in[i]) {
        case 'n':
            out += '\n';
            break;
        case 'r':
            out += '\r';
            break;
        case 't':
            out += '\t';
            break;
        case '\\':
            out += '\\';
            break;
        case 'x': {
            if (i + 2 >= in.size()) {
                return false;
            }
            const int h = hexValue(in[i + 1]);
            const int l = hexValue(in[i + 2]);
            if (h < 0 || l < 0) {
                return false;
            }
            out += static_cast<char>(h * 16 + l);
            i += 2;
            break;
        }
        case 'u': {
            if (i + 4 >= in.size()) {
                return false;
            }
            unsigned cp = 0;
            for (int k = 1; k <= 4; ++k) {
                const int v = hexValue(in[i + k]);
                if (v < 0) {
                    return false;
                }
                cp = cp * 16 + static_cast<unsigned>(v);
            }
            appendUtf8(out, cp);
            i += 4;
            break;
        }
        default:
            return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string out = kuv::escapeControl(text);
    if (!kuv::isValidUtf8(out)) {
        __builtin_trap();
    }
    for (size_t i = 0; i < out.size(); ++i) {
        const auto u = static_cast<unsigned char>(out[i]);
        if (u < 0x20 || u == 0x7f) {
            __builtin_trap();
        }
        if (u == 0xc2 && i + 1 < out.size() && static_cast<unsigned char>(out[i + 1]) <= 0x9f) {
            __builtin_trap(); // C1
        }
        if (u == 0xe2 && i + 2 < out.size() && static_cast<unsigned char>(out[i + 1]) == 0x80 &&
            (static_cast<unsigned char>(out[i + 2]) == 0xa8 || static_cast<unsigned char>(out[i + 2]) == 0xa9)) {
            __builtin_trap(); // U+2028, U+2029
        }
    }
    std::string back;
    if (!unescape(out, back) || back != text) {
        __builtin_trap();
    }
    // The cap: never more than the limit plus the marker, and the marker counts what was cut.
    const size_t limit = size % 97;
    const std::string capped = kuv::logMessage(text, limit);
    const size_t marker = capped.find(" [... ");
    if (marker == std::string::npos) {
        std::string body = text;
        if (!body.empty() && body.back() == '\n') {
            body.pop_back();
        }
        if (capped != kuv::escapeControl(body) || capped.size() > limit) {
            __builtin_trap();
        }
    } else if (marker > limit) {
        __builtin_trap();
    }
    return 0;
}

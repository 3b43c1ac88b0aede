// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanPaths.h"

#include <cstdint>

namespace kuvscan {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int decodeChar(char c)
{
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
} // namespace

bool isValidUtf8(const std::string& bytes)
{
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t len = 0;
        uint32_t cp = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) {
            return false;
        }
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if ((len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

std::string base64Encode(const std::string& bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t v = (s[i] << 16) | (s[i + 1] << 8) | s[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i < bytes.size()) {
        uint32_t v = s[i] << 16;
        const bool two = i + 1 < bytes.size();
        if (two) {
            v |= s[i + 1] << 8;
        }
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += two ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool base64Decode(const std::string& text, std::string& out)
{
    if (text.size() % 4 != 0) {
        return false;
    }
    std::string result;
    result.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++pad;
            } else if (pad > 0 || (v[k] = decodeChar(c)) < 0) {
                return false;
            }
        }
        const uint32_t word = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
        result += static_cast<char>((word >> 16) & 0xFF);
        if (pad < 2) {
            result += static_cast<char>((word >> 8) & 0xFF);
        }
        if (pad < 1) {
            result += static_cast<char>(word & 0xFF);
        }
        // Unused bits must be zero so that every byte string has exactly one text.
        if ((pad == 1 && (v[2] & 0x3)) || (pad == 2 && (v[1] & 0xF))) {
            return false;
        }
    }
    out.swap(result);
    return true;
}

Json::Value pathToJson(const std::string& bytes)
{
    if (isValidUtf8(bytes)) {
        return Json::Value(bytes);
    }
    Json::Value v(Json::objectValue);
    v["b64"] = base64Encode(bytes);
    return v;
}

bool pathFromJson(const Json::Value& value, std::string& out)
{
    if (value.isString()) {
        out = value.asString();
        return true;
    }
    if (value.isObject() && value.size() == 1 && value.isMember("b64") && value["b64"].isString()) {
        return base64Decode(value["b64"].asString(), out);
    }
    return false;
}

} // namespace kuvscan

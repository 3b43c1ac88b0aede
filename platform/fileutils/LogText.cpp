// SPDX-License-Identifier: GPL-2.0-or-later
// The one escaping rule of every log writer, the record size cap, and whole-record appends.
#include "FileUtils.h"
#include "SafeIo.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

const char kHex[] = "0123456789abcdef";

void hexByte(std::string& out, unsigned char u)
{
    out += "\\x";
    out += kHex[u >> 4];
    out += kHex[u & 0xf];
}

// Length of the well-formed UTF-8 sequence at p (1..4), or 0 when the byte at p starts none.
// Overlong forms, surrogates and code points above U+10FFFF are not well formed.
size_t utf8Length(const unsigned char* p, size_t left, unsigned& cp)
{
    const unsigned char b0 = p[0];
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    auto cont = [&](size_t i) { return i < left && (p[i] & 0xc0) == 0x80; };
    if (b0 >= 0xc2 && b0 <= 0xdf) {
        if (!cont(1)) {
            return 0;
        }
        cp = ((b0 & 0x1fu) << 6) | (p[1] & 0x3fu);
        return 2;
    }
    if (b0 >= 0xe0 && b0 <= 0xef) {
        if (!cont(1) || !cont(2)) {
            return 0;
        }
        if ((b0 == 0xe0 && p[1] < 0xa0) || (b0 == 0xed && p[1] > 0x9f)) {
            return 0;
        }
        cp = ((b0 & 0x0fu) << 12) | ((p[1] & 0x3fu) << 6) | (p[2] & 0x3fu);
        return 3;
    }
    if (b0 >= 0xf0 && b0 <= 0xf4) {
        if (!cont(1) || !cont(2) || !cont(3)) {
            return 0;
        }
        if ((b0 == 0xf0 && p[1] < 0x90) || (b0 == 0xf4 && p[1] > 0x8f)) {
            return 0;
        }
        cp = ((b0 & 0x07u) << 18) | ((p[1] & 0x3fu) << 12) | ((p[2] & 0x3fu) << 6) | (p[3] & 0x3fu);
        return 4;
    }
    return 0;
}

// Escapes text[0..size) into out, stopping before out would pass limit; returns the bytes consumed.
size_t escapeInto(std::string& out, const char* text, size_t size, bool escapeBackslash, size_t limit)
{
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    size_t i = 0;
    std::string piece;
    while (i < size) {
        piece.clear();
        unsigned cp = 0;
        const size_t n = utf8Length(p + i, size - i, cp);
        if (n == 0) {
            hexByte(piece, p[i]);
        } else if (n == 1) {
            switch (cp) {
            case '\n':
                piece = "\\n";
                break;
            case '\r':
                piece = "\\r";
                break;
            case '\t':
                piece = "\\t";
                break;
            case '\\':
                piece = escapeBackslash ? "\\\\" : "\\";
                break;
            default:
                if (cp < 0x20 || cp == 0x7f) {
                    hexByte(piece, static_cast<unsigned char>(cp));
                } else {
                    piece = static_cast<char>(cp);
                }
            }
        } else if ((cp >= 0x80 && cp <= 0x9f) || cp == 0x2028 || cp == 0x2029) {
            // C1 controls and the Unicode line and paragraph separators end lines for some readers.
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\u%04x", cp);
            piece = buffer;
        } else {
            piece.assign(text + i, n);
        }
        if (out.size() + piece.size() > limit) {
            return i;
        }
        out += piece;
        i += n == 0 ? 1 : n;
    }
    return i;
}

} // namespace

namespace kuv {

std::string escapeControl(const std::string& text, bool escapeBackslash)
{
    std::string out;
    out.reserve(text.size() + 8);
    escapeInto(out, text.data(), text.size(), escapeBackslash, static_cast<size_t>(-1));
    return out;
}

std::string logMessage(const std::string& text, size_t limit, size_t alreadyCut)
{
    size_t size = text.size();
    if (alreadyCut == 0 && size > 0 && text[size - 1] == '\n') {
        --size;
    }
    std::string out;
    out.reserve((size < limit ? size : limit) + 48);
    const size_t used = escapeInto(out, text.data(), size, true, limit);
    if (used < size || alreadyCut > 0) {
        out += " [... ";
        out += std::to_string(size - used + alreadyCut);
        out += " bytes cut]";
    }
    return out;
}

} // namespace kuv

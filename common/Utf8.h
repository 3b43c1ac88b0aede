// SPDX-License-Identifier: GPL-2.0-or-later
// Whether bytes are well-formed UTF-8 (no overlong forms, surrogates or code points past U+10FFFF).
#pragma once

#include <cstddef>
#include <string>

namespace kuv {

inline bool isValidUtf8(const std::string& text)
{
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    size_t i = 0;
    auto cont = [&](size_t k) { return k < n && (p[k] & 0xc0) == 0x80; };
    while (i < n) {
        const unsigned char b = p[i];
        if (b < 0x80) {
            ++i;
        } else if (b >= 0xc2 && b <= 0xdf && cont(i + 1)) {
            i += 2;
        } else if (b >= 0xe0 && b <= 0xef && cont(i + 1) && cont(i + 2) && !(b == 0xe0 && p[i + 1] < 0xa0) &&
                   !(b == 0xed && p[i + 1] > 0x9f)) {
            i += 3;
        } else if (b >= 0xf0 && b <= 0xf4 && cont(i + 1) && cont(i + 2) && cont(i + 3) &&
                   !(b == 0xf0 && p[i + 1] < 0x90) && !(b == 0xf4 && p[i + 1] > 0x8f)) {
            i += 4;
        } else {
            return false;
        }
    }
    return true;
}

} // namespace kuv

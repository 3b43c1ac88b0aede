// SPDX-License-Identifier: GPL-2.0-or-later
// Owns one stdio FILE*: fclose()d on destruction.
#pragma once

#include <cstdio>
#include <memory>

namespace kuv {

struct FileCloser {
    void operator()(std::FILE* file) const noexcept
    {
        if (file != nullptr) {
            std::fclose(file);
        }
    }
};

using UniqueFilePtr = std::unique_ptr<std::FILE, FileCloser>;

inline UniqueFilePtr openFile(const char* path, const char* mode) { return UniqueFilePtr(std::fopen(path, mode)); }

} // namespace kuv

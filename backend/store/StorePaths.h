// SPDX-License-Identifier: GPL-2.0-or-later
// Where a user's quarantine, history and scan settings live, and private directories opened safely.
#pragma once

#include <cstddef>
#include <string>

#include "UniqueFd.h"

namespace kuv {
namespace store {

// $XDG_DATA_HOME/kuv (default ~/.local/share/kuv), no final "/".
std::string userDataDir();
// $XDG_CONFIG_HOME/kuv (default ~/.config/kuv), no final "/".
std::string userConfigDir();

// Opens dir as a private directory: every missing component is created, and the last `ownCount`
// components (the ones this project owns) are walked with O_NOFOLLOW, created 0700, must be real
// directories owned by this user, and lose any group/other permission bits. Invalid fd and *error
// on failure.
kuv::UniqueFd openPrivateDir(const std::string& dir, int ownCount, std::string* error);

// fsync of a directory; false with errno set when it fails.
bool syncDir(int dirFd);

// Splits "/a/b/c" into "/a/b" and "c" (parent "/" for "/c"); false for paths without a final name.
bool splitPath(const std::string& path, std::string& parent, std::string& name);

// Reads fd to its end into out; false when it holds more than cap bytes. A read error ends the text there.
bool readUpTo(int fd, size_t cap, std::string& out);

// 16 random bytes as 32 lower-case hex digits (getrandom).
std::string randomId();

std::string hexEncode(const std::string& bytes);
bool hexDecode(const std::string& text, std::string& out);

} // namespace store
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// Where the broker listens: a bus address ("./kuv_zell", "kuv_zell", "ipc://kuv_zell") resolved into the
// per-user runtime directory.
#pragma once

#include <string>

namespace zell {

struct BusAddress {
    std::string path;     // the socket file in the runtime directory
    std::string endpoint; // "ipc://" + path
};

// Only the last path component of the address is used: the socket always lives in the private runtime
// directory. tcp and other transports are refused. false with a reason on error.
bool resolveAddress(const std::string& address, BusAddress& out, std::string* error);

} // namespace zell

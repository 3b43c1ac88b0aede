// SPDX-License-Identifier: GPL-2.0-or-later
#include "ZellAddress.h"

#include <sys/un.h>

#include <filesystem>

#include "FileUtils.h"

namespace zell {

bool resolveAddress(const std::string& address, BusAddress& out, std::string* error)
{
    auto fail = [&](const std::string& why) {
        if (error != nullptr) {
            *error = why;
        }
        return false;
    };
    std::string name = address;
    const size_t scheme = name.find("://");
    if (scheme != std::string::npos) {
        if (name.compare(0, scheme, "ipc") != 0) {
            return fail("only local (ipc) bus addresses are supported: " + kuv::escapeControl(address));
        }
        name = name.substr(scheme + 3);
    }
    while (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    const std::string last = std::filesystem::path(name).filename().string();
    if (last.empty() || last == "." || last == "..") {
        return fail("bus address has no socket name: " + kuv::escapeControl(address));
    }
    std::string why;
    const std::string path = kuv::runtimePath(last, &why);
    if (path.empty()) {
        return fail("runtime directory refused: " + why);
    }
    sockaddr_un probe;
    if (path.size() >= sizeof(probe.sun_path)) {
        return fail("socket path too long: " + path);
    }
    out.path = path;
    out.endpoint = "ipc://" + path;
    return true;
}

} // namespace zell

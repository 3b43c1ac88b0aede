// SPDX-License-Identifier: GPL-2.0-or-later
// The same job as kuv_forward_min, written as the service's own client must be: C++ with the scan record's
// text made by JsonCpp's compact writer. What it costs over the C program is the price of the language
// runtime and JsonCpp alone, which no forwarding start of the service can go below.
// Usage: kuv_forward_min_cxx SOCKET_PATH
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <json/json.h>

int main(int argc, char** argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::puts("usage: kuv_forward_min_cxx SOCKET_PATH\n"
                  "Sends the scan message of \"right\" \"/a b\" \"/c\", its text made with JsonCpp's compact\n"
                  "writer, and waits for the one-byte receipt: the floor for a C++ forwarding start.\n"
                  "Exit 0 sent, 1 failed, 2 usage.");
        return 0;
    }
    sockaddr_un addr{};
    if (argc != 2 || std::strlen(argv[1]) >= sizeof(addr.sun_path)) {
        return 2;
    }
    Json::Value record(Json::objectValue);
    Json::Value& paths = record["paths"] = Json::Value(Json::arrayValue);
    paths.append("/a b");
    paths.append("/c");
    std::string text = Json::FastWriter().write(record);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const uint64_t type = 4, length = text.size();
    std::string message(16, '\0');
    std::memcpy(&message[0], &type, 8);
    std::memcpy(&message[8], &length, 8);
    message += text;

    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, argv[1]);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        return 1;
    }
    size_t sent = 0;
    while (sent < message.size()) {
        const ssize_t n = ::write(fd, message.data() + sent, message.size() - sent);
        if (n <= 0) {
            return 1;
        }
        sent += static_cast<size_t>(n);
    }
    char receipt = 0;
    if (::read(fd, &receipt, 1) != 1) {
        return 1;
    }
    ::close(fd);
    return 0;
}

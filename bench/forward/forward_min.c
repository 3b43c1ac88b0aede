// SPDX-License-Identifier: GPL-2.0-or-later
/* The floor for a forwarding start: connect to the command socket, send the 39-byte scan message of
 * "right" "/a b" "/c", wait for the server's one-byte receipt (as the service's own client does), exit.
 * Usage: kuv_forward_min SOCKET_PATH */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    static const char payload[] = "{\"paths\":[\"/a b\",\"/c\"]}";
    char message[16 + sizeof(payload) - 1];
    const uint64_t type = 4, length = sizeof(payload) - 1;
    struct sockaddr_un addr;
    int fd;
    size_t sent = 0;
    char receipt = 0;

    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        puts("usage: kuv_forward_min SOCKET_PATH\n"
             "Sends the scan message of \"right\" \"/a b\" \"/c\" to the command socket and waits for its\n"
             "one-byte receipt: the floor for a forwarding start. Exit 0 sent, 1 failed, 2 usage.");
        return 0;
    }
    if (argc != 2 || strlen(argv[1]) >= sizeof(addr.sun_path)) {
        return 2;
    }
    memcpy(message, &type, 8);
    memcpy(message + 8, &length, 8);
    memcpy(message + 16, payload, sizeof(payload) - 1);

    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, argv[1]);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (struct sockaddr*)&addr, sizeof(addr)) != 0) {
        return 1;
    }
    while (sent < sizeof(message)) {
        const ssize_t n = write(fd, message + sent, sizeof(message) - sent);
        if (n <= 0) {
            return 1;
        }
        sent += (size_t)n;
    }
    if (read(fd, &receipt, 1) != 1) {
        return 1;
    }
    close(fd);
    return 0;
}

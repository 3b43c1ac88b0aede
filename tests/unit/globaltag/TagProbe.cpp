// SPDX-License-Identifier: GPL-2.0-or-later
// Waits for the start signal on stdin, tries the tag once, reports "<pid> <result>" on stdout;
// the winner publishes its pid and holds the tag until it is killed.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "CGlobalTag.h"

int main(int argc, char** argv)
{
    if (argc < 2) {
        return 2;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char go;
    while (::read(0, &go, 1) > 0) {
    }
    CGlobalTag tag(argv[1], CGlobalTag::TagConfig::getUserConfig());
    const int rc = tag.trylock(false);
    if (rc == 1) {
        tag.setAttribute("pid", std::to_string(::getpid()));
        tag.setAttribute("status", "1");
    }
    const std::string line = std::to_string(::getpid()) + " " + std::to_string(rc) + "\n";
    if (::write(1, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        return 3;
    }
    if (rc == 1) {
        for (;;) {
            ::pause();
        }
    }
    return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The forwarding client of a second start: one command line becomes one message to the running instance.
#pragma once

#include <list>
#include <string>

class CGuiCmdExecuter {
public:
    int execute(int argc, char** argv);
    int showMainWindow();
    int contextMenuScan(const std::list<std::string>& paths);
    int quit();
};

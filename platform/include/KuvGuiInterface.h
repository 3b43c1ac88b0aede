// SPDX-License-Identifier: GPL-2.0-or-later
// The GUI shell as the service drives it: build the GUI, run its loop, and control requests.
#pragma once

#include "KuvExport.h"

#include <string>

// Control codes of KuvGuiInterface::ctrl.
enum _GUI_CTR_TYPE {
    GUI_CTR_SHOW_MAIN = 0,          // arg null: show, raise and activate the main window
    GUI_CTR_CONTEXT_MENU_SCAN = 1,  // arg std::list<std::string>*: scan these paths (copied before return)
    GUI_CTR_STOP_BACKEND = 2,       // arg null: answers whether the back end is to be stopped on quit
    GUI_CTR_QUIT = 3,               // arg null: quit the user interface
};

typedef int (*PFN_UNINSTALL_ALL)(void* ctx);

// Handed to init so the shell can have the service unload every combo while it quits.
struct sUninstallFunc {
    PFN_UNINSTALL_ALL pfnUninstall;
    void* pContext;
};

class KUV_EXPORT KuvGuiInterface {
public:
    // Creates the application object (Qt consumes its own arguments), the main window and tray icon.
    // 0 on success, non-zero when no GUI can be made.
    static int init(int& argc, char** argv, sUninstallFunc uninstall);
    // Runs the event loop until the user interface quits; returns the loop's exit code.
    static int exec();
    // Callable from any thread; the request is carried to the GUI thread.
    static bool ctrl(_GUI_CTR_TYPE type, void* arg);
};

namespace basegui {
class KUV_EXPORT Common {
public:
    // Interface language ("zh-CN", "en"); applied when the shell builds its GUI.
    static void setLan(const std::string& language);
    static std::string getLan();
};
} // namespace basegui

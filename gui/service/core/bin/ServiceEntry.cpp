// SPDX-License-Identifier: GPL-2.0-or-later
#include "GuiServiceEntry.h"

#include "cAfxGuiMain.h"

extern "C" int kuvgui_service_run(CGlobalTag* tag, int* argc, char** argv, PFN_KUVGUI_RELEASE_TAG releaseTag)
{
    CAfxGuiMain app(tag);
    const int rc = app.init(*argc, argv);
    if (rc >= 0) {
        app.exec();
        app.exit();
        releaseTag(tag);
    }
    return rc >= 0 ? 0 : -1;
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include "GuiEntry.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "CGlobalTag.h"
#include "cAfxGuiMain.h"

// Defined here so that a forwarding start needs none of the service's libraries.
CGuiCmdExecuter CAfxGuiMain::cmdExecuter;

namespace {
// Off the normal path the tag is never destroyed; keeping it here makes that a held object, not a lost one.
CGlobalTag* g_pRetainedTag = nullptr;

void releaseTag(CGlobalTag* tag)
{
    if (g_pRetainedTag == tag) {
        g_pRetainedTag = nullptr;
    }
    delete tag;
}
} // namespace

CGlobalTag* kuvguiRetainedTag() { return g_pRetainedTag; }

int kuvguiEntry(int argc, char** argv, PFN_KUVGUI_RESOLVE_SERVICE resolve)
{
    const std::string tagName = KUVGUI_INSTANCE_TAG;
    CGlobalTag* tag = nullptr;
    {
        const CGlobalTag::TagConfig config = CGlobalTag::TagConfig::getUserConfig();
        tag = new CGlobalTag(tagName, config);
    }
    g_pRetainedTag = tag;

    const int rc = tag->trylock(false);
    if (rc == 1) {
        printf("Container[%s] single process mark create success\n", tagName.c_str());
        tag->setAttribute("pid", std::to_string(getpid()));
        PFN_KUVGUI_SERVICE_RUN run = resolve != nullptr ? resolve() : nullptr;
        if (run == nullptr) {
            return -1;
        }
        return run(tag, &argc, argv, &releaseTag);
    }
    if (rc == 2) {
        printf("Container[%s] is Running\n", tagName.c_str());
        return CAfxGuiMain::cmdExecuter.execute(argc, argv);
    }
    printf("Container[%s] single process mark create failed\n", tagName.c_str());
    return -1;
}

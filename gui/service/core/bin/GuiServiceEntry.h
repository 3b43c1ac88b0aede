// SPDX-License-Identifier: GPL-2.0-or-later
// The C entry between the small process entry and the service library it loads after winning the tag.
#pragma once

#include "KuvExport.h"

class CGlobalTag;

extern "C" {
// Destroys the instance tag; the entry owns it, the service asks for it at the end of a normal run.
typedef void (*PFN_KUVGUI_RELEASE_TAG)(CGlobalTag* tag);
// Builds the application on the stack and runs init, exec and exit. 0 after a normal run, -1 if init failed.
typedef int (*PFN_KUVGUI_SERVICE_RUN)(CGlobalTag* tag, int* argc, char** argv, PFN_KUVGUI_RELEASE_TAG releaseTag);

KUV_EXPORT int kuvgui_service_run(CGlobalTag* tag, int* argc, char** argv, PFN_KUVGUI_RELEASE_TAG releaseTag);
}

#define KUVGUI_SERVICE_RUN_SYMBOL "kuvgui_service_run"
#define KUVGUI_SERVICE_LIBRARY "libkuvgui_service.so"

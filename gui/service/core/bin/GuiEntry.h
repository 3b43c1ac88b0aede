// SPDX-License-Identifier: GPL-2.0-or-later
// The process entry's logic: the instance tag decides between running the service and forwarding.
#pragma once

#include "GuiServiceEntry.h"

// Yields the service's run function; called only once this process holds the tag. Null when unavailable.
typedef PFN_KUVGUI_SERVICE_RUN (*PFN_KUVGUI_RESOLVE_SERVICE)();

#define KUVGUI_INSTANCE_TAG "A5F24530-52D7-11EE-AF47-4B159A309AD8"

int kuvguiEntry(int argc, char** argv, PFN_KUVGUI_RESOLVE_SERVICE resolve);

// The tag of the last entry run that did not release it (it stays held until the process ends).
CGlobalTag* kuvguiRetainedTag();

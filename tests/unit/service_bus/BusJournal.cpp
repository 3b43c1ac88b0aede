// SPDX-License-Identifier: GPL-2.0-or-later
// The journal entry point the test bus library calls back into (exported from the executable).
#include "FakePlatform.h"

extern "C" __attribute__((visibility("default"))) void testbus_record(const char* event)
{
    fake::record(event != nullptr ? event : "");
}

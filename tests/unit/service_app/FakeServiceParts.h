// SPDX-License-Identifier: GPL-2.0-or-later
// Doubles of the bus container manager, plugin manager and bus message handler for the application tests.
#pragma once

#include <string>

#include "CGuiMsgHandle.h"

namespace fakeparts {

void reset();
void setContainerInitResult(int result);
void setEndPointAvailable(bool available);
void setEndPointInitResult(int result);
void setUninstallAllResult(int result);
// What the application handed to CGuiMsgHandle::setCallback.
PFN_MSG_CALLBACK msgCallback();
void* msgContext();
// The receiver registered on the application endpoint, null when none.
IMRReceiveComplete* registeredReceiver();
int uninstallAllCount();

} // namespace fakeparts

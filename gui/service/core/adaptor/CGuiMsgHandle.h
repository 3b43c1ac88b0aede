// SPDX-License-Identifier: GPL-2.0-or-later
// Receiver of the application's bus endpoint: logs each message and runs the hook for type 1003.
#pragma once

#include <cstdint>

#include "IZellClientMgr.h"

typedef void (*PFN_MSG_CALLBACK)(void* context);

class CGuiMsgHandle : public IMRReceiveComplete {
public:
    CGuiMsgHandle();
    ~CGuiMsgHandle() override;

    void setCallback(PFN_MSG_CALLBACK callback, void* context);
    void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override;

private:
    PFN_MSG_CALLBACK m_pfnCallback;
    void* m_pContext;
};

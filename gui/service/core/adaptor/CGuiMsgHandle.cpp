// SPDX-License-Identifier: GPL-2.0-or-later
#include "CGuiMsgHandle.h"

#include <string>

#include "BFLog.h"

namespace {
BF_LOG_SOURCE("gui/service/core/adaptor/CGuiMsgHandle");
const int64_t kMsgTypeUpdatePlugins = 1003;
} // namespace

CGuiMsgHandle::CGuiMsgHandle() : m_pfnCallback(nullptr), m_pContext(nullptr) {}

CGuiMsgHandle::~CGuiMsgHandle() = default;

void CGuiMsgHandle::setCallback(PFN_MSG_CALLBACK callback, void* context)
{
    m_pfnCallback = callback;
    m_pContext = context;
}

void CGuiMsgHandle::ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t, uint64_t)
{
    // Exactly length bytes: the body need not be zero-terminated. A bus that hands over no body or a
    // negative length gets an empty one rather than a read out of bounds.
    std::string body;
    if (content != nullptr && length > 0) {
        body.assign(content, static_cast<size_t>(length));
    }
    BF_LOG(LOG_LEVEL_INFO, "[CGuiMsgHandle] msgType = %d, content = %s", static_cast<int>(msgType), body.c_str());

    // Runs on the bus's delivering thread; the hook must be safe there.
    if (msgType == kMsgTypeUpdatePlugins && m_pfnCallback != nullptr) {
        m_pfnCallback(m_pContext);
    }
}

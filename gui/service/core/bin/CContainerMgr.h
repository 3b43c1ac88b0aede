// SPDX-License-Identifier: GPL-2.0-or-later
// The process's door to the message bus: bus library, client instance, endpoints and the bus log.
#pragma once

#include <cstdint>
#include <string>

#include "IZellClientMgr.h"

class CGlobalTag;
class CLogDebug;

class CContainerMgr : public IMRReceiveComplete {
public:
    explicit CContainerMgr(CGlobalTag* tag);
    ~CContainerMgr() override;

    // The container manager takes no bus messages itself.
    void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override;

    int init();
    int notifyRunning();
    int uninit();
    IZellMREndPoint4* createEndPoint();
    int64_t destroyEndPoint(IZellMREndPoint4* endPoint);

    static void zellLogCallback(int level, const char* text, int reserved);

    // The bus log; static because the bus's log callback carries no object.
    static CLogDebug* g_pLogZell;

private:
    int initZell();
    bool zellInitLog();
    std::string getBaseDir();
    void publishStatus();

    IZellClientMgr* m_pZellProxy;
    void* m_hModule;
    bool m_bInit;
    int32_t m_nStatus;
    CGlobalTag* m_pGlobalTag;

    friend class CContainerMgrTest;
};

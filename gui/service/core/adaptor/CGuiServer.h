// SPDX-License-Identifier: GPL-2.0-or-later
// The command server: turns messages on "/tmp/kuv-gui" into GUI shell control requests.
#pragma once

#include "AfxPipe.h"
#include "Singleton.h"

class CGuiServer : public IRemoteCallNotify, public utils::SingletonAbstract<CGuiServer> {
    friend class utils::SingletonAbstract<CGuiServer>;

public:
    int start();
    void stop();
    void RecvData(CCharVector& data, long kind, void* context, unsigned long peerPid) override;

private:
    CGuiServer() = default;
    ~CGuiServer() override = default;

    CAfxPipeServer m_pipeServer;
};

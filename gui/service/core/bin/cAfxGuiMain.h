// SPDX-License-Identifier: GPL-2.0-or-later
// The application object of the GUI service: start-up, the GUI loop and shut-down in a fixed order.
#pragma once

#include <string>

#include <QObject>

#include "CGuiCmdExecuter.h"

class CContainerMgr;
class CGlobalTag;
class CGuiMsgHandle;
class CPluginMgr;
class IZellMREndPoint4;

// Releases every compiled-in Qt resource of the service.
void qCleanupResources_all();

class CAfxGuiMain : public QObject {
    Q_OBJECT
public:
    explicit CAfxGuiMain(CGlobalTag* tag);
    ~CAfxGuiMain() override;
    CAfxGuiMain(const CAfxGuiMain&) = delete;
    CAfxGuiMain& operator=(const CAfxGuiMain&) = delete;

    // 0 on success, -1 on the first failed step.
    int init(int& argc, char** argv);
    int exec();
    void exit();

    static int uninstallAllCombo(void* ctx);

    // The forwarding client of a second start (it has no data).
    static CGuiCmdExecuter cmdExecuter;

private:
    int initLog();
    int initComm();
    void startBackand();
    void stopBackand();
    void startGuiGuard();
    void monitorVersion(void* data);
    static void updatePlugins_s(void* data);

    CPluginMgr* m_pPluginMgr;
    CContainerMgr* m_pContainerMgr;
    CGlobalTag* m_pGlobalTag;
    CGuiMsgHandle* m_pGuiMsgHandle;
    IZellMREndPoint4* m_pEndPoint;
    std::string m_strClientVersion;
};

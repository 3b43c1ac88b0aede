#include "CGuiServer.h"

#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include "BFLog.h"
#include "FileUtils.h"
#include "GuiPipeMsg.h"
#include "JRGUIContextMenuScan.h"
#include "KuvGuiInterface.h"

#define SERVER_LOG(level, ...) \
    BFLogPrintX(level, "gui/service/core/adaptor/CGuiServer", __FUNCTION__, __LINE__, __VA_ARGS__)

int CGuiServer::start()
{
    m_pipeServer.setName(KUV_GUI_PIPE_NAME);
    m_pipeServer.registerMonitor(this, 2, nullptr, true);
    return m_pipeServer.start();
}

void CGuiServer::stop() { m_pipeServer.stop(); }

void CGuiServer::RecvData(CCharVector& data, long /*kind*/, void* /*context*/, unsigned long /*peerPid*/)
{
    if (data.length() < sizeof(sGuiPipeMsgHead)) {
        return;
    }
    const char* bytes = data.data();
    if (bytes == nullptr) {
        return;
    }
    sGuiPipeMsgHead head;
    memcpy(&head, bytes, sizeof(head));

    switch (head.type) {
    case GUI_MSG_SHOW_MAIN:
        KuvGuiInterface::ctrl(GUI_CTR_SHOW_MAIN, nullptr);
        SERVER_LOG(LOG_LEVEL_INFO, "CGuiServer: show main windows.");
        break;
    case GUI_MSG_CONTEXT_MENU_SCAN: {
        JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan record;
        std::list<std::string> paths;
        // The payload is text up to its first NUL; the length field is not trusted, the received size is.
        const char* text = bytes + sizeof(sGuiPipeMsgHead);
        const size_t available = data.length() - sizeof(sGuiPipeMsgHead);
        const std::string payload(text, strnlen(text, available));
        if (record.FromJsonString(payload)) {
            for (const std::string& path : record.getPaths()) {
                paths.push_back(path);
                // The path comes from another process: stdout gets it escaped, the log escapes it itself.
                printf("CGuiServer: context menu scan [%s].\n", kuv::escapeControl(path).c_str());
                SERVER_LOG(LOG_LEVEL_INFO, "CGuiServer: context menu scan [%s].\n", path.c_str());
            }
            fflush(stdout);
        }
        KuvGuiInterface::ctrl(GUI_CTR_CONTEXT_MENU_SCAN, &paths);
        break;
    }
    case GUI_MSG_QUIT:
        KuvGuiInterface::ctrl(GUI_CTR_QUIT, nullptr);
        break;
    default:
        break;
    }
}

// SPDX-License-Identifier: GPL-2.0-or-later
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

// The source named in every record of this file.
BF_LOG_SOURCE("gui/service/core/adaptor/CGuiServer");

namespace {

// The most paths one scan command may name. A parsed JSON element costs far more than its few bytes
// of text (5.5 million empty paths fit in 16 MB and would take gigabytes), so the count is taken on
// the text, before anything is built from it.
constexpr size_t kMaxScanPaths = 100000;

// An upper bound of the elements in a JSON text: the separators outside strings, plus one.
size_t jsonElementBound(const std::string& text)
{
    size_t commas = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == ',') {
            ++commas;
        }
    }
    return commas + 1;
}

} // namespace

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
        BF_LOG(LOG_LEVEL_INFO, "CGuiServer: show main windows.");
        break;
    case GUI_MSG_CONTEXT_MENU_SCAN: {
        JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan record;
        std::list<std::string> paths;
        // The payload is text up to its first NUL; the length field is not trusted, the received size is.
        const char* text = bytes + sizeof(sGuiPipeMsgHead);
        const size_t available = data.length() - sizeof(sGuiPipeMsgHead);
        const std::string payload(text, strnlen(text, available));
        const size_t bound = jsonElementBound(payload);
        if (bound > kMaxScanPaths) {
            BF_LOG(LOG_LEVEL_WARN, "CGuiServer: context menu scan of up to %zu paths refused (at most %zu).",
                   bound, kMaxScanPaths);
            break;
        }
        if (record.FromJsonString(payload)) {
            for (const std::string& path : record.getPaths()) {
                paths.push_back(path);
                // The path comes from another process: stdout gets it escaped, the log escapes it itself.
                printf("CGuiServer: context menu scan [%s].\n", kuv::escapeControl(path).c_str());
                BF_LOG(LOG_LEVEL_INFO, "CGuiServer: context menu scan [%s].\n", path.c_str());
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

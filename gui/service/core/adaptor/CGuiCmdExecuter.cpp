#include "CGuiCmdExecuter.h"

#include <cstring>
#include <memory>
#include <new>

#include "AfxPipe.h"
#include "GuiPipeMsg.h"
#include "JRGUIContextMenuScan.h"

int CGuiCmdExecuter::execute(int argc, char** argv)
{
    if (argc < 2) {
        return showMainWindow();
    }
    const std::string command = argv[1];
    if (command == "right") {
        if (argc > 2) {
            std::list<std::string> paths;
            for (int i = 2; i < argc; ++i) {
                paths.emplace_back(argv[i]);
            }
            return contextMenuScan(paths);
        }
        return 0;
    }
    if (command == "quit") {
        return quit();
    }
    return 0;
}

int CGuiCmdExecuter::showMainWindow()
{
    CAfxPipeClient client(KUV_GUI_PIPE_NAME);
    char message[sizeof(sGuiPipeMsgHead) + 4] = {};
    const sGuiPipeMsgHead head{GUI_MSG_SHOW_MAIN, 4};
    memcpy(message, &head, sizeof(head));
    return client.async(message, sizeof(message)) != 0 ? 1 : 0;
}

int CGuiCmdExecuter::contextMenuScan(const std::list<std::string>& paths)
{
    if (paths.empty()) {
        return 0;
    }
    CAfxPipeClient client(KUV_GUI_PIPE_NAME);
    JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan record;
    std::vector<std::string>& recordPaths = record.getPaths();
    for (const std::string& path : paths) {
        recordPaths.push_back(path);
    }
    std::string text;
    if (!record.ToJsonString(text, true)) {
        return 0;
    }
    const unsigned long size = text.size() + sizeof(sGuiPipeMsgHead);
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    if (!buffer) {
        return 0;
    }
    const sGuiPipeMsgHead head{GUI_MSG_CONTEXT_MENU_SCAN, text.size()};
    memcpy(buffer.get(), &head, sizeof(head));
    memcpy(buffer.get() + sizeof(head), text.data(), text.size());
    return client.async(buffer.get(), size) != 0 ? 1 : 0;
}

int CGuiCmdExecuter::quit()
{
    CAfxPipeClient client(KUV_GUI_PIPE_NAME);
    const unsigned long size = sizeof(sGuiPipeMsgHead) + 2;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
    if (!buffer) {
        return 0;
    }
    const sGuiPipeMsgHead head{GUI_MSG_QUIT, 2};
    memcpy(buffer.get(), &head, sizeof(head));
    memcpy(buffer.get() + sizeof(head), "{}", 2);
    return client.async(buffer.get(), size) != 0 ? 1 : 0;
}

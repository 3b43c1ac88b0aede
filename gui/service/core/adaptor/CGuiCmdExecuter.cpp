// SPDX-License-Identifier: GPL-2.0-or-later
#include "CGuiCmdExecuter.h"

#include <cstring>
#include <memory>
#include <new>

#include "AfxPipe.h"
#include "GuiPipeMsg.h"
#include "JRGUIContextMenuScan.h"
#include "Utf8.h"

#include <json/json.h>

namespace {

// A path as a JSON string with its bytes as they are: only the quote, the backslash and control
// characters are escaped. The JSON writer would turn bytes that are not UTF-8 into other characters
// (a different file, or none); the reader on the other end keeps the bytes of a string unchanged.
std::string quotedBytes(const std::string& path)
{
    std::string out = "\"";
    for (const char c : path) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u == 0x7f) {
            static const char hex[] = "0123456789abcdef";
            out += "\\u00";
            out += hex[u >> 4];
            out += hex[u & 0xf];
        } else {
            out += c;
        }
    }
    out += '"';
    return out;
}

// The record's compact text when a path is not UTF-8: the same object, with such paths byte for byte.
std::string recordWithRawPaths(const std::vector<std::string>& paths)
{
    std::string text = "{\"paths\":[";
    for (size_t i = 0; i < paths.size(); ++i) {
        if (i > 0) {
            text += ',';
        }
        text += kuv::isValidUtf8(paths[i]) ? Json::valueToQuotedString(paths[i].c_str()) : quotedBytes(paths[i]);
    }
    text += "]}";
    return text;
}

} // namespace

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
    for (const std::string& path : recordPaths) {
        if (!kuv::isValidUtf8(path)) {
            text = recordWithRawPaths(recordPaths);
            break;
        }
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

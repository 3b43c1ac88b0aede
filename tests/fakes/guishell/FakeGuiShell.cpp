// SPDX-License-Identifier: GPL-2.0-or-later
// GUI shell double: records init, exec and control requests; answers code 2 as the test says.
#include <list>
#include <mutex>
#include <string>

#include "FakePlatform.h"
#include "KuvGuiInterface.h"
#include "ResetHook.h"

namespace {
std::mutex g_mutex;
int g_initResult = 0;
bool g_stopAnswer = false;
std::vector<fake::ShellCtrl> g_ctrls;
std::string g_language;
sUninstallFunc g_uninstall{nullptr, nullptr};
bool g_haveUninstall = false;
int g_initCount = 0;
int g_execCount = 0;

void resetShell()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_initResult = 0;
    g_stopAnswer = false;
    g_ctrls.clear();
    g_language.clear();
    g_uninstall = {nullptr, nullptr};
    g_haveUninstall = false;
    g_initCount = 0;
    g_execCount = 0;
}
fake::ResetHook g_hook(&resetShell);
} // namespace

int KuvGuiInterface::init(int& argc, char** argv, sUninstallFunc uninstall)
{
    (void)argv;
    fake::record("shell.init argc=" + std::to_string(argc));
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_initCount;
    g_uninstall = uninstall;
    g_haveUninstall = true;
    return g_initResult;
}

int KuvGuiInterface::exec()
{
    fake::record("shell.exec");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_execCount;
    return 0;
}

bool KuvGuiInterface::ctrl(_GUI_CTR_TYPE type, void* arg)
{
    fake::ShellCtrl entry{static_cast<int>(type), {}};
    if (type == GUI_CTR_CONTEXT_MENU_SCAN && arg != nullptr) {
        entry.paths = *static_cast<std::list<std::string>*>(arg);
    }
    fake::record("shell.ctrl " + std::to_string(static_cast<int>(type)));
    std::lock_guard<std::mutex> lock(g_mutex);
    g_ctrls.push_back(entry);
    return type == GUI_CTR_STOP_BACKEND ? g_stopAnswer : true;
}

void basegui::Common::setLan(const std::string& language)
{
    fake::record("shell.setLan " + language);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_language = language;
}

std::string basegui::Common::getLan()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_language;
}

namespace fake {
void setShellInitResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_initResult = result;
}
void setShellStopBackendAnswer(bool answer)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_stopAnswer = answer;
}
std::vector<ShellCtrl> shellCtrls()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_ctrls;
}
std::string shellLanguage()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_language;
}
int shellRunUninstall()
{
    sUninstallFunc func;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (!g_haveUninstall || g_uninstall.pfnUninstall == nullptr) {
            return -1;
        }
        func = g_uninstall;
    }
    return func.pfnUninstall(func.pContext);
}
int shellInitCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_initCount;
}
int shellExecCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_execCount;
}
} // namespace fake

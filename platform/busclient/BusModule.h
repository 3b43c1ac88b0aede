// SPDX-License-Identifier: GPL-2.0-or-later
// The bus client module, loaded with dlopen from the installation as the service loads it.
#pragma once

#include <string>

#include "IZellClientMgr.h"
#include "Library.h"

namespace kuv {

// One client instance of libZellClientMgr.so for a process other than the service (tools, back end, shell):
// loaded, created and initialised; stopped, released, destroyed and unloaded on destruction.
class BusModule {
public:
    BusModule() = default;
    ~BusModule();
    BusModule(const BusModule&) = delete;
    BusModule& operator=(const BusModule&) = delete;

    // false with a message in error when the module cannot be used; an init failure is told with the
    // name of its _ZELL_INIT_RESULT and the module's last error line.
    // name labels the client instance ("<name>-<pid>") and the module's log lines.
    bool open(const std::string& socketAddr, bool verbose, std::string& error, const std::string& name = "kuvctl");
    // Waits up to timeoutMs for the broker (woken by the connection itself).
    bool waitConnected(int timeoutMs);
    IZellClientMgr* mgr() { return m_mgr; }
    // The module's last error line ("" when there is none or no client was created).
    std::string lastError() const;
    static std::string modulePath();

private:
    bool load(std::string& error);
    bool start(const std::string& socketAddr, bool verbose, const std::string& name, std::string& error);

    Library m_library;
    PFN_CreateInstance m_create = nullptr;
    PFN_DestoryInstance m_destroy = nullptr;
    IZellClientMgr* m_mgr = nullptr;
    std::string m_instance;
};

} // namespace kuv

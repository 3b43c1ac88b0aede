// The bus client module, loaded with dlopen from the installation as the service loads it.
#pragma once

#include <string>

#include "IZellClientMgr.h"

namespace kuv {

// One client instance of libZellClientMgr.so for a process other than the service (tools, back end, shell):
// loaded, created and initialised; stopped, released, destroyed and unloaded on destruction.
class BusModule {
public:
    BusModule() = default;
    ~BusModule();
    BusModule(const BusModule&) = delete;
    BusModule& operator=(const BusModule&) = delete;

    // false with a message in error when the module cannot be used.
    // name labels the client instance ("<name>-<pid>") and the module's log lines.
    bool open(const std::string& socketAddr, bool verbose, std::string& error, const std::string& name = "kuvctl");
    // Waits up to timeoutMs for the broker.
    bool waitConnected(int timeoutMs);
    IZellClientMgr* mgr() { return m_mgr; }
    static std::string modulePath();
    // The last error line the module logged while open() ran (empty when none), kept whether or not
    // verbose was asked for.
    const std::string& lastError() const { return m_lastError; }

private:
    void* m_handle = nullptr;
    PFN_DestoryInstance m_destroy = nullptr;
    IZellClientMgr* m_mgr = nullptr;
    std::string m_instance;
    std::string m_lastError;
};

} // namespace kuv

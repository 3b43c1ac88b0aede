// The bus client module, loaded with dlopen from the installation as the service loads it.
#pragma once

#include <string>

#include "IZellClientMgr.h"

namespace kuvctl {

// One client instance of libZellClientMgr.so: loaded, created and initialised; stopped, released, destroyed
// and unloaded on destruction.
class ZellClient {
public:
    ZellClient() = default;
    ~ZellClient();
    ZellClient(const ZellClient&) = delete;
    ZellClient& operator=(const ZellClient&) = delete;

    // false with a message in error when the module cannot be used.
    bool open(const std::string& socketAddr, bool verbose, std::string& error);
    // Waits up to timeoutMs for the broker.
    bool waitConnected(int timeoutMs);
    IZellClientMgr* mgr() { return m_mgr; }
    static std::string modulePath();

private:
    void* m_handle = nullptr;
    PFN_DestoryInstance m_destroy = nullptr;
    IZellClientMgr* m_mgr = nullptr;
    std::string m_instance;
};

} // namespace kuvctl

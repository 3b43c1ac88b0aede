// SPDX-License-Identifier: GPL-2.0-or-later
// Records into the platform journal so the application's order can be checked across all of them.
#include "FakeServiceParts.h"

#include <cstdio>
#include <mutex>
#include <set>

#include "CContainerMgr.h"
#include "CPluginMgr.h"
#include "FakePlatform.h"

namespace {

std::mutex g_mutex;
int g_containerInit = 1;
bool g_endPointAvailable = true;
int g_endPointInit = 0;
int g_uninstallAllResult = 1;
int g_uninstallAllCount = 0;
PFN_MSG_CALLBACK g_callback = nullptr;
void* g_context = nullptr;
IMRReceiveComplete* g_receiver = nullptr;
// Objects a failed start leaves behind stay reachable, as in a process that is about to end. Never
// destroyed, so they are still reachable when the leak check runs after static destructors.
std::set<const void*>& live()
{
    static auto* objects = new std::set<const void*>;
    return *objects;
}

void born(const void* object)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    live().insert(object);
}

void gone(const void* object)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    live().erase(object);
}

std::string guidText(const GUID& g)
{
    char text[40];
    snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

class FakeEndPoint : public IZellMREndPoint4 {
public:
    int init(const GUID& guid) override
    {
        fake::record("endpoint.init " + guidText(guid));
        std::lock_guard<std::mutex> lock(g_mutex);
        return g_endPointInit;
    }
    int uninit() override
    {
        fake::record("endpoint.uninit");
        return 0;
    }
    int registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int flags) override
    {
        fake::record("endpoint.registerRecvNotify " + std::to_string(msgType) + " " + std::to_string(flags));
        std::lock_guard<std::mutex> lock(g_mutex);
        g_receiver = receiver;
        return 0;
    }
    int unregisterRecvNotify(int64_t msgType) override
    {
        fake::record("endpoint.unregisterRecvNotify " + std::to_string(msgType));
        return 0;
    }
    int sendMsg(const GUID&, int64_t, const char*, int) override { return 0; }
    virtual ~FakeEndPoint() = default;
};

} // namespace

namespace fakeparts {
void reset()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_containerInit = 1;
    g_endPointAvailable = true;
    g_endPointInit = 0;
    g_uninstallAllResult = 1;
    g_uninstallAllCount = 0;
    g_callback = nullptr;
    g_context = nullptr;
    g_receiver = nullptr;
}
void setContainerInitResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_containerInit = result;
}
void setEndPointAvailable(bool available)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_endPointAvailable = available;
}
void setEndPointInitResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_endPointInit = result;
}
void setUninstallAllResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_uninstallAllResult = result;
}
PFN_MSG_CALLBACK msgCallback()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_callback;
}
void* msgContext()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_context;
}
IMRReceiveComplete* registeredReceiver()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_receiver;
}
int uninstallAllCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_uninstallAllCount;
}
} // namespace fakeparts

// --- CContainerMgr ---------------------------------------------------------------------------------------

CLogDebug* CContainerMgr::g_pLogZell = nullptr;

CContainerMgr::CContainerMgr(CGlobalTag* tag)
    : m_pZellProxy(nullptr), m_hModule(nullptr), m_bInit(false), m_nStatus(0), m_pGlobalTag(tag)
{
    fake::record(std::string("container.new ") + (tag != nullptr ? "tag" : "null"));
    born(this);
}

CContainerMgr::~CContainerMgr()
{
    fake::record("container.delete");
    gone(this);
}

void CContainerMgr::ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) {}

int CContainerMgr::init()
{
    fake::record("container.init");
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_containerInit;
}

int CContainerMgr::notifyRunning()
{
    fake::record("container.notifyRunning");
    return 1;
}

int CContainerMgr::uninit()
{
    fake::record("container.uninit");
    return 1;
}

IZellMREndPoint4* CContainerMgr::createEndPoint()
{
    fake::record("container.createEndPoint");
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_endPointAvailable) {
        return nullptr;
    }
    auto* endPoint = new FakeEndPoint;
    live().insert(endPoint);
    return endPoint;
}

int64_t CContainerMgr::destroyEndPoint(IZellMREndPoint4* endPoint)
{
    fake::record(std::string("container.destroyEndPoint ") + (endPoint != nullptr ? "endpoint" : "null"));
    gone(endPoint);
    delete static_cast<FakeEndPoint*>(endPoint);
    return 0;
}

// --- CPluginMgr ------------------------------------------------------------------------------------------

CPluginMgr::CPluginMgr(QObject* parent) : QObject(parent), m_pConMgr(nullptr), m_pGlobalTag(nullptr)
{
    fake::record(std::string("pluginmgr.new ") + (parent != nullptr ? "parent" : "null"));
    born(this);
}

CPluginMgr::~CPluginMgr()
{
    fake::record("pluginmgr.delete");
    gone(this);
}

int CPluginMgr::init(CGlobalTag* tag, CContainerMgr* conMgr)
{
    fake::record(std::string("pluginmgr.init ") + (tag != nullptr ? "tag " : "null ") +
                 (conMgr != nullptr ? "container" : "null"));
    m_pGlobalTag = tag;
    m_pConMgr = conMgr;
    return 1;
}

int CPluginMgr::updatePluginStatus()
{
    fake::record("pluginmgr.updatePluginStatus");
    return 1;
}

int CPluginMgr::unInstallAllCombo()
{
    fake::record("pluginmgr.unInstallAllCombo");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_uninstallAllCount;
    return g_uninstallAllResult;
}

void CPluginMgr::slot_cleanPluginEndpoint(QString, int) {}

// --- CGuiMsgHandle ---------------------------------------------------------------------------------------

CGuiMsgHandle::CGuiMsgHandle() : m_pfnCallback(nullptr), m_pContext(nullptr)
{
    fake::record("msghandle.new");
    born(this);
}

CGuiMsgHandle::~CGuiMsgHandle()
{
    fake::record("msghandle.delete");
    gone(this);
}

void CGuiMsgHandle::setCallback(PFN_MSG_CALLBACK callback, void* context)
{
    fake::record("msghandle.setCallback");
    m_pfnCallback = callback;
    m_pContext = context;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_callback = callback;
    g_context = context;
}

void CGuiMsgHandle::ReceiveCallback(uint64_t, int64_t msgType, const char*, int, uint64_t, uint64_t)
{
    if (msgType == 1003 && m_pfnCallback != nullptr) {
        m_pfnCallback(m_pContext);
    }
}

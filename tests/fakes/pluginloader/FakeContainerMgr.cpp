// SPDX-License-Identifier: GPL-2.0-or-later
// Container manager double: hands out recorded endpoints without any bus.
#include <map>
#include <memory>
#include <mutex>

#include "CContainerMgr.h"
#include "FakePlatform.h"
#include "FakePluginLoader.h"
#include "ResetHook.h"

namespace {

class FakeEndPoint final : public IZellMREndPoint4 {
public:
    explicit FakeEndPoint(std::string name) : m_name(std::move(name)) {}
    ~FakeEndPoint() = default;
    int init(const GUID&) override { return 0; }
    int uninit() override
    {
        fake::record("endpoint.uninit " + m_name);
        return 0;
    }
    int registerRecvNotify(int64_t, IMRReceiveComplete*, int) override { return 0; }
    int unregisterRecvNotify(int64_t) override { return 0; }
    int sendMsg(const GUID&, int64_t, const char*, int) override { return 0; }
    const std::string& name() const { return m_name; }

private:
    std::string m_name;
};

std::mutex g_mutex;
bool g_createNull = false;
int g_created = 0;
std::vector<std::string> g_destroyed;
std::map<const void*, std::unique_ptr<FakeEndPoint>> g_live;
// Names stay known after an endpoint is given back, so late records still read well.
std::map<const void*, std::string> g_names;

void resetConMgr()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_createNull = false;
    g_created = 0;
    g_destroyed.clear();
    g_live.clear();
    g_names.clear();
}
fake::ResetHook g_hook(&resetConMgr);

} // namespace

CLogDebug* CContainerMgr::g_pLogZell = nullptr;

CContainerMgr::CContainerMgr(CGlobalTag* tag)
    : m_pZellProxy(nullptr), m_hModule(nullptr), m_bInit(false), m_nStatus(0), m_pGlobalTag(tag)
{
}

CContainerMgr::~CContainerMgr() = default;

void CContainerMgr::ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) {}

int CContainerMgr::init()
{
    m_bInit = true;
    return 1;
}

int CContainerMgr::notifyRunning()
{
    return m_bInit ? 1 : 0;
}

int CContainerMgr::uninit()
{
    const bool was = m_bInit;
    m_bInit = false;
    return was ? 1 : 0;
}

IZellMREndPoint4* CContainerMgr::createEndPoint()
{
    std::string name;
    FakeEndPoint* endPoint = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (!g_createNull) {
            name = "ep" + std::to_string(++g_created);
            auto owned = std::make_unique<FakeEndPoint>(name);
            endPoint = owned.get();
            g_names[endPoint] = name;
            g_live[endPoint] = std::move(owned);
        }
    }
    fake::record("conmgr.createEndPoint " + (endPoint ? name : std::string("null")));
    return endPoint;
}

int64_t CContainerMgr::destroyEndPoint(IZellMREndPoint4* endPoint)
{
    std::unique_ptr<FakeEndPoint> owned;
    std::string name;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = g_live.find(endPoint);
        if (it == g_live.end()) {
            name = "unknown";
        } else {
            owned = std::move(it->second);
            g_live.erase(it);
            name = owned->name();
        }
        g_destroyed.push_back(name);
    }
    fake::record("conmgr.destroyEndPoint " + name);
    return owned ? 1 : 0;
}

void CContainerMgr::zellLogCallback(int, const char*, int) {}

namespace fake {

void conMgrSetCreateNull(bool null)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_createNull = null;
}

int conMgrCreatedCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_created;
}

std::vector<std::string> conMgrDestroyed()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_destroyed;
}

std::string endpointName(const void* endPoint)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_names.find(endPoint);
    return it == g_names.end() ? std::string() : it->second;
}

int conMgrLiveEndpoints()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return static_cast<int>(g_live.size());
}

} // namespace fake

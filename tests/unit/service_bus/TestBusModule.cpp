// SPDX-License-Identifier: GPL-2.0-or-later
// A bus client library for the container manager tests, built once per variant (TESTBUS_* defines).
// It records every call into the test executable's journal through testbus_record.
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "IZellClientMgr.h"

#define TESTBUS_EXPORT extern "C" __attribute__((visibility("default")))

// Provided by the test executable (exported from it), so the journal outlives this library.
extern "C" void testbus_record(const char* event);

namespace {

void record(const std::string& event)
{
    testbus_record(event.c_str());
}

class TestEndPoint final : public IZellMREndPoint4 {
public:
    int init(const GUID&) override { return 0; }
    int uninit() override
    {
        record("endpoint.uninit");
        return 0;
    }
    int registerRecvNotify(int64_t, IMRReceiveComplete*, int) override { return 0; }
    int unregisterRecvNotify(int64_t) override { return 0; }
    int sendMsg(const GUID&, int64_t, const char*, int) override { return 0; }
    ~TestEndPoint() = default;
};

bool g_endpointNull = false;
PFN_ZELL_LOG_CALLBACK g_callback = nullptr;

class TestClientMgr : public IZellClientMgr {
public:
    const char* version() override { return "test"; }
    int isConnected() override { return 1; }
    int endPointCount() override { return static_cast<int>(m_endpoints.size()); }
    IZellMREndPoint4* createEndPoint() override
    {
        record(g_endpointNull ? "bus.createEndPoint null" : "bus.createEndPoint");
        if (g_endpointNull) {
            return nullptr;
        }
        auto* endPoint = new TestEndPoint;
        m_endpoints.insert(endPoint);
        return endPoint;
    }
    int64_t destroyEndPoint(IZellMREndPoint4* endPoint) override
    {
        auto* mine = static_cast<TestEndPoint*>(endPoint);
        const bool known = m_endpoints.erase(mine) == 1;
        record(known ? "bus.destroyEndPoint" : "bus.destroyEndPoint unknown");
        delete mine;
        // A value the caller must hand back unchanged.
        return 0x123456789LL;
    }
    int init(const char* settings, const char* module) override
    {
        record(std::string("bus.init ") + settings + " " + module);
#ifdef TESTBUS_INITFAIL
        return 7;
#else
        return 0;
#endif
    }
    void setLogCallback(PFN_ZELL_LOG_CALLBACK callback) override
    {
        g_callback = callback;
        record(callback ? "bus.setLogCallback" : "bus.setLogCallback null");
    }
    void setLogLevel(int) override { record("bus.setLogLevel"); }
    void setLogMask(uint32_t mask) override
    {
        char text[32];
        snprintf(text, sizeof(text), "%x", mask);
        record(std::string("bus.setLogMask ") + text);
    }
    void release() override { record("bus.release"); }
    void stop() override { record("bus.stop"); }

    ~TestClientMgr()
    {
        for (TestEndPoint* e : m_endpoints) {
            delete e;
        }
    }

private:
    std::set<TestEndPoint*> m_endpoints;
};

// Static, so an instance that the caller never gives back does not leak.
TestClientMgr g_instance;

__attribute__((constructor)) void onLoad()
{
    record("bus.module.load");
}

__attribute__((destructor)) void onUnload()
{
    record("bus.module.unload");
}

} // namespace

#ifndef TESTBUS_NOCREATE
TESTBUS_EXPORT IZellClientMgr* CreateInstance(const char* guid)
{
    record(std::string("bus.CreateInstance ") + (guid ? guid : "(null)"));
#ifdef TESTBUS_NULLCREATE
    return nullptr;
#else
    return &g_instance;
#endif
}
#endif

#ifndef TESTBUS_NODESTROY
TESTBUS_EXPORT int DestoryInstance(const char* guid, IZellClientMgr* instance)
{
    record(std::string("bus.DestoryInstance ") + (guid ? guid : "(null)") +
           (instance == &g_instance ? " instance" : " other"));
    g_callback = nullptr;
    return 0;
}
#endif

// Test controls, reached with dlopen(RTLD_NOLOAD) + dlsym.
TESTBUS_EXPORT void testbus_emitLog(int level, const char* text)
{
    if (g_callback != nullptr) {
        g_callback(level, text, 0);
    }
}

TESTBUS_EXPORT void testbus_setEndpointNull(int null)
{
    g_endpointNull = null != 0;
}

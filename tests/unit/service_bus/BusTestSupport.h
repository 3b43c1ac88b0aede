// SPDX-License-Identifier: GPL-2.0-or-later
// Shared set-up of the container manager tests: an installation directory with the bus log
// configuration, the journal the test bus library writes into, and the library's test controls.
#pragma once

#include <dlfcn.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CContainerMgr.h"
#include "CGlobalTag.h"
#include "CLogDebug.h"
#include "FakePlatform.h"
#include "FileUtils.h"
#include "Harness.h"

// Reaches the manager's state (declared a friend by CContainerMgr).
class CContainerMgrTest {
public:
    static IZellClientMgr* proxy(const CContainerMgr& m) { return m.m_pZellProxy; }
    static void* module(const CContainerMgr& m) { return m.m_hModule; }
    static bool initialised(const CContainerMgr& m) { return m.m_bInit; }
    static int status(const CContainerMgr& m) { return m.m_nStatus; }
    static void setProxy(CContainerMgr& m, IZellClientMgr* proxy) { m.m_pZellProxy = proxy; }
};

namespace bustest {

constexpr const char* kFile = "gui/service/core/bin/CContainerMgr";
constexpr const char* kGuid = "69948CC6-CA3A-471E-9D6D-E532496DBBE2";

// Where the manager looks for the bus library: beside this executable's directory.
inline std::string modulePath()
{
    return CDir::currentDir() + "/../lib/modules/libZellClientMgr.so";
}

// A reference to the already loaded test bus library, to reach its controls; empty when it is not loaded.
class LoadedModule {
public:
    LoadedModule() : m_handle(dlopen(modulePath().c_str(), RTLD_LAZY | RTLD_NOLOAD)) {}
    ~LoadedModule()
    {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;
    explicit operator bool() const { return m_handle != nullptr; }
    void emitLog(int level, const char* text) const
    {
        auto fn = reinterpret_cast<void (*)(int, const char*)>(dlsym(m_handle, "testbus_emitLog"));
        ASSERT_NE(fn, nullptr);
        fn(level, text);
    }
    void setEndpointNull(bool null) const
    {
        auto fn = reinterpret_cast<void (*)(int)>(dlsym(m_handle, "testbus_setEndpointNull"));
        ASSERT_NE(fn, nullptr);
        fn(null ? 1 : 0);
    }

private:
    void* m_handle;
};

inline bool moduleLoaded()
{
    return static_cast<bool>(LoadedModule());
}

// Messages of the process log with the given function name, in order.
inline std::vector<std::string> messagesOf(const std::string& function)
{
    std::vector<std::string> out;
    for (const auto& l : fake::logLines()) {
        if (l.log.empty() && l.function == function) {
            out.push_back(l.message);
        }
    }
    return out;
}

class BusFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::resetAll();
        tmp = std::make_unique<kuvtest::TempDir>("kuvbus");
        root = tmp->path();
        installDir = root + "/";
        confFile = installDir + "etc/debug/gui_zell_debug.conf";
        fake::setInstallDir(installDir);
        std::filesystem::create_directories(installDir + "etc/debug");
    }
    void TearDown() override
    {
        // A failed start keeps the bus log open by design; close it so one test cannot leak into the next.
        if (CContainerMgr::g_pLogZell != nullptr) {
            LogUninit(CContainerMgr::g_pLogZell);
            CContainerMgr::g_pLogZell = nullptr;
        }
        tmp.reset();
        fake::resetAll();
    }
    void writeConf(const std::string& text) const { std::ofstream(confFile) << text; }

    // Runs init with standard output captured.
    int initCapturing(CContainerMgr& mgr, std::string& out)
    {
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        const int rc = mgr.init();
        fflush(stdout);
        out = ::testing::internal::GetCapturedStdout();
        return rc;
    }

    std::unique_ptr<kuvtest::TempDir> tmp;
    std::string root;
    std::string installDir;
    std::string confFile;
    CGlobalTag tag{"A5F24530-52D7-11EE-AF47-4B159A309AD8", CGlobalTag::TagConfig::getUserConfig()};
};

} // namespace bustest

// SPDX-License-Identifier: GPL-2.0-or-later
#include "CMervoConfigProxy.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

CMervoConfigProxyPrivate::CMervoConfigProxyPrivate() : m_CfgImpl(nullptr), m_hModule(nullptr) {}

CMervoConfigProxyPrivate::~CMervoConfigProxyPrivate() { unloadLib(); }

bool CMervoConfigProxyPrivate::init(const std::string& dir)
{
    if (m_CfgImpl != nullptr) {
        return true;
    }
    m_strLibPath = dir;
    // An empty directory has no last character: at() reports that as std::out_of_range.
    if (m_strLibPath.at(m_strLibPath.size() - 1) != '/') {
        m_strLibPath += "/";
    }
    return loadLib(m_strLibPath);
}

bool CMervoConfigProxyPrivate::loadLib(const std::string& dir)
{
    if (dir.empty()) {
        return false;
    }
    bool ok = false;
    do {
        if (m_hModule == nullptr) {
            const std::string path = dir + "lib/modules/libconfigproxy.so";
            m_hModule = dlopen(path.c_str(), RTLD_LAZY);
            if (m_hModule == nullptr) {
                const char* error = dlerror();
                printf("[loadLib] laod err: %s", error != nullptr ? error : "");
                break;
            }
        }
        auto create = reinterpret_cast<PFN_CFGCreateInstance>(dlsym(m_hModule, "CFGCreateInstance"));
        if (create == nullptr) {
            printf("[loadLib]:get  PFNCFGCreateInstance fail.");
            break;
        }
        if (m_CfgImpl == nullptr) {
            sCfgCreateParas paras;
            memset(&paras, 0, sizeof(paras));
            paras.path = dir.c_str();
            paras.version = "1.0.0";
            const std::string guid = getGuid();
            m_CfgImpl = create(guid.c_str(), &paras);
            if (m_CfgImpl == nullptr) {
                printf("[loadLib]:get  m_CfgImpl fail.");
                break;
            }
        }
        ok = true;
    } while (false);

    if (!ok) {
        unloadLib();
    }
    return ok;
}

void CMervoConfigProxyPrivate::unloadLib()
{
    if (m_CfgImpl != nullptr && m_hModule != nullptr) {
        auto release = reinterpret_cast<PFN_CFGRelease>(dlsym(m_hModule, "CFGRelease"));
        if (release == nullptr) {
            // Without a way to give the object back, the module must stay mapped under it.
            return;
        }
        const std::string guid = getGuid();
        release(guid.c_str());
    }
    if (m_hModule != nullptr) {
        dlclose(m_hModule);
    }
    m_hModule = nullptr;
    m_CfgImpl = nullptr;
}

int64_t CMervoConfigProxyPrivate::invoke(int64_t op, int64_t key, int64_t value, int32_t size)
{
    if (m_CfgImpl == nullptr) {
        const std::string dir = m_strLibPath;
        if (!loadLib(dir)) {
            return 13;
        }
    }
    return m_CfgImpl->request(op, key, value, size);
}

std::string CMervoConfigProxy::getGuid() { return "29562e31-2c2b-4fb2-9108-144d91a56755"; }

// Runs the release while getGuid() still dispatches here; the base destructor then finds nothing loaded.
CMervoConfigProxy::~CMervoConfigProxy() { unloadLib(); }

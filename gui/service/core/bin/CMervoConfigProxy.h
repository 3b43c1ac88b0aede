// SPDX-License-Identifier: GPL-2.0-or-later
// The configuration proxy: loads lib/modules/libconfigproxy.so and forwards requests to its object.
#pragma once

#include <cstdint>
#include <string>

#include "IMervoConfig.h"
#include "Singleton.h"

class CMervoConfigProxyPrivate {
public:
    CMervoConfigProxyPrivate();
    virtual ~CMervoConfigProxyPrivate();
    CMervoConfigProxyPrivate(const CMervoConfigProxyPrivate&) = delete;
    CMervoConfigProxyPrivate& operator=(const CMervoConfigProxyPrivate&) = delete;

    // Forwards one request to the module's object; 13 when the module cannot be loaded.
    virtual int64_t invoke(int64_t op, int64_t key, int64_t value, int32_t size);
    virtual std::string getGuid() = 0;

    bool init(const std::string& dir);
    bool loadLib(const std::string& dir);
    void unloadLib();

protected:
    IMervoConfig* m_CfgImpl;
    void* m_hModule;
    std::string m_strLibPath;
};

class CMervoConfigProxy : public CMervoConfigProxyPrivate, public config::SingletonAbstract<CMervoConfigProxy> {
    friend class config::SingletonAbstract<CMervoConfigProxy>;

public:
    std::string getGuid() override;

private:
    CMervoConfigProxy() = default;
    ~CMervoConfigProxy() override;
};

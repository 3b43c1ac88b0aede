// SPDX-License-Identifier: GPL-2.0-or-later
// The module's C entry points: one client manager per instance GUID.
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "FileUtils.h"
#include "ZellClient.h"

namespace {

constexpr size_t kMaxInstanceName = 128;

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<zell::ClientMgr>> instances;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

bool validName(const char* guid)
{
    if (guid == nullptr) {
        return false;
    }
    const size_t length = strnlen(guid, kMaxInstanceName + 1);
    return length > 0 && length <= kMaxInstanceName;
}

} // namespace

extern "C" {

// Null when the GUID text is missing or an instance of that GUID is alive.
__attribute__((visibility("default"))) IZellClientMgr* CreateInstance(const char* instanceGuid)
{
    if (!validName(instanceGuid)) {
        fprintf(stderr, "libZellClientMgr: CreateInstance needs an instance GUID\n");
        return nullptr;
    }
    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    auto& slot = reg.instances[instanceGuid];
    if (slot) {
        fprintf(stderr, "libZellClientMgr: instance %s exists already\n", kuv::escapeControl(instanceGuid).c_str());
        return nullptr;
    }
    try {
        slot = std::make_unique<zell::ClientMgr>(instanceGuid);
    } catch (const std::exception&) {
        reg.instances.erase(instanceGuid);
        return nullptr;
    }
    return slot.get();
}

// 0 when the instance was stopped, released and deleted; -1 for an unknown GUID/instance pair, or when
// called from one of the instance's own receivers (which cannot wait for themselves).
__attribute__((visibility("default"))) int DestoryInstance(const char* instanceGuid, IZellClientMgr* instance)
{
    if (!validName(instanceGuid) || instance == nullptr) {
        return -1;
    }
    std::unique_ptr<zell::ClientMgr> owned;
    {
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        auto found = reg.instances.find(instanceGuid);
        if (found == reg.instances.end() || found->second.get() != instance) {
            return -1;
        }
        if (found->second->onDispatchThread()) {
            return -1;
        }
        owned = std::move(found->second);
        reg.instances.erase(found);
    }
    owned->release();
    owned.reset();
    return 0;
}

} // extern "C"

// SPDX-License-Identifier: GPL-2.0-or-later
// Instance tag double: trylock answers what the test set; attributes are kept in memory.
#include <mutex>

#include "CGlobalTag.h"
#include "FakePlatform.h"
#include "ResetHook.h"

struct CGlobalTag::Impl {
    std::string name;
};

namespace {
std::mutex g_mutex;
int g_trylockResult = 1;
std::map<std::string, std::string> g_attributes;
int g_live = 0;

void resetTag()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_trylockResult = 1;
    g_attributes.clear();
}
fake::ResetHook g_hook(&resetTag);
} // namespace

CGlobalTag::TagConfig CGlobalTag::TagConfig::getUserConfig()
{
    TagConfig config;
    config.dir = "/fake/runtime/";
    return config;
}

CGlobalTag::CGlobalTag(const std::string& name, const TagConfig&) : m_impl(new Impl{name})
{
    fake::record("tag.create " + name);
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_live;
}

CGlobalTag::~CGlobalTag()
{
    fake::record("tag.destroy " + m_impl->name);
    std::lock_guard<std::mutex> lock(g_mutex);
    --g_live;
}

int CGlobalTag::trylock(bool wait) const
{
    fake::record(std::string("tag.trylock ") + (wait ? "true" : "false"));
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_trylockResult;
}

int CGlobalTag::setAttribute(const std::string& key, const std::string& value) const
{
    fake::record("tag.setAttribute " + key + "=" + value);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_attributes[key] = value;
    return 1;
}

bool CGlobalTag::isHeld(const std::string&, const TagConfig&)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_live > 0;
}

bool CGlobalTag::readAttributes(const std::string&, const TagConfig&, std::map<std::string, std::string>& attributes)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    attributes = g_attributes;
    return true;
}

namespace fake {
void setTagTrylockResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_trylockResult = result;
}
std::map<std::string, std::string> tagAttributes()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_attributes;
}
int tagLiveCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_live;
}
} // namespace fake

// SPDX-License-Identifier: GPL-2.0-or-later
// ConstConfig: directories from the environment or from where the executable lies.
#include "ConstConfig.h"

#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <utility>

#include "FileUtils.h"

namespace {
std::mutex g_mutex;
ConstConfig* g_instance = nullptr;

std::string withSlash(std::string dir)
{
    if (!dir.empty() && dir.back() != '/') {
        dir += '/';
    }
    return dir;
}
} // namespace

ConstConfig* ConstConfig::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        g_instance = new (std::nothrow) ConstConfig();
    }
    return g_instance;
}

void ConstConfig::UninitInstance()
{
    std::unique_ptr<ConstConfig> gone;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        gone.reset(std::exchange(g_instance, nullptr));
    }
}

std::string ConstConfig::getInstallDir()
{
    return kuv::installDir();
}

std::string ConstConfig::getUserPath(const std::string& installRelative)
{
    const std::string install = getInstallDir();
    return install.empty() ? std::string() : kuv::userStatePath(install + installRelative);
}

std::string ConstConfig::getConfigurationDir()
{
    const char* env = std::getenv("KUV_CONFIG_DIR");
    if (env != nullptr && env[0] != '\0') {
        return withSlash(env);
    }
    const std::string install = getInstallDir();
    return install.empty() ? std::string() : install + "etc/";
}

std::string ConstConfig::getClientVersion()
{
    const std::string install = getInstallDir();
    if (install.empty()) {
        return std::string();
    }
    std::ifstream in(install + "VERSION", std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        return std::string();
    }
    // A version is short; a huge first line is not one.
    std::string line;
    char c;
    while (line.size() < 4096 && in.get(c) && c != '\n') {
        line += c;
    }
    return CStr::trim(line);
}

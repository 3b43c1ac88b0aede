// SPDX-License-Identifier: GPL-2.0-or-later
// ConstConfig and ConfigModule doubles: directories and version set by the test.
#include <map>
#include <mutex>

#include "ConfigModule.h"
#include "ConstConfig.h"
#include "FakePlatform.h"
#include "ResetHook.h"

namespace {
std::mutex g_mutex;
std::string g_installDir = "/nonexistent/kuv/";
std::string g_configDir;
std::string g_version = "1.0.0";
int g_uninitCount = 0;
ConstConfig* g_instance = nullptr;

struct Settings {
    std::map<std::string, std::string> values; // "file|key" -> text
};
Settings g_settings;

void resetConfig()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_installDir = "/nonexistent/kuv/";
    g_configDir.clear();
    g_version = "1.0.0";
    g_uninitCount = 0;
    g_settings.values.clear();
}
fake::ResetHook g_hook(&resetConfig);
} // namespace

ConstConfig* ConstConfig::singleInstance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        g_instance = new ConstConfig;
    }
    return g_instance;
}

void ConstConfig::UninitInstance()
{
    fake::record("constconfig.uninit");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_uninitCount;
    delete g_instance;
    g_instance = nullptr;
}

std::string ConstConfig::getInstallDir()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_installDir;
}

std::string ConstConfig::getConfigurationDir()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_configDir.empty() ? g_installDir + "etc/" : g_configDir;
}

std::string ConstConfig::getClientVersion()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_version;
}

struct ConfigModule::Impl {};

namespace {
ConfigModule* g_module = nullptr;
}

ConfigModule::ConfigModule() : m_impl(new Impl) {}
ConfigModule::~ConfigModule() = default;

ConfigModule* ConfigModule::Instance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_module == nullptr) {
        g_module = new ConfigModule;
    }
    return g_module;
}

void ConfigModule::UninitInstance()
{
    fake::record("configmodule.uninit");
    std::lock_guard<std::mutex> lock(g_mutex);
    delete g_module;
    g_module = nullptr;
}

std::string ConfigModule::getString(const std::string& file, const std::string& key, const std::string& defaultValue)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = g_settings.values.find(file + "|" + key);
    return it == g_settings.values.end() ? defaultValue : it->second;
}

bool ConfigModule::getBool(const std::string& file, const std::string& key, bool defaultValue)
{
    const std::string text = getString(file, key, defaultValue ? "true" : "false");
    return text == "true";
}

int ConfigModule::getInt(const std::string& file, const std::string& key, int defaultValue)
{
    return std::stoi(getString(file, key, std::to_string(defaultValue)));
}

bool ConfigModule::setString(const std::string& file, const std::string& key, const std::string& value)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_settings.values[file + "|" + key] = value;
    return true;
}

bool ConfigModule::setBool(const std::string& file, const std::string& key, bool value)
{
    return setString(file, key, value ? "true" : "false");
}

bool ConfigModule::setInt(const std::string& file, const std::string& key, int value)
{
    return setString(file, key, std::to_string(value));
}

namespace fake {
void setInstallDir(const std::string& dir)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_installDir = dir;
}
void setConfigurationDir(const std::string& dir)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_configDir = dir;
}
void setClientVersion(const std::string& version)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_version = version;
}
int constConfigUninitCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_uninitCount;
}
} // namespace fake

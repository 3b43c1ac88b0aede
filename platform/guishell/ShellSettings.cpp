#include "ShellSettings.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <vector>

#include "CLogDebug.h"
#include "ConfigModule.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"

namespace {

const char* const kSource = "platform/guishell/ShellSettings";

// ConfigModule is shared with the service; the shell serialises its own reads and writes.
std::mutex g_settingsMutex;
std::mutex g_journalMutex;
std::mutex g_languageMutex;
std::string g_language;

} // namespace

namespace kuv {
namespace shell {

bool stopBackendOnQuit()
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    return ConfigModule::Instance()->getBool(kShellConfFile, kStopBackendKey, false);
}

bool setStopBackendOnQuit(bool stop)
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    const bool ok = ConfigModule::Instance()->setBool(kShellConfFile, kStopBackendKey, stop);
    if (!ok) {
        CLogDebug::Instance()->LogPrint(LOG_LEVEL_ERROR, kSource, __func__, __LINE__,
                                        "cannot save %s in %s", kStopBackendKey, kShellConfFile);
    }
    return ok;
}

std::string effectiveLanguage()
{
    std::string fromFile;
    {
        std::lock_guard<std::mutex> lock(g_settingsMutex);
        fromFile = ConfigModule::Instance()->getString(kShellConfFile, kLanguageKey, "");
    }
    if (!fromFile.empty()) {
        return fromFile;
    }
    const std::string set = requestedLanguage();
    return set.empty() ? std::string("en") : set;
}

bool setLanguageSetting(const std::string& language)
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    const bool ok = ConfigModule::Instance()->setString(kShellConfFile, kLanguageKey, language);
    if (!ok) {
        CLogDebug::Instance()->LogPrint(LOG_LEVEL_ERROR, kSource, __func__, __LINE__,
                                        "cannot save %s in %s", kLanguageKey, kShellConfFile);
    }
    return ok;
}

void setRequestedLanguage(const std::string& language)
{
    std::lock_guard<std::mutex> lock(g_languageMutex);
    g_language = language;
}

std::string requestedLanguage()
{
    std::lock_guard<std::mutex> lock(g_languageMutex);
    return g_language;
}

std::string shellConfPath()
{
    return ConstConfig::singleInstance()->getConfigurationDir() + kShellConfFile;
}

void journal(const Json::Value& record)
{
    const char* path = std::getenv("KUV_SHELL_JOURNAL");
    if (path == nullptr || *path == '\0') {
        return;
    }
    // Keys in the documented order ("event", "code", then the rest), not JsonCpp's sorted order, so
    // a journal line reads exactly as the seam describes it.
    std::string line = "{";
    std::vector<std::string> keys = record.getMemberNames();
    std::stable_sort(keys.begin(), keys.end(), [](const std::string& a, const std::string& b) {
        auto rank = [](const std::string& k) { return k == "event" ? 0 : k == "code" ? 1 : 2; };
        return rank(a) < rank(b);
    });
    for (const std::string& key : keys) {
        std::string value;
        if (!CppJson::WriteJsonToString(record[key], value, true)) {
            return;
        }
        if (line.size() > 1) {
            line += ',';
        }
        line += Json::valueToQuotedString(key.c_str()) + ":" + value;
    }
    line += '}';
    std::lock_guard<std::mutex> lock(g_journalMutex);
    std::ofstream out(path, std::ios::out | std::ios::app | std::ios::binary);
    if (!out) {
        CLogDebug::Instance()->LogPrint(LOG_LEVEL_WARN, kSource, __func__, __LINE__, "cannot open journal %s",
                                        path);
        return;
    }
    out << line << '\n';
    out.flush();
}

} // namespace shell
} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
#include "ShellSettings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <vector>

#include <QDir>
#include <QLocale>
#include <QString>

#include "KuvLog.h"
#include "ConfigModule.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"

namespace {

KUV_LOG_SOURCE("platform/guishell/ShellSettings");

// ConfigModule is shared with the service; the shell serialises its own reads and writes.
std::mutex g_settingsMutex;
std::mutex g_journalMutex;
std::mutex g_languageMutex;
std::string g_language;

std::string envValue(const char* name)
{
    const char* v = std::getenv(name);
    return v != nullptr ? std::string(v) : std::string();
}

// key from the user's own file, when that file has it. Caller holds g_settingsMutex.
bool userValue(const std::string& key, Json::Value& out)
{
    const std::string path = kuv::shell::shellConfPath();
    if (path.empty()) {
        return false;
    }
    Json::Value root;
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !CppJson::LoadJsonFile(path.c_str(), root) || !root.isObject() ||
        !root.isMember(key)) {
        return false;
    }
    out = root[key];
    return true;
}

bool settingBool(const char* key, bool defaultValue)
{
    Json::Value v;
    if (userValue(key, v) && v.isBool()) {
        return v.asBool();
    }
    return ConfigModule::Instance()->getBool(kuv::shell::kShellConfFile, key, defaultValue);
}

std::string settingString(const char* key)
{
    Json::Value v;
    if (userValue(key, v) && v.isString()) {
        return v.asString();
    }
    return ConfigModule::Instance()->getString(kuv::shell::kShellConfFile, key, "");
}

// Writes key into the user's file (created 0600 in a 0700 directory); a null value removes it.
bool saveSetting(const char* key, const Json::Value& value)
{
    const std::string path = kuv::shell::shellConfPath();
    if (path.empty()) {
        return false;
    }
    Json::Value root(Json::objectValue);
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        // A damaged file is left for a person to look at rather than silently replaced.
        if (!CppJson::LoadJsonFile(path.c_str(), root) || !root.isObject()) {
            return false;
        }
    }
    if (value.isNull()) {
        root.removeMember(key);
    } else {
        root[key] = value;
    }
    std::string text;
    if (!CppJson::WriteJsonToString(root, text, false)) {
        return false;
    }
    text += '\n';
    const std::string dir = path.substr(0, path.rfind('/'));
    return CDir::mkpath(dir, 0700) && kuv::writeFileAtomic(path, text, 0600);
}

// "zh_CN.UTF-8@latin" -> "zh_CN".
std::string localeName(const std::string& value)
{
    return value.substr(0, value.find_first_of(".@"));
}

bool englishLocale(const std::string& name)
{
    return name == "C" || name == "POSIX" || name == "en" || name.rfind("en_", 0) == 0;
}

// The interface catalogs are compiled in as ":/kuvgui/i18n/<module>_<locale>.qm".
std::string catalogLanguage(const std::string& name)
{
    if (name.empty()) {
        return std::string();
    }
    const QString suffix = QLocale(QString::fromStdString(name)).name();
    // QLocale maps what it does not know to "C".
    if (suffix == QLatin1String("C")) {
        return std::string();
    }
    const QDir dir(QStringLiteral(":/kuvgui/i18n"));
    // "*_<suffix>.qm" by hand: a QDir name filter compiles a regular expression.
    const QString ending = QStringLiteral("_") + suffix + QStringLiteral(".qm");
    const QStringList names = dir.entryList(QDir::Files);
    if (std::none_of(names.begin(), names.end(),
                     [&ending](const QString& n) { return n.endsWith(ending, Qt::CaseInsensitive); })) {
        return std::string();
    }
    return QString(suffix).replace(QLatin1Char('_'), QLatin1Char('-')).toStdString();
}

} // namespace

namespace kuv {
namespace shell {

bool stopBackendOnQuit()
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    return settingBool(kStopBackendKey, false);
}

bool setStopBackendOnQuit(bool stop)
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    const bool ok = saveSetting(kStopBackendKey, Json::Value(stop));
    if (!ok) {
        KUV_LOG(kuv::LogLevel::Error, "cannot save %s in %s", kStopBackendKey, kShellConfFile);
    }
    return ok;
}

std::string localeLanguage()
{
    // As gettext reads them: LC_ALL, else LC_MESSAGES, else LANG names the locale; LANGUAGE, a list
    // of preferences, counts only when that locale is not C.
    std::string locale;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        locale = envValue(name);
        if (!locale.empty()) {
            break;
        }
    }
    const std::string base = localeName(locale);
    if (base.empty() || base == "C" || base == "POSIX") {
        return base.empty() ? std::string() : std::string("en");
    }
    std::vector<std::string> wanted;
    const std::string list = envValue("LANGUAGE");
    for (size_t pos = 0; pos <= list.size();) {
        const size_t colon = list.find(':', pos);
        const std::string item = list.substr(pos, colon == std::string::npos ? std::string::npos : colon - pos);
        if (!item.empty()) {
            wanted.push_back(localeName(item));
        }
        if (colon == std::string::npos) {
            break;
        }
        pos = colon + 1;
    }
    wanted.push_back(base);
    for (const std::string& name : wanted) {
        if (englishLocale(name)) {
            return "en";
        }
        const std::string language = catalogLanguage(name);
        if (!language.empty()) {
            return language;
        }
    }
    return std::string();
}

std::string languageSetting()
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    return settingString(kLanguageKey);
}

std::string effectiveLanguage()
{
    const std::string chosen = languageSetting();
    if (!chosen.empty()) {
        return chosen;
    }
    const std::string fromLocale = localeLanguage();
    if (!fromLocale.empty()) {
        return fromLocale;
    }
    const std::string set = requestedLanguage();
    return set.empty() ? std::string("en") : set;
}

bool setLanguageSetting(const std::string& language)
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    const bool ok = saveSetting(kLanguageKey, language.empty() ? Json::Value() : Json::Value(language));
    if (!ok) {
        KUV_LOG(kuv::LogLevel::Error, "cannot save %s in %s", kLanguageKey, kShellConfFile);
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
    std::string base = envValue("XDG_CONFIG_HOME");
    if (base.empty() || base.front() != '/') {
        const std::string home = envValue("HOME");
        if (home.empty() || home.front() != '/') {
            return std::string();
        }
        base = home + "/.config";
    }
    return base + "/kuv/" + kShellConfFile;
}

std::string installedShellConfPath()
{
    return ConstConfig::singleInstance()->getConfigurationDir() + kShellConfFile;
}

bool journalling()
{
    const char* path = std::getenv("KUV_SHELL_JOURNAL");
    return path != nullptr && *path != '\0';
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
        KUV_LOG(kuv::LogLevel::Warn, "cannot open journal %s",
                                        path);
        return;
    }
    out << line << '\n';
    out.flush();
}

} // namespace shell
} // namespace kuv

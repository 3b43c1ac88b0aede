// SPDX-License-Identifier: GPL-2.0-or-later
// ConfigModule: JSON objects in files under the configuration directory, cached by file identity.
#include "ConfigModule.h"

#include <sys/stat.h>

#include <climits>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "ConstConfig.h"
#include "CppJson.h"
#include "FileUtils.h"

namespace {

std::mutex g_mutex;
ConfigModule* g_instance = nullptr;

struct Stamp {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    long long mtimeNs = 0;
    bool operator==(const Stamp& o) const
    {
        return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs;
    }
};

struct Document {
    Stamp stamp;
    bool valid = false; // a JSON object (an absent file counts as an empty one)
    Json::Value root;
};

Stamp stampOf(const std::string& path)
{
    Stamp s;
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        s.exists = true;
        s.dev = st.st_dev;
        s.ino = st.st_ino;
        s.size = st.st_size;
        s.mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
    }
    return s;
}

// Only names below the configuration directory: no absolute path, no "..".
bool acceptableName(const std::string& file)
{
    if (file.empty() || file.front() == '/' || file.back() == '/') {
        return false;
    }
    size_t start = 0;
    while (start <= file.size()) {
        const size_t slash = file.find('/', start);
        const std::string part = file.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        if (slash == std::string::npos) {
            break;
        }
        start = slash + 1;
    }
    return kuv::escapeControl(file) == file;
}

} // namespace

struct ConfigModule::Impl {
    std::mutex mutex;
    std::map<std::string, Document> cache;

    static std::string pathOf(const std::string& file)
    {
        if (!acceptableName(file)) {
            return std::string();
        }
        ConstConfig* cc = ConstConfig::singleInstance();
        const std::string dir = cc != nullptr ? cc->getConfigurationDir() : std::string();
        return dir.empty() ? std::string() : dir + file;
    }

    // The current content, re-read when the file changed on disk. Caller holds the mutex.
    const Document& load(const std::string& path)
    {
        const Stamp stamp = stampOf(path);
        auto it = cache.find(path);
        if (it != cache.end() && it->second.stamp == stamp) {
            return it->second;
        }
        Document doc;
        doc.stamp = stamp;
        if (!stamp.exists) {
            doc.valid = true;
            doc.root = Json::Value(Json::objectValue);
        } else {
            Json::Value root;
            doc.valid = CppJson::LoadJsonFile(path.c_str(), root) && root.isObject();
            doc.root = doc.valid ? root : Json::Value(Json::objectValue);
        }
        return cache[path] = doc;
    }

    bool get(const std::string& file, const std::string& key, Json::Value& out)
    {
        const std::string path = pathOf(file);
        if (path.empty()) {
            return false;
        }
        std::lock_guard<std::mutex> lock(mutex);
        try {
            const Document& doc = load(path);
            if (!doc.valid || !doc.root.isMember(key)) {
                return false;
            }
            out = doc.root[key];
            return true;
        } catch (...) {
            return false;
        }
    }

    bool set(const std::string& file, const std::string& key, const Json::Value& value)
    {
        const std::string path = pathOf(file);
        if (path.empty()) {
            return false;
        }
        std::lock_guard<std::mutex> lock(mutex);
        try {
            Document doc = load(path);
            // A damaged file is left for a person to look at rather than silently replaced.
            if (!doc.valid) {
                return false;
            }
            doc.root[key] = value;
            std::string text;
            if (!CppJson::WriteJsonToString(doc.root, text, false)) {
                return false;
            }
            text += '\n';
            const std::string dir = std::filesystem::path(path).parent_path().string();
            if (!dir.empty() && dir != "/" && !CDir::mkpath(dir, 0755)) {
                return false;
            }
            if (!kuv::writeFileAtomic(path, text, 0644)) {
                return false;
            }
            doc.stamp = stampOf(path);
            cache[path] = doc;
            return true;
        } catch (...) {
            return false;
        }
    }
};

ConfigModule::ConfigModule() : m_impl(std::make_unique<Impl>()) {}

ConfigModule::~ConfigModule() = default;

ConfigModule* ConfigModule::Instance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        try {
            g_instance = new ConfigModule();
        } catch (...) {
            return nullptr;
        }
    }
    return g_instance;
}

void ConfigModule::UninitInstance()
{
    std::unique_ptr<ConfigModule> gone;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        gone.reset(std::exchange(g_instance, nullptr));
    }
}

bool ConfigModule::getBool(const std::string& file, const std::string& key, bool defaultValue)
{
    Json::Value v;
    return m_impl->get(file, key, v) && v.isBool() ? v.asBool() : defaultValue;
}

int ConfigModule::getInt(const std::string& file, const std::string& key, int defaultValue)
{
    Json::Value v;
    if (!m_impl->get(file, key, v) || !v.isIntegral()) {
        return defaultValue;
    }
    if (v.isInt()) {
        return v.asInt();
    }
    return defaultValue; // integral but beyond int
}

std::string ConfigModule::getString(const std::string& file, const std::string& key, const std::string& defaultValue)
{
    Json::Value v;
    return m_impl->get(file, key, v) && v.isString() ? v.asString() : defaultValue;
}

bool ConfigModule::setBool(const std::string& file, const std::string& key, bool value)
{
    return m_impl->set(file, key, Json::Value(value));
}

bool ConfigModule::setInt(const std::string& file, const std::string& key, int value)
{
    return m_impl->set(file, key, Json::Value(value));
}

bool ConfigModule::setString(const std::string& file, const std::string& key, const std::string& value)
{
    return m_impl->set(file, key, Json::Value(value));
}

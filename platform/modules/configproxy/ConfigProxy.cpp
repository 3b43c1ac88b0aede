// SPDX-License-Identifier: GPL-2.0-or-later
// libconfigproxy.so: one settings object per instance GUID, kept as text values by key in
// <configuration dir>/config/<guid>.json and rewritten atomically on every change.
#include <sys/stat.h>
#include <unistd.h>

#include <json/json.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "CppJson.h"
#include "FileUtils.h"
#include "IMervoConfig.h"

namespace {

constexpr size_t kMaxGuid = 64;
constexpr size_t kMaxKey = 1024;
constexpr size_t kMaxValue = 1024 * 1024;
constexpr size_t kMaxEntries = 10000;
constexpr size_t kMaxPath = 4096;
constexpr std::streamoff kMaxFile = 64 * 1024 * 1024;

void report(const std::string& text) { fprintf(stderr, "configproxy: %s\n", kuv::escapeControl(text).c_str()); }

bool validGuid(const char* guid)
{
    if (guid == nullptr) {
        return false;
    }
    const size_t length = strnlen(guid, kMaxGuid + 1);
    if (length == 0 || length > kMaxGuid) {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        const char c = guid[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-')) {
            return false;
        }
    }
    return true;
}

// Length of a NUL-terminated text up to limit; limit + 1 when longer.
size_t boundedLength(const char* text, size_t limit) { return strnlen(text, limit + 1); }

bool makeDir(const std::string& dir)
{
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode);
    }
    const size_t slash = dir.find_last_of('/', dir.size() > 1 ? dir.size() - 2 : 0);
    if (slash != std::string::npos && slash > 0) {
        if (!makeDir(dir.substr(0, slash))) {
            return false;
        }
    }
    return (::mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST) && ::stat(dir.c_str(), &st) == 0 &&
           S_ISDIR(st.st_mode);
}

std::string timestamp()
{
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof(text), "%Y%m%d-%H%M%S", &local);
    return text;
}

class Config final : public IMervoConfig {
public:
    Config(std::string dir, std::string file, std::string version)
        : m_dir(std::move(dir)), m_file(std::move(file)), m_version(std::move(version))
    {
    }
    virtual ~Config() = default;

    void load();
    const std::string& file() const { return m_file; }

    int getString(const char* key, char* value, int size) override;
    int setString(const char* key, const char* value) override;
    int removeKey(const char* key) override;
    int save() override;
    int64_t request(int64_t op, int64_t key, int64_t value, int size) override;

private:
    int sizeOf(const char* key, int64_t* out);
    int persistLocked();
    void setAside(const std::string& why);
    static bool validKey(const char* key) { return key != nullptr && key[0] != '\0' && boundedLength(key, kMaxKey) <= kMaxKey; }

    std::mutex m_mutex;
    const std::string m_dir;
    const std::string m_file;
    const std::string m_version;
    std::map<std::string, std::string> m_values;
    bool m_reportedWriteFailure = false;
};

void Config::setAside(const std::string& why)
{
    std::string aside = m_file + ".corrupt-" + timestamp();
    for (int n = 1; ::access(aside.c_str(), F_OK) == 0 && n < 100; ++n) {
        aside = m_file + ".corrupt-" + timestamp() + "-" + std::to_string(n);
    }
    if (::rename(m_file.c_str(), aside.c_str()) == 0) {
        report(m_file + " is not a valid settings file (" + why + "); kept as " + aside + ", starting from defaults");
    } else {
        report(m_file + " is not a valid settings file (" + why + ") and could not be moved aside (" +
               strerror(errno) + "); starting from defaults");
    }
}

void Config::load()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_values.clear();
    struct stat st;
    if (::stat(m_file.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            report("cannot read " + m_file + ": " + strerror(errno) + "; starting from defaults");
        }
        return; // no file yet: defaults
    }
    if (!S_ISREG(st.st_mode)) {
        report(m_file + " is not a regular file; starting from defaults");
        return;
    }
    std::ifstream in(m_file, std::ios::binary);
    if (!in) {
        report("cannot read " + m_file + "; starting from defaults");
        return;
    }
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size < 0 || size > kMaxFile) {
        in.close();
        setAside("larger than 64 MiB");
        return;
    }
    std::string text(static_cast<size_t>(size), '\0');
    if (size > 0 && !in.read(&text[0], size)) {
        report("cannot read " + m_file + "; starting from defaults");
        return;
    }
    in.close();

    Json::Value root;
    std::string why;
    if (!kuv::parseJsonStrict(text.data(), text.data() + text.size(), root, why, true)) {
        while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) {
            why.pop_back();
        }
        setAside("not JSON: " + why);
        return;
    }
    if (!root.isObject() || (root.isMember("settings") && !root["settings"].isObject())) {
        setAside("no settings object");
        return;
    }
    const Json::Value& settings = root["settings"];
    for (const std::string& key : settings.getMemberNames()) {
        const Json::Value& value = settings[key];
        if (!value.isString() || key.empty() || key.size() > kMaxKey || value.asString().size() > kMaxValue ||
            m_values.size() >= kMaxEntries) {
            report("ignoring the entry \"" + key + "\" of " + m_file + ": not a text value within the limits");
            continue;
        }
        m_values[key] = value.asString();
    }
}

int Config::persistLocked()
{
    Json::Value root(Json::objectValue);
    root["version"] = m_version;
    Json::Value settings(Json::objectValue);
    for (const auto& entry : m_values) {
        settings[entry.first] = entry.second;
    }
    root["settings"] = settings;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    std::string text;
    try {
        text = Json::writeString(writer, root) + "\n";
    } catch (const std::exception& e) {
        report(std::string("cannot serialise the settings: ") + e.what());
        return CFG_IO_ERROR;
    }
    if (!makeDir(m_dir) || !kuv::writeFileAtomic(m_file, text, 0600)) {
        if (!m_reportedWriteFailure) {
            report("cannot write " + m_file + ": " + strerror(errno) + "; changes are kept in memory only");
            m_reportedWriteFailure = true;
        }
        return CFG_IO_ERROR;
    }
    m_reportedWriteFailure = false;
    return CFG_OK;
}

int Config::getString(const char* key, char* value, int size)
{
    if (!validKey(key) || value == nullptr || size <= 0) {
        return CFG_BAD_ARGUMENT;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_values.find(key);
    if (found == m_values.end()) {
        value[0] = '\0';
        return CFG_NOT_FOUND;
    }
    if (found->second.size() + 1 > static_cast<size_t>(size)) {
        value[0] = '\0';
        return CFG_BUFFER_TOO_SMALL;
    }
    memcpy(value, found->second.c_str(), found->second.size() + 1);
    return CFG_OK;
}

int Config::sizeOf(const char* key, int64_t* out)
{
    if (!validKey(key) || out == nullptr) {
        return CFG_BAD_ARGUMENT;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_values.find(key);
    if (found == m_values.end()) {
        return CFG_NOT_FOUND;
    }
    *out = static_cast<int64_t>(found->second.size() + 1);
    return CFG_OK;
}

int Config::setString(const char* key, const char* value)
{
    if (!validKey(key) || value == nullptr || boundedLength(value, kMaxValue) > kMaxValue) {
        return CFG_BAD_ARGUMENT;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_values.find(key);
    if (found == m_values.end() && m_values.size() >= kMaxEntries) {
        return CFG_BAD_ARGUMENT;
    }
    if (found != m_values.end() && found->second == value) {
        return CFG_OK;
    }
    m_values[key] = value;
    return persistLocked();
}

int Config::removeKey(const char* key)
{
    if (!validKey(key)) {
        return CFG_BAD_ARGUMENT;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_values.erase(key) == 0) {
        return CFG_NOT_FOUND;
    }
    return persistLocked();
}

int Config::save()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return persistLocked();
}

int64_t Config::request(int64_t op, int64_t key, int64_t value, int size)
{
    const char* keyText = reinterpret_cast<const char*>(key);
    switch (op) {
    case CFG_OP_GET: return getString(keyText, reinterpret_cast<char*>(value), size);
    case CFG_OP_SET: return setString(keyText, reinterpret_cast<const char*>(value));
    case CFG_OP_REMOVE: return removeKey(keyText);
    case CFG_OP_SAVE: return save();
    case CFG_OP_SIZE: return sizeOf(keyText, reinterpret_cast<int64_t*>(value));
    default: return CFG_UNKNOWN_OP;
    }
}

struct Entry {
    std::unique_ptr<Config> config;
    int references = 0;
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, Entry> objects;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

// Where the settings of this installation live, with a final "/".
std::string configurationDir(const std::string& path)
{
    const char* env = getenv("KUV_CONFIG_DIR");
    std::string dir = env != nullptr && *env != '\0' ? std::string(env) : path + "etc/";
    if (dir.back() != '/') {
        dir += '/';
    }
    return dir + "config/";
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) IMervoConfig* CFGCreateInstance(const char* guid, sCfgCreateParas* paras)
{
    if (!validGuid(guid)) {
        report("CFGCreateInstance: malformed instance GUID");
        return nullptr;
    }
    if (paras == nullptr || paras->path == nullptr || paras->path[0] == '\0' ||
        boundedLength(paras->path, kMaxPath) > kMaxPath) {
        report("CFGCreateInstance: no directory given");
        return nullptr;
    }
    std::string path = paras->path;
    if (path.back() != '/') {
        path += '/';
    }
    const std::string version = paras->version != nullptr ? std::string(paras->version, strnlen(paras->version, 64))
                                                          : std::string("1.0.0");
    const std::string dir = configurationDir(path);
    const std::string file = dir + guid + ".json";

    Registry& reg = registry();
    std::lock_guard<std::mutex> lock(reg.mutex);
    auto found = reg.objects.find(guid);
    if (found != reg.objects.end()) {
        if (found->second.config->file() != file) {
            report(std::string("CFGCreateInstance: ") + guid + " is open with another directory");
            return nullptr;
        }
        ++found->second.references;
        return found->second.config.get();
    }
    Entry entry;
    try {
        entry.config = std::make_unique<Config>(dir, file, version);
        entry.config->load();
    } catch (const std::exception& e) {
        report(std::string("CFGCreateInstance: ") + e.what());
        return nullptr;
    }
    entry.references = 1;
    IMervoConfig* object = entry.config.get();
    reg.objects.emplace(guid, std::move(entry));
    return object;
}

__attribute__((visibility("default"))) void CFGRelease(const char* guid)
{
    if (!validGuid(guid)) {
        return;
    }
    std::unique_ptr<Config> gone;
    {
        Registry& reg = registry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        auto found = reg.objects.find(guid);
        if (found == reg.objects.end()) {
            return;
        }
        if (--found->second.references > 0) {
            return;
        }
        gone = std::move(found->second.config);
        reg.objects.erase(found);
    }
    // Every change is on disk already; nothing to flush.
}

} // extern "C"

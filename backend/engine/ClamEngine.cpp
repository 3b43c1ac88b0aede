// SPDX-License-Identifier: GPL-2.0-or-later
#include "ClamEngine.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <mutex>

#include <clamav.h>

namespace kuv {
namespace scan {

namespace {

// libclamav reports load failures only through its message callback; the text explains more than
// cl_strerror does, so the loading thread keeps the last one.
thread_local std::string t_lastClamMessage;
std::mutex g_sinkMutex;
ClamLogSink g_sink;

void clamMessage(enum cl_msg severity, const char* fullmsg, const char* msg, void*)
{
    std::string text = msg != nullptr ? msg : (fullmsg != nullptr ? fullmsg : "");
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    if (severity == CL_MSG_ERROR && t_lastClamMessage.size() < 512) {
        t_lastClamMessage += (t_lastClamMessage.empty() ? "" : "; ") + text;
    }
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    if (g_sink) {
        g_sink(severity == CL_MSG_ERROR ? kuv::LogLevel::Error
                                        : (severity == CL_MSG_WARN ? kuv::LogLevel::Warn : kuv::LogLevel::Debug),
               text);
    }
}

std::once_flag g_initOnce;
cl_error_t g_initResult = CL_SUCCESS;

bool initClamav(std::string& error)
{
    std::call_once(g_initOnce, [] {
        cl_set_clcb_msg(&clamMessage);
        g_initResult = cl_init(CL_INIT_DEFAULT);
    });
    if (g_initResult != CL_SUCCESS) {
        error = std::string("libclamav cannot start: ") + cl_strerror(g_initResult);
        return false;
    }
    return true;
}

struct PreScanContext {
    const std::atomic<bool>* cancel;
};

// Called before every file libclamav looks at, archive members included: the point where a cancel
// takes effect inside a large archive.
cl_error_t preScan(int, const char*, void* context)
{
    const auto* ctx = static_cast<const PreScanContext*>(context);
    if (ctx != nullptr && ctx->cancel != nullptr && ctx->cancel->load(std::memory_order_relaxed)) {
        return CL_BREAK;
    }
    return CL_CLEAN;
}

bool endsWith(const std::string& text, const char* suffix)
{
    const size_t n = strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

// The database files in dir, by name; none when it cannot be read.
std::vector<std::string> sortedEntries(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (ClamEngine::isDatabaseFile(name)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

void applyLimits(cl_engine* engine, const ClamSettings& settings)
{
    cl_engine_set_num(engine, CL_ENGINE_MAX_FILESIZE, static_cast<long long>(settings.maxFileSize));
    cl_engine_set_num(engine, CL_ENGINE_MAX_SCANSIZE, static_cast<long long>(settings.maxScanSize));
    cl_engine_set_num(engine, CL_ENGINE_MAX_RECURSION, settings.maxRecursion);
    cl_engine_set_num(engine, CL_ENGINE_MAX_FILES, settings.maxFiles);
    cl_engine_set_num(engine, CL_ENGINE_MAX_SCANTIME, settings.maxScanTimeMs);
    cl_engine_set_clcb_pre_scan(engine, &preScan);
}

// Why libclamav refused what, with its own last error message when it gave one.
std::string clamError(const std::string& what, cl_error_t rc)
{
    return what + cl_strerror(rc) + (t_lastClamMessage.empty() ? "" : " (" + t_lastClamMessage + ")");
}

// The newest file time, and the daily database's version, of the loaded database file path (named name).
void noteDatabase(const std::string& path, const std::string& name, std::string& dbVersion, int64_t& dbTime)
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        dbTime = std::max<int64_t>(dbTime, st.st_mtime);
    }
    if (!endsWith(name, ".cvd") && !endsWith(name, ".cld")) {
        return;
    }
    if (cl_cvd* head = cl_cvdhead(path.c_str())) {
        if (name.rfind("daily.", 0) == 0) {
            dbVersion = std::to_string(head->version);
        }
        dbTime = std::max<int64_t>(dbTime, head->stime);
        cl_cvdfree(head);
    }
}

std::string withSlash(std::string dir)
{
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

} // namespace

void setClamLogSink(ClamLogSink sink)
{
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    g_sink = std::move(sink);
}

struct ClamEngine::Loaded {
    cl_engine* engine = nullptr;
    uint64_t signatures = 0;
    std::string dbVersion;
    int64_t dbTime = 0;
    ~Loaded()
    {
        if (engine != nullptr) {
            cl_engine_free(engine);
        }
    }
};

ClamEngine::ClamEngine(ClamSettings settings) : m_settings(std::move(settings)) {}

ClamEngine::~ClamEngine() = default;

bool ClamEngine::isDatabaseFile(const std::string& name)
{
    static const char* const kExtensions[] = {".cvd", ".cld", ".cud", ".hdb", ".hsb", ".hdu", ".hsu", ".mdb",
                                              ".msb", ".mdu", ".msu", ".ndb", ".ndu", ".ldb", ".ldu", ".idb",
                                              ".cdb", ".crb", ".cat", ".cbc", ".pdb", ".gdb", ".wdb", ".ftm",
                                              ".ign", ".ign2", ".fp", ".sfp", ".yar", ".yara", ".pwdb"};
    if (name.empty() || name[0] == '.') {
        return false; // hidden and temporary files of an update in progress
    }
    for (const char* ext : kExtensions) {
        if (endsWith(name, ext)) {
            return true;
        }
    }
    return false;
}

std::string ClamEngine::limitFromVirusName(const std::string& name)
{
    static const std::string kPrefix = "Heuristics.Limits.Exceeded.";
    if (name.compare(0, kPrefix.size(), kPrefix) != 0 || name.size() == kPrefix.size()) {
        return std::string();
    }
    return name.substr(kPrefix.size());
}

std::vector<std::string> ClamEngine::watchDirs() const
{
    std::vector<std::string> dirs;
    for (const std::string& dir : m_settings.dbDirs) {
        struct stat st;
        if (::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            dirs.push_back(dir);
        }
    }
    return dirs;
}

bool ClamEngine::reload()
{
    std::lock_guard<std::mutex> reloading(m_reloadMutex);
    const bool first = current() == nullptr;
    auto loaded = std::make_shared<Loaded>();
    loaded->engine = cl_engine_new();
    std::string problems;
    auto fail = [&](const std::string& why) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_dbError = why;
        return false;
    };
    if (loaded->engine == nullptr) {
        return fail("libclamav could not create an engine");
    }
    applyLimits(loaded->engine, m_settings);

    unsigned int signatures = 0;
    int files = 0;
    for (const std::string& rawDir : m_settings.dbDirs) {
        const std::string dir = withSlash(rawDir);
        for (const std::string& name : sortedEntries(dir)) {
            const std::string path = dir + name;
            t_lastClamMessage.clear();
            const cl_error_t rc = cl_load(path.c_str(), loaded->engine, &signatures, CL_DB_STDOPT);
            if (rc != CL_SUCCESS) {
                const std::string why = clamError(path + ": ", rc);
                if (!first) {
                    return fail(why); // the running engine stays
                }
                problems += (problems.empty() ? "" : "; ") + why;
                continue;
            }
            ++files;
            noteDatabase(path, name, loaded->dbVersion, loaded->dbTime);
        }
    }
    if (files == 0) {
        return fail(problems.empty() ? std::string("no signature database found") : problems);
    }
    t_lastClamMessage.clear();
    const cl_error_t compiled = cl_engine_compile(loaded->engine);
    if (compiled != CL_SUCCESS) {
        return fail(clamError("the databases do not compile: ", compiled));
    }
    loaded->signatures = signatures;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loaded = std::move(loaded); // the old engine goes with the last scan that holds it
    m_dbError = problems;
    return true;
}

bool ClamEngine::ready() const { return current() != nullptr; }

std::shared_ptr<const ClamEngine::Loaded> ClamEngine::current() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_loaded;
}

ScanResult ClamEngine::scanFd(int fd, const std::string& path, const ScanLimits& limits,
                              const std::atomic<bool>* cancel)
{
    ScanResult result;
    const std::shared_ptr<const Loaded> loaded = current();
    if (loaded == nullptr) {
        result.reason = "engine: no signature database is loaded";
        return result;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        result.reason = std::string("engine: ") + strerror(errno);
        return result;
    }
    // libclamav passes over a file above its size limit in silence; here that is never "clean".
    const uint64_t maxSize = limits.maxFileSize != 0 ? std::min(limits.maxFileSize, m_settings.maxFileSize)
                                                     : m_settings.maxFileSize;
    if (maxSize != 0 && static_cast<uint64_t>(st.st_size) > maxSize) {
        result.verdict = Verdict::Partial;
        result.reason = "not fully scanned: MaxFileSize";
        return result;
    }
    cl_scan_options options{};
    options.general = CL_SCAN_GENERAL_HEURISTICS;
    options.parse = ~0u;
    if (!limits.scanArchives) {
        options.parse &= ~static_cast<uint32_t>(CL_SCAN_PARSE_ARCHIVE);
    }
    // Only the limit alerts: a file cut short must not pass for clean.
    options.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;
    PreScanContext context{cancel};
    const char* virusName = nullptr;
    unsigned long scanned = 0;
    const cl_error_t rc =
        cl_scandesc_callback(fd, path.c_str(), &virusName, &scanned, loaded->engine, &options, &context);
    if (cancel != nullptr && cancel->load()) {
        result.reason = "cancelled";
        return result;
    }
    result.bytesScanned = static_cast<uint64_t>(st.st_size);
    if (rc == CL_VIRUS) {
        const std::string name = virusName != nullptr ? virusName : "unknown";
        const std::string limit = limitFromVirusName(name);
        if (!limit.empty()) {
            result.verdict = Verdict::Partial;
            result.reason = "not fully scanned: " + limit;
        } else {
            result.verdict = Verdict::Infected;
            result.signature = name;
        }
    } else if (rc == CL_CLEAN || rc == CL_BREAK) {
        result.verdict = Verdict::Clean;
    } else {
        result.reason = std::string("engine: ") + cl_strerror(rc);
    }
    return result;
}

EngineInfo ClamEngine::info() const
{
    EngineInfo info;
    info.engine = "libclamav";
    info.engineVersion = cl_retver();
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_loaded != nullptr) {
        info.dbVersion = m_loaded->dbVersion;
        info.signatures = m_loaded->signatures;
        info.dbTime = m_loaded->dbTime;
    }
    info.dbError = m_dbError;
    return info;
}

std::unique_ptr<ClamEngine> makeClamEngine(const ClamSettings& settings, std::string& error)
{
    if (!initClamav(error)) {
        return nullptr;
    }
    return std::make_unique<ClamEngine>(settings);
}

} // namespace scan
} // namespace kuv

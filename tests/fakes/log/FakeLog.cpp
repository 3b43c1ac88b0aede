// SPDX-License-Identifier: GPL-2.0-or-later
// Log double: formats like the real log and keeps every record in memory.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "CLogDebug.h"
#include "FakePlatform.h"
#include "ResetHook.h"

struct CLogDebug::Impl {
    int level = 0;
};

namespace {
std::mutex g_mutex;
std::vector<fake::LogLine> g_lines;
std::vector<std::pair<std::string, std::string>> g_properties; // log, "code=value"
int g_closeCount = 0;
CLogDebug* g_instance = nullptr;
// Names given by LogInit, kept outside the object because LogInit cannot reach its members.
std::map<const CLogDebug*, std::string> g_names;

std::string nameOf(const CLogDebug* log)
{
    auto it = g_names.find(log);
    return it == g_names.end() ? std::string() : it->second;
}

void resetLogState()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
    g_properties.clear();
    g_closeCount = 0;
    delete g_instance;
    g_instance = nullptr;
    g_names.clear();
}
fake::ResetHook g_hook(&resetLogState);

void store(const CLogDebug* log, int level, const char* file, const char* function, unsigned int line,
           const std::string& message)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({nameOf(log), level, file ? file : "", function ? function : "", line, message});
}
} // namespace

CLogDebug::CLogDebug() : m_impl(new Impl) {}
CLogDebug::~CLogDebug() = default;

CLogDebug* CLogDebug::Instance()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_instance == nullptr) {
        g_instance = new CLogDebug;
    }
    return g_instance;
}

void CLogDebug::Close()
{
    fake::record("log.close");
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_closeCount;
}

int CLogDebug::SetProperty(_LOG_PROPERTY property, const char* value)
{
    const std::string text = value ? value : "";
    const std::string entry = std::to_string(static_cast<int>(property)) + "=" + text;
    if (property == LOG_PROPERTY_LEVEL) {
        m_impl->level = atoi(text.c_str());
    }
    std::string name;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        name = nameOf(this);
        g_properties.emplace_back(name, entry);
    }
    fake::record("log.set " + (name.empty() ? std::string() : name + " ") + entry);
    return 1;
}

bool CLogDebug::CheckLogLevel(_LOG_LEVEL level, int) { return static_cast<int>(level) >= m_impl->level; }

int CLogDebug::LogPrintV(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                         const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    const int size = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (size < 0) {
        return 0;
    }
    std::string message(static_cast<size_t>(size) + 1, '\0');
    vsnprintf(&message[0], message.size(), format, args);
    message.resize(static_cast<size_t>(size));
    store(this, level, file, function, line, message);
    return size;
}

int CLogDebug::LogPrint(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                        const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int rc = LogPrintV(level, file, function, line, format, args);
    va_end(args);
    return rc;
}

int CLogDebug::LogPrintStr(_LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                           const char* text)
{
    const std::string message = text ? text : "";
    store(this, level, file, function, line, message);
    return static_cast<int>(message.size());
}

void CLogDebug::Flush() {}

CLogDebug* LogInit(const char* name)
{
    auto* log = new CLogDebug;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_names[log] = name ? name : "";
    }
    fake::record(std::string("log.init ") + (name ? name : ""));
    return log;
}

void LogUninit(CLogDebug* log)
{
    fake::record("log.uninit");
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_names.erase(log);
    }
    delete log;
}

int LogPrintStrEx(CLogDebug* log, _LOG_LEVEL level, const char* file, const char* function, unsigned int line,
                  const char* text)
{
    if (log == nullptr) {
        return 0;
    }
    return log->LogPrintStr(level, file, function, line, text);
}

namespace fake {

std::vector<LogLine> logLines()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

std::vector<std::string> logMessages(const std::string& log)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> out;
    for (const auto& l : g_lines) {
        if (l.log == log) {
            out.push_back(l.message);
        }
    }
    return out;
}

bool logContains(const std::string& message, int level, const std::string& log)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const auto& l : g_lines) {
        if (l.log == log && l.message == message && (level < 0 || l.level == level)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> logProperties(const std::string& log)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> out;
    for (const auto& p : g_properties) {
        if (p.first == log) {
            out.push_back(p.second);
        }
    }
    return out;
}

int logCloseCount()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_closeCount;
}

void resetLog() { resetLogState(); }

} // namespace fake

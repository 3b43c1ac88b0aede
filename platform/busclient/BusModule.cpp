#include "BusModule.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include <json/json.h>

#include "ConstConfig.h"

namespace kuv {

namespace {

// ThreadSanitizer aborts when a library it was told to ignore (libzmq, below the module) is unloaded,
// so its builds keep the module mapped after close.
#if defined(__SANITIZE_THREAD__)
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL;
#endif

// The callback carries no context: the line goes to the module being opened on this thread (init logs
// its refusals before it returns), so lines of the module's own threads never race with lastError().
thread_local std::string* t_lastError = nullptr;

void keepError(int level, const char* text)
{
    if (level <= 0 && t_lastError != nullptr && text != nullptr) {
        *t_lastError = text;
    }
}

void quietLog(int level, const char* text, int) { keepError(level, text); }

void verboseLog(int level, const char* text, int)
{
    keepError(level, text);
    static const char* const names[] = {"error", "warning", "info", "debug", "trace"};
    fprintf(stderr, "bus %s: %s\n", names[level < 0 ? 0 : (level > 4 ? 4 : level)], text);
}

} // namespace

std::string BusModule::modulePath() { return ConstConfig::singleInstance()->getInstallDir() + "lib/modules/libZellClientMgr.so"; }

bool BusModule::open(const std::string& socketAddr, bool verbose, std::string& error, const std::string& name)
{
    const std::string path = modulePath();
    m_handle = dlopen(path.c_str(), kOpenFlags);
    if (m_handle == nullptr) {
        const char* why = dlerror();
        error = "cannot load the bus module " + path + ": " + (why != nullptr ? why : "unknown error");
        return false;
    }
    auto create = reinterpret_cast<PFN_CreateInstance>(dlsym(m_handle, "CreateInstance"));
    m_destroy = reinterpret_cast<PFN_DestoryInstance>(dlsym(m_handle, "DestoryInstance"));
    if (create == nullptr || m_destroy == nullptr) {
        error = path + " does not export CreateInstance and DestoryInstance";
        return false;
    }
    m_instance = name + "-" + std::to_string(getpid());
    m_mgr = create(m_instance.c_str());
    if (m_mgr == nullptr) {
        error = "the bus module refused to create a client";
        return false;
    }
    m_mgr->setLogCallback(verbose ? &verboseLog : &quietLog);
    Json::Value settings(Json::objectValue);
    settings["socket_addr"] = socketAddr;
    settings["thread_nums"] = 1;
    settings["log_level"] = verbose ? 4 : 0;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    const std::string text = Json::writeString(writer, settings);
    m_lastError.clear();
    t_lastError = &m_lastError;
    const int rc = m_mgr->init(text.c_str(), name.c_str());
    t_lastError = nullptr;
    if (rc != 0) {
        error = "the bus module refused its settings (" + std::to_string(rc) + ")" +
                (m_lastError.empty() ? std::string("; is the runtime directory usable?") : ": " + m_lastError);
        return false;
    }
    return true;
}

bool BusModule::waitConnected(int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_mgr->isConnected() != 1) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

BusModule::~BusModule()
{
    if (m_mgr != nullptr) {
        m_mgr->stop();
        m_mgr->release();
        m_destroy(m_instance.c_str(), m_mgr);
    }
    if (m_handle != nullptr) {
        dlclose(m_handle);
    }
}

} // namespace kuv

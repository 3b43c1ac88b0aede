// SPDX-License-Identifier: GPL-2.0-or-later
#include "BusModule.h"

#include <unistd.h>

#include <cstdio>

#include <json/json.h>

#include "ConstConfig.h"
#include "KuvLog.h"

namespace kuv {

namespace {

// ThreadSanitizer aborts when a library it was told to ignore (libzmq, below the module) is unloaded,
// so its builds keep the module mapped after close.
#if defined(__SANITIZE_THREAD__)
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL;
#endif

void verboseLog(int level, const char* text, int)
{
    fprintf(stderr, "bus %s: %s\n", logLevelWord(fromBusLevel(level)), text);
}

std::string settingsText(const std::string& socketAddr, bool verbose)
{
    Json::Value settings(Json::objectValue);
    settings["socket_addr"] = socketAddr;
    settings["thread_nums"] = 1;
    settings["log_level"] = verbose ? 4 : 0;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, settings);
}

} // namespace

std::string BusModule::modulePath() { return ConstConfig::singleInstance()->getInstallDir() + "lib/modules/libZellClientMgr.so"; }

bool BusModule::open(const std::string& socketAddr, bool verbose, std::string& error, const std::string& name)
{
    return load(error) && start(socketAddr, verbose, name, error);
}

bool BusModule::load(std::string& error)
{
    m_library.setPath(modulePath());
    if (!m_library.load(kOpenFlags)) {
        error = "cannot load the bus module " + m_library.path() + ": " + m_library.error();
        return false;
    }
    m_create = m_library.resolveAs<PFN_CreateInstance>("CreateInstance");
    m_destroy = m_library.resolveAs<PFN_DestoryInstance>("DestoryInstance");
    if (m_create == nullptr || m_destroy == nullptr) {
        error = m_library.path() + " does not export CreateInstance and DestoryInstance: " + m_library.error();
        return false;
    }
    return true;
}

bool BusModule::start(const std::string& socketAddr, bool verbose, const std::string& name, std::string& error)
{
    m_instance = name + "-" + std::to_string(getpid());
    m_mgr = m_create(m_instance.c_str());
    if (m_mgr == nullptr) {
        error = "the bus module refused to create the client " + m_instance;
        return false;
    }
    if (verbose) {
        m_mgr->setLogCallback(&verboseLog);
    }
    const int rc = m_mgr->init(settingsText(socketAddr, verbose).c_str(), name.c_str());
    if (rc != ZELL_INIT_OK) {
        error = std::string("the bus module did not start (") + zellInitResultName(rc) + "): " + lastError();
        return false;
    }
    return true;
}

std::string BusModule::lastError() const { return m_mgr != nullptr ? m_mgr->lastError() : std::string(); }

bool BusModule::waitConnected(int timeoutMs) { return m_mgr->waitConnected(timeoutMs) == 1; }

BusModule::~BusModule()
{
    if (m_mgr != nullptr) {
        m_mgr->stop();
        m_mgr->release();
        m_destroy(m_instance.c_str(), m_mgr);
    }
    // m_library unloads the module.
}

} // namespace kuv

// SPDX-License-Identifier: GPL-2.0-or-later
// Pipe double: the server records its life cycle; the client keeps the bytes it was asked to send.
#include <cstring>
#include <mutex>

#include "AfxPipe.h"
#include "FakePlatform.h"
#include "ResetHook.h"

struct CAfxPipeServer::Impl {
    std::string name;
    IRemoteCallNotify* notify = nullptr;
};

namespace {
std::mutex g_mutex;
int g_startResult = 1;
int g_clientResult = 1;
std::vector<fake::PipeSend> g_sends;
std::string g_serverName;
bool g_running = false;

void resetPipe()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_startResult = 1;
    g_clientResult = 1;
    g_sends.clear();
    g_serverName.clear();
    g_running = false;
}
fake::ResetHook g_hook(&resetPipe);
} // namespace

CCharVector::CCharVector(const char* data, size_t size) { assign(data, size); }

void CCharVector::assign(const char* data, size_t size)
{
    m_pData.reset(new char[size + 1]);
    if (size != 0) {
        memcpy(m_pData.get(), data, size);
    }
    m_pData[size] = '\0';
    m_size = size;
}

CAfxPipeServer::CAfxPipeServer() : m_impl(new Impl) {}
CAfxPipeServer::~CAfxPipeServer() { stop(); }

void CAfxPipeServer::setName(std::string name)
{
    fake::record("pipe.setName " + name);
    m_impl->name = name;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_serverName = name;
}

void CAfxPipeServer::registerMonitor(IRemoteCallNotify* notify, long kind, void*, bool flag)
{
    fake::record("pipe.registerMonitor " + std::to_string(kind) + (flag ? " true" : " false"));
    m_impl->notify = notify;
}

int CAfxPipeServer::start()
{
    fake::record("pipe.start");
    std::lock_guard<std::mutex> lock(g_mutex);
    g_running = g_startResult != 0;
    return g_startResult;
}

void CAfxPipeServer::stop()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_running) {
        fake::record("pipe.stop");
    }
    g_running = false;
}

CAfxPipeClient::CAfxPipeClient(std::string name) : m_strName(std::move(name)) {}
CAfxPipeClient::~CAfxPipeClient() = default;

int CAfxPipeClient::async(const char* data, unsigned long size)
{
    // No connection is ever kept by the double.
    m_nFd.reset();
    fake::record("pipe.async " + m_strName + " " + std::to_string(size));
    std::lock_guard<std::mutex> lock(g_mutex);
    g_sends.push_back({m_strName, std::string(data, size)});
    return g_clientResult;
}

namespace fake {
void setPipeServerStartResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_startResult = result;
}
void setPipeClientResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_clientResult = result;
}
std::vector<PipeSend> pipeSends()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_sends;
}
std::string pipeServerName()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_serverName;
}
bool pipeServerRunning()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_running;
}
} // namespace fake

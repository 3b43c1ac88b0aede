// SPDX-License-Identifier: GPL-2.0-or-later
#include "BusSession.h"

#include <cstdio>
#include <random>

#include "FileUtils.h"
#include "Signals.h"

namespace kuvctl {

GUID randomGuid()
{
    std::random_device device;
    GUID guid;
    guid.Data1 = device();
    guid.Data2 = static_cast<uint16_t>(device());
    guid.Data3 = static_cast<uint16_t>((device() & 0x0FFF) | 0x4000);
    for (auto& byte : guid.Data4) {
        byte = static_cast<uint8_t>(device());
    }
    guid.Data4[0] = static_cast<uint8_t>((guid.Data4[0] & 0x3F) | 0x80);
    return guid;
}

sigset_t blockStopSignals()
{
    const sigset_t stopSignals = blockSignals({SIGINT, SIGTERM});
    signal(SIGPIPE, SIG_IGN);
    return stopSignals;
}

BusSession::~BusSession()
{
    if (m_endpoint != nullptr) {
        m_module.mgr()->destroyEndPoint(m_endpoint);
    }
}

bool BusSession::open(const std::string& socket, bool verbose)
{
    m_socket = socket;
    std::string error;
    if (m_module.open(socket, verbose, error)) {
        return true;
    }
    fprintf(stderr, "kuvctl: %s\n", kuv::escapeControl(error, false).c_str());
    // The module's own words for it, whether or not its log was asked for.
    const std::string said = m_module.lastError();
    if (!said.empty() && error.find(said) == std::string::npos) {
        fprintf(stderr, "kuvctl: the bus module says: %s\n", kuv::escapeControl(said, false).c_str());
    }
    return false;
}

bool BusSession::waitForBroker(int timeoutMs, const char* consequence)
{
    if (m_module.waitConnected(timeoutMs)) {
        return true;
    }
    fprintf(stderr, "kuvctl: the bus broker is not running (%s)%s\n", kuv::escapeControl(m_socket).c_str(), consequence);
    return false;
}

BusSession::Join BusSession::join(const GUID& self, IMRReceiveComplete* receiver, int64_t type)
{
    m_endpoint = m_module.mgr()->createEndPoint();
    if (m_endpoint == nullptr ||
        (receiver != nullptr && m_endpoint->registerRecvNotify(type, receiver, 0) != 0)) {
        return Join::NoEndpoint;
    }
    return m_endpoint->init(self) == 0 ? Join::Joined : Join::Refused;
}

} // namespace kuvctl

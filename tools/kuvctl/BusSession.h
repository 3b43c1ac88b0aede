// SPDX-License-Identifier: GPL-2.0-or-later
// The start-up that every bus command of kuvctl shares: load the bus module, reach the broker, join the
// bus as one endpoint; and what the commands print when a step fails.
#pragma once

#include <signal.h>

#include <cstdint>
#include <string>

#include "BusModule.h"
#include "Guid.h"
#include "IZellClientMgr.h"

namespace kuvctl {

// A fresh random (version 4) GUID.
GUID randomGuid();

// Blocks SIGINT and SIGTERM (returned, for sigtimedwait or a signalfd) and ignores SIGPIPE. Called before
// the bus module starts its threads, so that none of them takes the signals.
sigset_t blockStopSignals();

class BusSession {
public:
    enum class Join {
        Joined,
        NoEndpoint, // the module gave no endpoint, or refused the receiver
        Refused,    // the GUID is in use on the bus (or not usable)
    };

    BusSession() = default;
    ~BusSession(); // the endpoint leaves before the module is unloaded
    BusSession(const BusSession&) = delete;
    BusSession& operator=(const BusSession&) = delete;

    // Loads and initialises the bus module for the address. On failure prints why, with the module's own
    // last error line, and returns false.
    bool open(const std::string& socket, bool verbose);
    // Waits up to timeoutMs for the broker; on failure prints "the bus broker is not running (ADDR)"
    // followed by consequence, and returns false.
    bool waitForBroker(int timeoutMs, const char* consequence = "");
    // Creates the endpoint, hands messages of type to receiver (when given) and names it self on the bus.
    // Prints nothing: the commands word the failure themselves.
    Join join(const GUID& self, IMRReceiveComplete* receiver = nullptr, int64_t type = kZellAnyMsgType);

    IZellMREndPoint4& endpoint() { return *m_endpoint; }
    bool brokerConnected() { return m_module.mgr()->isConnected() == 1; }
    const std::string& socket() const { return m_socket; }

private:
    kuv::BusModule m_module;
    IZellMREndPoint4* m_endpoint = nullptr;
    std::string m_socket;
};

} // namespace kuvctl

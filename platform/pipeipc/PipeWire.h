// SPDX-License-Identifier: GPL-2.0-or-later
// What both ends of the command socket agree on beyond the frame header.
#pragma once

#include <chrono>

namespace kuvpipe {

// Sent by the server once it has read a whole message; the client's proof of hand-over.
constexpr char kAck = 0x06;
// A connection must deliver its next whole message within this time.
constexpr std::chrono::seconds kConnectionDeadline{5};
// How long a client keeps trying to reach a server that is not listening yet.
constexpr std::chrono::seconds kConnectRetry{2};
// The most a client call may take.
constexpr std::chrono::seconds kClientBudget{5};

} // namespace kuvpipe

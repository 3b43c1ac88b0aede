// SPDX-License-Identifier: GPL-2.0-or-later
// The socket side of the client. The poller (one worker thread at a time) keeps the session with the broker
// (hello and re-registration after a reconnect), sends what could not leave at once and puts received
// messages into the endpoints' inboxes; senders put data on the socket themselves when nothing waits ahead
// of them. Nothing here ticks: a lost broker shows up as the connection's own disconnect event (socket
// monitor), and the poller sleeps in zmq_poll without a timeout while nothing happens.
#include <sys/eventfd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <random>

#include "SafeIo.h"
#include "ZellClient.h"

namespace zell {

using namespace zell::wire;

namespace {

KUV_LOG_SOURCE("platform/modules/zell/ZellIo");

constexpr size_t kMaxQueuedMessages = 20000;
constexpr size_t kMaxQueuedBytes = 64u * 1024 * 1024;
// Hello is repeated only while a connection is up and the broker has not welcomed us yet.
constexpr int64_t kHelloEveryMs = 250;
// Refused registrations are asked again only while some endpoint stands refused.
constexpr int64_t kRetryRefusedMs = 5000;
constexpr int kReadBatch = 1024;

zmq::message_t frameOf(const std::string& bytes) { return zmq::message_t(bytes.data(), bytes.size()); }

int verdictFor(uint32_t code)
{
    switch (code) {
    case kErrUnknownDest: return ZELL_SEND_UNKNOWN_DEST;
    case kErrCongested: return ZELL_SEND_CONGESTED;
    default: return ZELL_SEND_BAD_ARGS;
    }
}

const char* errorText(uint32_t code)
{
    switch (code) {
    case kErrUnknownDest: return "no endpoint has that GUID";
    case kErrCongested: return "the destination is congested";
    case kErrSourceTaken: return "the source GUID belongs to another client";
    default: return "unknown error";
    }
}

} // namespace

int64_t monotonicMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Io::Io(ClientMgr& mgr, std::string endpoint) : m_mgr(mgr), m_log(mgr.log()), m_endpoint(std::move(endpoint)), m_context(1)
{
}

Io::~Io() { close(); }

bool Io::open(std::string& error)
{
    m_wakeFd.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_wakeFd.valid()) {
        error = std::string("eventfd: ") + strerror(errno);
        return false;
    }
    try {
        setupSocket();
    } catch (const zmq::error_t& e) {
        error = std::string("cannot set up the bus socket: ") + e.what();
        m_monitor.reset();
        m_socket.reset();
        return false;
    }
    return true;
}

void Io::setupSocket()
{
    m_socket = std::make_unique<zmq::socket_t>(m_context, zmq::socket_type::dealer);
    // A fixed identity per client, so a reconnect to the same broker takes over the old connection.
    std::random_device device;
    std::array<uint8_t, 16> id;
    for (auto& byte : id) {
        byte = static_cast<uint8_t>(device());
    }
    id[0] = static_cast<uint8_t>(id[0] | 0x80); // ids starting with 0 are ZMQ's own
    m_socket->set(zmq::sockopt::routing_id, zmq::const_buffer(id.data(), id.size()));
    m_socket->set(zmq::sockopt::linger, 0);
    // Nothing is queued for a broker that is not there; sends report that at once.
    m_socket->set(zmq::sockopt::immediate, 1);
    m_socket->set(zmq::sockopt::sndhwm, 10000);
    m_socket->set(zmq::sockopt::rcvhwm, 10000);
    m_socket->set(zmq::sockopt::reconnect_ivl, 100);
    m_socket->set(zmq::sockopt::reconnect_ivl_max, 500);
    m_socket->set(zmq::sockopt::maxmsgsize, kMaxFrameSize);
    m_socketFd = m_socket->get(zmq::sockopt::fd);

    char address[64];
    snprintf(address, sizeof(address), "inproc://zell-monitor-%p", static_cast<void*>(this));
    if (zmq_socket_monitor(m_socket->handle(), address,
                           ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED) != 0) {
        throw zmq::error_t();
    }
    m_monitor = std::make_unique<zmq::socket_t>(m_context, zmq::socket_type::pair);
    m_monitor->set(zmq::sockopt::linger, 0);
    m_monitor->connect(address);
    m_socket->connect(m_endpoint);
}

void Io::shutdown()
{
    {
        std::lock_guard<std::mutex> lock(m_connMutex);
        m_stop.store(true);
    }
    m_connCv.notify_all();
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        m_outCv.notify_all();
    }
    wake();
}

void Io::close()
{
    if (!m_socket) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        try {
            if (m_session) {
                m_stalled.reset();
                Outgoing bye{frameOf(encodeEmpty(Cmd::Bye)), false};
                trySendLocked(bye);
            }
        } catch (const zmq::error_t&) {
            // Leaving anyway.
        }
        m_session = false;
        zmq_socket_monitor(m_socket->handle(), nullptr, 0);
        m_monitor.reset();
        m_socket.reset();
    }
    setConnected(false);
    failAllVerdicts();
}

void Io::wake()
{
    if (m_wakeFd.valid()) {
        const uint64_t one = 1;
        (void)kuv::safeWrite(m_wakeFd.get(), &one, sizeof(one));
    }
    m_mgr.ensurePoller();
}

bool Io::sendDirectLocked(zmq::message_t& message)
{
    if (!m_session || m_stalled || !m_control.empty() || !m_data.empty() || !m_socket) {
        return false; // keep the order: whatever waits goes first
    }
    if (!m_socket->send(message, zmq::send_flags::dontwait)) {
        return false;
    }
    // Sending may have taken the socket's read signal: if a message is waiting now, the poller would not
    // be told, so tell it.
    if (m_socket->get(zmq::sockopt::events) & ZMQ_POLLIN) {
        wake();
    }
    return true;
}

int Io::postData(zmq::message_t&& message, int waitMs)
{
    const size_t bytes = message.size();
    std::unique_lock<std::mutex> lock(m_outMutex);
    if (m_stop.load()) {
        return 1;
    }
    if (sendDirectLocked(message)) {
        return 0;
    }
    auto room = [&] {
        return m_stop.load() || (m_data.size() < kMaxQueuedMessages && m_dataBytes + bytes <= kMaxQueuedBytes) ||
               m_data.empty();
    };
    if (!room()) {
        const ClientMgr::SocketWait watched(m_mgr); // room comes from the poller's flush
        ++m_spaceWaiters;
        const bool got = m_outCv.wait_for(lock, std::chrono::milliseconds(waitMs), room);
        --m_spaceWaiters;
        if (!got) {
            return 2;
        }
    }
    if (m_stop.load()) {
        return 1;
    }
    const bool wasEmpty = m_data.empty() && m_control.empty();
    m_data.push_back(Outgoing{std::move(message), true});
    m_dataBytes += bytes;
    lock.unlock();
    if (wasEmpty) {
        wake();
    }
    return 0;
}

void Io::postControl(zmq::message_t&& message, bool front)
{
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        if (front) {
            m_control.push_front(Outgoing{std::move(message), false});
        } else {
            m_control.push_back(Outgoing{std::move(message), false});
        }
    }
    wake();
}

void Io::postRegister(const GUID& guid) { postControl(frameOf(encodeGuid(Cmd::Register, guid))); }

void Io::postUnregister(const GUID& guid, bool expectAnswer)
{
    if (expectAnswer) {
        expect(unregisterKey(guid));
    }
    postControl(frameOf(encodeGuid(Cmd::Unregister, guid)));
}

bool Io::awaitUnregistered(const GUID& guid, int timeoutMs)
{
    return await(unregisterKey(guid), timeoutMs) == ZELL_SEND_ROUTED;
}

std::string Io::verdictKey(const GUID& src, uint64_t sequence)
{
    std::string key(1, 'v');
    key.append(reinterpret_cast<const char*>(&src), sizeof(GUID));
    key.append(reinterpret_cast<const char*>(&sequence), sizeof(sequence));
    return key;
}

std::string Io::unregisterKey(const GUID& guid)
{
    std::string key(1, 'u');
    key.append(reinterpret_cast<const char*>(&guid), sizeof(GUID));
    return key;
}

void Io::expect(const std::string& key)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    m_verdicts[key] = Verdict{};
}

int Io::await(const std::string& key, int timeoutMs)
{
    const ClientMgr::SocketWait watched(m_mgr); // the answer comes through the socket
    std::unique_lock<std::mutex> lock(m_verdictMutex);
    m_verdictCv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        auto found = m_verdicts.find(key);
        return found == m_verdicts.end() || found->second.done;
    });
    auto found = m_verdicts.find(key);
    int result = ZELL_SEND_NO_BROKER;
    if (found != m_verdicts.end()) {
        if (found->second.done) {
            result = found->second.result;
        }
        m_verdicts.erase(found);
    }
    return result;
}

void Io::complete(const std::string& key, int result)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    auto found = m_verdicts.find(key);
    if (found != m_verdicts.end()) {
        found->second.done = true;
        found->second.result = result;
        m_verdictCv.notify_all();
    }
}

void Io::expectVerdict(const GUID& src, uint64_t sequence) { expect(verdictKey(src, sequence)); }

void Io::forgetVerdict(const GUID& src, uint64_t sequence)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    m_verdicts.erase(verdictKey(src, sequence));
}

int Io::awaitVerdict(const GUID& src, uint64_t sequence, int timeoutMs)
{
    return await(verdictKey(src, sequence), timeoutMs);
}

void Io::failAllVerdicts()
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    for (auto& entry : m_verdicts) {
        if (!entry.second.done) {
            entry.second.done = true;
            entry.second.result = ZELL_SEND_NO_BROKER;
        }
    }
    m_verdictCv.notify_all();
}

bool Io::trySendLocked(Outgoing& out)
{
    // On success ZMQ takes the content; on EAGAIN the message stays as it was for the next try.
    return static_cast<bool>(m_socket->send(out.message, zmq::send_flags::dontwait));
}

void Io::sendControl(const std::string& message)
{
    Outgoing out{frameOf(message), false};
    std::lock_guard<std::mutex> lock(m_outMutex);
    trySendLocked(out); // when the socket is full this is dropped; the timers send it again
}

bool Io::takeNextLocked()
{
    auto& queue = !m_control.empty() ? m_control : m_data;
    if (queue.empty()) {
        return false;
    }
    m_stalled.emplace(std::move(queue.front()));
    queue.pop_front();
    return true;
}

void Io::flushLocked()
{
    if (!m_session) {
        return;
    }
    size_t sentBytes = 0;
    while (m_stalled || takeNextLocked()) {
        const size_t bytes = m_stalled->message.size();
        if (!trySendLocked(*m_stalled)) {
            break; // wait until the socket takes more
        }
        if (m_stalled->data) {
            sentBytes += bytes;
        }
        m_stalled.reset();
    }
    if (sentBytes > 0) {
        m_dataBytes -= sentBytes;
        if (m_spaceWaiters > 0) {
            m_outCv.notify_all();
        }
    }
}

void Io::sessionUp(uint64_t instance)
{
    const bool restarted = m_instance != 0 && instance != m_instance;
    const bool again = m_connected.load() && !restarted;
    m_instance = instance;
    m_nextRetry = monotonicMs() + kRetryRefusedMs;
    // Registrations go out before anything queued, so the broker knows our endpoints first. (A message
    // the old connection refused may still go ahead of them; the broker accepts unregistered sources.)
    std::vector<zmq::message_t> registrations;
    for (const auto& endpoint : m_mgr.boundEndPoints()) {
        GUID guid;
        if (endpoint->currentGuid(guid)) {
            registrations.push_back(frameOf(encodeGuid(Cmd::Register, guid)));
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        for (auto& message : registrations) {
            m_control.push_front(Outgoing{std::move(message), false});
        }
        m_session = true;
        flushLocked();
    }
    setConnected(true);
    ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "connected to the broker at %s%s; registering %zu endpoint(s)",
         m_endpoint.c_str(),
         restarted ? " (the broker was restarted)" : (again ? " (the broker had forgotten this client)" : ""),
         registrations.size());
}

void Io::setConnected(bool connected)
{
    {
        std::lock_guard<std::mutex> lock(m_connMutex);
        m_connected.store(connected);
    }
    m_connCv.notify_all();
}

bool Io::waitConnected(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_connMutex);
    return m_connCv.wait_for(lock, std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs),
                             [&] { return m_connected.load() || m_stop.load(); }) &&
           m_connected.load();
}

void Io::sessionDown(const char* why)
{
    if (m_connected.load()) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_CONNECTION, "lost the broker at %s: %s; reconnecting in the background",
             m_endpoint.c_str(), why);
    }
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        m_session = false;
    }
    setConnected(false);
    m_nextHello = 0;
    for (const auto& endpoint : m_mgr.boundEndPoints()) {
        endpoint->connectionLost();
    }
    failAllVerdicts();
}

void Io::readMonitor()
{
    for (;;) {
        zmq::message_t event;
        if (!m_monitor->recv(event, zmq::recv_flags::dontwait)) {
            return;
        }
        uint16_t id = 0;
        if (event.size() >= 2) {
            memcpy(&id, event.data(), sizeof(id));
        }
        // The event's second frame (the address) is not needed.
        for (bool more = event.more(); more;) {
            zmq::message_t rest;
            if (!m_monitor->recv(rest, zmq::recv_flags::dontwait)) {
                break;
            }
            more = rest.more();
        }
        if (id == ZMQ_EVENT_DISCONNECTED) {
            m_linkUp = false;
            sessionDown("connection closed");
        } else if (id == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
            ZLOG(m_log, kLogDebug, ZELL_LOG_CONNECTION, "connection to %s established", m_endpoint.c_str());
            m_linkUp = true;
            m_nextHello = 0;
        }
    }
}

void Io::readSocket()
{
    // Read under the socket's lock, handle without it: handling takes endpoint and table locks.
    std::vector<zmq::message_t> messages;
    size_t dropped = 0;
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        const size_t room = m_mgr.backlogFull() ? 0 : kReadBatch;
        while (messages.size() < room) {
            zmq::message_t message;
            if (!m_socket->recv(message, zmq::recv_flags::dontwait)) {
                break;
            }
            if (message.more()) {
                // Not ours: every message of the protocol is one frame. Skip the rest of it.
                while (message.more() && m_socket->recv(message, zmq::recv_flags::none)) {
                }
                ++dropped;
                continue;
            }
            messages.push_back(std::move(message));
        }
    }
    if (dropped > 0) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_INTERNAL, "dropped %zu message(s) of several frames from the broker", dropped);
    }
    for (auto& message : messages) {
        handle(message);
    }
    m_lastEndpoint.reset();
    if (!m_outbox.empty()) {
        m_mgr.deliver(m_outbox);
    }
}

void Io::handle(zmq::message_t& message)
{
    Message msg;
    const ParseError error = parse(message.data(), message.size(), Direction::ToClient, msg);
    if (error != ParseError::None) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_INTERNAL, "dropped a malformed message from the broker: %s",
             parseErrorText(error));
        return;
    }
    switch (msg.cmd) {
    case Cmd::Welcome:
        // An answer to our Hello, or the broker no longer knows us: either way, register everything.
        sessionUp(msg.instance);
        break;
    case Cmd::Pong:
        if (m_connected.load() && msg.instance != m_instance) {
            sessionDown("the broker was restarted");
        }
        break;
    case Cmd::RegisterAck: handleRegisterAck(msg); break;
    case Cmd::Unregistered: complete(unregisterKey(msg.dest), ZELL_SEND_ROUTED); break;
    case Cmd::Deliver: handleDeliver(msg, message); break;
    case Cmd::Ack: complete(verdictKey(msg.src, msg.meta.sequence), ZELL_SEND_ROUTED); break;
    case Cmd::Error: handleError(msg); break;
    default: break;
    }
}

void Io::handleRegisterAck(const Message& msg)
{
    auto endpoint = m_mgr.findByGuid(msg.dest);
    if (endpoint) {
        endpoint->registrationAnswer(msg.dest, msg.code == kRegOk);
    }
    if (msg.code == kRegOk) {
        ZLOG(m_log, kLogDebug, ZELL_LOG_ENDPOINT, "endpoint %s registered", guidText(msg.dest).c_str());
        return;
    }
    if (!m_refusedPending) {
        m_refusedPending = true;
        m_nextRetry = monotonicMs() + kRetryRefusedMs;
    }
    ZLOG(m_log, kLogError, ZELL_LOG_ENDPOINT, "the broker refused endpoint %s: %s", guidText(msg.dest).c_str(),
         msg.code == kRegTaken ? "another live endpoint has that GUID"
                               : (msg.code == kRegLimit ? "too many endpoints" : "invalid GUID"));
}

void Io::handleDeliver(const Message& msg, zmq::message_t& message)
{
    // Runs of messages for one endpoint are common; the receiving thread checks the generation again.
    const GuidKey dest = guidKey(msg.dest);
    if (!m_lastEndpoint || !(dest == m_lastDest)) {
        m_lastEndpoint = m_mgr.findByGuid(msg.dest);
        m_lastDest = dest;
        if (m_lastEndpoint && !m_lastEndpoint->acceptFor(msg.dest, m_lastGeneration)) {
            m_lastEndpoint.reset();
        }
    }
    if (!m_lastEndpoint) {
        ZLOG(m_log, kLogDebug, ZELL_LOG_TRAFFIC, "dropped a message for %s type %lld: no such endpoint here",
             guidText(msg.dest).c_str(), static_cast<long long>(msg.meta.type));
        return;
    }
    Delivery delivery;
    delivery.endpoint = m_lastEndpoint;
    delivery.generation = m_lastGeneration;
    delivery.src = msg.src;
    delivery.type = msg.meta.type;
    delivery.sequence = msg.meta.sequence;
    delivery.message = std::move(message);
    m_outbox.push_back(std::move(delivery));
}

void Io::handleError(const Message& msg)
{
    complete(verdictKey(msg.src, msg.meta.sequence), verdictFor(msg.code));
    // At most 20 lines per 10 s window, then one line with the count of the rest.
    const int64_t now = monotonicMs();
    if (now - m_errorWindow > 10000) {
        if (m_errorsLogged > 20) {
            ZLOG(m_log, kLogWarn, ZELL_LOG_TRAFFIC, "%llu further message(s) were not delivered",
                 static_cast<unsigned long long>(m_errorsLogged - 20));
        }
        m_errorWindow = now;
        m_errorsLogged = 0;
    }
    if (++m_errorsLogged <= 20) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_TRAFFIC, "message from %s to %s type %lld not delivered: %s",
             guidText(msg.src).c_str(), guidText(msg.dest).c_str(), static_cast<long long>(msg.meta.type),
             errorText(msg.code));
    }
}

void Io::sendTimedControl(int64_t now)
{
    if (!m_connected.load() && m_linkUp && now >= m_nextHello) {
        sendControl(encodeEmpty(Cmd::Hello));
        m_nextHello = now + kHelloEveryMs;
    }
    if (m_connected.load() && m_refusedPending && now >= m_nextRetry) {
        // Endpoints the broker refused may get their GUID once its holder is gone.
        bool any = false;
        for (const auto& endpoint : m_mgr.boundEndPoints()) {
            GUID guid;
            if (endpoint->currentGuid(guid, true)) {
                sendControl(encodeGuid(Cmd::Register, guid));
                any = true;
            }
        }
        m_refusedPending = any;
        m_nextRetry = now + kRetryRefusedMs;
    }
}

long Io::pollTimeout() const
{
    // Sleep without a timeout unless a hello or a refused registration is outstanding.
    int64_t next = -1;
    if (!m_connected.load() && m_linkUp) {
        next = m_nextHello;
    } else if (m_connected.load() && m_refusedPending) {
        next = m_nextRetry;
    }
    return next < 0 ? -1L : static_cast<long>(std::max<int64_t>(0, next - monotonicMs()));
}

void Io::pollOnce()
{
    try {
        sendTimedControl(monotonicMs());
        bool readable = false;
        bool stalled = false;
        {
            std::lock_guard<std::mutex> lock(m_outMutex);
            // ZMQ_FD only says that the socket's state may have changed; ZMQ_EVENTS says what it is, and
            // reading it takes the signal: room that came after the flush must be used now, not waited for.
            int events = 0;
            do {
                flushLocked();
                events = m_socket->get(zmq::sockopt::events);
                stalled = m_stalled.has_value() && m_session;
            } while (stalled && (events & ZMQ_POLLOUT));
            readable = (events & ZMQ_POLLIN) != 0;
        }
        const bool paused = m_mgr.backlogFull();
        if (paused) {
            m_mgr.readPaused.store(true);
        } else if (readable) {
            readSocket();
            return;
        }
        zmq_pollitem_t items[3] = {
            {nullptr, m_socketFd, static_cast<short>(!paused || stalled ? ZMQ_POLLIN : 0), 0},
            {m_monitor->handle(), 0, ZMQ_POLLIN, 0},
            {nullptr, m_wakeFd.get(), ZMQ_POLLIN, 0},
        };
        if (zmq_poll(items, 3, pollTimeout()) < 0) {
            return; // interrupted, or the context is going: the caller looks at its stop flag
        }
        if (items[2].revents & ZMQ_POLLIN) {
            uint64_t value;
            (void)kuv::safeRead(m_wakeFd.get(), &value, sizeof(value));
        }
        if (items[1].revents & ZMQ_POLLIN) {
            readMonitor();
        }
        if (!paused) {
            readSocket();
        }
    } catch (const zmq::error_t& e) {
        if (e.num() != ETERM) {
            ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "bus socket error: %s", e.what());
        }
    } catch (const std::exception& e) {
        ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "bus I/O error: %s", e.what());
    }
}

} // namespace zell

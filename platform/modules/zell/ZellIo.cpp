// The I/O thread: the only user of the DEALER socket. It keeps the session with the broker (hello and
// re-registration after a reconnect), sends what endpoints queued and hands received messages to the
// dispatch threads. Nothing here ticks: a lost broker shows up as the connection's own disconnect event
// (socket monitor), and the thread sleeps in zmq_poll without a timeout while nothing happens.
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <random>

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

Io::~Io()
{
    stop();
    if (m_wakeFd >= 0) {
        ::close(m_wakeFd);
    }
}

bool Io::start(std::string& error)
{
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wakeFd < 0) {
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
    try {
        m_thread = std::thread(&Io::run, this);
    } catch (const std::system_error& e) {
        error = std::string("cannot start the I/O thread: ") + e.what();
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

    char address[64];
    snprintf(address, sizeof(address), "inproc://zell-monitor-%p", static_cast<void*>(this));
    m_monitorAddress = address;
    if (zmq_socket_monitor(m_socket->handle(), address,
                           ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED) != 0) {
        throw zmq::error_t();
    }
    m_monitor = std::make_unique<zmq::socket_t>(m_context, zmq::socket_type::pair);
    m_monitor->set(zmq::sockopt::linger, 0);
    m_monitor->connect(address);
    m_socket->connect(m_endpoint);
}

void Io::stop()
{
    if (!m_thread.joinable()) {
        return;
    }
    m_stop.store(true);
    {
        std::lock_guard<std::mutex> lock(m_outMutex);
        m_outCv.notify_all();
    }
    wake();
    m_thread.join();
    m_connected.store(false);
    failAllVerdicts();
}

void Io::wake()
{
    if (m_wakeFd >= 0) {
        const uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof(one));
    }
}

int Io::postData(zmq::message_t&& message, int waitMs)
{
    const size_t bytes = message.size();
    std::unique_lock<std::mutex> lock(m_outMutex);
    auto room = [&] {
        return m_stop.load() || (m_data.size() < kMaxQueuedMessages && m_dataBytes + bytes <= kMaxQueuedBytes) ||
               m_data.empty();
    };
    if (!room()) {
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

void Io::postRegister(const GUID& guid)
{
    zmq::message_t message = frameOf(encodeGuid(Cmd::Register, guid));
    std::unique_lock<std::mutex> lock(m_outMutex);
    m_control.push_back(Outgoing{std::move(message), false});
    lock.unlock();
    wake();
}

void Io::postUnregister(const GUID& guid, bool expectAnswer)
{
    if (expectAnswer) {
        std::lock_guard<std::mutex> lock(m_verdictMutex);
        m_unregistered[guidKey(guid)] = Verdict{};
    }
    zmq::message_t message = frameOf(encodeGuid(Cmd::Unregister, guid));
    std::unique_lock<std::mutex> lock(m_outMutex);
    m_control.push_back(Outgoing{std::move(message), false});
    lock.unlock();
    wake();
}

bool Io::awaitUnregistered(const GUID& guid, int timeoutMs)
{
    const GuidKey key = guidKey(guid);
    std::unique_lock<std::mutex> lock(m_verdictMutex);
    m_verdictCv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        auto found = m_unregistered.find(key);
        return found == m_unregistered.end() || found->second.done;
    });
    auto found = m_unregistered.find(key);
    bool confirmed = false;
    if (found != m_unregistered.end()) {
        confirmed = found->second.done && found->second.result == ZELL_SEND_ROUTED;
        m_unregistered.erase(found);
    }
    return confirmed;
}

std::string Io::verdictKey(const GUID& src, uint64_t sequence)
{
    std::string key(reinterpret_cast<const char*>(&src), sizeof(GUID));
    key.append(reinterpret_cast<const char*>(&sequence), sizeof(sequence));
    return key;
}

void Io::expectVerdict(const GUID& src, uint64_t sequence)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    m_verdicts[verdictKey(src, sequence)] = Verdict{};
}

void Io::forgetVerdict(const GUID& src, uint64_t sequence)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    m_verdicts.erase(verdictKey(src, sequence));
}

int Io::awaitVerdict(const GUID& src, uint64_t sequence, int timeoutMs)
{
    const std::string key = verdictKey(src, sequence);
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

void Io::completeVerdict(const GUID& src, uint64_t sequence, int result)
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    auto found = m_verdicts.find(verdictKey(src, sequence));
    if (found != m_verdicts.end()) {
        found->second.done = true;
        found->second.result = result;
        m_verdictCv.notify_all();
    }
}

void Io::failAllVerdicts()
{
    std::lock_guard<std::mutex> lock(m_verdictMutex);
    auto fail = [](auto& table) {
        for (auto& entry : table) {
            if (!entry.second.done) {
                entry.second.done = true;
                entry.second.result = ZELL_SEND_NO_BROKER;
            }
        }
    };
    fail(m_verdicts);
    fail(m_unregistered);
    m_verdictCv.notify_all();
}

bool Io::trySend(Outgoing& out)
{
    // On success ZMQ takes the content; on EAGAIN the message stays as it was for the next try.
    return static_cast<bool>(m_socket->send(out.message, zmq::send_flags::dontwait));
}

void Io::sendControl(const std::string& message)
{
    Outgoing out{frameOf(message), false};
    trySend(out); // when the socket is full this is dropped; the timers send it again
}

void Io::flush()
{
    if (!m_session) {
        return;
    }
    size_t sentData = 0;
    size_t sentBytes = 0;
    auto settle = [&] {
        if (sentData == 0) {
            return;
        }
        std::lock_guard<std::mutex> lock(m_outMutex);
        m_dataBytes -= sentBytes;
        if (m_spaceWaiters > 0) {
            m_outCv.notify_all();
        }
        sentData = 0;
        sentBytes = 0;
    };
    for (;;) {
        if (!m_stalled) {
            std::unique_lock<std::mutex> lock(m_outMutex);
            if (!m_control.empty()) {
                m_stalled.emplace(std::move(m_control.front()));
                m_control.pop_front();
            } else if (!m_data.empty()) {
                m_stalled.emplace(std::move(m_data.front()));
                m_data.pop_front();
            } else {
                break;
            }
        }
        const size_t bytes = m_stalled->message.size();
        if (!trySend(*m_stalled)) {
            break; // wait for POLLOUT
        }
        if (m_stalled->data) {
            ++sentData;
            sentBytes += bytes;
        }
        m_stalled.reset();
        if (sentData >= 256) {
            settle();
        }
    }
    settle();
}

void Io::sessionUp(uint64_t instance)
{
    const bool restarted = m_instance != 0 && instance != m_instance;
    const bool again = m_session && !restarted;
    m_instance = instance;
    m_session = true;
    m_nextRetry = monotonicMs() + kRetryRefusedMs;
    // Registrations go out before anything queued, so the broker knows our endpoints first. (A message
    // the old connection refused may still go ahead of them; the broker accepts unregistered sources.)
    size_t count = 0;
    for (const auto& endpoint : m_mgr.boundEndPoints()) {
        GUID guid;
        if (endpoint->currentGuid(guid)) {
            zmq::message_t message = frameOf(encodeGuid(Cmd::Register, guid));
            std::lock_guard<std::mutex> lock(m_outMutex);
            m_control.push_front(Outgoing{std::move(message), false});
            ++count;
        }
    }
    m_connected.store(true);
    ZLOG(m_log, kLogInfo, ZELL_LOG_CONNECTION, "connected to the broker at %s%s; registering %zu endpoint(s)",
         m_endpoint.c_str(),
         restarted ? " (the broker was restarted)" : (again ? " (the broker had forgotten this client)" : ""), count);
    flush();
}

void Io::sessionDown(const char* why)
{
    if (m_session) {
        ZLOG(m_log, kLogWarn, ZELL_LOG_CONNECTION, "lost the broker at %s: %s; reconnecting in the background",
             m_endpoint.c_str(), why);
    }
    m_session = false;
    m_connected.store(false);
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

void Io::flushOutbox()
{
    for (size_t shard = 0; shard < m_outbox.size(); ++shard) {
        m_mgr.deliverBatch(shard, m_outbox[shard]);
    }
    m_lastEndpoint.reset();
}

void Io::readSocket()
{
    struct Flush {
        Io& io;
        ~Flush() { io.flushOutbox(); }
    } flushAtEnd{*this};
    zmq::message_t message;
    for (int n = 0; n < kReadBatch && !m_mgr.backlogFull(); ++n) {
        if (!m_socket->recv(message, zmq::recv_flags::dontwait)) {
            return;
        }
        if (message.more()) {
            // Not ours: every message of the protocol is one frame. Skip the rest of it.
            size_t parts = 1;
            while (message.more() && m_socket->recv(message, zmq::recv_flags::none)) {
                ++parts;
            }
            ZLOG(m_log, kLogWarn, ZELL_LOG_INTERNAL, "dropped a message of %zu frames from the broker", parts);
            continue;
        }
        handle(message);
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
        if (m_session && msg.instance != m_instance) {
            sessionDown("the broker was restarted");
        }
        break;
    case Cmd::RegisterAck: {
        auto endpoint = m_mgr.findByGuid(msg.dest);
        if (endpoint) {
            endpoint->registrationAnswer(msg.dest, msg.code == kRegOk);
        }
        if (msg.code == kRegOk) {
            ZLOG(m_log, kLogDebug, ZELL_LOG_ENDPOINT, "endpoint %s registered", guidText(msg.dest).c_str());
        } else {
            if (!m_refusedPending) {
                m_refusedPending = true;
                m_nextRetry = monotonicMs() + kRetryRefusedMs;
            }
            ZLOG(m_log, kLogError, ZELL_LOG_ENDPOINT, "the broker refused endpoint %s: %s",
                 guidText(msg.dest).c_str(),
                 msg.code == kRegTaken ? "another live endpoint has that GUID"
                                       : (msg.code == kRegLimit ? "too many endpoints" : "invalid GUID"));
        }
        break;
    }
    case Cmd::Unregistered: {
        std::lock_guard<std::mutex> lock(m_verdictMutex);
        auto found = m_unregistered.find(guidKey(msg.dest));
        if (found != m_unregistered.end()) {
            found->second.done = true;
            found->second.result = ZELL_SEND_ROUTED;
            m_verdictCv.notify_all();
        }
        break;
    }
    case Cmd::Deliver: {
        // Runs of messages for one endpoint are common; the dispatch thread checks the generation again.
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
            break;
        }
        Delivery delivery;
        delivery.endpoint = m_lastEndpoint;
        delivery.generation = m_lastGeneration;
        delivery.src = msg.src;
        delivery.type = msg.meta.type;
        delivery.sequence = msg.meta.sequence;
        delivery.message = std::move(message);
        const size_t shard = m_mgr.shardOf(m_lastEndpoint.get());
        if (m_outbox.size() < m_mgr.shardCount()) {
            m_outbox.resize(m_mgr.shardCount());
        }
        if (shard < m_outbox.size()) {
            m_outbox[shard].push_back(std::move(delivery));
        }
        break;
    }
    case Cmd::Ack:
        completeVerdict(msg.src, msg.meta.sequence, ZELL_SEND_ROUTED);
        break;
    case Cmd::Error: {
        completeVerdict(msg.src, msg.meta.sequence, verdictFor(msg.code));
        ++m_undelivered;
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
        break;
    }
    default:
        break;
    }
}

void Io::run()
{
    pthread_setname_np(pthread_self(), "zell-io");
    m_nextHello = 0;
    bool stop = false;
    while (!stop && !m_stop.load()) {
        try {
            loopOnce(stop);
        } catch (const zmq::error_t& e) {
            if (e.num() == ETERM) {
                break;
            }
            ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "bus socket error: %s", e.what());
        } catch (const std::exception& e) {
            ZLOG(m_log, kLogError, ZELL_LOG_INTERNAL, "bus I/O error: %s", e.what());
        }
    }
    try {
        if (m_session) {
            m_stalled.reset();
            sendControl(encodeEmpty(Cmd::Bye));
        }
    } catch (const zmq::error_t&) {
        // Leaving anyway.
    }
    m_session = false;
    m_connected.store(false);
    zmq_socket_monitor(m_socket->handle(), nullptr, 0);
    m_monitor.reset();
    m_socket.reset();
}

void Io::loopOnce(bool& stop)
{
    const int64_t now = monotonicMs();
    if (!m_session && m_linkUp && now >= m_nextHello) {
        sendControl(encodeEmpty(Cmd::Hello));
        m_nextHello = now + kHelloEveryMs;
    }
    if (m_session && m_refusedPending && now >= m_nextRetry) {
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
    flush();
    const bool stalled = m_stalled.has_value() && m_session;
    m_paused = m_mgr.backlogFull();
    if (m_paused) {
        m_mgr.readPaused.store(true);
    }

    zmq_pollitem_t items[3] = {
        {m_socket->handle(), 0, static_cast<short>((m_paused ? 0 : ZMQ_POLLIN) | (stalled ? ZMQ_POLLOUT : 0)), 0},
        {m_monitor->handle(), 0, ZMQ_POLLIN, 0},
        {nullptr, m_wakeFd, ZMQ_POLLIN, 0},
    };
    // Sleep without a timeout unless a hello or a refused registration is outstanding.
    int64_t next = -1;
    if (!m_session && m_linkUp) {
        next = m_nextHello;
    } else if (m_session && m_refusedPending) {
        next = m_nextRetry;
    }
    const long timeout = next < 0 ? -1L : static_cast<long>(std::max<int64_t>(0, next - monotonicMs()));
    if (zmq_poll(items, 3, timeout) < 0) {
        stop = zmq_errno() == ETERM;
        return;
    }
    if (items[2].revents & ZMQ_POLLIN) {
        uint64_t value;
        (void)!::read(m_wakeFd, &value, sizeof(value));
    }
    if (items[1].revents & ZMQ_POLLIN) {
        readMonitor();
    }
    if (items[0].revents & ZMQ_POLLIN) {
        readSocket();
    }
}

} // namespace zell

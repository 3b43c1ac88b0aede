// SPDX-License-Identifier: GPL-2.0-or-later
// Endpoints: naming on the bus, receivers per message type, sending, and the guarantee that no receiver
// runs once uninit() has returned.
#include <cstring>

#include "ZellClient.h"

namespace zell {

using namespace zell::wire;

namespace {

KUV_LOG_SOURCE("platform/modules/zell/ZellEndPoint");
constexpr int kRegisterWaitMs = 2000;
constexpr int kUnregisterWaitMs = 1000;
constexpr int kQueueWaitMs = 5000;
constexpr int kMaxVerdictWaitMs = 600000;

// The endpoint whose receiver this thread is running, so that uninit() from inside a callback does not wait
// for itself.
thread_local const EndPoint* tl_inCallback = nullptr;

bool sameGuid(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(GUID)) == 0; }

} // namespace

int EndPoint::init(const GUID& guid)
{
    if (guidIsZero(guid)) {
        ZLOG(m_mgr.log(), kLogWarn, ZELL_LOG_ENDPOINT, "endpoint init with the zero GUID refused");
        return -1;
    }
    uint64_t generation = 0;
    const int rc = bind(guid, generation);
    if (rc != 0) {
        return rc;
    }
    Io* io = m_mgr.io();
    io->postRegister(guid);
    if (!io->connected()) {
        ZLOG(m_mgr.log(), kLogInfo, ZELL_LOG_ENDPOINT,
             "endpoint %s will be registered once the broker is reachable", guidText(guid).c_str());
        return 0;
    }
    return awaitRegistration(guid, generation);
}

int EndPoint::bind(const GUID& guid, uint64_t& generation)
{
    enum { kBound, kAlreadyInit, kNotRunning, kTaken } outcome = kBound;
    GUID current{};
    {
        std::lock_guard<std::mutex> table(m_mgr.tableMutex());
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_active) {
            outcome = kAlreadyInit;
            current = m_guid;
        } else if (m_mgr.io() == nullptr || !m_mgr.runningLocked()) {
            outcome = kNotRunning;
        } else if (!m_mgr.bindLocked(guidKey(guid), shared_from_this())) {
            outcome = kTaken;
        } else {
            m_active = true;
            m_guid = guid;
            generation = ++m_generation;
            m_reg = Reg::Pending;
        }
    }
    // Logged outside the locks: the log callback belongs to the owner and may call back into us.
    switch (outcome) {
    case kAlreadyInit:
        ZLOG(m_mgr.log(), kLogWarn, ZELL_LOG_ENDPOINT, "endpoint %s is already initialised",
             guidText(current).c_str());
        return -1;
    case kNotRunning:
        ZLOG(m_mgr.log(), kLogWarn, ZELL_LOG_ENDPOINT, "endpoint init while the client is not running");
        return -1;
    case kTaken:
        ZLOG(m_mgr.log(), kLogError, ZELL_LOG_ENDPOINT, "endpoint %s refused: another endpoint of this client has it",
             guidText(guid).c_str());
        return 1;
    case kBound:
        break;
    }
    return 0;
}

int EndPoint::awaitRegistration(const GUID& guid, uint64_t generation)
{
    {
        const ClientMgr::SocketWait watched(m_mgr); // the broker's answer comes through the socket
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::milliseconds(kRegisterWaitMs),
                      [&] { return m_generation != generation || m_reg != Reg::Pending; });
        if (m_generation != generation || m_reg != Reg::Refused) {
            return 0; // confirmed, or still pending and retried in the background
        }
    }
    // Another live endpoint on the bus has this GUID: give it up again.
    GUID mine;
    {
        std::lock_guard<std::mutex> table(m_mgr.tableMutex());
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_generation != generation || !deactivateLocked(mine)) {
            return 0;
        }
    }
    m_mgr.io()->postUnregister(guid);
    return 2;
}

bool EndPoint::deactivateLocked(GUID& guid)
{
    const bool was = m_active;
    if (was) {
        m_mgr.unbindLocked(guidKey(m_guid), this);
    }
    guid = m_guid;
    m_active = false;
    ++m_generation;
    m_reg = Reg::None;
    m_receivers.clear();
    m_registeredNotify = nullptr;
    m_registeredContext = nullptr;
    m_cv.notify_all();
    return was;
}

void EndPoint::waitIdle(std::unique_lock<std::mutex>& lock)
{
    const int self = tl_inCallback == this ? 1 : 0;
    m_cv.wait(lock, [&] { return m_running <= self; });
}

int EndPoint::uninit()
{
    GUID guid;
    bool was = false;
    {
        std::lock_guard<std::mutex> table(m_mgr.tableMutex());
        std::lock_guard<std::mutex> lock(m_mutex);
        was = deactivateLocked(guid);
    }
    if (was) {
        if (Io* io = m_mgr.io()) {
            // Wait (briefly) until the broker has freed the GUID, so that another client can take it as soon
            // as we return.
            const bool wait = io->connected();
            io->postUnregister(guid, wait);
            if (wait && !io->awaitUnregistered(guid, kUnregisterWaitMs)) {
                ZLOG(m_mgr.log(), kLogDebug, ZELL_LOG_ENDPOINT, "the broker did not confirm that %s left",
                     guidText(guid).c_str());
            }
        }
        ZLOG(m_mgr.log(), kLogDebug, ZELL_LOG_ENDPOINT, "endpoint %s left the bus", guidText(guid).c_str());
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    waitIdle(lock);
    return was ? 0 : 1;
}

int EndPoint::registerRecvNotify(int64_t msgType, IMRReceiveComplete* receiver, int flags)
{
    (void)flags;
    if (receiver == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_receivers[msgType] = receiver;
    return 0;
}

int EndPoint::unregisterRecvNotify(int64_t msgType)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool found = m_receivers.erase(msgType) > 0;
    // The receiver may be deleted right after this returns.
    waitIdle(lock);
    return found ? 0 : 1;
}

int EndPoint::send(const GUID& dest, int64_t msgType, const char* body, int length, bool wantAck,
                   uint64_t& sequence)
{
    if (length < 0 || static_cast<size_t>(length) > kMaxBody || (body == nullptr && length > 0)) {
        return -1;
    }
    GUID src;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active) {
            return -1;
        }
        src = m_guid;
    }
    Io* io = m_mgr.io();
    if (io == nullptr || !io->connected()) {
        return 1;
    }
    sequence = m_sequence.fetch_add(1) + 1;
    Meta meta;
    meta.type = msgType;
    meta.sequence = sequence;
    meta.flags = wantAck ? kFlagWantAck : 0;
    zmq::message_t message(kRoutedSize + static_cast<size_t>(length));
    auto* out = static_cast<uint8_t*>(message.data());
    putRouted(out, Cmd::Send, dest, src, meta);
    if (length > 0) {
        memcpy(out + kRoutedSize, body, static_cast<size_t>(length));
    }
    if (wantAck) {
        io->expectVerdict(src, sequence);
    }
    const int rc = io->postData(std::move(message), kQueueWaitMs);
    if (rc != 0) {
        if (wantAck) {
            io->forgetVerdict(src, sequence);
        }
        ZLOG(m_mgr.log(), kLogWarn, ZELL_LOG_TRAFFIC, "message to %s type %lld not sent: %s", guidText(dest).c_str(),
             static_cast<long long>(msgType), rc == 2 ? "the send queue stayed full" : "the client is stopping");
    }
    return rc;
}

int EndPoint::sendMsg(const GUID& dest, int64_t msgType, const char* body, int length)
{
    uint64_t sequence = 0;
    return send(dest, msgType, body, length, false, sequence);
}

int EndPoint::sendMsgWait(const GUID& dest, int64_t msgType, const char* body, int length, int timeoutMs)
{
    uint64_t sequence = 0;
    const int rc = send(dest, msgType, body, length, true, sequence);
    if (rc < 0) {
        return ZELL_SEND_BAD_ARGS;
    }
    if (rc > 0) {
        return ZELL_SEND_NO_BROKER;
    }
    GUID src;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        src = m_guid;
    }
    Io* io = m_mgr.io();
    const int wait = timeoutMs < 0 ? 0 : (timeoutMs > kMaxVerdictWaitMs ? kMaxVerdictWaitMs : timeoutMs);
    return io->awaitVerdict(src, sequence, wait);
}

int EndPoint::isRegistered()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_active) {
        return 0;
    }
    return m_reg == Reg::Ok ? 1 : (m_reg == Reg::Refused ? -1 : 0);
}

void EndPoint::setRegisteredNotify(void (*notify)(void* context), void* context)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_registeredNotify = notify;
    m_registeredContext = context;
    if (notify == nullptr) {
        waitIdle(lock); // no call of the old one after this returns
    }
}

void EndPoint::notifyRegistered()
{
    void (*notify)(void*) = nullptr;
    void* context = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        notify = m_registeredNotify;
        context = m_registeredContext;
        if (notify == nullptr) {
            return;
        }
        ++m_running;
    }
    notify(context);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_running <= 1) {
        m_cv.notify_all();
    }
}

void EndPoint::registrationAnswer(const GUID& guid, bool accepted)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active || !sameGuid(guid, m_guid)) {
            return;
        }
        m_reg = accepted ? Reg::Ok : Reg::Refused;
        m_cv.notify_all();
    }
    notifyRegistered();
}

void EndPoint::connectionLost()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active) {
            return;
        }
        m_reg = Reg::Pending;
    }
    notifyRegistered();
}

bool EndPoint::currentGuid(GUID& out, bool refusedOnly)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_active || (refusedOnly && m_reg != Reg::Refused)) {
        return false;
    }
    out = m_guid;
    return true;
}

bool EndPoint::acceptFor(const GUID& dest, uint64_t& generation)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_active || !sameGuid(dest, m_guid)) {
        return false;
    }
    generation = m_generation;
    return true;
}

void EndPoint::dispatch(Delivery& delivery)
{
    IMRReceiveComplete* receiver = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_active || delivery.generation != m_generation) {
            return;
        }
        auto found = m_receivers.find(delivery.type);
        if (found == m_receivers.end()) {
            found = m_receivers.find(kZellAnyMsgType);
        }
        if (found == m_receivers.end()) {
            return; // no receiver for this type: the message is not wanted here
        }
        receiver = found->second;
        ++m_running;
    }
    static const char empty[1] = {0};
    const size_t length = delivery.message.size() > kRoutedSize ? delivery.message.size() - kRoutedSize : 0;
    const char* content = length > 0 ? static_cast<const char*>(delivery.message.data()) + kRoutedSize : empty;
    const EndPoint* outer = tl_inCallback;
    tl_inCallback = this;
    try {
        receiver->ReceiveCallback(reinterpret_cast<uint64_t>(static_cast<IZellMREndPoint4*>(this)), delivery.type,
                                  content, static_cast<int>(length),
                                  reinterpret_cast<uint64_t>(&delivery.src), delivery.sequence);
    } catch (...) {
        ZLOG(m_mgr.log(), kLogError, ZELL_LOG_INTERNAL, "a receiver of type %lld threw; ignored",
             static_cast<long long>(delivery.type));
    }
    tl_inCallback = outer;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_running <= 1) {
        m_cv.notify_all();
    }
}

} // namespace zell

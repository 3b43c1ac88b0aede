// SPDX-License-Identifier: GPL-2.0-or-later
// Local command channel: framed messages over a per-user Unix domain socket.
#pragma once

#include "KuvExport.h"

#include <cstddef>
#include <memory>
#include <string>

#include "UniqueFd.h"

// Received bytes of one message, followed by a NUL byte that length() does not count.
class KUV_EXPORT CCharVector {
public:
    CCharVector() = default;
    CCharVector(const char* data, size_t size);

    size_t length() const { return m_size; }
    char* data() { return m_pData.get(); }
    const char* data() const { return m_pData.get(); }
    void assign(const char* data, size_t size);
    // Takes over a buffer of size + 1 bytes whose last byte is the NUL, without copying.
    void adopt(std::unique_ptr<char[]> data, size_t size);

private:
    std::unique_ptr<char[]> m_pData;
    size_t m_size = 0;
};

class IRemoteCallNotify {
public:
    virtual ~IRemoteCallNotify() = default;
    // One call per message. kind and context are those given to registerMonitor; peerPid is the sender.
    virtual void RecvData(CCharVector& data, long kind, void* context, unsigned long peerPid) = 0;
};

// The 16-byte frame header: payload type and length, host byte order.
struct sPipeFrameHead {
    unsigned long type;
    unsigned long length;
};
static_assert(sizeof(sPipeFrameHead) == 16, "frame header is 16 bytes");

class KUV_EXPORT CAfxPipeServer {
public:
    // Messages whose header announces more than this are refused and their connection dropped.
    static constexpr unsigned long kMaxMessage = 16ul * 1024 * 1024;

    CAfxPipeServer();
    ~CAfxPipeServer(); // stops first
    CAfxPipeServer(const CAfxPipeServer&) = delete;
    CAfxPipeServer& operator=(const CAfxPipeServer&) = delete;

    // A logical name such as "/tmp/kuv-gui": the socket is that name's last component in the runtime dir.
    void setName(std::string name);
    void registerMonitor(IRemoteCallNotify* notify, long kind, void* context, bool flag);
    // 1 when listening, 0 on failure (logged).
    int start();
    // Returns only when no RecvData call is running; none runs afterwards.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

class KUV_EXPORT CAfxPipeClient {
public:
    explicit CAfxPipeClient(std::string name);
    ~CAfxPipeClient();
    CAfxPipeClient(const CAfxPipeClient&) = delete;
    CAfxPipeClient& operator=(const CAfxPipeClient&) = delete;

    // Sends one whole message (header included, as built by the caller). Non-zero once the server
    // has been handed every byte; 0 otherwise. Retries connecting for up to 2 s, never blocks over 5 s.
    // The server confirms each complete message with one byte; the connection is kept for the next
    // call on the same object. One object serves one thread at a time.
    int async(const char* data, unsigned long size);

private:
    std::string m_strName;
    kuv::UniqueFd m_nFd; // the connection kept between calls, invalid when none
};

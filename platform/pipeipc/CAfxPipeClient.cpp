// SPDX-License-Identifier: GPL-2.0-or-later
// CAfxPipeClient: connect, write the frame, wait for the server's one-byte receipt. No threads, no log.
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "AfxPipe.h"
#include "FileUtils.h"
#include "PipeWire.h"
#include "SafeIo.h"
#include "UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;

bool setTimeouts(int fd, Clock::duration left)
{
    if (left <= Clock::duration::zero()) {
        return false;
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    if (tv.tv_sec == 0 && tv.tv_usec == 0) {
        tv.tv_usec = 1;
    }
    return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0 &&
           ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

// A connected socket, retrying while nobody listens yet; invalid when the server cannot be reached in time.
kuv::UniqueFd connectTo(const struct sockaddr_un& addr, Clock::time_point retryEnd, Clock::time_point end)
{
    auto pause = std::chrono::milliseconds(2);
    for (;;) {
        kuv::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        // The timeouts bound connect() itself (a full backlog blocks it) and every later call.
        if (!fd.valid() || !setTimeouts(fd.get(), end - Clock::now())) {
            return kuv::UniqueFd();
        }
        if (::connect(fd.get(), reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr) == 0) {
            return fd;
        }
        const int err = errno;
        if (err != ENOENT && err != ECONNREFUSED && err != EINTR) {
            return kuv::UniqueFd();
        }
        const auto now = Clock::now();
        if (now + pause > retryEnd) {
            return kuv::UniqueFd();
        }
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(pause).count();
        struct timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        ::nanosleep(&ts, nullptr);
        pause = std::min<std::chrono::milliseconds>(pause * 2, std::chrono::milliseconds(50));
    }
}

enum class Sent { Ok, Lost, Failed };

// Lost: the server had closed a kept connection before reading anything of this message.
Sent sendAndConfirm(int fd, const char* data, size_t size, Clock::time_point end, bool reused)
{
    size_t done = 0;
    bool retimed = false;
    while (done < size) {
        const ssize_t n = kuv::retryEintr([&] { return ::send(fd, data + done, size - done, MSG_NOSIGNAL); });
        if (n > 0) {
            done += static_cast<size_t>(n);
            // A partial write means a busy server; keep the remaining budget exact from here on.
            if (done < size && !retimed) {
                retimed = true;
                if (!setTimeouts(fd, end - Clock::now())) {
                    return Sent::Failed;
                }
            }
            continue;
        }
        return (reused && done == 0 && (errno == EPIPE || errno == ECONNRESET)) ? Sent::Lost : Sent::Failed;
    }
    if (retimed && !setTimeouts(fd, end - Clock::now())) {
        return Sent::Failed;
    }
    char ack = 0;
    const ssize_t n = kuv::retryEintr([&] { return ::recv(fd, &ack, 1, 0); });
    if (n == 1) {
        return ack == kuvpipe::kAck ? Sent::Ok : Sent::Failed;
    }
    // A kept connection closed by the server while idle: it never read this message.
    return (reused && (n == 0 || errno == ECONNRESET)) ? Sent::Lost : Sent::Failed;
}

// Whether a kept connection is still open: nothing to read and no hang-up.
bool stillOpen(int fd)
{
    struct pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 0;
}

} // namespace

CAfxPipeClient::CAfxPipeClient(std::string name) : m_strName(std::move(name)) {}

CAfxPipeClient::~CAfxPipeClient() = default;

int CAfxPipeClient::async(const char* data, unsigned long size)
{
    // Only a well-formed frame is sent: the server frames by the header alone.
    if (data == nullptr || size < sizeof(sPipeFrameHead)) {
        return 0;
    }
    sPipeFrameHead head;
    std::memcpy(&head, data, sizeof head);
    if (head.length > CAfxPipeServer::kMaxMessage || head.length != size - sizeof head) {
        return 0;
    }
    const auto start = Clock::now();
    const auto end = start + kuvpipe::kClientBudget;

    if (m_nFd.valid() && !stillOpen(m_nFd.get())) {
        m_nFd.reset();
    }
    for (int attempt = 0; attempt < 2; ++attempt) {
        const bool reused = m_nFd.valid();
        if (reused) {
            if (!setTimeouts(m_nFd.get(), end - Clock::now())) {
                m_nFd.reset();
                return 0;
            }
        } else {
            const std::string path = kuv::runtimePath(m_strName);
            struct sockaddr_un addr;
            std::memset(&addr, 0, sizeof addr);
            addr.sun_family = AF_UNIX;
            if (path.empty() || path.size() >= sizeof addr.sun_path) {
                return 0;
            }
            std::memcpy(addr.sun_path, path.c_str(), path.size());
            m_nFd = connectTo(addr, start + kuvpipe::kConnectRetry, end);
            if (!m_nFd.valid()) {
                return 0;
            }
        }
        switch (sendAndConfirm(m_nFd.get(), data, size, end, reused)) {
        case Sent::Ok:
            return 1;
        case Sent::Lost:
            m_nFd.reset();
            continue; // once more on a fresh connection
        case Sent::Failed:
            m_nFd.reset();
            return 0;
        }
    }
    return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// EINTR-safe descriptor I/O: the one place that retries interrupted system calls.
#pragma once

#include <cerrno>
#include <cstddef>
#include <type_traits>

#include <sys/types.h>
#include <unistd.h>

namespace kuv {

// Calls fn() again while it fails with EINTR; returns its last result.
template <typename Fn>
auto retryEintr(Fn&& fn) -> decltype(fn())
{
    decltype(fn()) rc;
    do {
        rc = fn();
    } while (rc == -1 && errno == EINTR);
    return rc;
}

namespace detail {

// Moves size bytes with op(offset, count) -> ssize_t, going on after EINTR and short transfers; stops
// early at a 0 (end of file). Returns the bytes moved, or -1 with errno set when nothing could be.
template <typename Op>
ssize_t transferAll(size_t size, Op&& op)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = op(done, size - done);
        if (n == 0) {
            break;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return done > 0 ? static_cast<ssize_t>(done) : -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

} // namespace detail

// Reads up to size bytes, stopping early only at end of file or on an error other than EINTR.
// Returns the bytes read, or -1 with errno set when nothing could be read.
inline ssize_t safeRead(int fd, void* data, size_t size)
{
    auto* out = static_cast<char*>(data);
    return detail::transferAll(size, [&](size_t at, size_t count) { return ::read(fd, out + at, count); });
}

// Writes all size bytes unless an error other than EINTR stops it.
// Returns the bytes written, or -1 with errno set when nothing could be written.
inline ssize_t safeWrite(int fd, const void* data, size_t size)
{
    const auto* in = static_cast<const char*>(data);
    return detail::transferAll(size, [&](size_t at, size_t count) { return ::write(fd, in + at, count); });
}

} // namespace kuv

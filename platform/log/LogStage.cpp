// SPDX-License-Identifier: GPL-2.0-or-later
// The stage file of a log: made, checked, locked, mapped, and the ring arithmetic over it.
#include "LogStage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "FileUtils.h"

namespace kuv::logstage {

namespace {

uint64_t magicWord()
{
    uint64_t word;
    std::memcpy(&word, "KUVLSTG1", sizeof word);
    return word;
}
constexpr size_t kFileSize = kHeaderPage + kRingSize;

void fail(std::string* why, const std::string& path, const char* what, int error)
{
    if (why != nullptr) {
        *why = "log stage " + escapeControl(path) + ": " + what + ": " + std::strerror(error);
    }
    errno = error;
}

// The file is filled with real zeros rather than extended sparse: a store into a hole of a shared
// mapping makes the file system allocate a block inside the page fault.
bool fillWithZeros(int fd)
{
    if (::ftruncate(fd, 0) != 0) {
        return false;
    }
    static const char zeros[64 * 1024] = {};
    for (size_t at = 0; at < kFileSize;) {
        const size_t n = std::min(sizeof zeros, kFileSize - at);
        const ssize_t done = ::pwrite(fd, zeros, n, static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            const int why = done < 0 ? errno : ENOSPC;
            (void)!::ftruncate(fd, 0);
            errno = why;
            return false;
        }
        at += static_cast<size_t>(done);
    }
    return true;
}

// Opened without following a link, regular, ours, and locked against every other writer.
UniqueFd openLocked(const std::string& path, int extraFlags, struct stat& st, std::string* why)
{
    UniqueFd fd = openNoFollow(path, O_RDWR | O_CREAT | extraFlags, 0600, &st);
    if (!fd.valid()) {
        fail(why, path, "cannot open", errno);
        return fd;
    }
    if (st.st_uid != ::geteuid()) {
        fail(why, path, "owned by another user", EPERM);
        return UniqueFd();
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        fail(why, path, "in use by another writer", errno == EWOULDBLOCK ? EBUSY : errno);
        return UniqueFd();
    }
    // Locked: what we saw before may have been changed by the previous holder.
    if (::fstat(fd.get(), &st) != 0) {
        fail(why, path, "cannot stat", errno);
        return UniqueFd();
    }
    return fd;
}
} // namespace

std::string stagePathFor(const std::string& logPath)
{
    const size_t slash = logPath.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string() : logPath.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? logPath : logPath.substr(slash + 1);
    return dir + "." + name + ".stage";
}

std::unique_ptr<Stage> Stage::open(const std::string& path, std::string* why)
{
    struct stat st {};
    UniqueFd fd = openLocked(path, 0, st, why);
    if (!fd.valid()) {
        return nullptr;
    }
    if ((st.st_mode & 077) != 0) {
        // Others could have written into it: nothing in it can be trusted, and whoever holds it open
        // could go on writing. A new file takes its place.
        fd.reset();
        if (::unlink(path.c_str()) != 0) {
            fail(why, path, "open to others and cannot be replaced", errno);
            return nullptr;
        }
        fd = openLocked(path, O_EXCL, st, why);
        if (!fd.valid()) {
            return nullptr;
        }
    }
    bool fresh = false;
    if (static_cast<uint64_t>(st.st_size) != kFileSize) {
        if (!fillWithZeros(fd.get())) {
            fail(why, path, "cannot make room", errno);
            return nullptr;
        }
        fresh = true;
    }
    UniqueMapping map = UniqueMapping::map(kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get());
    if (!map.valid()) {
        fail(why, path, "cannot map", errno);
        return nullptr;
    }
    auto stage = std::make_unique<Stage>(Key(), std::move(fd), std::move(map));
    const Header& h = *stage->m_header;
    const bool sound = h.magic == magicWord() && h.capacity == kRingSize &&
                       h.head <= h.tail && h.tail - h.head <= kRingSize;
    if (fresh || !sound) {
        stage->resetHeader();
    }
    return stage;
}

Stage::Stage(Key, UniqueFd fd, UniqueMapping map)
    : m_fd(std::move(fd)), m_map(std::move(map)), m_header(reinterpret_cast<Header*>(m_map.data())),
      m_ring(m_map.data() + kHeaderPage), m_capacity(kRingSize)
{
}

// In this order (each store releases the ones before), the magic last: a reset cut short reads as one
// still to do.
void Stage::resetHeader()
{
    Header& h = *m_header;
    __atomic_store_n(&h.magic, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.capacity, kRingSize, __ATOMIC_RELEASE);
    __atomic_store_n(&h.flightEnd, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.flightDev, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.flightIno, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.flightOffset, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.head, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.tail, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&h.magic, magicWord(), __ATOMIC_RELEASE);
}

void Stage::copyIn(uint64_t at, const char* data, size_t size)
{
    const size_t off = static_cast<size_t>(at & (m_capacity - 1));
    const size_t first = std::min<size_t>(size, m_capacity - off);
    std::memcpy(m_ring + off, data, first);
    if (first < size) {
        std::memcpy(m_ring, data + first, size - first);
    }
}

void Stage::copyOut(uint64_t at, size_t size, char* out) const
{
    const size_t off = static_cast<size_t>(at & (m_capacity - 1));
    const size_t first = std::min<size_t>(size, m_capacity - off);
    std::memcpy(out, m_ring + off, first);
    if (first < size) {
        std::memcpy(out + first, m_ring, size - first);
    }
}

int Stage::pieces(uint64_t at, size_t size, struct iovec out[2]) const
{
    const size_t off = static_cast<size_t>(at & (m_capacity - 1));
    const size_t first = std::min<size_t>(size, m_capacity - off);
    out[0].iov_base = m_ring + off;
    out[0].iov_len = first;
    if (first == size) {
        return 1;
    }
    out[1].iov_base = m_ring;
    out[1].iov_len = size - first;
    return 2;
}

size_t Stage::throughLastNewline(uint64_t at, size_t size) const
{
    const size_t off = static_cast<size_t>(at & (m_capacity - 1));
    const size_t first = std::min<size_t>(size, m_capacity - off);
    if (first < size) {
        if (const void* lf = ::memrchr(m_ring, '\n', size - first)) {
            return first + static_cast<size_t>(static_cast<const char*>(lf) - m_ring) + 1;
        }
    }
    if (const void* lf = ::memrchr(m_ring + off, '\n', first)) {
        return static_cast<size_t>(static_cast<const char*>(lf) - (m_ring + off)) + 1;
    }
    return 0;
}

size_t Stage::throughFirstNewline(uint64_t at, size_t size) const
{
    const size_t off = static_cast<size_t>(at & (m_capacity - 1));
    const size_t first = std::min<size_t>(size, m_capacity - off);
    if (const void* lf = std::memchr(m_ring + off, '\n', first)) {
        return static_cast<size_t>(static_cast<const char*>(lf) - (m_ring + off)) + 1;
    }
    if (first < size) {
        if (const void* lf = std::memchr(m_ring, '\n', size - first)) {
            return first + static_cast<size_t>(static_cast<const char*>(lf) - m_ring) + 1;
        }
    }
    return 0;
}

Flight Stage::flight() const
{
    Flight f;
    f.end = __atomic_load_n(&m_header->flightEnd, __ATOMIC_ACQUIRE);
    f.dev = m_header->flightDev;
    f.ino = m_header->flightIno;
    f.offset = m_header->flightOffset;
    return f;
}

// The end goes last: a flight record cut short reads as none, and its write had not begun.
void Stage::setFlight(const Flight& flight)
{
    m_header->flightDev = flight.dev;
    m_header->flightIno = flight.ino;
    m_header->flightOffset = flight.offset;
    __atomic_store_n(&m_header->flightEnd, flight.end, __ATOMIC_RELEASE);
}

void Stage::trim()
{
    ::madvise(m_ring, m_capacity, MADV_DONTNEED);
}

} // namespace kuv::logstage

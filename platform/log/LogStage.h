// SPDX-License-Identifier: GPL-2.0-or-later
// The stage of a log file: a private ring file beside the log, mapped shared, into which records are
// copied before a flusher thread appends them to the log. Pages of a shared file mapping belong to the
// page cache, so what was copied survives a killed process and is appended at the next open.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "UniqueFd.h"
#include "UniqueMapping.h"

namespace kuv::logstage {

// The first page of the file; offsets grow without end, the ring holds [head, tail).
struct Header {
    uint64_t magic;    // "KUVLSTG1" as the file holds it: name and layout version
    uint64_t capacity; // ring bytes, a power of two
    uint64_t head;     // appended to the log up to here
    uint64_t tail;     // records copied in up to here
    // The batch being written: the log file it goes to, that file's size before it, where it ends in
    // the ring. end 0: none.
    uint64_t flightDev;
    uint64_t flightIno;
    uint64_t flightOffset;
    uint64_t flightEnd;
};
static_assert(sizeof(Header) == 64, "the header layout is part of the file");

constexpr size_t kHeaderPage = 4096;
constexpr uint64_t kRingSize = 512 * 1024;

struct Flight {
    uint64_t dev = 0;
    uint64_t ino = 0;
    uint64_t offset = 0;
    uint64_t end = 0;
};

class Stage {
public:
    // Opens (or makes) the stage at path, locked for this process alone. nullptr with errno and why
    // when it cannot be used: not a regular file of ours, held by another writer, no room, no mapping.
    // A file without a sound header is reset; one that others could write is replaced.
    static std::unique_ptr<Stage> open(const std::string& path, std::string* why = nullptr);

    // Only open() makes one.
    class Key {
        friend class Stage;
        Key() = default;
    };
    Stage(Key, UniqueFd fd, UniqueMapping map);
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    uint64_t capacity() const { return m_capacity; }
    uint64_t head() const { return __atomic_load_n(&m_header->head, __ATOMIC_ACQUIRE); }
    uint64_t tail() const { return __atomic_load_n(&m_header->tail, __ATOMIC_ACQUIRE); }
    void setHead(uint64_t at) { __atomic_store_n(&m_header->head, at, __ATOMIC_RELEASE); }
    void setTail(uint64_t at) { __atomic_store_n(&m_header->tail, at, __ATOMIC_RELEASE); }

    // [at, at + size) of the ring, copied in, copied out, or as up to two pieces for writev.
    void copyIn(uint64_t at, const char* data, size_t size);
    void copyOut(uint64_t at, size_t size, char* out) const;
    int pieces(uint64_t at, size_t size, struct iovec out[2]) const;
    // Bytes of [at, at + size) up to and including its last (first) line feed; 0 when there is none.
    size_t throughLastNewline(uint64_t at, size_t size) const;
    size_t throughFirstNewline(uint64_t at, size_t size) const;

    Flight flight() const;
    void setFlight(const Flight& flight);
    void clearFlight() { __atomic_store_n(&m_header->flightEnd, 0, __ATOMIC_RELEASE); }

    // Gives the ring's pages back (they stay in the page cache): an idle log costs no resident memory.
    void trim();

private:
    void resetHeader();

    UniqueFd m_fd; // holds the lock
    UniqueMapping m_map;
    Header* m_header = nullptr;
    char* m_ring = nullptr;
    uint64_t m_capacity = 0;
};

// "<dir>/.<name>.stage" for the log "<dir>/<name>".
std::string stagePathFor(const std::string& logPath);

} // namespace kuv::logstage

// SPDX-License-Identifier: GPL-2.0-or-later
// Owns one memory mapping: unmapped on destruction, movable, never copied.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <utility>

namespace kuv {

class UniqueMapping {
public:
    UniqueMapping() = default;
    // mmap(2) with these arguments; invalid (errno set) when it fails.
    static UniqueMapping map(size_t size, int prot, int flags, int fd = -1, off_t offset = 0)
    {
        void* data = ::mmap(nullptr, size, prot, flags, fd, offset);
        return data == MAP_FAILED ? UniqueMapping() : UniqueMapping(data, size);
    }
    ~UniqueMapping() { reset(); }
    UniqueMapping(const UniqueMapping&) = delete;
    UniqueMapping& operator=(const UniqueMapping&) = delete;
    UniqueMapping(UniqueMapping&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0))
    {
    }
    UniqueMapping& operator=(UniqueMapping&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_data = std::exchange(other.m_data, nullptr);
            m_size = std::exchange(other.m_size, 0);
        }
        return *this;
    }

    char* data() const { return static_cast<char*>(m_data); }
    size_t size() const { return m_size; }
    bool valid() const { return m_data != nullptr; }
    void reset()
    {
        if (m_data != nullptr) {
            ::munmap(m_data, m_size);
            m_data = nullptr;
            m_size = 0;
        }
    }

private:
    UniqueMapping(void* data, size_t size) : m_data(data), m_size(size) {}

    void* m_data = nullptr;
    size_t m_size = 0;
};

} // namespace kuv

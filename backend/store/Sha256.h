// SPDX-License-Identifier: GPL-2.0-or-later
// SHA-256 (FIPS 180-4), incremental, for the digest recorded with every quarantined file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kuv {
namespace store {

class Sha256 {
public:
    Sha256();
    void update(const void* data, size_t size);
    // Ends the message; the object must not be updated afterwards.
    std::array<uint8_t, 32> finish();
    // Lower-case hex of finish().
    std::string hexFinish();

private:
    void block(const uint8_t* p);

    uint32_t m_h[8];
    uint8_t m_buf[64];
    size_t m_fill = 0;
    uint64_t m_total = 0;
};

} // namespace store
} // namespace kuv

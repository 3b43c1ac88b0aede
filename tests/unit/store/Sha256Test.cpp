// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <string>

#include "Sha256.h"

using kuv::store::Sha256;

namespace {

std::string digest(const std::string& data, size_t piece = 0)
{
    Sha256 h;
    if (piece == 0) {
        h.update(data.data(), data.size());
    } else {
        for (size_t i = 0; i < data.size(); i += piece) {
            h.update(data.data() + i, std::min(piece, data.size() - i));
        }
    }
    return h.hexFinish();
}

} // namespace

struct KnownDigest {
    std::string data;
    const char* hex;
};

class Sha256Known : public ::testing::TestWithParam<KnownDigest> {};

TEST_P(Sha256Known, Vector) { EXPECT_EQ(digest(GetParam().data), GetParam().hex); }

INSTANTIATE_TEST_SUITE_P(
    Sha256, Sha256Known,
    ::testing::Values(
        KnownDigest{"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        KnownDigest{"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        KnownDigest{"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                    "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        KnownDigest{"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
                    "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        KnownDigest{std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}));

class Sha256Pieces : public ::testing::TestWithParam<size_t> {};

TEST_P(Sha256Pieces, SameDigestAsWhole)
{
    std::string data;
    for (int i = 0; i < 1000; ++i) {
        data += static_cast<char>(i * 7 + 3);
    }
    EXPECT_EQ(digest(data, GetParam()), digest(data));
}

INSTANTIATE_TEST_SUITE_P(Sha256, Sha256Pieces, ::testing::Values(1u, 3u, 55u, 56u, 63u, 64u, 65u, 127u, 999u));

TEST(Sha256, LengthsAroundThePaddingBoundary)
{
    EXPECT_EQ(digest(std::string(55, 'x')), digest(std::string(55, 'x'), 7));
    EXPECT_NE(digest(std::string(55, 'x')), digest(std::string(56, 'x')));
}

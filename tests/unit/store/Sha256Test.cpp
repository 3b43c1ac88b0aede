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

TEST(Sha256, KnownVectors)
{
    EXPECT_EQ(digest(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(digest("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu"),
              "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1");
    EXPECT_EQ(digest(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, SameDigestWhateverThePieces)
{
    std::string data;
    for (int i = 0; i < 1000; ++i) {
        data += static_cast<char>(i * 7 + 3);
    }
    const std::string whole = digest(data);
    for (size_t piece : {1u, 3u, 55u, 56u, 63u, 64u, 65u, 127u, 999u}) {
        EXPECT_EQ(digest(data, piece), whole) << piece;
    }
    // Lengths around the padding boundary.
    EXPECT_EQ(digest(std::string(55, 'x')), digest(std::string(55, 'x'), 7));
    EXPECT_NE(digest(std::string(55, 'x')), digest(std::string(56, 'x')));
}

// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "Harness.h"
#include "StorePaths.h"

using namespace kuv::store;

namespace {

struct Split {
    const char* path;
    bool ok;
    const char* parent;
    const char* name;
};

class SplitPath : public ::testing::TestWithParam<Split> {};

} // namespace

TEST_P(SplitPath, IntoFolderAndName)
{
    std::string parent;
    std::string name;
    ASSERT_EQ(splitPath(GetParam().path, parent, name), GetParam().ok) << GetParam().path;
    if (GetParam().ok) {
        EXPECT_EQ(parent, GetParam().parent);
        EXPECT_EQ(name, GetParam().name);
    }
}

INSTANTIATE_TEST_SUITE_P(StorePaths, SplitPath,
                         ::testing::Values(Split{"/a/b/c", true, "/a/b", "c"}, Split{"/c", true, "/", "c"},
                                           Split{"/a/b/", true, "/a", "b"}, Split{"a/b", true, "a", "b"},
                                           Split{"a", false, "", ""}, Split{"/", false, "", ""},
                                           Split{"/a/..", false, "", ""}, Split{"/a/.", false, "", ""}));

TEST(StorePaths, HexRoundTrip)
{
    const std::string bytes("\x00\x7f\x80\xff/a", 6);
    EXPECT_EQ(hexEncode(bytes), "007f80ff2f61");
    std::string back;
    ASSERT_TRUE(hexDecode("007F80ff2f61", back));
    EXPECT_EQ(back, bytes);
    EXPECT_FALSE(hexDecode("abc", back));
    EXPECT_FALSE(hexDecode("zz", back));
}

TEST(StorePaths, ReadUpToStopsAtTheCap)
{
    kuvtest::TempDir dir;
    const std::string path = dir.path() + "/f";
    kuvtest::writeFile(path, std::string(20000, 'x'));
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    std::string text;
    EXPECT_TRUE(readUpTo(fd, 20000, text));
    EXPECT_EQ(text.size(), 20000u);
    ASSERT_EQ(::lseek(fd, 0, SEEK_SET), 0);
    std::string cut = "kept";
    EXPECT_FALSE(readUpTo(fd, 19999, cut));
    EXPECT_EQ(cut, "kept");
    ::close(fd);
}

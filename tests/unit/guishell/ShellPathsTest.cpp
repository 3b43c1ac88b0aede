// File names through the shell's Qt strings: every byte comes back.
#include <gtest/gtest.h>

#include "ShellPaths.h"

using kuv::shell::pathFromQString;
using kuv::shell::pathToQString;

TEST(ShellPaths, Utf8NamesAreOrdinaryText)
{
    EXPECT_EQ(pathToQString("/home/u/删除 é.pdf"), QString::fromUtf8("/home/u/删除 é.pdf"));
    EXPECT_EQ(pathFromQString(QString::fromUtf8("/home/u/删除 é.pdf")), "/home/u/删除 é.pdf");
    EXPECT_EQ(pathFromQString(pathToQString("/a/\xf0\x9f\x98\x80")), "/a/\xf0\x9f\x98\x80");
}

TEST(ShellPaths, NamesThatAreNotUtf8KeepTheirBytes)
{
    const std::string names[] = {"/x/\x9b" "3", "/x/\xff\xfe", "/x/\xc0\xaf", "/x/\xed\xa0\x80",
                                 "/x/\xe5\x88", "/x/\xe5\x88" "ab\xe5\x88\xa0"};
    for (const std::string& name : names) {
        const QString text = pathToQString(name);
        EXPECT_EQ(pathFromQString(text), name);
        EXPECT_NE(text.toStdString(), name) << "not representable as plain UTF-8";
    }
    // \x9b3 is not U+06F3.
    EXPECT_EQ(pathToQString("\x9b" "3").at(0).unicode(), 0xdc9b);
}

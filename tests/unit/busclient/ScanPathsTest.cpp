// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <json/json.h>

#include "ScanPaths.h"

namespace {

TEST(ScanPaths, Utf8PathsStayStrings)
{
    const std::string p = "/home/u/报告 \"x\"\n.pdf";
    const Json::Value v = kuvscan::pathToJson(p);
    ASSERT_TRUE(v.isString());
    std::string back;
    ASSERT_TRUE(kuvscan::pathFromJson(v, back));
    EXPECT_EQ(back, p);
}

TEST(ScanPaths, NonUtf8BytesRoundTripExactly)
{
    const std::string cases[] = {std::string("/tmp/\x9b" "3"), std::string("/tmp/\xff\xfe"),
                                 std::string("/a/\xc0\xaf"), std::string("/x/\xed\xa0\x80"),
                                 std::string("/n/\0z", 4), std::string("\xf4\x90\x80\x80")};
    for (const std::string& p : cases) {
        const Json::Value v = kuvscan::pathToJson(p);
        if (p.find('\0') == std::string::npos) {
            ASSERT_TRUE(v.isObject()) << p;
        }
        std::string back;
        ASSERT_TRUE(kuvscan::pathFromJson(v, back));
        EXPECT_EQ(back, p);
        // Through JSON text and back.
        Json::StreamWriterBuilder w;
        const std::string text = Json::writeString(w, v);
        Json::Value parsed;
        std::string err;
        std::unique_ptr<Json::CharReader> r(Json::CharReaderBuilder().newCharReader());
        ASSERT_TRUE(r->parse(text.data(), text.data() + text.size(), &parsed, &err)) << err;
        ASSERT_TRUE(kuvscan::pathFromJson(parsed, back));
        EXPECT_EQ(back, p);
    }
}

TEST(ScanPaths, Utf8Validation)
{
    EXPECT_TRUE(kuvscan::isValidUtf8("plain"));
    EXPECT_TRUE(kuvscan::isValidUtf8("\xe2\x80\xa8"));
    EXPECT_FALSE(kuvscan::isValidUtf8("\xc0\x80"));       // overlong NUL
    EXPECT_FALSE(kuvscan::isValidUtf8("\xe0\x80\xaf"));   // overlong
    EXPECT_FALSE(kuvscan::isValidUtf8("\xed\xb0\x80"));   // surrogate
    EXPECT_FALSE(kuvscan::isValidUtf8("\xe2\x80"));       // cut short
}

TEST(ScanPaths, Base64RejectsNonCanonicalText)
{
    std::string out = "kept";
    EXPECT_FALSE(kuvscan::base64Decode("abc", out));
    EXPECT_FALSE(kuvscan::base64Decode("a===", out));
    EXPECT_FALSE(kuvscan::base64Decode("ab=c", out));
    EXPECT_FALSE(kuvscan::base64Decode("QR==", out)); // stray low bits
    EXPECT_FALSE(kuvscan::base64Decode("****", out));
    EXPECT_EQ(out, "kept");
    ASSERT_TRUE(kuvscan::base64Decode("", out));
    EXPECT_EQ(out, "");
    for (const std::string s : {"f", "fo", "foo", "foob", "fooba", "foobar"}) {
        ASSERT_TRUE(kuvscan::base64Decode(kuvscan::base64Encode(s), out));
        EXPECT_EQ(out, s);
    }
    EXPECT_EQ(kuvscan::base64Encode("foobar"), "Zm9vYmFy");
}

TEST(ScanPaths, OtherValuesAreRefused)
{
    std::string out = "kept";
    EXPECT_FALSE(kuvscan::pathFromJson(Json::Value(3), out));
    Json::Value extra(Json::objectValue);
    extra["b64"] = "Zm9v";
    extra["x"] = 1;
    EXPECT_FALSE(kuvscan::pathFromJson(extra, out));
    EXPECT_EQ(out, "kept");
}

} // namespace

// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "CppJson.h"
#include "TempDir.h"

namespace {

// A file with content in a private directory that goes with the returned owner.
kuv::test::TempDir tempFile(const std::string& content, std::string& path)
{
    kuv::test::TempDir dir("kuvjson");
    path = dir / "file.json";
    std::ofstream(path, std::ios::binary) << content;
    return dir;
}

} // namespace

TEST(CppJson, LoadJsonFileOfMissingFileFailsAndLeavesNull)
{
    Json::Value value(42);
    EXPECT_FALSE(CppJson::LoadJsonFile("/nonexistent/kuv/file.json", value));
    EXPECT_TRUE(value.isNull());
}

TEST(CppJson, LoadJsonFileNullOrEmptyPathLeavesValueUntouched)
{
    Json::Value value(42);
    EXPECT_FALSE(CppJson::LoadJsonFile(nullptr, value));
    EXPECT_FALSE(CppJson::LoadJsonFile("", value));
    EXPECT_EQ(value.asInt(), 42);
}

TEST(CppJson, LoadJsonFileReadsObjectWithComments)
{
    std::string path;
    const auto dir = tempFile("// log settings\n{\"log_level\": 2, /* inline */ \"log_size\": 10}\n", path);
    Json::Value value;
    EXPECT_TRUE(CppJson::LoadJsonFile(path.c_str(), value));
    EXPECT_EQ(value["log_level"].asInt(), 2);
    EXPECT_EQ(value["log_size"].asInt(), 10);
}

TEST(CppJson, LoadJsonFileReadsOnlyRegularFiles)
{
    kuv::test::TempDir tmp("kuvjson");
    const std::string dir = tmp.path();
    const std::string fifo = dir + "/fifo.json";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Json::Value value;
    // Returns at once: nobody will ever write to the FIFO.
    EXPECT_FALSE(CppJson::LoadJsonFile(fifo.c_str(), value));
    EXPECT_FALSE(CppJson::LoadJsonFile(dir.c_str(), value));
    const std::string big = dir + "/big.json";
    {
        std::ofstream out(big);
        out << "[" << std::string(5 * 1024 * 1024, ' ') << "]";
    }
    EXPECT_FALSE(CppJson::LoadJsonFile(big.c_str(), value));
}

TEST(CppJson, LoadJsonStringEmptyLeavesValueUntouched)
{
    Json::Value value("keep");
    EXPECT_FALSE(CppJson::LoadJsonString("", value));
    EXPECT_EQ(value.asString(), "keep");
}

TEST(CppJson, LoadJsonStringParsesAndResetsValue)
{
    Json::Value value("old");
    EXPECT_TRUE(CppJson::LoadJsonString("{\"a\":[1,2]}", value));
    ASSERT_TRUE(value.isObject());
    EXPECT_EQ(value["a"].size(), 2u);
}

TEST(CppJson, LoadJsonStringFailsOnTruncatedDocuments)
{
    for (const char* text : {"{", "{\"a\":", "[1,2", "{\"a\":\"unterminated", "tru", "{\"a\" 1}"}) {
        Json::Value value;
        EXPECT_FALSE(CppJson::LoadJsonString(text, value)) << text;
    }
}

TEST(CppJson, WriteCompactHasNoBlanksNorTrailingLineFeed)
{
    Json::Value value;
    value["paths"].append("/a b");
    value["paths"].append("/c");
    std::string out;
    ASSERT_TRUE(CppJson::WriteJsonToString(value, out, true));
    EXPECT_EQ(out, "{\"paths\":[\"/a b\",\"/c\"]}");
}

TEST(CppJson, WriteStyledIsIndentedWithoutTrailingLineFeed)
{
    Json::Value value;
    value["a"] = 1;
    std::string out;
    ASSERT_TRUE(CppJson::WriteJsonToString(value, out, false));
    EXPECT_NE(out.find('\n'), std::string::npos);
    EXPECT_NE(out.back(), '\n');
    EXPECT_NE(out.find("   \"a\" : 1"), std::string::npos);
}

TEST(CppJson, GetIntRules)
{
    Json::Value doc;
    ASSERT_TRUE(CppJson::LoadJsonString("{\"n\":7,\"s\":\"2\",\"f\":1.5,\"b\":true,\"neg\":-3}", doc));
    EXPECT_EQ(CppJson::GetInt("n", doc, 3), 7);
    EXPECT_EQ(CppJson::GetInt("neg", doc, 3), -3);
    // A number written as text is not integral.
    EXPECT_EQ(CppJson::GetInt("s", doc, 3), 3);
    EXPECT_EQ(CppJson::GetInt("f", doc, 3), 3);
    EXPECT_EQ(CppJson::GetInt("b", doc, 3), 3);
    EXPECT_EQ(CppJson::GetInt("missing", doc, 3), 3);
    EXPECT_EQ(CppJson::GetInt(nullptr, doc, 3), 3);
    EXPECT_EQ(CppJson::GetInt("n", Json::Value(), 3), 3);
    EXPECT_EQ(CppJson::GetInt("n", Json::Value(Json::arrayValue), 3), 3);
}

TEST(CppJson, GetIntOutOfRangeGivesDefaultWithoutThrowing)
{
    Json::Value doc;
    ASSERT_TRUE(CppJson::LoadJsonString("{\"big\":9223372036854775807,\"huge\":18446744073709551615}", doc));
    EXPECT_EQ(CppJson::GetInt("big", doc, 5), 5);
    EXPECT_EQ(CppJson::GetInt("huge", doc, 5), 5);
}

TEST(CppJsonHostile, DeepNestingFailsWithoutCrashing)
{
    const size_t depth = 100000;
    std::string text(depth, '[');
    text.append(depth, ']');
    Json::Value value;
    EXPECT_FALSE(CppJson::LoadJsonString(text, value));
    std::string objects;
    for (size_t i = 0; i < depth; ++i) {
        objects += "{\"a\":";
    }
    objects += "1";
    objects.append(depth, '}');
    EXPECT_FALSE(CppJson::LoadJsonString(objects, value));
    std::string path;
    const auto dir = tempFile(text, path);
    EXPECT_FALSE(CppJson::LoadJsonFile(path.c_str(), value));
}

TEST(CppJsonHostile, ModerateNestingStillParses)
{
    std::string text(500, '[');
    text.append(500, ']');
    Json::Value value;
    EXPECT_TRUE(CppJson::LoadJsonString(text, value));
}

TEST(CppJsonHostile, BracketsInsideStringsDoNotCountAsNesting)
{
    std::string text = "{\"a\":\"" + std::string(5000, '[') + "\\\"" + "\"}";
    Json::Value value;
    ASSERT_TRUE(CppJson::LoadJsonString(text, value));
    EXPECT_EQ(value["a"].asString().size(), 5001u);
}

TEST(CppJsonHostile, InvalidUtf8NeverThrows)
{
    const std::string bad = std::string("{\"a\":\"") + "\xff\xfe\xc3\x28\xa0\xa1\xf0\x28\x8c\xbc" + "\"}";
    Json::Value value;
    bool ok = false;
    EXPECT_NO_THROW(ok = CppJson::LoadJsonString(bad, value));
    if (ok) {
        std::string out;
        EXPECT_NO_THROW(CppJson::WriteJsonToString(value, out, true));
    }
}

TEST(CppJsonHostile, HugeNumbersAndNulBytes)
{
    Json::Value value;
    EXPECT_NO_THROW(CppJson::LoadJsonString("[1e999999, -1e999999, 123456789012345678901234567890]", value));
    const std::string withNul("{\"a\":\"x\0y\"}", 12);
    EXPECT_NO_THROW(CppJson::LoadJsonString(withNul, value));
    const std::string nulOutside("{\"a\":1}\0garbage", 15);
    EXPECT_NO_THROW(CppJson::LoadJsonString(nulOutside, value));
    const std::string onlyNul(16, '\0');
    EXPECT_FALSE(CppJson::LoadJsonString(onlyNul, value));
}

TEST(CppJsonHostile, FiftyMebibyteStringRoundTrips)
{
    std::string text = "{\"s\":\"";
    text.append(50u << 20, 'x');
    text += "\"}";
    Json::Value value;
    ASSERT_TRUE(CppJson::LoadJsonString(text, value));
    EXPECT_EQ(value["s"].asString().size(), 50u << 20);
    std::string out;
    ASSERT_TRUE(CppJson::WriteJsonToString(value, out, true));
    EXPECT_EQ(out.size(), text.size());
    // Truncated in the middle of the big string.
    EXPECT_FALSE(CppJson::LoadJsonString(text.substr(0, 30u << 20), value));
}

// kuv::parseJsonStrict: what the settings readers accept.
struct StrictCase {
    const char* name;
    std::string text;
    bool failIfExtra;
    bool parses;
};

class ParseJsonStrict : public ::testing::TestWithParam<StrictCase> {};

TEST_P(ParseJsonStrict, AcceptsOrSaysWhy)
{
    const StrictCase& c = GetParam();
    Json::Value root;
    std::string why;
    EXPECT_EQ(kuv::parseJsonStrict(c.text.data(), c.text.data() + c.text.size(), root, why, c.failIfExtra), c.parses)
        << why;
    EXPECT_EQ(why.empty(), c.parses) << why;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParseJsonStrict,
    ::testing::Values(StrictCase{"object", R"({"settings": {"a": "1"}})", true, true},
                      StrictCase{"comments", "// note\n{\"a\": /* x */ 1}", true, true},
                      StrictCase{"extraRefused", R"({"a": 1} {"b": 2})", true, false},
                      StrictCase{"extraAllowed", R"({"a": 1} {"b": 2})", false, true},
                      StrictCase{"truncated", R"({"a": )", false, false},
                      StrictCase{"nestingWithinLimit", std::string(60, '[') + std::string(60, ']'), true, true},
                      StrictCase{"nestingBeyondLimit", std::string(100, '[') + std::string(100, ']'), true, false}),
    [](const ::testing::TestParamInfo<StrictCase>& info) { return std::string(info.param.name); });

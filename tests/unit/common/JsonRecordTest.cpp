// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <thread>

#include "JRGUIContextMenuScan.h"

using JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan;

TEST(JsonRecord, FromJsonStringOfNullLiteralFails)
{
    JRGUIContextMenuScan record;
    EXPECT_FALSE(record.FromJsonString("null"));
    EXPECT_FALSE(record.m_bLoaded);
}

TEST(JsonRecord, FromJsonStringOfEmptyTextFails)
{
    JRGUIContextMenuScan record;
    EXPECT_FALSE(record.FromJsonString(""));
}

TEST(JsonRecord, FromJsonStringOfEmptyObjectLeavesPathsEmpty)
{
    JRGUIContextMenuScan record;
    EXPECT_TRUE(record.FromJsonString("{}"));
    EXPECT_TRUE(record.m_bLoaded);
    EXPECT_TRUE(record.getPaths().empty());
}

TEST(JsonRecord, PathsAsStringLeavesPathsUnchanged)
{
    JRGUIContextMenuScan record;
    record.getPaths().push_back("/keep");
    EXPECT_TRUE(record.FromJsonString("{\"paths\":\"/not/an/array\"}"));
    ASSERT_EQ(record.getPaths().size(), 1u);
    EXPECT_EQ(record.getPaths()[0], "/keep");
}

TEST(JsonRecord, NonStringElementsKeepTheirPlaceAsEmpty)
{
    JRGUIContextMenuScan record;
    EXPECT_TRUE(record.FromJsonString("{\"paths\":[5,\"/x\"]}"));
    ASSERT_EQ(record.getPaths().size(), 2u);
    EXPECT_EQ(record.getPaths()[0], "");
    EXPECT_EQ(record.getPaths()[1], "/x");
}

TEST(JsonRecord, ReadReplacesExistingPaths)
{
    JRGUIContextMenuScan record;
    record.getPaths() = {"/old1", "/old2", "/old3"};
    EXPECT_TRUE(record.FromJsonString("{\"paths\":[\"/new\"]}"));
    ASSERT_EQ(record.getPaths().size(), 1u);
    EXPECT_EQ(record.getPaths()[0], "/new");
}

TEST(JsonRecord, CompactEmptyRecordHasEmptyArrayAndNoLineFeed)
{
    JRGUIContextMenuScan record;
    std::string out;
    ASSERT_TRUE(record.ToJsonString(out, true));
    EXPECT_EQ(out, "{\"paths\":[]}");
}

TEST(JsonRecord, CompactTwoPathsIs23Characters)
{
    JRGUIContextMenuScan record;
    record.getPaths().push_back("/a b");
    record.getPaths().push_back("/c");
    std::string out;
    ASSERT_TRUE(record.ToJsonString(out, true));
    EXPECT_EQ(out, "{\"paths\":[\"/a b\",\"/c\"]}");
    EXPECT_EQ(out.size(), 23u);
}

TEST(JsonRecord, StyledOutputIsIndented)
{
    JRGUIContextMenuScan record;
    record.getPaths().push_back("/a");
    std::string out;
    ASSERT_TRUE(record.ToJsonString(out, false));
    EXPECT_NE(out.find('\n'), std::string::npos);
    EXPECT_NE(out.back(), '\n');
}

TEST(JsonRecord, FromJsonValueRules)
{
    JRGUIContextMenuScan record;
    EXPECT_FALSE(record.FromJsonValue(Json::Value()));
    EXPECT_FALSE(record.m_bLoaded);
    // Not an object: still true, fields untouched.
    record.getPaths().push_back("/keep");
    EXPECT_TRUE(record.FromJsonValue(Json::Value(7)));
    EXPECT_TRUE(record.m_bLoaded);
    ASSERT_EQ(record.getPaths().size(), 1u);
    Json::Value doc;
    doc["paths"].append("/v");
    EXPECT_TRUE(record.FromJsonValue(doc));
    ASSERT_EQ(record.getPaths().size(), 1u);
    EXPECT_EQ(record.getPaths()[0], "/v");
}

TEST(JsonRecord, ToJsonValueRoundTrip)
{
    JRGUIContextMenuScan record;
    record.getPaths() = {"/1", "/2"};
    Json::Value value;
    ASSERT_TRUE(record.ToJsonValue(value));
    JRGUIContextMenuScan copy;
    ASSERT_TRUE(copy.FromJsonValue(value));
    EXPECT_EQ(copy.getPaths(), record.getPaths());
}

TEST(JsonRecord, LoadedFlagIsNeverCleared)
{
    JRGUIContextMenuScan record;
    ASSERT_TRUE(record.FromJsonString("{}"));
    EXPECT_FALSE(record.FromJsonString("not json"));
    EXPECT_TRUE(record.m_bLoaded);
}

TEST(JsonRecord, BaseObjectHasNoFields)
{
    JsonSerializerObject object;
    std::string out;
    // The base writes nothing: a null value serialises as "null".
    ASSERT_TRUE(object.ToJsonString(out, true));
    EXPECT_EQ(out, "null");
    EXPECT_EQ(object.m_strExtra, "");
    EXPECT_EQ(object.m_nExtra1, 0);
    EXPECT_EQ(object.m_nExtra2, 0);
}

TEST(JsonRecord, ConcurrentSerialisationOfOneRecord)
{
    JRGUIContextMenuScan record;
    record.getPaths() = {"/a", "/b", "/c"};
    std::vector<std::thread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                std::string out;
                if (record.ToJsonString(out, true) && out == "{\"paths\":[\"/a\",\"/b\",\"/c\"]}") {
                    ++good;
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(good.load(), 800);
}

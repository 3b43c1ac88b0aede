// SPDX-License-Identifier: GPL-2.0-or-later
// The forwarding client against the pipe double: which arguments send what, byte for byte.
#include <gtest/gtest.h>

#include "CGuiCmdExecuter.h"
#include "CmdTestSupport.h"
#include "FakePlatform.h"
#include "JRGUIContextMenuScan.h"

namespace {

class CmdExecuterTest : public ::testing::Test {
protected:
    void SetUp() override { fake::resetAll(); }

    int run(std::vector<std::string> args)
    {
        args.insert(args.begin(), "kuvgui");
        std::vector<char*> argv;
        for (auto& a : args) {
            argv.push_back(&a[0]);
        }
        argv.push_back(nullptr);
        return CGuiCmdExecuter().execute(static_cast<int>(args.size()), argv.data());
    }
};

} // namespace

TEST_F(CmdExecuterTest, NoArgumentsShowsTheMainWindow)
{
    EXPECT_EQ(run({}), 1);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].name, "/tmp/kuv-gui");
    EXPECT_EQ(sends[0].bytes, frame(1, 4, std::string(4, '\0')));
    EXPECT_EQ(sends[0].bytes.size(), 20u);
}

TEST_F(CmdExecuterTest, RightWithTwoPathsSendsThirtyNineBytes)
{
    EXPECT_EQ(run({"right", "/a b", "/c"}), 1);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    const std::string payload = "{\"paths\":[\"/a b\",\"/c\"]}";
    EXPECT_EQ(payload.size(), 23u);
    EXPECT_EQ(sends[0].bytes, frame(4, 23, payload));
    EXPECT_EQ(sends[0].bytes.size(), 39u);
}

TEST_F(CmdExecuterTest, QuitSendsEighteenBytesAndIgnoresTheRest)
{
    EXPECT_EQ(run({"quit", "extra", "more"}), 1);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].bytes, frame(5, 2, "{}"));
    EXPECT_EQ(sends[0].bytes.size(), 18u);
}

TEST_F(CmdExecuterTest, RightAloneSendsNothing)
{
    EXPECT_EQ(run({"right"}), 0);
    EXPECT_TRUE(fake::pipeSends().empty());
}

TEST_F(CmdExecuterTest, OtherWordsSendNothing)
{
    for (const char* word : {"RIGHT", "Right", "--right", "-right", "QUIT", "--quit", "show", "", "right "}) {
        EXPECT_EQ(run({word, "x"}), 0) << word;
    }
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_TRUE(fake::pipeSends().empty());
}

TEST_F(CmdExecuterTest, RefusedSendGivesZero)
{
    fake::setPipeClientResult(0);
    EXPECT_EQ(run({}), 0);
    EXPECT_EQ(run({"right", "/x"}), 0);
    EXPECT_EQ(run({"quit"}), 0);
    EXPECT_EQ(fake::pipeSends().size(), 3u);
}

TEST_F(CmdExecuterTest, AnyNonZeroSendResultCountsAsSent)
{
    fake::setPipeClientResult(-7);
    EXPECT_EQ(run({"quit"}), 1);
}

TEST_F(CmdExecuterTest, EmptyPathListSendsNothing)
{
    EXPECT_EQ(CGuiCmdExecuter().contextMenuScan({}), 0);
    EXPECT_TRUE(fake::pipeSends().empty());
}

TEST_F(CmdExecuterTest, PathsNeedingJsonEscapesTravelIntact)
{
    EXPECT_EQ(run({"right", "/q\"uote", "/back\\slash", "/\xe4\xb8\xad"}), 1);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    const std::string payload = sends[0].bytes.substr(16);
    EXPECT_EQ(headType(sends[0].bytes), 4u);
    EXPECT_EQ(headLength(sends[0].bytes), payload.size());
    EXPECT_NE(payload.find("\\\"uote"), std::string::npos) << payload;
    EXPECT_EQ(payload.back(), '}');
}

TEST_F(CmdExecuterTest, PathsThatAreNotUtf8TravelByteForByte)
{
    const std::string odd = "/home/u/\x9b" "3 \xff\xfe \"q\" \\ \x01";
    EXPECT_EQ(run({"right", "/中文 ok", odd}), 1);
    const auto sends = fake::pipeSends();
    ASSERT_EQ(sends.size(), 1u);
    const std::string payload = sends[0].bytes.substr(16);
    // The UTF-8 path as the JSON writer writes it, the other one with its own bytes.
    EXPECT_EQ(payload, "{\"paths\":[\"/\\u4e2d\\u6587 ok\",\"/home/u/\x9b" "3 \xff\xfe \\\"q\\\" \\\\ \\u0001\"]}");
    // The record on the other end reads back the very bytes.
    JsonReflect::JRGUIContextMenuScan::JRGUIContextMenuScan record;
    ASSERT_TRUE(record.FromJsonString(payload));
    ASSERT_EQ(record.getPaths().size(), 2u);
    EXPECT_EQ(record.getPaths()[0], "/中文 ok");
    EXPECT_EQ(record.getPaths()[1], odd);
}

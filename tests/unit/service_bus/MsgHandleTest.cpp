// SPDX-License-Identifier: GPL-2.0-or-later
// The application's bus receiver: one log line per message, the plugin hook for type 1003.
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CGuiMsgHandle.h"
#include "FakePlatform.h"

namespace {

constexpr const char* kFile = "gui/service/core/adaptor/CGuiMsgHandle";

struct Hook {
    int calls = 0;
    size_t linesAtCall = 0;
    std::thread::id thread;
    static void run(void* context)
    {
        auto* self = static_cast<Hook*>(context);
        ++self->calls;
        self->linesAtCall = fake::logLines().size();
        self->thread = std::this_thread::get_id();
    }
};

class MsgHandleTest : public ::testing::Test {
protected:
    void SetUp() override { fake::resetAll(); }
    void TearDown() override { fake::resetAll(); }

    static void deliver(IMRReceiveComplete& receiver, int64_t type, const char* body, int length)
    {
        receiver.ReceiveCallback(0, type, body, length, 0, 0);
    }

    CGuiMsgHandle handle;
    Hook hook;
};

} // namespace

TEST_F(MsgHandleTest, Type1003IsLoggedAndThenRunsTheHook)
{
    handle.setCallback(&Hook::run, &hook);
    deliver(handle, 1003, "hello", 5);
    EXPECT_EQ(hook.calls, 1);
    EXPECT_EQ(hook.linesAtCall, 1u);
    const auto lines = fake::logLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "[CGuiMsgHandle] msgType = 1003, content = hello");
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].file, kFile);
    EXPECT_EQ(lines[0].function, "ReceiveCallback");
}

TEST_F(MsgHandleTest, Type1003WithoutAHookIsOnlyLogged)
{
    deliver(handle, 1003, "x", 1);
    EXPECT_EQ(fake::logMessages(), std::vector<std::string>{"[CGuiMsgHandle] msgType = 1003, content = x"});
}

TEST_F(MsgHandleTest, OtherTypesAreOnlyLogged)
{
    handle.setCallback(&Hook::run, &hook);
    deliver(handle, 1002, "a", 1);
    deliver(handle, 1004, "b", 1);
    deliver(handle, 0, "", 0);
    EXPECT_EQ(hook.calls, 0);
    EXPECT_EQ(fake::logMessages(), (std::vector<std::string>{"[CGuiMsgHandle] msgType = 1002, content = a",
                                                             "[CGuiMsgHandle] msgType = 1004, content = b",
                                                             "[CGuiMsgHandle] msgType = 0, content = "}));
}

TEST_F(MsgHandleTest, TheBodyIsTakenByItsLength)
{
    // Shorter than the text: cut; no terminating zero: not read past the length.
    deliver(handle, 1002, "hello world", 5);
    const char unterminated[3] = {'a', 'b', 'c'};
    deliver(handle, 1002, unterminated, 3);
    // An embedded zero is copied with the rest; the line shows the body up to it.
    deliver(handle, 1002, "ab\0cd", 5);
    EXPECT_EQ(fake::logMessages(), (std::vector<std::string>{"[CGuiMsgHandle] msgType = 1002, content = hello",
                                                             "[CGuiMsgHandle] msgType = 1002, content = abc",
                                                             "[CGuiMsgHandle] msgType = 1002, content = ab"}));
}

TEST_F(MsgHandleTest, NoBodyOrANegativeLengthGivesAnEmptyBody)
{
    handle.setCallback(&Hook::run, &hook);
    deliver(handle, 1003, nullptr, 10);
    deliver(handle, 1003, "abc", -1);
    EXPECT_EQ(hook.calls, 2);
    EXPECT_EQ(fake::logMessages(), (std::vector<std::string>{"[CGuiMsgHandle] msgType = 1003, content = ",
                                                             "[CGuiMsgHandle] msgType = 1003, content = "}));
}

TEST_F(MsgHandleTest, SettingTheCallbackAgainReplacesIt)
{
    Hook other;
    handle.setCallback(&Hook::run, &hook);
    handle.setCallback(&Hook::run, &other);
    deliver(handle, 1003, "", 0);
    EXPECT_EQ(hook.calls, 0);
    EXPECT_EQ(other.calls, 1);
    handle.setCallback(nullptr, nullptr);
    deliver(handle, 1003, "", 0);
    EXPECT_EQ(other.calls, 1);
}

TEST_F(MsgHandleTest, TheHookRunsOnTheDeliveringThread)
{
    handle.setCallback(&Hook::run, &hook);
    std::thread::id bus;
    std::thread t([&] {
        bus = std::this_thread::get_id();
        deliver(handle, 1003, "from the bus", 12);
    });
    t.join();
    EXPECT_EQ(hook.calls, 1);
    EXPECT_EQ(hook.thread, bus);
    EXPECT_NE(hook.thread, std::this_thread::get_id());
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The command server: each hand-built message becomes (or does not become) one GUI shell request.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CGuiServer.h"
#include "CLogDebug.h"
#include "CmdTestSupport.h"
#include "FakePlatform.h"

namespace {

const char* const kServerFile = "gui/service/core/adaptor/CGuiServer";

class GuiServerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::resetAll();
        // Every level is written, so a test sees any line at all that the server logs.
        CLogDebug::Instance()->SetProperty(LOG_PROPERTY_LEVEL, "0");
        fake::clearEvents();
        server = CGuiServer::GetInstance();
        ASSERT_NE(server, nullptr);
    }
    void TearDown() override { utils::SingletonAbstract<CGuiServer>::UninitInstance(); }

    // Delivers bytes as the pipe library would: a buffer with a NUL after the received bytes.
    std::string deliver(const std::string& bytes)
    {
        CCharVector data(bytes.data(), bytes.size());
        testing::internal::CaptureStdout();
        server->RecvData(data, 2, nullptr, 4242);
        return testing::internal::GetCapturedStdout();
    }

    CGuiServer* server = nullptr;
};

} // namespace

TEST_F(GuiServerTest, StartNamesThePipeAndListens)
{
    EXPECT_EQ(server->start(), 1);
    EXPECT_EQ(fake::events(),
              (std::vector<std::string>{"pipe.setName /tmp/kuv-gui", "pipe.registerMonitor 2 true", "pipe.start"}));
    EXPECT_TRUE(fake::pipeServerRunning());
    server->stop();
    EXPECT_FALSE(fake::pipeServerRunning());
    EXPECT_EQ(fake::events().back(), "pipe.stop");
}

TEST_F(GuiServerTest, StartPassesOnAFailedListen)
{
    fake::setPipeServerStartResult(0);
    EXPECT_EQ(server->start(), 0);
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(GuiServerTest, OneInstanceUntilReleased)
{
    EXPECT_EQ(CGuiServer::GetInstance(), server);
    utils::SingletonAbstract<CGuiServer>::UninitInstance();
    utils::SingletonAbstract<CGuiServer>::UninitInstance();
    CGuiServer* again = CGuiServer::GetInstance();
    ASSERT_NE(again, nullptr);
    server = again;
}

TEST_F(GuiServerTest, ReleasingStopsTheListeningServer)
{
    ASSERT_EQ(server->start(), 1);
    utils::SingletonAbstract<CGuiServer>::UninitInstance();
    EXPECT_FALSE(fake::pipeServerRunning());
    server = CGuiServer::GetInstance();
}

TEST_F(GuiServerTest, ShowMainWithoutPayloadShowsTheWindow)
{
    const std::string out = deliver(frame(1, 0, ""));
    const auto ctrls = fake::shellCtrls();
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ(ctrls[0].code, 0);
    const auto lines = fake::logLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].message, "CGuiServer: show main windows.");
    EXPECT_EQ(lines[0].level, 2);
    EXPECT_EQ(lines[0].file, kServerFile);
    EXPECT_EQ(lines[0].function, "RecvData");
    EXPECT_EQ(out, "");
    // The shell is asked first, then the line is written.
    EXPECT_EQ(fake::events().front(), "shell.ctrl 0");
}

TEST_F(GuiServerTest, ShowMainWithItsFourBytes)
{
    deliver(frame(1, 4, std::string(4, '\0')));
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].code, 0);
}

TEST_F(GuiServerTest, ShortMessagesAreDropped)
{
    for (size_t n : {0u, 1u, 8u, 15u}) {
        deliver(frame(1, 0, "").substr(0, n));
    }
    EXPECT_TRUE(fake::shellCtrls().empty());
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(GuiServerTest, ScanWithThreePathsLogsEachInOrder)
{
    const std::string out = deliver(frame(4, "{\"paths\":[\"/a b\",\"/c\",\"/d/e.txt\"]}"));
    EXPECT_EQ(out, "CGuiServer: context menu scan [/a b].\nCGuiServer: context menu scan [/c].\n"
                   "CGuiServer: context menu scan [/d/e.txt].\n");
    const auto lines = fake::logLines();
    ASSERT_EQ(lines.size(), 3u);
    const std::vector<std::string> paths = {"/a b", "/c", "/d/e.txt"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].message, "CGuiServer: context menu scan [" + paths[i] + "].\n");
        EXPECT_EQ(lines[i].level, 2);
        EXPECT_EQ(lines[i].function, "RecvData");
        EXPECT_EQ(lines[i].file, kServerFile);
    }
    const auto ctrls = fake::shellCtrls();
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ(ctrls[0].code, 1);
    EXPECT_EQ(ctrls[0].paths, (std::list<std::string>{"/a b", "/c", "/d/e.txt"}));
}

TEST_F(GuiServerTest, ScanWithEmptyPathsAsksWithAnEmptyList)
{
    const std::string out = deliver(frame(4, "{\"paths\":[]}"));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(fake::logLines().empty());
    const auto ctrls = fake::shellCtrls();
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ(ctrls[0].code, 1);
    EXPECT_TRUE(ctrls[0].paths.empty());
}

TEST_F(GuiServerTest, MalformedScanPayloadsStillAskWithAnEmptyList)
{
    const std::vector<std::string> payloads = {"not json", "", "[\"/a\"]", "{\"paths\":\"/a\"}", "{\"other\":[\"/a\"]}",
                                               "null", "{\"paths\":[\"/a\""};
    for (const auto& payload : payloads) {
        deliver(frame(4, payload));
    }
    const auto ctrls = fake::shellCtrls();
    ASSERT_EQ(ctrls.size(), payloads.size());
    for (const auto& c : ctrls) {
        EXPECT_EQ(c.code, 1);
        EXPECT_TRUE(c.paths.empty());
    }
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(GuiServerTest, NonStringEntriesKeepTheirPlaceAsEmptyPaths)
{
    deliver(frame(4, "{\"paths\":[7,\"/x\"]}"));
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].paths, (std::list<std::string>{"", "/x"}));
}

TEST_F(GuiServerTest, ScanPayloadEndsAtItsFirstNul)
{
    deliver(frame(4, std::string("{\"paths\":[\"/a\"]}") + '\0' + "garbage"));
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].paths, std::list<std::string>{"/a"});
}

TEST_F(GuiServerTest, ScanLengthFieldIsNotTrusted)
{
    // A header claiming far more than arrived: only the received bytes are read.
    deliver(frame(4, 1u << 30, "{\"paths\":[\"/big\"]}"));
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].paths, std::list<std::string>{"/big"});
}

TEST_F(GuiServerTest, ControlCharactersInPathsAreShownEscaped)
{
    const std::string out = deliver(frame(4, "{\"paths\":[\"/a\\nforged\"]}"));
    EXPECT_EQ(out, "CGuiServer: context menu scan [/a\\nforged].\n");
    ASSERT_EQ(fake::logLines().size(), 1u);
    // The log library escapes what it writes (one rule for every writer); it gets the path as it is.
    EXPECT_EQ(fake::logLines()[0].message, "CGuiServer: context menu scan [/a\nforged].\n");
    // The shell gets the path itself.
    EXPECT_EQ(fake::shellCtrls()[0].paths, std::list<std::string>{"/a\nforged"});
}

TEST_F(GuiServerTest, QuitWithOrWithoutPayload)
{
    deliver(frame(5, "{}"));
    deliver(frame(5, 0, ""));
    deliver(frame(5, "anything at all"));
    const auto ctrls = fake::shellCtrls();
    ASSERT_EQ(ctrls.size(), 3u);
    for (const auto& c : ctrls) {
        EXPECT_EQ(c.code, 3);
    }
    EXPECT_TRUE(fake::logLines().empty());
}

TEST_F(GuiServerTest, OtherTypesDoNothing)
{
    for (uint64_t type : {0ull, 2ull, 3ull, 6ull, 1003ull, ~0ull}) {
        deliver(frame(type, "{\"paths\":[\"/a\"]}"));
    }
    EXPECT_TRUE(fake::shellCtrls().empty());
    EXPECT_TRUE(fake::logLines().empty());
    EXPECT_TRUE(fake::events().empty());
}

TEST_F(GuiServerTest, MessagesFromSeveralThreadsAreEachHandled)
{
    const std::string show = frame(1, 0, "");
    const std::string scan = frame(4, "{\"paths\":[\"/t\"]}");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const std::string& bytes = (t % 2 == 0) ? show : scan;
                CCharVector data(bytes.data(), bytes.size());
                server->RecvData(data, 2, nullptr, 1);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(fake::shellCtrls().size(), 200u);
}

TEST_F(GuiServerTest, TooManyPathsAreRefusedWithOneRecord)
{
    std::string many = "{\"paths\":[";
    for (int i = 0; i < 150000; ++i) {
        many += i == 0 ? "\"\"" : ",\"\"";
    }
    many += "]}";
    const std::string out = deliver(frame(4, many));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(fake::shellCtrls().empty()) << "a refused command starts no scan";
    ASSERT_EQ(fake::logLines().size(), 1u);
    EXPECT_EQ(fake::logLines()[0].level, LOG_LEVEL_WARN);
    EXPECT_NE(fake::logLines()[0].message.find("150000 paths refused (at most 100000)"), std::string::npos)
        << fake::logLines()[0].message;

    // Commas inside names do not count.
    deliver(frame(4, "{\"paths\":[\"" + std::string(200000, ',') + "\"]}"));
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].paths.size(), 1u);
}

TEST_F(GuiServerTest, ANameThatIsNotUtf8ReachesTheShellWithItsBytes)
{
    const std::string odd = "/x/\x9b" "3\xff\xfe";
    const std::string out = deliver(frame(4, "{\"paths\":[\"" + odd + "\"]}"));
    EXPECT_EQ(out, "CGuiServer: context menu scan [/x/\\x9b3\\xff\\xfe].\n");
    ASSERT_EQ(fake::shellCtrls().size(), 1u);
    EXPECT_EQ(fake::shellCtrls()[0].paths, std::list<std::string>{odd});
}

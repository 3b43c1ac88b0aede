// SPDX-License-Identifier: GPL-2.0-or-later
// The forwarding client's messages as a real pipe server on a real socket receives them.
#include <stdlib.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AfxPipe.h"
#include "CGuiCmdExecuter.h"
#include "CmdTestSupport.h"
#include "Harness.h"

namespace {

class Recorder : public IRemoteCallNotify {
public:
    void RecvData(CCharVector& data, long, void*, unsigned long) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.emplace_back(data.data(), data.length());
        m_cv.notify_all();
    }
    bool waitCount(size_t n)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(30), [&] { return m_messages.size() >= n; });
    }
    std::vector<std::string> messages()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::string> m_messages;
};

// One private runtime directory for the whole program, set before anything asks for it.
class RuntimeEnv : public ::testing::Environment {
public:
    void SetUp() override
    {
        m_dir = std::make_unique<kuvtest::TempDir>("kuvsock");
        const std::string runtime = m_dir->path() + "/run";
        mkdir(runtime.c_str(), 0700);
        setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    }
    void TearDown() override { m_dir.reset(); }

private:
    std::unique_ptr<kuvtest::TempDir> m_dir;
};
const auto* g_env = ::testing::AddGlobalTestEnvironment(new RuntimeEnv);

class CmdSocketTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        server.setName("/tmp/kuv-gui");
        server.registerMonitor(&recorder, 2, nullptr, true);
        ASSERT_EQ(server.start(), 1);
    }
    void TearDown() override { server.stop(); }

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

    Recorder recorder;
    CAfxPipeServer server;
};

} // namespace

TEST_F(CmdSocketTest, ScanOfTwoPathsArrivesAsThirtyNineBytes)
{
    ASSERT_EQ(run({"right", "/a b", "/c"}), 1);
    ASSERT_TRUE(recorder.waitCount(1));
    const auto got = recorder.messages();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].size(), 39u);
    EXPECT_EQ(got[0], frame(4, 23, "{\"paths\":[\"/a b\",\"/c\"]}"));
}

TEST_F(CmdSocketTest, ShowAndQuitArriveWhole)
{
    ASSERT_EQ(run({}), 1);
    ASSERT_EQ(run({"quit", "extra"}), 1);
    ASSERT_TRUE(recorder.waitCount(2));
    const auto got = recorder.messages();
    EXPECT_EQ(got[0], frame(1, 4, std::string(4, '\0')));
    EXPECT_EQ(got[1], frame(5, 2, "{}"));
}

TEST_F(CmdSocketTest, WordsThatAreNoCommandSendNothing)
{
    EXPECT_EQ(run({"RIGHT", "x"}), 0);
    EXPECT_EQ(run({"--right", "x"}), 0);
    EXPECT_EQ(run({"right"}), 0);
    // The next real message is the first the server sees.
    ASSERT_EQ(run({}), 1);
    ASSERT_TRUE(recorder.waitCount(1));
    const auto got = recorder.messages();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(headType(got[0]), 1u);
}

TEST(CmdSocketNoServer, NothingListeningGivesZero)
{
    char arg0[] = "kuvgui";
    char* argv[] = {arg0, nullptr};
    EXPECT_EQ(CGuiCmdExecuter().execute(1, argv), 0);
}

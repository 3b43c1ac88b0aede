// SPDX-License-Identifier: GPL-2.0-or-later
// The command channel end to end: second starts and raw messages reach the running instance's shell.
#include <cstdint>
#include <cstring>

#include "ServiceSupport.h"

using svctest::Service;

namespace {

const std::string kRunning = std::string("Container[") + svctest::kTag + "] is Running\n";

// One JSON object per line of the shell journal, as text.
std::vector<std::string> journalLines(const Service& s)
{
    std::vector<std::string> lines;
    const std::string text = s.journal();
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t end = text.find('\n', pos);
        lines.push_back(text.substr(pos, end == std::string::npos ? std::string::npos : end - pos));
        pos = end == std::string::npos ? text.size() : end + 1;
    }
    return lines;
}

int countCtrl(const Service& s, int code)
{
    int n = 0;
    const std::string needle = "\"code\":" + std::to_string(code);
    for (const auto& l : journalLines(s)) {
        if (l.find("\"event\":\"ctrl\"") != std::string::npos && l.find(needle) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

bool waitCtrl(const Service& s, int code, int count)
{
    return kuvtest::waitUntil([&] { return countCtrl(s, code) >= count; }, 30000);
}

std::string frame(uint64_t type, uint64_t length, const std::string& payload)
{
    std::string bytes(16, '\0');
    memcpy(&bytes[0], &type, 8);
    memcpy(&bytes[8], &length, 8);
    return bytes + payload;
}

// Writes bytes to the instance's command socket with socat, as any other process of the user could.
int socatSend(const Service& s, const std::string& bytes)
{
    kuvtest::TempDir tmp("kuvraw");
    const std::string file = tmp.path() + "/msg";
    kuvtest::writeFile(file, bytes);
    const auto r = kuvtest::run({"/bin/sh", "-c", "socat -u OPEN:" + file + " UNIX-CONNECT:" + s.runtimeKuv() + "kuv-gui"},
                                s.env(), 30000);
    return r.status;
}

class ServiceCmd : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s = new Service;
        s->startAll();
    }
    static void TearDownTestSuite()
    {
        delete s;
        s = nullptr;
    }
    void SetUp() override
    {
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(s->service && s->service->running()) << "the shared instance is gone";
    }
    static Service* s;
};
Service* ServiceCmd::s = nullptr;

} // namespace

TEST_F(ServiceCmd, RightWithPathsRequestsAScanOfExactlyThosePaths)
{
    const int before = countCtrl(*s, 1);
    const auto r = s->second({"right", "/a b", "/c"});
    EXPECT_EQ(r.out, kRunning);
    EXPECT_EQ(r.status, 1);
    ASSERT_TRUE(waitCtrl(*s, 1, before + 1)) << s->journal();
    bool found = false;
    for (const auto& l : journalLines(*s)) {
        if (l.find("\"code\":1") != std::string::npos && l.find("[\"/a b\",\"/c\"]") != std::string::npos) {
            found = true;
        }
    }
    EXPECT_TRUE(found) << s->journal();
    EXPECT_TRUE(kuvtest::waitForFileContains(s->inst.log(), "CGuiServer: context menu scan [/a b].")) << s->log();
    EXPECT_TRUE(kuvtest::fileContains(s->inst.log(), "CGuiServer: context menu scan [/c]."));
    EXPECT_TRUE(kuvtest::waitUntil([&] {
        const std::string out = s->service->out();
        return out.find("CGuiServer: context menu scan [/a b].\nCGuiServer: context menu scan [/c].\n") !=
               std::string::npos;
    })) << s->service->out();
}

TEST_F(ServiceCmd, NoArgumentsShowsTheMainWindow)
{
    const int before = countCtrl(*s, 0);
    const auto r = s->second({});
    EXPECT_EQ(r.out, kRunning);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(waitCtrl(*s, 0, before + 1)) << s->journal();
    EXPECT_TRUE(kuvtest::waitForFileContains(s->inst.log(), "CGuiServer: show main windows."));
}

TEST_F(ServiceCmd, OtherArgumentsSendNothing)
{
    const int scans = countCtrl(*s, 1);
    const int quits = countCtrl(*s, 3);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"RIGHT", "x"}, {"--right", "x"}, {"right"}, {"Quit"}}) {
        const auto r = s->second(args);
        EXPECT_EQ(r.out, kRunning) << args[0];
        EXPECT_EQ(r.status, 0) << args[0];
    }
    // A message sent afterwards arrives; nothing sent before it did.
    const int shows = countCtrl(*s, 0);
    ASSERT_EQ(s->second({}).status, 1);
    ASSERT_TRUE(waitCtrl(*s, 0, shows + 1));
    EXPECT_EQ(countCtrl(*s, 1), scans);
    EXPECT_EQ(countCtrl(*s, 3), quits);
    EXPECT_TRUE(s->service->running());
}

TEST_F(ServiceCmd, RawMessagesBehaveAndTheServiceStaysUp)
{
    const int shows = countCtrl(*s, 0);
    const int scans = countCtrl(*s, 1);
    // Type 1 with no payload at all still shows the window.
    ASSERT_EQ(socatSend(*s, frame(1, 0, "")), 0);
    ASSERT_TRUE(waitCtrl(*s, 0, shows + 1)) << s->journal();
    // Types 2 and 3 are ignored.
    ASSERT_EQ(socatSend(*s, frame(2, 2, "{}")), 0);
    ASSERT_EQ(socatSend(*s, frame(3, 0, "")), 0);
    // Malformed scans still ask for a scan, with no paths.
    ASSERT_EQ(socatSend(*s, frame(4, 8, "not json")), 0);
    ASSERT_EQ(socatSend(*s, frame(4, 12, "{\"paths\":[]}")), 0);
    ASSERT_EQ(socatSend(*s, frame(4, 14, "{\"paths\":\"/x\"}")), 0);
    ASSERT_TRUE(waitCtrl(*s, 1, scans + 3)) << s->journal();
    int empty = 0;
    for (const auto& l : journalLines(*s)) {
        if (l.find("\"code\":1") != std::string::npos && l.find("\"paths\":[]") != std::string::npos) {
            ++empty;
        }
    }
    EXPECT_GE(empty, 3) << s->journal();
    // A show request after them all proves they were handled in order, and 2 and 3 did nothing.
    ASSERT_EQ(socatSend(*s, frame(1, 4, std::string(4, '\0'))), 0);
    ASSERT_TRUE(waitCtrl(*s, 0, shows + 2));
    EXPECT_EQ(countCtrl(*s, 2), 0);
    EXPECT_EQ(countCtrl(*s, 3), 0);
    EXPECT_TRUE(s->service->running());
    EXPECT_EQ(s->status().exitCode, 0);
}

TEST_F(ServiceCmd, TruncatedAndOversizedFramesDoNotHurtTheService)
{
    // Shorter than its header says, a header alone that promises too much, and bytes that are no frame.
    socatSend(*s, frame(4, 100, "{\"paths\":"));
    socatSend(*s, frame(4, ~0ull, ""));
    socatSend(*s, "garbage");
    const int shows = countCtrl(*s, 0);
    ASSERT_EQ(s->second({}).status, 1);
    ASSERT_TRUE(waitCtrl(*s, 0, shows + 1));
    EXPECT_TRUE(s->service->running());
}

// Last: it ends the shared instance.
TEST_F(ServiceCmd, ZQuitWithExtraArgumentsQuits)
{
    const auto r = s->second({"quit", "extra"});
    EXPECT_EQ(r.out, kRunning);
    EXPECT_EQ(r.status, 1);
    ASSERT_TRUE(s->service->wait(60000));
    EXPECT_EQ(s->service->exitStatus(), 0) << s->service->err();
    EXPECT_TRUE(waitCtrl(*s, 3, 1));
    // With no instance left, the next start is a first start again.
    EXPECT_EQ(s->status().exitCode, 1);
}

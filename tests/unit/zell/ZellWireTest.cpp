// SPDX-License-Identifier: GPL-2.0-or-later
// The wire protocol parser and the broker's routing core, without sockets.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "ZellRouter.h"
#include "ZellWire.h"

using namespace zell;
using namespace zell::wire;

namespace {

std::string header(Cmd cmd)
{
    uint8_t raw[kHeaderSize];
    putHeader(raw, cmd);
    return std::string(reinterpret_cast<char*>(raw), kHeaderSize);
}

std::string guidBytes(uint32_t n)
{
    GUID guid{};
    guid.Data1 = n;
    uint8_t raw[kGuidSize];
    putGuid(raw, guid);
    return std::string(reinterpret_cast<char*>(raw), kGuidSize);
}

std::string metaBytes(int64_t type, uint64_t sequence, uint32_t flags = 0)
{
    Meta meta;
    meta.type = type;
    meta.sequence = sequence;
    meta.flags = flags;
    uint8_t raw[kMetaSize];
    putMeta(raw, meta);
    return std::string(reinterpret_cast<char*>(raw), kMetaSize);
}

// A message is one frame: its fields joined.
std::string join(const std::vector<std::string>& fields)
{
    std::string out;
    for (const auto& f : fields) {
        out += f;
    }
    return out;
}

// The message keeps views into the bytes, so callers keep them alive.
ParseError parseUp(const std::string& bytes, Message& msg)
{
    return parse(bytes.data(), bytes.size(), Direction::ToBroker, msg);
}

uint32_t u32At(const std::string& bytes, size_t at)
{
    return bytes.size() >= at + 4 ? getU32(reinterpret_cast<const uint8_t*>(bytes.data()) + at) : 999;
}

struct Sink {
    std::set<int32_t> dead;
};

class RouterTest : public ::testing::Test {
protected:
    RouterTest()
        : router(1000, 77, Router::Limits{}, [this](int32_t pid) { return sink.dead.count(pid) == 0; })
    {
    }
    Router::Decision send(const std::string& peer, const std::vector<std::string>& fields, int64_t now = 0,
                          PeerCred cred = PeerCred{true, 1000, 10})
    {
        m_bytes = join(fields);
        const FrameView frame{m_bytes.data(), m_bytes.size()};
        return router.handle(peer, cred, &frame, 1, now);
    }
    uint32_t registerStatus(const std::string& peer, uint32_t guid, int64_t now = 0,
                            PeerCred cred = PeerCred{true, 1000, 10})
    {
        auto d = send(peer, {header(Cmd::Register), guidBytes(guid)}, now, cred);
        EXPECT_EQ(d.action, Router::Action::Reply);
        EXPECT_EQ(d.reply.substr(0, kHeaderSize), header(Cmd::RegisterAck));
        return u32At(d.reply, kHeaderSize + kGuidSize);
    }

    std::string m_bytes;
    Sink sink;
    Router router;
};

} // namespace

TEST(ZellWire, SendRoundTrip)
{
    const std::string body("a\0b", 3);
    Message msg;
    const std::string bytes = join({header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(1003, 9, kFlagWantAck), body});
    ASSERT_EQ(parseUp(bytes, msg), ParseError::None);
    EXPECT_EQ(msg.cmd, Cmd::Send);
    EXPECT_EQ(msg.dest.Data1, 1u);
    EXPECT_EQ(msg.src.Data1, 2u);
    EXPECT_EQ(msg.meta.type, 1003);
    EXPECT_EQ(msg.meta.sequence, 9u);
    EXPECT_EQ(msg.meta.flags, kFlagWantAck);
    EXPECT_EQ(std::string(static_cast<const char*>(msg.body.data), msg.body.size), body);

    // What the broker forwards: the same bytes with the command byte changed.
    std::string forwarded = bytes;
    forwarded[3] = static_cast<char>(Cmd::Deliver);
    Message delivered;
    ASSERT_EQ(parse(forwarded.data(), forwarded.size(), Direction::ToClient, delivered), ParseError::None);
    EXPECT_EQ(delivered.cmd, Cmd::Deliver);
    EXPECT_EQ(delivered.body.size, 3u);

    // The encoders produce what the parser accepts.
    Message parsed;
    for (const std::string& up : {encodeEmpty(Cmd::Hello), encodeEmpty(Cmd::Ping), encodeEmpty(Cmd::Bye),
                                  encodeGuid(Cmd::Register, msg.dest), encodeGuid(Cmd::Unregister, msg.dest)}) {
        EXPECT_EQ(parse(up.data(), up.size(), Direction::ToBroker, parsed), ParseError::None);
    }
    for (const std::string& down :
         {encodeInstance(Cmd::Welcome, 5), encodeInstance(Cmd::Pong, 5), encodeRegisterAck(msg.dest, kRegTaken),
          encodeGuid(Cmd::Unregistered, msg.dest), encodeRouted(Cmd::Ack, msg), encodeError(msg, kErrCongested)}) {
        EXPECT_EQ(parse(down.data(), down.size(), Direction::ToClient, parsed), ParseError::None);
    }
    const std::string error = encodeError(msg, kErrCongested);
    ASSERT_EQ(parse(error.data(), error.size(), Direction::ToClient, parsed), ParseError::None);
    EXPECT_EQ(parsed.code, kErrCongested);
    EXPECT_EQ(parsed.meta.sequence, 9u);
}

TEST(ZellWire, RejectsMalformedMessages)
{
    Message msg;
    EXPECT_EQ(parse(nullptr, 0, Direction::ToBroker, msg), ParseError::NoFrames);
    EXPECT_EQ(parseUp("KZ", msg), ParseError::BadHeader);
    EXPECT_EQ(parseUp(std::string("XY\x01\x01", 4), msg), ParseError::BadHeader);
    EXPECT_EQ(parseUp(std::string("KZ\x02\x01", 4), msg), ParseError::BadVersion);
    EXPECT_EQ(parseUp(std::string("KZ\x01\x00", 4), msg), ParseError::BadCommand);
    EXPECT_EQ(parseUp(std::string("KZ\x01\x63", 4), msg), ParseError::BadCommand);
    EXPECT_EQ(parseUp(join({header(Cmd::Welcome), std::string(12, 'x')}), msg), ParseError::BadCommand)
        << "broker-only commands are refused from clients";
    EXPECT_EQ(parseUp(join({header(Cmd::Hello), "x"}), msg), ParseError::BadFrameSize);
    EXPECT_EQ(parseUp(header(Cmd::Register), msg), ParseError::BadFrameSize);
    EXPECT_EQ(parseUp(join({header(Cmd::Register), "short"}), msg), ParseError::BadFrameSize);
    EXPECT_EQ(parseUp(join({header(Cmd::Register), guidBytes(1), "x"}), msg), ParseError::BadFrameSize);
    EXPECT_EQ(parseUp(join({header(Cmd::Send), guidBytes(1), guidBytes(2), "meta"}), msg), ParseError::BadFrameSize);
    const std::string tooBig = join({header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(1, 1),
                                     std::string(kMaxBody + 1, 'x')});
    EXPECT_EQ(parseUp(tooBig, msg), ParseError::BadFrameSize);
    std::string justRight = tooBig;
    justRight.pop_back();
    EXPECT_EQ(parseUp(justRight, msg), ParseError::None);
}

TEST(ZellWire, GuidText)
{
    GUID guid{};
    ASSERT_TRUE(parseGuidText("F6352E50-5C40-11EE-BEE1-47BAD2011C1F", guid));
    EXPECT_EQ(guidText(guid), "F6352E50-5C40-11EE-BEE1-47BAD2011C1F");
    GUID same{};
    stringToGuid(same, "F6352E50-5C40-11EE-BEE1-47BAD2011C1F");
    EXPECT_EQ(memcmp(&guid, &same, sizeof(GUID)), 0);
    ASSERT_TRUE(parseGuidText("{f6352e50-5c40-11ee-bee1-47bad2011c1f}", guid));
    EXPECT_EQ(guidText(guid), "F6352E50-5C40-11EE-BEE1-47BAD2011C1F");
    EXPECT_FALSE(parseGuidText("F6352E50-5C40-11EE-BEE1-47BAD2011C1", guid));
    EXPECT_FALSE(parseGuidText("F6352E50+5C40-11EE-BEE1-47BAD2011C1F", guid));
    EXPECT_FALSE(parseGuidText("G6352E50-5C40-11EE-BEE1-47BAD2011C1F", guid));
    uint8_t raw[kGuidSize];
    putGuid(raw, same);
    const GUID back = getGuid(raw);
    EXPECT_EQ(memcmp(&back, &same, sizeof(GUID)), 0);
}

TEST(ZellWire, PeerAddress)
{
    PeerCred cred;
    ASSERT_TRUE(parsePeerAddress("localhost:1000:1001:4242", cred));
    EXPECT_EQ(cred.uid, 1000u);
    EXPECT_EQ(cred.pid, 4242);
    EXPECT_FALSE(parsePeerAddress("localhost", cred));
    EXPECT_FALSE(parsePeerAddress("a:b:c:d", cred));
    EXPECT_FALSE(parsePeerAddress(nullptr, cred));
    EXPECT_FALSE(parsePeerAddress(":1:2:", cred));
}

TEST_F(RouterTest, RoutesToTheOwnerAndReportsUnknownDestinations)
{
    EXPECT_EQ(registerStatus("peerA", 1), kRegOk);
    EXPECT_EQ(registerStatus("peerA", 1), kRegOk) << "registering again is harmless";
    auto d = send("peerB", {header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(1003, 1), "body"});
    ASSERT_EQ(d.action, Router::Action::Forward);
    EXPECT_EQ(d.forwardTo, "peerA");
    EXPECT_TRUE(router.routed(d.msg).empty());

    d = send("peerB", {header(Cmd::Send), guidBytes(9), guidBytes(2), metaBytes(1003, 2), "body"});
    ASSERT_EQ(d.action, Router::Action::Reply);
    ASSERT_EQ(d.reply.size(), kRoutedSize + 4);
    EXPECT_EQ(d.reply.substr(0, kHeaderSize), header(Cmd::Error));
    EXPECT_EQ(u32At(d.reply, kRoutedSize), kErrUnknownDest);
    EXPECT_EQ(router.counters().unknownDest, 1u);

    d = send("peerB", {header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(5, 3, kFlagWantAck), ""});
    ASSERT_EQ(d.action, Router::Action::Forward);
    const std::string ack = router.routed(d.msg);
    ASSERT_EQ(ack.size(), kRoutedSize);
    EXPECT_EQ(ack.substr(0, kHeaderSize), header(Cmd::Ack));
    const std::string error = router.notRouted("peerB", d.msg, kErrCongested, 0);
    EXPECT_EQ(router.counters().congested, 1u);
    EXPECT_EQ(error.substr(0, kHeaderSize), header(Cmd::Error));
    // Without a request for a verdict, congestion is reported at most once a second.
    d = send("peerB", {header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(5, 4), ""});
    EXPECT_FALSE(router.notRouted("peerB", d.msg, kErrCongested, 10).empty());
    EXPECT_TRUE(router.notRouted("peerB", d.msg, kErrCongested, 500).empty());
    EXPECT_FALSE(router.notRouted("peerB", d.msg, kErrCongested, 1100).empty());
    EXPECT_EQ(router.counters().congested, 4u);

    // More than one frame is not a message of ours.
    const std::string part = header(Cmd::Hello);
    const FrameView two[2] = {{part.data(), part.size()}, {part.data(), part.size()}};
    d = router.handle("peerB", PeerCred{true, 1000, 10}, two, 2, 0);
    EXPECT_EQ(d.error, ParseError::BadFrameCount);
}

TEST_F(RouterTest, SecondLiveRegistrationIsRefusedUntilTheHolderIsGone)
{
    EXPECT_EQ(registerStatus("peerA", 1, 0, PeerCred{true, 1000, 10}), kRegOk);
    EXPECT_EQ(registerStatus("peerB", 1, 0, PeerCred{true, 1000, 11}), kRegTaken);
    EXPECT_EQ(registerStatus("peerB", 0), kRegInvalid);
    // The holder's process died without saying goodbye.
    sink.dead.insert(10);
    EXPECT_EQ(registerStatus("peerB", 1, 0, PeerCred{true, 1000, 11}), kRegOk);
    auto d = send("peerC", {header(Cmd::Send), guidBytes(1), guidBytes(3), metaBytes(1, 1), "x"});
    EXPECT_EQ(d.forwardTo, "peerB");

    // Unregister frees it at once and is confirmed.
    d = send("peerB", {header(Cmd::Unregister), guidBytes(1)}, 0, PeerCred{true, 1000, 11});
    ASSERT_EQ(d.action, Router::Action::Reply);
    EXPECT_EQ(d.reply, encodeGuid(Cmd::Unregistered, getGuid(reinterpret_cast<const uint8_t*>(guidBytes(1).data()))));
    EXPECT_EQ(registerStatus("peerC", 1, 0, PeerCred{true, 1000, 12}), kRegOk);
}

TEST_F(RouterTest, SilentClientsStayAndByeFreesEverything)
{
    EXPECT_EQ(registerStatus("peerA", 1, 0), kRegOk);
    EXPECT_EQ(registerStatus("peerA", 2, 0), kRegOk);
    EXPECT_EQ(router.guidCount(), 2u);
    send("peerA", {header(Cmd::Bye)});
    EXPECT_EQ(router.guidCount(), 0u);
    EXPECT_EQ(router.peerCount(), 0u);

    // Silence alone frees nothing: an idle client sends nothing at all.
    EXPECT_EQ(registerStatus("peerA", 1, 0), kRegOk);
    auto d = send("peerB", {header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(1, 1), "x"}, 3600 * 1000);
    EXPECT_EQ(d.forwardTo, "peerA");
}

TEST_F(RouterTest, ClosedConnectionsDropTheirClientsAtOnce)
{
    std::set<int> open = {5, 6, 7};
    router.setConnectionCheck([&](int fd, int32_t) { return open.count(fd) != 0; });
    EXPECT_EQ(registerStatus("peerA", 1, 0, PeerCred{true, 1000, 10}), kRegOk);
    EXPECT_TRUE(router.noteConnection("peerA", 5));
    EXPECT_EQ(registerStatus("peerA", 2, 0, PeerCred{true, 1000, 10}), kRegOk);
    EXPECT_EQ(registerStatus("peerB", 3, 0, PeerCred{true, 1000, 11}), kRegOk);
    EXPECT_TRUE(router.noteConnection("peerB", 6));
    EXPECT_EQ(router.guidCount(), 3u);

    // A close reported for a number that is open again (another connection took it) drops nothing.
    EXPECT_EQ(router.connectionClosed(6), 0u);
    EXPECT_EQ(router.connectionClosed(9), 0u);
    open.erase(5);
    EXPECT_EQ(router.connectionClosed(5), 1u);
    EXPECT_EQ(router.guidCount(), 1u);
    EXPECT_EQ(router.peerCount(), 1u);
    EXPECT_EQ(router.counters().closedPeers, 1u);
    // Its GUIDs are free for the client's next start at once, though its process id is still alive.
    EXPECT_EQ(registerStatus("peerC", 1, 0, PeerCred{true, 1000, 12}), kRegOk);
    EXPECT_TRUE(router.noteConnection("peerC", 7));

    // A message read after its connection had closed keeps nothing.
    EXPECT_EQ(registerStatus("peerD", 4, 0, PeerCred{true, 1000, 13}), kRegOk);
    EXPECT_FALSE(router.noteConnection("peerD", 8));
    EXPECT_EQ(router.guidCount(), 2u);

    // A holder whose connection is gone gives up its GUID to a new registration.
    open.erase(7);
    EXPECT_EQ(registerStatus("peerE", 1, 0, PeerCred{true, 1000, 14}), kRegOk);
}

TEST_F(RouterTest, ForeignUsersAndStolenSourcesAreRefused)
{
    auto d = send("evil", {header(Cmd::Hello)}, 0, PeerCred{true, 0, 5});
    EXPECT_TRUE(d.foreign);
    EXPECT_EQ(d.action, Router::Action::Drop);
    EXPECT_EQ(router.counters().foreignPeer, 1u);

    EXPECT_EQ(registerStatus("peerA", 1), kRegOk);
    EXPECT_EQ(registerStatus("peerA", 2), kRegOk);
    d = send("peerB", {header(Cmd::Send), guidBytes(1), guidBytes(2), metaBytes(1, 1), "x"});
    ASSERT_EQ(d.action, Router::Action::Reply);
    EXPECT_EQ(u32At(d.reply, kRoutedSize), kErrSourceTaken);
}

TEST_F(RouterTest, HelloAndPingCarryTheInstance)
{
    auto d = send("peerA", {header(Cmd::Hello)});
    EXPECT_EQ(d.reply, encodeInstance(Cmd::Welcome, 77));
    d = send("peerA", {header(Cmd::Ping)});
    EXPECT_EQ(d.reply, encodeInstance(Cmd::Pong, 77));
    // A client the broker dropped (its connection closed) is welcomed again so that it re-registers.
    router.setConnectionCheck([](int, int32_t) { return false; });
    EXPECT_FALSE(router.noteConnection("peerA", 3));
    d = send("peerA", {header(Cmd::Ping)}, 100000);
    EXPECT_EQ(d.reply, encodeInstance(Cmd::Welcome, 77));
    d = send("peerA", {header(Cmd::Send)});
    EXPECT_EQ(d.error, ParseError::BadFrameSize);
    EXPECT_EQ(router.counters().malformed, 1u);
}

#include <sys/stat.h>

#include "Harness.h"
#include "ZellLogFile.h"

TEST(ZellLogFile, RecordLayoutEscapingAndRotationIntoTheBackupDirectory)
{
    kuvtest::TempDir tmp("zelllog");
    ASSERT_EQ(mkdir((tmp.path() + "/bin").c_str(), 0755), 0);
    // The paths the service hands over keep an unresolved "/../".
    const std::string path = tmp.path() + "/bin/../log/gui/gui.ipc.log";
    const std::string backups = tmp.path() + "/bin/../log/gui/backup";
    LogFile log;
    std::string error;
    ASSERT_TRUE(log.open(path, backups, 4096, 2, &error)) << error;
    log.write(kuv::LogLevel::Warn, "platform/modules/zell/ZellIo", "handle", 12, "line one\nforged [ERROR] record\n");
    const std::string first = kuvtest::readFile(tmp.path() + "/log/gui/gui.ipc.log");
    EXPECT_NE(first.find("] [WARN] [platform/modules/zell/ZellIo:handle:12] line one\\nforged [ERROR] record\n"),
              std::string::npos)
        << first;
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1) << "one record, one line";
    EXPECT_EQ(first[0], '[');

    const std::string filler(200, 'x');
    for (int i = 0; i < 100; ++i) {
        log.write(kuv::LogLevel::Info, "src", "fn", i, filler);
    }
    struct stat st;
    ASSERT_EQ(stat((tmp.path() + "/log/gui/gui.ipc.log").c_str(), &st), 0);
    EXPECT_LE(st.st_size, 4096);
    EXPECT_EQ(stat((tmp.path() + "/log/gui/backup/gui.ipc.1.log").c_str(), &st), 0);
    EXPECT_LE(st.st_size, 4096);
    EXPECT_EQ(stat((tmp.path() + "/log/gui/backup/gui.ipc.2.log").c_str(), &st), 0);
    EXPECT_NE(stat((tmp.path() + "/log/gui/backup/gui.ipc.3.log").c_str(), &st), 0) << "two backups kept";
}

TEST(ZellLogFile, TheLogRuleTheCapAndPrivateFiles)
{
    kuvtest::TempDir tmp("zelllog");
    const std::string path = tmp.path() + "/log/kuv-zelld.log";
    LogFile log;
    std::string error;
    ASSERT_TRUE(log.open(path, "", 1 << 20, 1, &error)) << error;
    log.write(kuv::LogLevel::Warn, "platform/zelld/BrokerMain", "main", 1, "body \xc2\x85 \xe2\x80\xa8 \\n \xff end");
    log.write(kuv::LogLevel::Info, "platform/zelld/BrokerMain", "main", 2, std::string(20000, 'y'));
    const std::string text = kuvtest::readFile(path);
    EXPECT_NE(text.find("] body \\u0085 \\u2028 \\\\n \\xff end\n"), std::string::npos) << text;
    EXPECT_NE(text.find(std::string(16384, 'y') + " [... 3616 bytes cut]\n"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((tmp.path() + "/log").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    // A link planted where the log goes is not followed.
    const std::string planted = tmp.path() + "/log/planted.log";
    ASSERT_EQ(symlink((tmp.path() + "/target").c_str(), planted.c_str()), 0);
    LogFile other;
    EXPECT_FALSE(other.open(planted, "", 4096, 1, &error));
    EXPECT_NE(stat((tmp.path() + "/target").c_str(), &st), 0);
}

TEST(ZellLogFile, UnwritableDirectoryIsReportedNotFatal)
{
    LogFile log;
    std::string error;
    EXPECT_FALSE(log.open("/proc/no/such/dir/x.log", "", 4096, 1, &error));
    EXPECT_FALSE(error.empty());
    log.write(kuv::LogLevel::Info, "s", "f", 1, "goes nowhere"); // no crash
    EXPECT_FALSE(log.isOpen());
}

TEST_F(RouterTest, ASenderWithoutCredentialsIsDroppedFromItsFirstMessage)
{
    auto d = send("anon", {header(Cmd::Hello)}, 0, PeerCred{});
    EXPECT_TRUE(d.foreign);
    EXPECT_EQ(d.action, Router::Action::Drop);
    EXPECT_EQ(registerStatus("peerA", 1), kRegOk);
    d = send("anon", {header(Cmd::Send), guidBytes(1), guidBytes(5), metaBytes(1003, 1), "x"}, 0, PeerCred{});
    EXPECT_TRUE(d.foreign);
    EXPECT_EQ(d.action, Router::Action::Drop);
    d = send("other", {header(Cmd::Send), guidBytes(1), guidBytes(5), metaBytes(1003, 1), "x"}, 0,
             PeerCred{true, 65534, 77});
    EXPECT_TRUE(d.foreign);
    EXPECT_EQ(d.action, Router::Action::Drop);
    EXPECT_EQ(router.counters().foreignPeer, 3u);
    EXPECT_EQ(router.counters().routed, 0u);
}

TEST_F(RouterTest, OnlyTheOwnerUnregistersAGuid)
{
    EXPECT_EQ(registerStatus("peerA", 1, 0, PeerCred{true, 1000, 10}), kRegOk);
    auto d = send("peerB", {header(Cmd::Unregister), guidBytes(1)}, 0, PeerCred{true, 1000, 11});
    EXPECT_EQ(d.action, Router::Action::Drop);
    EXPECT_TRUE(d.refusedUnregister);
    d = send("peerC", {header(Cmd::Send), guidBytes(1), guidBytes(3), metaBytes(1, 1), "x"}, 0,
             PeerCred{true, 1000, 12});
    EXPECT_EQ(d.forwardTo, "peerA") << "the GUID stays with its owner";
    // A GUID nobody holds is let go at once, as before.
    d = send("peerB", {header(Cmd::Unregister), guidBytes(9)}, 0, PeerCred{true, 1000, 11});
    EXPECT_EQ(d.action, Router::Action::Reply);
    d = send("peerA", {header(Cmd::Unregister), guidBytes(1)}, 0, PeerCred{true, 1000, 10});
    EXPECT_EQ(d.action, Router::Action::Reply);
    EXPECT_EQ(router.guidCount(), 0u);
}

TEST_F(RouterTest, AGuidOfADeadOwnerGoesToTheNewRegistrantAtOnce)
{
    EXPECT_EQ(registerStatus("old", 1, 0, PeerCred{true, 1000, 40}), kRegOk);
    sink.dead.insert(40);
    // No expiry to wait for: the same moment.
    EXPECT_EQ(registerStatus("new", 1, 1, PeerCred{true, 1000, 41}), kRegOk);
    auto d = send("peerC", {header(Cmd::Send), guidBytes(1), guidBytes(3), metaBytes(1, 1), "x"}, 1,
                  PeerCred{true, 1000, 12});
    EXPECT_EQ(d.forwardTo, "new");
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The bus wire protocol between clients (ZMQ DEALER) and the broker (ZMQ ROUTER): frame layouts and parsing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Guid.h"

namespace zell::wire {

// Every message is one ZMQ frame (a multipart message can be cut in half when a reconnecting socket
// replaces its pipe, which libzmq 4.3 answers with an abort). It starts with a 4-byte header:
// 'K' 'Z' version command, followed by the fields of the command (integers little endian).
constexpr uint8_t kMagic0 = 'K';
constexpr uint8_t kMagic1 = 'Z';
constexpr uint8_t kVersion = 1;
constexpr size_t kHeaderSize = 4;
constexpr size_t kGuidSize = 16;
constexpr size_t kMetaSize = 24; // type i64, sequence u64, flags u32, reserved u32
// dest | src | meta: the start of Send, Deliver, Ack and Error.
constexpr size_t kRoutedSize = kHeaderSize + 2 * kGuidSize + kMetaSize;
// Largest body a message may carry; ZMQ_MAXMSGSIZE is set a little above it on both ends.
constexpr size_t kMaxBody = 16u * 1024u * 1024u;
constexpr int64_t kMaxFrameSize = static_cast<int64_t>(kRoutedSize + kMaxBody) + 64;

// Fields after the header (client to broker: C>B, broker to client: B>C):
//   Hello        C>B  -                                   asks for Welcome
//   Welcome      B>C  instance u64 | max body u32
//   Register     C>B  guid                                asks for RegisterAck
//   RegisterAck  B>C  guid | status u32
//   Unregister   C>B  guid                                asks for Unregistered
//   Send         C>B  dest | src | meta | body
//   Deliver      B>C  dest | src | meta | body            a Send with the command byte changed
//   Ack          B>C  dest | src | meta                   for a Send with kFlagWantAck, once routed
//   Error        B>C  dest | src | meta | code u32        the message was not routed
//   Ping         C>B  -
//   Pong         B>C  instance u64
//   Bye          C>B  -                                   the client leaves; its GUIDs are freed
//   Unregistered B>C  guid                                the GUID is free on the bus
enum class Cmd : uint8_t {
    Hello = 1,
    Welcome = 2,
    Register = 3,
    RegisterAck = 4,
    Unregister = 5,
    Send = 6,
    Deliver = 7,
    Ack = 8,
    Error = 9,
    Ping = 10,
    Pong = 11,
    Bye = 12,
    Unregistered = 13,
};

constexpr uint32_t kFlagWantAck = 1u;

// RegisterAck status.
enum RegStatus : uint32_t {
    kRegOk = 0,
    kRegTaken = 1,   // another live endpoint holds the GUID
    kRegInvalid = 2, // the zero GUID
    kRegLimit = 3,   // too many registrations
};

// Error codes.
enum ErrorCode : uint32_t {
    kErrUnknownDest = 1, // no endpoint registered under the destination GUID
    kErrCongested = 2,   // the destination did not keep up; the message was dropped
    kErrSourceTaken = 3, // the source GUID belongs to another client
};

enum class Direction { ToBroker, ToClient };

enum class ParseError {
    None = 0,
    NoFrames, // empty message
    BadHeader, // too short for a header, or wrong magic
    BadVersion,
    BadCommand, // unknown, or not valid in this direction
    BadFrameCount, // more than one frame
    BadFrameSize,  // wrong length for the command
};

const char* parseErrorText(ParseError error);
const char* cmdName(Cmd cmd);

struct Meta {
    int64_t type = 0;
    uint64_t sequence = 0;
    uint32_t flags = 0;
    uint32_t reserved = 0;
};

// A view of received bytes; the parser never copies bodies.
struct FrameView {
    const void* data = nullptr;
    size_t size = 0;
};

struct Message {
    Cmd cmd = Cmd::Hello;
    GUID dest{}; // Register/RegisterAck/Unregister/Unregistered: the GUID; Send/Deliver/Ack/Error: destination
    GUID src{};
    Meta meta;
    FrameView body;        // Send/Deliver: into the parsed bytes
    uint32_t code = 0;     // RegisterAck status or Error code
    uint64_t instance = 0; // Welcome/Pong: the broker's instance
    uint32_t maxBody = 0;  // Welcome
};

// Validates one message for the given direction and fills out. The body stays in data.
ParseError parse(const void* data, size_t size, Direction direction, Message& out);

// Encoders. The small messages as bytes; Send/Deliver/Ack/Error as their fixed start (kRoutedSize bytes)
// written to out, the body (or the Error code) following it.
std::string encodeEmpty(Cmd cmd);                                   // Hello, Ping, Bye
std::string encodeGuid(Cmd cmd, const GUID& guid);                 // Register, Unregister, Unregistered
std::string encodeRegisterAck(const GUID& guid, uint32_t status);
std::string encodeInstance(Cmd cmd, uint64_t instance);            // Pong; Welcome adds kMaxBody
std::string encodeRouted(Cmd cmd, const Message& msg);             // Ack
std::string encodeError(const Message& msg, uint32_t code);
void putRouted(uint8_t out[kRoutedSize], Cmd cmd, const GUID& dest, const GUID& src, const Meta& meta);

// Field helpers.
void putHeader(uint8_t out[kHeaderSize], Cmd cmd);
void putMeta(uint8_t out[kMetaSize], const Meta& meta);
void putU32(uint8_t* out, uint32_t value);
void putU64(uint8_t* out, uint64_t value);
uint32_t getU32(const uint8_t* in);
uint64_t getU64(const uint8_t* in);

inline bool guidIsZero(const GUID& guid)
{
    static const GUID zero{};
    return memcmp(&guid, &zero, sizeof(GUID)) == 0;
}

// GUIDs travel as 16 bytes: Data1, Data2, Data3 little endian, then Data4.
void putGuid(uint8_t out[kGuidSize], const GUID& guid);
GUID getGuid(const uint8_t in[kGuidSize]);

// A GUID as a hashable table key (no allocation per lookup).
struct GuidKey {
    uint64_t a = 0;
    uint64_t b = 0;
    bool operator==(const GuidKey& other) const { return a == other.a && b == other.b; }
};
struct GuidKeyHash {
    size_t operator()(const GuidKey& key) const { return static_cast<size_t>(key.a * 0x9E3779B97F4A7C15ull ^ key.b); }
};
inline GuidKey guidKey(const GUID& guid)
{
    GuidKey key;
    memcpy(&key.a, &guid, 8);
    memcpy(&key.b, reinterpret_cast<const char*>(&guid) + 8, 8);
    return key;
}

// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case.
std::string guidText(const GUID& guid);
// Strict parse of the text form (with or without braces); false when malformed.
bool parseGuidText(const std::string& text, GUID& out);

} // namespace zell::wire

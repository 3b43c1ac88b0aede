#include "ZellWire.h"

#include <cctype>
#include <cstdio>

namespace zell::wire {

namespace {

bool frameIs(const FrameView& frame, size_t size) { return frame.size == size && (size == 0 || frame.data != nullptr); }

const uint8_t* bytes(const FrameView& frame) { return static_cast<const uint8_t*>(frame.data); }

Meta getMeta(const uint8_t* in)
{
    Meta meta;
    meta.type = static_cast<int64_t>(getU64(in));
    meta.sequence = getU64(in + 8);
    meta.flags = getU32(in + 16);
    meta.reserved = getU32(in + 20);
    return meta;
}

// dest | src | meta, the common start of Send, Deliver, Ack and Error.
ParseError parseRouted(const FrameView* frames, Message& out)
{
    if (!frameIs(frames[0], kGuidSize) || !frameIs(frames[1], kGuidSize) || !frameIs(frames[2], kMetaSize)) {
        return ParseError::BadFrameSize;
    }
    out.dest = getGuid(bytes(frames[0]));
    out.src = getGuid(bytes(frames[1]));
    out.meta = getMeta(bytes(frames[2]));
    return ParseError::None;
}

} // namespace

void putU32(uint8_t* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

void putU64(uint8_t* out, uint64_t value)
{
    for (int i = 0; i < 8; ++i) {
        out[i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint32_t getU32(const uint8_t* in)
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | in[i];
    }
    return value;
}

uint64_t getU64(const uint8_t* in)
{
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = (value << 8) | in[i];
    }
    return value;
}

void putGuid(uint8_t out[kGuidSize], const GUID& guid)
{
    putU32(out, guid.Data1);
    out[4] = static_cast<uint8_t>(guid.Data2);
    out[5] = static_cast<uint8_t>(guid.Data2 >> 8);
    out[6] = static_cast<uint8_t>(guid.Data3);
    out[7] = static_cast<uint8_t>(guid.Data3 >> 8);
    memcpy(out + 8, guid.Data4, 8);
}

GUID getGuid(const uint8_t in[kGuidSize])
{
    GUID guid;
    guid.Data1 = getU32(in);
    guid.Data2 = static_cast<uint16_t>(in[4] | (in[5] << 8));
    guid.Data3 = static_cast<uint16_t>(in[6] | (in[7] << 8));
    memcpy(guid.Data4, in + 8, 8);
    return guid;
}

void putHeader(uint8_t out[kHeaderSize], Cmd cmd)
{
    out[0] = kMagic0;
    out[1] = kMagic1;
    out[2] = kVersion;
    out[3] = static_cast<uint8_t>(cmd);
}

void putMeta(uint8_t out[kMetaSize], const Meta& meta)
{
    putU64(out, static_cast<uint64_t>(meta.type));
    putU64(out + 8, meta.sequence);
    putU32(out + 16, meta.flags);
    putU32(out + 20, meta.reserved);
}

const char* parseErrorText(ParseError error)
{
    switch (error) {
    case ParseError::None: return "ok";
    case ParseError::NoFrames: return "no frames";
    case ParseError::BadHeader: return "bad header frame";
    case ParseError::BadVersion: return "unsupported protocol version";
    case ParseError::BadCommand: return "unknown command";
    case ParseError::BadFrameCount: return "wrong number of frames";
    case ParseError::BadFrameSize: return "wrong frame size";
    }
    return "?";
}

const char* cmdName(Cmd cmd)
{
    switch (cmd) {
    case Cmd::Hello: return "Hello";
    case Cmd::Welcome: return "Welcome";
    case Cmd::Register: return "Register";
    case Cmd::RegisterAck: return "RegisterAck";
    case Cmd::Unregister: return "Unregister";
    case Cmd::Send: return "Send";
    case Cmd::Deliver: return "Deliver";
    case Cmd::Ack: return "Ack";
    case Cmd::Error: return "Error";
    case Cmd::Ping: return "Ping";
    case Cmd::Pong: return "Pong";
    case Cmd::Bye: return "Bye";
    case Cmd::Unregistered: return "Unregistered";
    }
    return "?";
}

ParseError parse(const FrameView* frames, size_t count, Direction direction, Message& out)
{
    if (frames == nullptr || count == 0) {
        return ParseError::NoFrames;
    }
    const FrameView& header = frames[0];
    if (!frameIs(header, kHeaderSize) || bytes(header)[0] != kMagic0 || bytes(header)[1] != kMagic1) {
        return ParseError::BadHeader;
    }
    if (bytes(header)[2] != kVersion) {
        return ParseError::BadVersion;
    }
    const uint8_t raw = bytes(header)[3];
    if (raw < static_cast<uint8_t>(Cmd::Hello) || raw > static_cast<uint8_t>(Cmd::Unregistered)) {
        return ParseError::BadCommand;
    }
    const Cmd cmd = static_cast<Cmd>(raw);
    const bool toBroker = direction == Direction::ToBroker;
    const FrameView* rest = frames + 1;
    const size_t restCount = count - 1;
    out = Message{};
    out.cmd = cmd;

    auto expect = [&](bool forBroker, size_t frameCount) -> ParseError {
        if (forBroker != toBroker) {
            return ParseError::BadCommand;
        }
        return restCount == frameCount ? ParseError::None : ParseError::BadFrameCount;
    };

    ParseError error = ParseError::None;
    switch (cmd) {
    case Cmd::Hello:
    case Cmd::Ping:
    case Cmd::Bye:
        return expect(true, 0);
    case Cmd::Welcome:
        if ((error = expect(false, 1)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[0], 12)) {
            return ParseError::BadFrameSize;
        }
        out.instance = getU64(bytes(rest[0]));
        out.maxBody = getU32(bytes(rest[0]) + 8);
        return ParseError::None;
    case Cmd::Pong:
        if ((error = expect(false, 1)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[0], 8)) {
            return ParseError::BadFrameSize;
        }
        out.instance = getU64(bytes(rest[0]));
        return ParseError::None;
    case Cmd::Register:
    case Cmd::Unregister:
        if ((error = expect(true, 1)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[0], kGuidSize)) {
            return ParseError::BadFrameSize;
        }
        out.dest = getGuid(bytes(rest[0]));
        return ParseError::None;
    case Cmd::Unregistered:
        if ((error = expect(false, 1)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[0], kGuidSize)) {
            return ParseError::BadFrameSize;
        }
        out.dest = getGuid(bytes(rest[0]));
        return ParseError::None;
    case Cmd::RegisterAck:
        if ((error = expect(false, 2)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[0], kGuidSize) || !frameIs(rest[1], 4)) {
            return ParseError::BadFrameSize;
        }
        out.dest = getGuid(bytes(rest[0]));
        out.code = getU32(bytes(rest[1]));
        return ParseError::None;
    case Cmd::Send:
    case Cmd::Deliver:
        if ((error = expect(cmd == Cmd::Send, 4)) != ParseError::None) {
            return error;
        }
        if ((error = parseRouted(rest, out)) != ParseError::None) {
            return error;
        }
        if (rest[3].size > kMaxBody || (rest[3].size > 0 && rest[3].data == nullptr)) {
            return ParseError::BadFrameSize;
        }
        out.body = rest[3];
        return ParseError::None;
    case Cmd::Ack:
        if ((error = expect(false, 3)) != ParseError::None) {
            return error;
        }
        return parseRouted(rest, out);
    case Cmd::Error:
        if ((error = expect(false, 4)) != ParseError::None) {
            return error;
        }
        if ((error = parseRouted(rest, out)) != ParseError::None) {
            return error;
        }
        if (!frameIs(rest[3], 4)) {
            return ParseError::BadFrameSize;
        }
        out.code = getU32(bytes(rest[3]));
        return ParseError::None;
    }
    return ParseError::BadCommand;
}

std::string guidText(const GUID& guid)
{
    char text[40];
    snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", guid.Data1, guid.Data2,
             guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
             guid.Data4[6], guid.Data4[7]);
    return text;
}

bool parseGuidText(const std::string& input, GUID& out)
{
    std::string text = input;
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
        text = text.substr(1, 36);
    }
    if (text.size() != 36) {
        return false;
    }
    uint8_t raw[16];
    size_t n = 0;
    for (size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') {
                return false;
            }
            ++i;
            continue;
        }
        auto hex = [](char c) -> int {
            if (c >= '0' && c <= '9') return c - '0';
            if (c >= 'a' && c <= 'f') return c - 'a' + 10;
            if (c >= 'A' && c <= 'F') return c - 'A' + 10;
            return -1;
        };
        const int hi = hex(text[i]);
        const int lo = i + 1 < text.size() ? hex(text[i + 1]) : -1;
        if (hi < 0 || lo < 0 || n >= sizeof(raw)) {
            return false;
        }
        raw[n++] = static_cast<uint8_t>(hi * 16 + lo);
        i += 2;
    }
    if (n != sizeof(raw)) {
        return false;
    }
    out.Data1 = (uint32_t(raw[0]) << 24) | (uint32_t(raw[1]) << 16) | (uint32_t(raw[2]) << 8) | raw[3];
    out.Data2 = static_cast<uint16_t>((raw[4] << 8) | raw[5]);
    out.Data3 = static_cast<uint16_t>((raw[6] << 8) | raw[7]);
    memcpy(out.Data4, raw + 8, 8);
    return true;
}

} // namespace zell::wire

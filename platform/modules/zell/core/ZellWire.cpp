// SPDX-License-Identifier: GPL-2.0-or-later
#include "ZellWire.h"

#include <cctype>
#include <cstdio>

namespace zell::wire {

namespace {

Meta getMeta(const uint8_t* in)
{
    Meta meta;
    meta.type = static_cast<int64_t>(getU64(in));
    meta.sequence = getU64(in + 8);
    meta.flags = getU32(in + 16);
    meta.reserved = getU32(in + 20);
    return meta;
}

std::string bytesOf(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }

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
    case ParseError::NoFrames: return "empty message";
    case ParseError::BadHeader: return "bad header";
    case ParseError::BadVersion: return "unsupported protocol version";
    case ParseError::BadCommand: return "unknown command";
    case ParseError::BadFrameCount: return "more than one frame";
    case ParseError::BadFrameSize: return "wrong length for its command";
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

ParseError parse(const void* data, size_t size, Direction direction, Message& out)
{
    if (data == nullptr || size == 0) {
        return ParseError::NoFrames;
    }
    const auto* in = static_cast<const uint8_t*>(data);
    if (size < kHeaderSize || in[0] != kMagic0 || in[1] != kMagic1) {
        return ParseError::BadHeader;
    }
    if (in[2] != kVersion) {
        return ParseError::BadVersion;
    }
    if (in[3] < static_cast<uint8_t>(Cmd::Hello) || in[3] > static_cast<uint8_t>(Cmd::Unregistered)) {
        return ParseError::BadCommand;
    }
    const Cmd cmd = static_cast<Cmd>(in[3]);
    const bool toBroker = direction == Direction::ToBroker;
    bool forBroker = false;
    size_t expected = kHeaderSize; // exact length; Send and Deliver give the minimum
    switch (cmd) {
    case Cmd::Hello:
    case Cmd::Ping:
    case Cmd::Bye:
        forBroker = true;
        break;
    case Cmd::Register:
    case Cmd::Unregister:
        forBroker = true;
        expected += kGuidSize;
        break;
    case Cmd::Send:
        forBroker = true;
        expected = kRoutedSize;
        break;
    case Cmd::Welcome:
        expected += 12;
        break;
    case Cmd::Pong:
        expected += 8;
        break;
    case Cmd::Unregistered:
        expected += kGuidSize;
        break;
    case Cmd::RegisterAck:
        expected += kGuidSize + 4;
        break;
    case Cmd::Deliver:
    case Cmd::Ack:
        expected = kRoutedSize;
        break;
    case Cmd::Error:
        expected = kRoutedSize + 4;
        break;
    }
    if (forBroker != toBroker) {
        return ParseError::BadCommand;
    }
    const bool withBody = cmd == Cmd::Send || cmd == Cmd::Deliver;
    if (withBody ? (size < expected || size - expected > kMaxBody) : size != expected) {
        return ParseError::BadFrameSize;
    }

    out = Message{};
    out.cmd = cmd;
    const uint8_t* fields = in + kHeaderSize;
    switch (cmd) {
    case Cmd::Welcome:
        out.instance = getU64(fields);
        out.maxBody = getU32(fields + 8);
        break;
    case Cmd::Pong:
        out.instance = getU64(fields);
        break;
    case Cmd::Register:
    case Cmd::Unregister:
    case Cmd::Unregistered:
        out.dest = getGuid(fields);
        break;
    case Cmd::RegisterAck:
        out.dest = getGuid(fields);
        out.code = getU32(fields + kGuidSize);
        break;
    case Cmd::Send:
    case Cmd::Deliver:
    case Cmd::Ack:
    case Cmd::Error:
        out.dest = getGuid(fields);
        out.src = getGuid(fields + kGuidSize);
        out.meta = getMeta(fields + 2 * kGuidSize);
        if (withBody) {
            out.body = FrameView{in + kRoutedSize, size - kRoutedSize};
        } else if (cmd == Cmd::Error) {
            out.code = getU32(in + kRoutedSize);
        }
        break;
    default:
        break;
    }
    return ParseError::None;
}

std::string encodeEmpty(Cmd cmd)
{
    uint8_t raw[kHeaderSize];
    putHeader(raw, cmd);
    return bytesOf(raw, sizeof(raw));
}

std::string encodeGuid(Cmd cmd, const GUID& guid)
{
    uint8_t raw[kHeaderSize + kGuidSize];
    putHeader(raw, cmd);
    putGuid(raw + kHeaderSize, guid);
    return bytesOf(raw, sizeof(raw));
}

std::string encodeRegisterAck(const GUID& guid, uint32_t status)
{
    uint8_t raw[kHeaderSize + kGuidSize + 4];
    putHeader(raw, Cmd::RegisterAck);
    putGuid(raw + kHeaderSize, guid);
    putU32(raw + kHeaderSize + kGuidSize, status);
    return bytesOf(raw, sizeof(raw));
}

std::string encodeInstance(Cmd cmd, uint64_t instance)
{
    uint8_t raw[kHeaderSize + 12];
    putHeader(raw, cmd);
    putU64(raw + kHeaderSize, instance);
    if (cmd == Cmd::Welcome) {
        putU32(raw + kHeaderSize + 8, static_cast<uint32_t>(kMaxBody));
        return bytesOf(raw, kHeaderSize + 12);
    }
    return bytesOf(raw, kHeaderSize + 8);
}

void putRouted(uint8_t out[kRoutedSize], Cmd cmd, const GUID& dest, const GUID& src, const Meta& meta)
{
    putHeader(out, cmd);
    putGuid(out + kHeaderSize, dest);
    putGuid(out + kHeaderSize + kGuidSize, src);
    putMeta(out + kHeaderSize + 2 * kGuidSize, meta);
}

std::string encodeRouted(Cmd cmd, const Message& msg)
{
    uint8_t raw[kRoutedSize];
    putRouted(raw, cmd, msg.dest, msg.src, msg.meta);
    return bytesOf(raw, sizeof(raw));
}

std::string encodeError(const Message& msg, uint32_t code)
{
    uint8_t raw[kRoutedSize + 4];
    putRouted(raw, Cmd::Error, msg.dest, msg.src, msg.meta);
    putU32(raw + kRoutedSize, code);
    return bytesOf(raw, sizeof(raw));
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

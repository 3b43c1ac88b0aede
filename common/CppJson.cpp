// SPDX-License-Identifier: GPL-2.0-or-later
#include "CppJson.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>

#include "SafeIo.h"
#include "ThreadObject.h"
#include "UniqueFd.h"

namespace {

// Json::Reader recurses once per nesting level and the old Reader's own limit only applies to some
// paths; refuse absurd nesting before parsing so hostile text cannot exhaust the stack.
constexpr size_t kMaxDepth = 1000;

bool nestingWithinLimit(const char* begin, const char* end)
{
    size_t depth = 0;
    bool inString = false;
    for (const char* p = begin; p != end; ++p) {
        const char c = *p;
        if (inString) {
            if (c == '\\') {
                if (p + 1 != end) {
                    ++p;
                }
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) {
                return false;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

// The largest JSON file read: configuration and descriptions are small.
constexpr off_t kMaxJsonFile = 4 * 1024 * 1024;

bool parseText(const std::string& text, Json::Value& value)
{
    if (!nestingWithinLimit(text.data(), text.data() + text.size())) {
        return false;
    }
    // One reader per thread: building one allocates, and parse() starts each document afresh.
    // Parsing in place spares the copy that parse(std::string) makes.
    return kuv::withThreadObject<Json::Reader>([&](Json::Reader& reader) {
        return reader.parse(text.data(), text.data() + text.size(), value, true);
    });
}

} // namespace

namespace CppJson {

bool LoadJsonFile(const char* path, Json::Value& value)
{
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    try {
        value = Json::Value();
        // Only a regular file of sane size: a FIFO or a device would block or never end.
        const kuv::UniqueFd fd(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        if (!fd.valid()) {
            return false;
        }
        std::string content;
        bool ok = false;
        struct stat st;
        if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxJsonFile) {
            ok = true;
            char chunk[16384];
            for (;;) {
                const ssize_t n = kuv::safeRead(fd.get(), chunk, sizeof chunk);
                if (n < 0) {
                    ok = false;
                    break;
                }
                content.append(chunk, static_cast<size_t>(n));
                if (content.size() > static_cast<size_t>(kMaxJsonFile)) {
                    ok = false;
                    break;
                }
                if (static_cast<size_t>(n) < sizeof chunk) {
                    break; // end of file
                }
            }
        }
        return ok && parseText(content, value);
    } catch (...) {
        return false;
    }
}

bool LoadJsonString(const std::string& text, Json::Value& value)
{
    if (text.empty()) {
        return false;
    }
    try {
        value = Json::Value();
        return parseText(text, value);
    } catch (...) {
        return false;
    }
}

bool WriteJsonToString(const Json::Value& value, std::string& out, bool compact)
{
    try {
        if (compact) {
            Json::FastWriter writer;
            out = writer.write(value);
        } else {
            Json::StyledWriter writer;
            out = writer.write(value);
        }
        if (out.empty()) {
            return false;
        }
        if (out.back() == '\n') {
            out.pop_back();
        }
        return true;
    } catch (...) {
        return false;
    }
}

int GetInt(const char* key, const Json::Value& value, int defaultValue)
{
    try {
        if (value.isNull() || !value.isObject() || key == nullptr || !value.isMember(key)) {
            return defaultValue;
        }
        const Json::Value& member = value[key];
        if (!member.isIntegral()) {
            return defaultValue;
        }
        return member.asInt();
    } catch (...) {
        return defaultValue;
    }
}

} // namespace CppJson

namespace kuv {

bool parseJsonStrict(const char* begin, const char* end, Json::Value& root, std::string& why, bool failIfExtra)
{
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = failIfExtra;
    builder["stackLimit"] = 64;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(begin, end, &root, &why);
    } catch (const std::exception& e) {
        why = e.what();
        return false;
    }
}

} // namespace kuv

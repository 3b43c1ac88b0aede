// SPDX-License-Identifier: GPL-2.0-or-later
// Reads the service's log file as records: level, source file, function and message.
#pragma once

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Harness.h"

namespace svclog {

struct Record {
    std::string level; // TRACE, DEBUG, INFO, WARN, ERROR
    std::string file;
    std::string function;
    std::string message;
};

// "[time] [pid:tid] [LEVEL] [file:function:line] message"; lines of another shape are skipped.
inline std::vector<Record> read(const std::string& path)
{
    static const std::regex shape(R"(^\[[^\]]*\] \[[0-9]+:[0-9]+\] \[([A-Z]+)\] \[([^:\]]*):([^:\]]*):[0-9]+\] (.*)$)");
    std::vector<Record> out;
    std::istringstream in(kuvtest::readFile(path));
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_match(line, m, shape)) {
            out.push_back({m[1], m[2], m[3], m[4]});
        }
    }
    return out;
}

inline std::vector<std::string> messagesFrom(const std::vector<Record>& records, const std::string& file)
{
    std::vector<std::string> out;
    for (const auto& r : records) {
        if (r.file == file) {
            out.push_back(r.message);
        }
    }
    return out;
}

// Index of the first record at or after from whose message is text; -1 when none.
inline int find(const std::vector<Record>& records, const std::string& text, int from = 0)
{
    for (int i = std::max(from, 0); i < static_cast<int>(records.size()); ++i) {
        if (records[i].message == text) {
            return i;
        }
    }
    return -1;
}

inline int count(const std::vector<Record>& records, const std::string& text)
{
    return static_cast<int>(
        std::count_if(records.begin(), records.end(), [&](const Record& r) { return r.message == text; }));
}

} // namespace svclog

// SPDX-License-Identifier: GPL-2.0-or-later
// The one argument parser of kuvctl's commands: getopt_long, strict about names, items in the order given.
#pragma once

#include <getopt.h>

#include <string>
#include <string_view>
#include <vector>

namespace kuvctl {

struct OptionSpec {
    const char* name;        // long name without "--"
    char shortName;          // 0 when there is none
    bool takesValue;
    bool inlineValue = false; // "--name=value" is accepted too (for a flag: the value is ignored)
};

// One argument, or one mistake, at a time. Long names must be given in full (no abbreviations) and
// short options one per word ("-n5" is -n with 5; "-vh" is an unknown argument).
class ArgParser {
public:
    struct Item {
        enum Kind {
            Option,       // option: index into the specs; value: its value
            Word,         // value: a word that is not an option (every word after "--" included)
            DoubleDash,   // "--": the words after it follow as Word
            MissingValue, // option: which one
            Unknown,      // an option that is not in the specs, or not given as they say
        };
        Kind kind = Word;
        size_t option = 0;
        std::string value;
        std::string text; // the argument as given (for MissingValue: the option without its value)
    };

    ArgParser(const std::vector<std::string>& args, std::vector<OptionSpec> specs);
    ArgParser(const ArgParser&) = delete; // getopt_long holds pointers into m_words
    ArgParser& operator=(const ArgParser&) = delete;
    // false once every argument was handed out, and after a mistake (MissingValue, Unknown).
    // One parser at a time: getopt_long keeps its state in globals.
    bool next(Item& item);

private:
    bool fromGetopt(int code, int longIndex, int before, Item& item);
    bool exactLongName(const std::string& given, size_t option, bool& hasValue) const;
    int codeOf(size_t option) const;
    int specOf(int code) const;

    std::vector<OptionSpec> m_specs;
    std::vector<option> m_longs;
    std::string m_shorts;
    std::vector<std::string> m_words;
    std::vector<char*> m_argv;
    bool m_afterDoubleDash = false;
    bool m_done = false;
};

// A whole decimal integer (an optional '-', then digits) within [min, max]; nothing else around it.
bool parseInteger(std::string_view text, long long min, long long max, long long& out);

} // namespace kuvctl

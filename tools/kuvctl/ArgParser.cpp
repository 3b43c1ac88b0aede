// SPDX-License-Identifier: GPL-2.0-or-later
#include "ArgParser.h"

#include <charconv>

namespace kuvctl {

namespace {

// Option codes handed to getopt_long: the short letter when there is one, else past every char.
constexpr int kLongOnly = 256;

} // namespace

ArgParser::ArgParser(const std::vector<std::string>& args, std::vector<OptionSpec> specs)
    : m_specs(std::move(specs)), m_words(args)
{
    static char programName[] = "kuvctl";
    m_argv.push_back(programName);
    for (std::string& word : m_words) {
        m_argv.push_back(word.data());
    }
    m_argv.push_back(nullptr);
    m_shorts = "-:"; // words handed out in order; ':' tells a missing value from an unknown option
    for (size_t i = 0; i < m_specs.size(); ++i) {
        const OptionSpec& option = m_specs[i];
        m_longs.push_back({option.name, option.takesValue ? required_argument : no_argument, nullptr, codeOf(i)});
        if (option.shortName != 0) {
            m_shorts += option.shortName;
            if (option.takesValue) {
                m_shorts += ':';
            }
        }
    }
    m_longs.push_back({nullptr, 0, nullptr, 0});
    optind = 0; // a full restart of getopt, whatever parsed before
    opterr = 0; // the commands word their own messages
}

int ArgParser::codeOf(size_t option) const
{
    const char letter = m_specs[option].shortName;
    return letter != 0 ? static_cast<unsigned char>(letter) : kLongOnly + static_cast<int>(option);
}

int ArgParser::specOf(int code) const
{
    for (size_t i = 0; i < m_specs.size(); ++i) {
        if (codeOf(i) == code) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// getopt_long takes unambiguous abbreviations; kuvctl's commands never did.
bool ArgParser::exactLongName(const std::string& given, size_t option, bool& hasValue) const
{
    const std::string name = given.substr(0, given.find('='));
    hasValue = name.size() != given.size();
    return name.size() > 2 && name.compare(0, 2, "--") == 0 && name.compare(2, std::string::npos, m_specs[option].name) == 0;
}

bool ArgParser::next(Item& item)
{
    item = Item();
    const int argc = static_cast<int>(m_words.size()) + 1;
    if (m_done) {
        return false;
    }
    if (m_afterDoubleDash) {
        if (optind >= argc) {
            m_done = true;
            return false;
        }
        item.kind = Item::Word;
        item.value = item.text = m_argv[static_cast<size_t>(optind++)];
        return true;
    }
    const int before = optind > 0 ? optind : 1;
    int longIndex = -1;
    optopt = 0;
    const int code = getopt_long(argc, m_argv.data(), m_shorts.c_str(), m_longs.data(), &longIndex);
    return fromGetopt(code, longIndex, before, item);
}

bool ArgParser::fromGetopt(int code, int longIndex, int before, Item& item)
{
    const int argc = static_cast<int>(m_words.size()) + 1;
    const std::string given = before < argc ? m_argv[static_cast<size_t>(before)] : std::string();
    auto unknown = [&](const std::string& text) {
        item.kind = Item::Unknown;
        item.text = text;
        m_done = true;
        return true;
    };
    if (code == -1) {
        if (given == "--" && optind == before + 1) {
            m_afterDoubleDash = true;
            item.kind = Item::DoubleDash;
            item.text = given;
            return true;
        }
        m_done = true;
        return false;
    }
    item.text = given;
    if (code == 1) {
        item.kind = Item::Word;
        item.value = optarg;
        return true;
    }
    const bool isLong = given.compare(0, 2, "--") == 0;
    if (code == '?' || code == ':') {
        const int index = specOf(optopt);
        bool hasValue = false;
        if (index < 0 || (isLong && !exactLongName(given, static_cast<size_t>(index), hasValue))) {
            return unknown(given);
        }
        if (code == '?' && isLong && hasValue && m_specs[static_cast<size_t>(index)].inlineValue) {
            item.kind = Item::Option; // "--flag=..." where the command lets it pass
            item.option = static_cast<size_t>(index);
            return true;
        }
        if (code == ':') {
            item.kind = Item::MissingValue;
            item.option = static_cast<size_t>(index);
            item.text = given;
            m_done = true;
            return true;
        }
        return unknown(given);
    }
    const int index = specOf(code);
    if (index < 0) {
        return unknown(given);
    }
    const OptionSpec& found = m_specs[static_cast<size_t>(index)];
    if (longIndex >= 0) {
        bool hasValue = false;
        if (!exactLongName(given, static_cast<size_t>(index), hasValue) || (hasValue && !found.inlineValue)) {
            return unknown(given);
        }
    } else {
        const std::string alone = std::string("-") + found.shortName;
        if (given != alone && !(found.takesValue && optarg != nullptr && given == alone + optarg)) {
            return unknown(given);
        }
    }
    item.kind = Item::Option;
    item.option = static_cast<size_t>(index);
    if (found.takesValue && optarg != nullptr) {
        item.value = optarg;
    }
    return true;
}

bool parseInteger(std::string_view text, long long min, long long max, long long& out)
{
    long long value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

} // namespace kuvctl

// SPDX-License-Identifier: GPL-2.0-or-later
// The shared argument parser on its own: what it hands out, and where it stops.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "ArgParser.h"

namespace {

using kuvctl::ArgParser;
using Item = ArgParser::Item;

const std::vector<kuvctl::OptionSpec> kSpecs = {
    {"help", 'h', false},
    {"lines", 'n', true, true},
    {"file", 0, true},
    {"verbose", 'v', false, true},
    {"json", 0, false},
};

// Each item as one short text: "opt:lines=5", "word:x", "--", "missing:-n", "unknown:--x".
std::vector<std::string> items(const std::vector<std::string>& args)
{
    ArgParser parser(args, kSpecs);
    std::vector<std::string> out;
    Item item;
    while (parser.next(item)) {
        switch (item.kind) {
        case Item::Option: out.push_back(std::string("opt:") + kSpecs[item.option].name + "=" + item.value); break;
        case Item::Word: out.push_back("word:" + item.value); break;
        case Item::DoubleDash: out.push_back("--"); break;
        case Item::MissingValue: out.push_back("missing:" + item.text); break;
        case Item::Unknown: out.push_back("unknown:" + item.text); break;
        }
    }
    EXPECT_FALSE(parser.next(item)) << "nothing after the end";
    return out;
}

using V = std::vector<std::string>;

TEST(ArgParser, OptionsAndWordsInTheOrderGiven)
{
    EXPECT_EQ(items({"a", "--lines", "5", "-h", "b", "-n7", "--lines=9", "-n", "-3", "--json", "-", ""}),
              (V{"word:a", "opt:lines=5", "opt:help=", "word:b", "opt:lines=7", "opt:lines=9", "opt:lines=-3",
                 "opt:json=", "word:-", "word:"}));
    EXPECT_EQ(items({}), V{});
}

TEST(ArgParser, ValueIsTheNextWordWhateverItLooksLike)
{
    EXPECT_EQ(items({"--file", "--json", "-n", "--"}), (V{"opt:file=--json", "opt:lines=--"}));
}

TEST(ArgParser, WordsAfterDoubleDashAreNeverOptions)
{
    EXPECT_EQ(items({"-h", "--", "--json", "-n", "--"}), (V{"opt:help=", "--", "word:--json", "word:-n", "word:--"}));
}

TEST(ArgParser, MissingValueNamesTheOptionAsGiven)
{
    EXPECT_EQ(items({"-h", "-n"}), (V{"opt:help=", "missing:-n"}));
    EXPECT_EQ(items({"--lines"}), V{"missing:--lines"});
    EXPECT_EQ(items({"--file"}), V{"missing:--file"});
}

TEST(ArgParser, StopsAtTheFirstUnknownArgument)
{
    EXPECT_EQ(items({"--json", "--bogus", "--help"}), (V{"opt:json=", "unknown:--bogus"}));
    EXPECT_EQ(items({"-x", "-h"}), V{"unknown:-x"});
    EXPECT_EQ(items({"--bogus=1"}), V{"unknown:--bogus=1"});
}

TEST(ArgParser, AbbreviationsAreUnknown)
{
    EXPECT_EQ(items({"--he"}), V{"unknown:--he"});
    EXPECT_EQ(items({"--lin", "5"}), V{"unknown:--lin"});
    EXPECT_EQ(items({"--fi"}), V{"unknown:--fi"}) << "even where the value is missing";
    EXPECT_EQ(items({"--j=1"}), V{"unknown:--j=1"});
}

TEST(ArgParser, ShortOptionsStandAlone)
{
    EXPECT_EQ(items({"-hv"}), V{"unknown:-hv"});
    EXPECT_EQ(items({"-vn5"}), V{"unknown:-vn5"});
    EXPECT_EQ(items({"-nv"}), V{"opt:lines=v"}) << "the rest of the word is the value";
}

TEST(ArgParser, InlineValuesOnlyWhereAllowed)
{
    EXPECT_EQ(items({"--file=x"}), V{"unknown:--file=x"});
    EXPECT_EQ(items({"--json=1"}), V{"unknown:--json=1"});
    EXPECT_EQ(items({"--verbose=yes", "--lines="}), (V{"opt:verbose=", "opt:lines="}));
}

TEST(ArgParser, EachParserStartsAfresh)
{
    EXPECT_EQ(items({"-n"}), V{"missing:-n"});
    EXPECT_EQ(items({"-n", "1"}), V{"opt:lines=1"});
    EXPECT_EQ(items({"-vh"}), V{"unknown:-vh"});
    EXPECT_EQ(items({"-h"}), V{"opt:help="}) << "no cluster left over from the parser before";
}

struct IntegerCase {
    const char* text;
    long long min, max;
    bool ok;
    long long value;
};

class ParseInteger : public ::testing::TestWithParam<IntegerCase> {};

TEST_P(ParseInteger, WholeTextWithinRange)
{
    const IntegerCase& c = GetParam();
    long long out = 424242;
    EXPECT_EQ(kuvctl::parseInteger(c.text, c.min, c.max, out), c.ok) << c.text;
    EXPECT_EQ(out, c.ok ? c.value : 424242) << "untouched on failure";
}

INSTANTIATE_TEST_SUITE_P(Kuvctl, ParseInteger,
                         ::testing::Values(IntegerCase{"0", 0, 10, true, 0}, IntegerCase{"10", 0, 10, true, 10},
                                           IntegerCase{"11", 0, 10, false, 0}, IntegerCase{"-1", 0, 10, false, 0},
                                           IntegerCase{"-5", -9, 9, true, -5}, IntegerCase{"", 0, 10, false, 0},
                                           IntegerCase{"5x", 0, 10, false, 0}, IntegerCase{" 5", 0, 10, false, 0},
                                           IntegerCase{"0x5", 0, 10, false, 0}, IntegerCase{"-", -9, 9, false, 0},
                                           IntegerCase{"9223372036854775807", 0, LLONG_MAX, true, LLONG_MAX},
                                           IntegerCase{"-9223372036854775808", LLONG_MIN, 0, true, LLONG_MIN},
                                           IntegerCase{"9223372036854775808", 0, LLONG_MAX, false, 0}));

} // namespace

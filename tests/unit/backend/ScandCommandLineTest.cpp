// SPDX-License-Identifier: GPL-2.0-or-later
// kuv-scand's command line: what it prints and the exit status, for every way it ends before it serves.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Harness.h"

namespace {

struct CommandLine {
    std::vector<std::string> args;
    int status;
    const char* out; // the start of what it prints on stdout
    const char* err; // all it prints on stderr
};

class ScandCommandLine : public ::testing::TestWithParam<CommandLine> {};

std::string scand()
{
    const char* path = std::getenv("KUV_SCAND");
    return path != nullptr ? path : "";
}

} // namespace

TEST_P(ScandCommandLine, PrintsAndEnds)
{
    ASSERT_FALSE(scand().empty()) << "KUV_SCAND names the kuv-scand under test";
    std::vector<std::string> argv{scand()};
    argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
    const kuvtest::RunResult r = kuvtest::run(argv);
    EXPECT_EQ(r.status, GetParam().status);
    EXPECT_EQ(r.out.compare(0, std::string(GetParam().out).size(), GetParam().out), 0) << r.out;
    EXPECT_EQ(r.err, GetParam().err);
}

INSTANTIATE_TEST_SUITE_P(
    Scand, ScandCommandLine,
    ::testing::Values(
        CommandLine{{"--help"}, 0, "Usage: kuv-scand [options]\n", ""},
        CommandLine{{"-h"}, 0, "Usage: kuv-scand [options]\n", ""},
        CommandLine{{"--version"}, 0, "kuv-scand ", ""},
        CommandLine{{"--bogus", "--version"}, 2, "", "kuv-scand: unknown argument '--bogus'\nTry 'kuv-scand --help'.\n"},
        CommandLine{{"--config=/x"}, 2, "", "kuv-scand: unknown argument '--config=/x'\nTry 'kuv-scand --help'.\n"},
        CommandLine{{"--config"}, 2, "", "kuv-scand: --config needs a value\nTry 'kuv-scand --help'.\n"},
        CommandLine{{"--clamd"}, 2, "", "kuv-scand: --clamd needs a value\nTry 'kuv-scand --help'.\n"},
        CommandLine{{"--db-dir"}, 2, "", "kuv-scand: --db-dir needs a value\nTry 'kuv-scand --help'.\n"},
        CommandLine{{"--log-level"}, 2, "",
                    "kuv-scand: --log-level needs a value\nTry 'kuv-scand --help'.\nkuv-scand: --log-level takes 0..4\n"},
        CommandLine{{"--log-level", "5"}, 2, "", "kuv-scand: --log-level takes 0..4\n"},
        CommandLine{{"--log-level", "04"}, 2, "", "kuv-scand: --log-level takes 0..4\n"},
        CommandLine{{"-f", "--log-level", "2", "--help"}, 0, "Usage: kuv-scand [options]\n", ""},
        CommandLine{{"--config", "/nonexistent/kuv-scand.conf"}, 2, "",
                    "kuv-scand: cannot read /nonexistent/kuv-scand.conf\n"}));

TEST(ScandCommandLine, ASettingsFileThatCannotBeUsed)
{
    ASSERT_FALSE(scand().empty());
    kuvtest::TempDir dir;
    const std::string conf = dir.path() + "/kuv-scand.conf";
    kuvtest::writeFile(conf, R"({"workers": "many"})");
    const kuvtest::RunResult r = kuvtest::run({scand(), "--config", conf});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "kuv-scand: " + conf + ": \"workers\" must be a whole number from 0 to 64\n");
}

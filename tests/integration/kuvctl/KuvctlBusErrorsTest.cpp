// SPDX-License-Identifier: GPL-2.0-or-later
// The installed kuvctl when the bus cannot be used: every bus command prints the bus module's own last
// error line without --verbose, instead of a guess, and exits with its documented status.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "Harness.h"

using kuvtest::Install;
using kuvtest::RunResult;

namespace {

size_t occurrences(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) {
        ++count;
    }
    return count;
}

const char* const kApp = "F6352E50-5C40-11EE-BEE1-47BAD2011C1F";

class KuvctlBusErrors : public ::testing::Test {
protected:
    void SetUp() override { install = std::make_unique<Install>(); }

    RunResult kuvctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), install->bin("kuvctl"));
        return kuvtest::run(args, install->env(), 60000);
    }

    std::unique_ptr<Install> install;
};

struct BusCommandCase {
    const char* label;
    std::vector<std::string> args;
    int status;
};

void PrintTo(const BusCommandCase& c, std::ostream* os) { *os << c.label; }

const BusCommandCase kBusCommands[] = {
    {"send", {"bus", "send", "--to", kApp, "--type", "1", "--timeout", "500"}, 1},
    {"listen", {"bus", "listen", "--guid", kApp, "--count", "1"}, 1},
    {"scan", {"scan", "--timeout", "500", "/dev/null"}, 2},
};

class EveryBusCommand : public KuvctlBusErrors, public ::testing::WithParamInterface<BusCommandCase> {};

// A bus address the module refuses: the reason is the module's, said without --verbose.
TEST_P(EveryBusCommand, PrintsTheModulesReasonForABadAddress)
{
    std::vector<std::string> args = GetParam().args;
    args.insert(args.end() - (GetParam().args[0] == "scan" ? 1 : 0), {"--socket", "tcp://127.0.0.1:9"});
    const RunResult r = kuvctl(args);
    EXPECT_EQ(r.status, GetParam().status) << r.err;
    EXPECT_EQ(occurrences(r.err, "only local (ipc) bus addresses are supported: tcp://127.0.0.1:9"), 1u) << r.err;
    EXPECT_EQ(r.err.find("is the runtime directory usable?"), std::string::npos) << "no guessing: " << r.err;
}

// The private runtime directory is not private: the module refuses it and says why.
TEST_P(EveryBusCommand, PrintsTheModulesReasonForAnUnusableRuntimeDirectory)
{
    const std::string dir = install->runtime + "/kuv";
    ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
    const RunResult r = kuvctl(GetParam().args);
    EXPECT_EQ(r.status, GetParam().status) << r.err;
    EXPECT_NE(r.err.find("runtime directory refused"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("is the runtime directory usable?"), std::string::npos) << r.err;
}

// Without the module at all: the loader's own words.
TEST_P(EveryBusCommand, PrintsTheLoadersReasonForAMissingModule)
{
    const std::string module = install->dir + "lib/modules/libZellClientMgr.so";
    ASSERT_EQ(::unlink(module.c_str()), 0);
    const RunResult r = kuvctl(GetParam().args);
    EXPECT_EQ(r.status, GetParam().status) << r.err;
    EXPECT_NE(r.err.find("kuvctl: cannot load the bus module"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("No such file or directory"), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Kuvctl, EveryBusCommand, ::testing::ValuesIn(kBusCommands),
                         [](const ::testing::TestParamInfo<BusCommandCase>& info) { return std::string(info.param.label); });

// --verbose adds the module's log: the reason is there twice, once as the module logged it.
TEST_F(KuvctlBusErrors, VerboseAddsTheModulesLog)
{
    const RunResult r = kuvctl({"bus", "send", "--to", kApp, "--type", "1", "--socket", "tcp://x", "--verbose"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(occurrences(r.err, "only local (ipc) bus addresses are supported: tcp://x"), 2u) << r.err;
}

} // namespace

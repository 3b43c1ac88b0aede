// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include "Settings.h"

using kuv::scand::Settings;

TEST(ScandSettings, ReadsEveryKeyAndKeepsDefaultsForTheRest)
{
    Settings s;
    std::string error;
    ASSERT_TRUE(kuv::scand::parseSettings(R"({
        // comments are allowed in the settings file
        "engine": "clamd", "clamd_socket": "/run/clamav/clamd.ctl", "workers": 3,
        "max_file_size": 1048576, "db_dirs": ["/srv/sigs"], "log_level": 1, "unknown": true})",
                                          s, error))
        << error;
    EXPECT_EQ(s.engine, "clamd");
    EXPECT_EQ(s.clamdSocket, "/run/clamav/clamd.ctl");
    EXPECT_EQ(s.workers, 3u);
    EXPECT_EQ(s.maxFileSize, 1048576u);
    ASSERT_EQ(s.extraDbDirs.size(), 1u);
    EXPECT_EQ(s.extraDbDirs[0], "/srv/sigs");
    EXPECT_EQ(s.logLevel, 1);
    EXPECT_EQ(s.systemDbDir, "/var/lib/clamav");
    EXPECT_EQ(s.maxRecursion, 17u);
}

class ScandSettingsRefused : public ::testing::TestWithParam<const char*> {};

TEST_P(ScandSettingsRefused, WithAReason)
{
    Settings s;
    std::string error;
    EXPECT_FALSE(kuv::scand::parseSettings(GetParam(), s, error)) << GetParam();
    EXPECT_FALSE(error.empty()) << GetParam();
}

INSTANTIATE_TEST_SUITE_P(WrongTypesAndRanges, ScandSettingsRefused,
                         ::testing::Values("", "[]", R"({"engine":"other"})", R"({"workers":-1})",
                                           R"({"workers":1000})", R"({"max_file_size":"big"})", R"({"db_dirs":"/x"})",
                                           R"({"log_level":9})", R"({"engine":"clamd"} extra)"));

// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "Harness.h"
#include "ScanSettings.h"

using namespace kuv::store;

TEST(ScanSettings, DefaultsWhenMissingAndRoundTrip)
{
    kuvtest::TempDir dir;
    const std::string cfg = dir.path() + "/cfg/kuv";
    ScanSettings s;
    std::string error;
    ASSERT_TRUE(loadScanSettings(s, &error, cfg)) << error;
    EXPECT_TRUE(s.excluded.empty());
    EXPECT_TRUE(s.scanArchives);
    EXPECT_EQ(s.historyDays, 90);

    s.excluded = {"/home/u/VMs", std::string("/home/u/\xff\xfe")};
    s.maxFileSize = 12345;
    s.scanArchives = false;
    s.useClamd = true;
    s.clamdSocket = "/tmp/c.sock";
    s.historyDays = 7;
    ASSERT_TRUE(saveScanSettings(s, &error, cfg)) << error;
    struct stat st {};
    ASSERT_EQ(stat(scanSettingsPath(cfg).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(cfg.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    ScanSettings back;
    ASSERT_TRUE(loadScanSettings(back, &error, cfg)) << error;
    EXPECT_EQ(back.excluded, s.excluded);
    EXPECT_EQ(back.maxFileSize, 12345u);
    EXPECT_FALSE(back.scanArchives);
    EXPECT_TRUE(back.useClamd);
    EXPECT_EQ(back.clamdSocket, "/tmp/c.sock");
    EXPECT_EQ(back.historyDays, 7);
}

TEST(ScanSettings, BadValuesFallBackWithAReason)
{
    kuvtest::TempDir dir;
    kuvtest::writeFile(dir.path() + "/scan.json", R"({"history_days": -4, "scan_archives": false, "future": 1})");
    ScanSettings s;
    std::string error;
    EXPECT_FALSE(loadScanSettings(s, &error, dir.path()));
    EXPECT_NE(error.find("history_days"), std::string::npos) << error;
    EXPECT_EQ(s.historyDays, 90);
    EXPECT_FALSE(s.scanArchives);

    kuvtest::writeFile(dir.path() + "/scan.json", "{ not json");
    EXPECT_FALSE(loadScanSettings(s, &error, dir.path()));
    EXPECT_TRUE(s.scanArchives);
}

struct BadSetting {
    const char* json;
    const char* reason; // a part of the reason given
};

class ScanSettingsBadValue : public ::testing::TestWithParam<BadSetting> {};

// A value that cannot be used is left at its default, and the reason names it.
TEST_P(ScanSettingsBadValue, KeepsTheDefaultAndSaysWhy)
{
    kuvtest::TempDir dir;
    kuvtest::writeFile(dir.path() + "/scan.json", GetParam().json);
    ScanSettings s;
    std::string error;
    EXPECT_FALSE(loadScanSettings(s, &error, dir.path()));
    EXPECT_NE(error.find(GetParam().reason), std::string::npos) << error;
    const ScanSettings defaults;
    EXPECT_EQ(s.excluded, defaults.excluded);
    EXPECT_EQ(s.maxFileSize, defaults.maxFileSize);
    EXPECT_EQ(s.scanArchives, defaults.scanArchives);
    EXPECT_EQ(s.useClamd, defaults.useClamd);
    EXPECT_EQ(s.clamdSocket, defaults.clamdSocket);
    EXPECT_EQ(s.historyDays, defaults.historyDays);
}

INSTANTIATE_TEST_SUITE_P(
    ScanSettings, ScanSettingsBadValue,
    ::testing::Values(BadSetting{R"({"excluded": "/x"})", "\"excluded\" is not a list"},
                      BadSetting{R"({"excluded": [5]})", "an excluded folder that cannot be used"},
                      BadSetting{R"({"max_file_size": -1})", "\"max_file_size\""},
                      BadSetting{R"({"scan_archives": "no"})", "\"scan_archives\""},
                      BadSetting{R"({"use_clamd": 1})", "\"use_clamd\""},
                      BadSetting{R"({"clamd_socket": ""})", "\"clamd_socket\""},
                      BadSetting{R"({"history_days": 40000})", "\"history_days\""}));

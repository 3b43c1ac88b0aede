// SPDX-License-Identifier: GPL-2.0-or-later
// ConstConfig: environment overrides, the executable-relative default, the final "/", VERSION read afresh.
#include <limits.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ConstConfig.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuvtest::ScopedEnv;
using kuv::test::TempDir;

class ConstConfigTest : public ::testing::Test {
protected:
    void TearDown() override { ConstConfig::UninitInstance(); }
};

TEST_F(ConstConfigTest, InstallDirFromEnvironmentAlwaysEndsInSlash)
{
    ScopedEnv env("KUV_INSTALL_DIR", "/opt/kuv");
    ConstConfig* cc = ConstConfig::singleInstance();
    ASSERT_NE(cc, nullptr);
    EXPECT_EQ(cc->getInstallDir(), "/opt/kuv/");
    ScopedEnv again("KUV_INSTALL_DIR", "/opt/kuv/");
    EXPECT_EQ(cc->getInstallDir(), "/opt/kuv/");
}

TEST_F(ConstConfigTest, InstallDirDefaultsToParentOfExecutableDirectory)
{
    ScopedEnv env("KUV_INSTALL_DIR", nullptr);
    char exe[PATH_MAX + 1];
    const ssize_t n = ::readlink("/proc/self/exe", exe, PATH_MAX);
    ASSERT_GT(n, 0);
    std::string expected(exe, static_cast<size_t>(n));
    expected.erase(expected.rfind('/'));
    expected.erase(expected.rfind('/') + 1);
    EXPECT_EQ(ConstConfig::singleInstance()->getInstallDir(), expected);
    EXPECT_EQ(ConstConfig::singleInstance()->getInstallDir().back(), '/');
}

TEST_F(ConstConfigTest, ConfigurationDir)
{
    ScopedEnv install("KUV_INSTALL_DIR", "/opt/kuv");
    ScopedEnv none("KUV_CONFIG_DIR", nullptr);
    ConstConfig* cc = ConstConfig::singleInstance();
    EXPECT_EQ(cc->getConfigurationDir(), "/opt/kuv/etc/");
    ScopedEnv config("KUV_CONFIG_DIR", "/srv/conf");
    EXPECT_EQ(cc->getConfigurationDir(), "/srv/conf/");
    ScopedEnv config2("KUV_CONFIG_DIR", "/srv/conf2/");
    EXPECT_EQ(cc->getConfigurationDir(), "/srv/conf2/");
}

TEST_F(ConstConfigTest, VersionIsFirstLineReadAtEveryCall)
{
    TempDir dir;
    ScopedEnv install("KUV_INSTALL_DIR", dir.path().c_str());
    ConstConfig* cc = ConstConfig::singleInstance();
    EXPECT_EQ(cc->getClientVersion(), "");
    kuvtest::writeFile(dir / "VERSION", "3.0.1.22\nbuild notes\n");
    EXPECT_EQ(cc->getClientVersion(), "3.0.1.22");
    kuvtest::writeFile(dir / "VERSION", "3.0.2.1\r\n");
    EXPECT_EQ(cc->getClientVersion(), "3.0.2.1");
    kuvtest::writeFile(dir / "VERSION", "3.0.3");
    EXPECT_EQ(cc->getClientVersion(), "3.0.3");
}

TEST_F(ConstConfigTest, UninitThenFreshInstance)
{
    ConstConfig* first = ConstConfig::singleInstance();
    EXPECT_EQ(first, ConstConfig::singleInstance());
    ConstConfig::UninitInstance();
    ConstConfig::UninitInstance();
    EXPECT_NE(ConstConfig::singleInstance(), nullptr);
}

// SPDX-License-Identifier: GPL-2.0-or-later
// ConfigModule: typed reads with defaults, atomic writes on disk, outside edits seen, threads.
#include <sys/stat.h>

#include <thread>

#include <gtest/gtest.h>

#include "ConfigModule.h"
#include "ConstConfig.h"
#include "CppJson.h"
#include "KuvTestDir.h"
#include "TempDir.h"

using kuvtest::ScopedEnv;
using kuv::test::TempDir;

class ConfigModuleTest : public ::testing::Test {
protected:
    TempDir dir;
    ScopedEnv config{"KUV_CONFIG_DIR", dir.path().c_str()};
    void TearDown() override
    {
        ConfigModule::UninitInstance();
        ConstConfig::UninitInstance();
    }
    Json::Value onDisk(const std::string& file)
    {
        Json::Value v;
        EXPECT_TRUE(CppJson::LoadJsonFile((dir / file).c_str(), v));
        return v;
    }
};

TEST_F(ConfigModuleTest, DefaultsWhenFileOrKeyMissingOrOfOtherType)
{
    ConfigModule* cm = ConfigModule::Instance();
    ASSERT_NE(cm, nullptr);
    EXPECT_FALSE(cm->getBool("gui_shell.conf", "stop_backend_on_quit", false));
    EXPECT_TRUE(cm->getBool("gui_shell.conf", "stop_backend_on_quit", true));
    kuvtest::writeFile(dir / "gui_shell.conf", R"({"stop_backend_on_quit":"yes","n":"2","s":5,"big":5000000000})");
    EXPECT_FALSE(cm->getBool("gui_shell.conf", "stop_backend_on_quit", false));
    EXPECT_EQ(cm->getInt("gui_shell.conf", "n", 7), 7);
    EXPECT_EQ(cm->getInt("gui_shell.conf", "big", 7), 7);
    EXPECT_EQ(cm->getString("gui_shell.conf", "s", "d"), "d");
    EXPECT_EQ(cm->getString("gui_shell.conf", "missing", "d"), "d");
}

TEST_F(ConfigModuleTest, SetWritesJsonAtOnceAndReadsBack)
{
    ConfigModule* cm = ConfigModule::Instance();
    ASSERT_TRUE(cm->setBool("gui_shell.conf", "stop_backend_on_quit", true));
    ASSERT_TRUE(cm->setInt("gui_shell.conf", "count", -12));
    ASSERT_TRUE(cm->setString("gui_shell.conf", "lang", "zh-CN"));
    EXPECT_TRUE(cm->getBool("gui_shell.conf", "stop_backend_on_quit", false));
    EXPECT_EQ(cm->getInt("gui_shell.conf", "count", 0), -12);
    EXPECT_EQ(cm->getString("gui_shell.conf", "lang", ""), "zh-CN");

    const Json::Value v = onDisk("gui_shell.conf");
    EXPECT_EQ(v["stop_backend_on_quit"].asBool(), true);
    EXPECT_EQ(v["count"].asInt(), -12);
    EXPECT_EQ(v["lang"].asString(), "zh-CN");
    struct stat st;
    ASSERT_EQ(::stat((dir / "gui_shell.conf").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);

    // A fresh store (as in another process) reads the same.
    ConfigModule::UninitInstance();
    EXPECT_TRUE(ConfigModule::Instance()->getBool("gui_shell.conf", "stop_backend_on_quit", false));
}

TEST_F(ConfigModuleTest, KeepsOtherKeysAndCreatesSubdirectories)
{
    kuvtest::writeFile(dir / "a.conf", R"({"keep":{"deep":[1,2]}})");
    ConfigModule* cm = ConfigModule::Instance();
    ASSERT_TRUE(cm->setInt("a.conf", "n", 1));
    EXPECT_EQ(onDisk("a.conf")["keep"]["deep"][1].asInt(), 2);
    ASSERT_TRUE(cm->setString("debug/new.conf", "k", "v"));
    EXPECT_EQ(onDisk("debug/new.conf")["k"].asString(), "v");
}

TEST_F(ConfigModuleTest, OutsideChangesAreSeen)
{
    ConfigModule* cm = ConfigModule::Instance();
    ASSERT_TRUE(cm->setInt("x.conf", "n", 1));
    EXPECT_EQ(cm->getInt("x.conf", "n", 0), 1);
    // Replaced by another writer (a new file, as an atomic writer does).
    kuvtest::writeFile(dir / "x.conf.new", R"({"n":2})");
    ASSERT_EQ(::rename((dir / "x.conf.new").c_str(), (dir / "x.conf").c_str()), 0);
    EXPECT_EQ(cm->getInt("x.conf", "n", 0), 2);
    ::unlink((dir / "x.conf").c_str());
    EXPECT_EQ(cm->getInt("x.conf", "n", 0), 0);
}

TEST_F(ConfigModuleTest, DamagedFileIsNotOverwritten)
{
    kuvtest::writeFile(dir / "bad.conf", "{ not json");
    ConfigModule* cm = ConfigModule::Instance();
    EXPECT_EQ(cm->getInt("bad.conf", "n", 4), 4);
    EXPECT_FALSE(cm->setInt("bad.conf", "n", 1));
    EXPECT_EQ(kuvtest::readFile(dir / "bad.conf"), "{ not json");
    kuvtest::writeFile(dir / "array.conf", "[1,2]");
    EXPECT_FALSE(cm->setInt("array.conf", "n", 1));
}

TEST_F(ConfigModuleTest, NamesOutsideTheConfigurationDirectoryAreRefused)
{
    ConfigModule* cm = ConfigModule::Instance();
    EXPECT_FALSE(cm->setInt("../escape.conf", "n", 1));
    EXPECT_FALSE(cm->setInt("/tmp/abs.conf", "n", 1));
    EXPECT_FALSE(cm->setInt("", "n", 1));
    EXPECT_FALSE(cm->setInt("a/../b.conf", "n", 1));
    EXPECT_FALSE(kuvtest::exists(dir.path() + "/../escape.conf"));
}

TEST_F(ConfigModuleTest, ConcurrentWritersLoseNothing)
{
    ConfigModule* cm = ConfigModule::Instance();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([cm, t] {
            for (int i = 0; i < 25; ++i) {
                cm->setInt("many.conf", "k" + std::to_string(t) + "_" + std::to_string(i), i);
                cm->getInt("many.conf", "k0_0", 0);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    const Json::Value v = onDisk("many.conf");
    EXPECT_EQ(v.size(), 100u);
    EXPECT_EQ(v["k3_24"].asInt(), 24);
}

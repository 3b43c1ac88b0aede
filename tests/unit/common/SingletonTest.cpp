// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Singleton.h"

namespace {

std::atomic<int> g_utilsConstructed{0};
std::atomic<int> g_utilsDestroyed{0};
std::atomic<int> g_configConstructed{0};

class UtilsThing : public utils::SingletonAbstract<UtilsThing> {
public:
    UtilsThing() { ++g_utilsConstructed; }
    ~UtilsThing() { ++g_utilsDestroyed; }
};

class ConfigThing : public config::SingletonAbstract<ConfigThing> {
public:
    ConfigThing() { ++g_configConstructed; }
};

} // namespace

TEST(Singleton, UtilsCreatesOnceAcrossThreads)
{
    std::vector<std::thread> threads;
    std::vector<UtilsThing*> seen(8, nullptr);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] { seen[i] = UtilsThing::GetInstance(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(g_utilsConstructed.load(), 1);
    for (auto* p : seen) {
        EXPECT_EQ(p, seen[0]);
        EXPECT_NE(p, nullptr);
    }
}

TEST(Singleton, UtilsUninitTwiceIsHarmlessAndRecreates)
{
    UtilsThing* first = UtilsThing::GetInstance();
    ASSERT_NE(first, nullptr);
    const int destroyedBefore = g_utilsDestroyed.load();
    UtilsThing::UninitInstance();
    UtilsThing::UninitInstance();
    EXPECT_EQ(g_utilsDestroyed.load(), destroyedBefore + 1);
    UtilsThing* second = UtilsThing::GetInstance();
    ASSERT_NE(second, nullptr);
    UtilsThing::UninitInstance();
}

TEST(Singleton, ConfigCreatesOnceAndReleases)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] { ConfigThing::instance(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(g_configConstructed.load(), 1);
    ConfigThing::UninitInstance();
    ConfigThing::UninitInstance();
    ConfigThing::instance();
    EXPECT_EQ(g_configConstructed.load(), 2);
    ConfigThing::UninitInstance();
}

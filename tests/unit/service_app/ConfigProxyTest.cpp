// SPDX-License-Identifier: GPL-2.0-or-later
// The configuration proxy against real modules: loading, the printed failures, release and reload.
#include <dlfcn.h>

#include <stdexcept>

#include "AppTestSupport.h"
#include "CMervoConfigProxy.h"

namespace {

const char* const kGuid = "29562e31-2c2b-4fb2-9108-144d91a56755";

// The loading logic on a fresh object per test, with the proxy's GUID.
class ProbeProxy : public CMervoConfigProxyPrivate {
public:
    ~ProbeProxy() override { unloadLib(); }
    std::string getGuid() override { return kGuid; }
    IMervoConfig* impl() const { return m_CfgImpl; }
    void* module() const { return m_hModule; }
    const std::string& libPath() const { return m_strLibPath; }
};

bool moduleMapped(const std::string& dir)
{
    void* handle = dlopen((dir + "lib/modules/libconfigproxy.so").c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) {
        return false;
    }
    dlclose(handle);
    return true;
}

std::string withoutSlash(const std::string& dir) { return dir.substr(0, dir.size() - 1); }

class ConfigProxyTest : public ::testing::Test {
protected:
    void SetUp() override { fake::resetAll(); }
};

} // namespace

TEST_F(ConfigProxyTest, DirectoryWithoutSlashGetsOne)
{
    const std::string dir = apptest::moduleBase("good");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(withoutSlash(dir)));
    EXPECT_EQ(proxy.libPath(), dir);
    EXPECT_TRUE(moduleMapped(dir));
    EXPECT_EQ(fake::events(), std::vector<std::string>{std::string("cfgmod.create ") + kGuid + " " + dir + " 1.0.0"});
}

TEST_F(ConfigProxyTest, DirectoryWithSlashIsKept)
{
    const std::string dir = apptest::moduleBase("good");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(dir));
    EXPECT_EQ(proxy.libPath(), dir);
    EXPECT_NE(proxy.impl(), nullptr);
}

TEST_F(ConfigProxyTest, SecondInitKeepsTheFirstDirectory)
{
    const std::string dir = apptest::moduleBase("good");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(dir));
    EXPECT_TRUE(proxy.init("/somewhere/else"));
    EXPECT_EQ(proxy.libPath(), dir);
    EXPECT_EQ(fake::eventsWithPrefix("cfgmod.create").size(), 1u);
}

TEST_F(ConfigProxyTest, EmptyDirectoryIsOutOfRange)
{
    ProbeProxy proxy;
    EXPECT_THROW(proxy.init(""), std::out_of_range);
    EXPECT_EQ(proxy.module(), nullptr);
}

TEST_F(ConfigProxyTest, LoadLibRefusesAnEmptyDirectory)
{
    ProbeProxy proxy;
    EXPECT_FALSE(proxy.loadLib(""));
}

TEST_F(ConfigProxyTest, InvokeBeforeInitIsThirteen)
{
    ProbeProxy proxy;
    testing::internal::CaptureStdout();
    EXPECT_EQ(proxy.invoke(1, 2, 3, 4), 13);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(proxy.module(), nullptr);
    EXPECT_TRUE(fake::events().empty());
}

TEST_F(ConfigProxyTest, InvokeForwardsItsArgumentsUnchanged)
{
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(apptest::moduleBase("good")));
    EXPECT_EQ(proxy.invoke(3, 5, 7, 9), 3 * 1000000 + 5 * 10000 + 7 * 100 + 9);
    EXPECT_EQ(fake::eventsWithPrefix("cfgmod.request"), std::vector<std::string>{"cfgmod.request 3 5 7 9"});
}

TEST_F(ConfigProxyTest, UnloadReleasesByGuidAndClosesTheModule)
{
    const std::string dir = apptest::moduleBase("good");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(dir));
    proxy.unloadLib();
    EXPECT_EQ(fake::eventsWithPrefix("cfgmod.release"), std::vector<std::string>{std::string("cfgmod.release ") + kGuid});
    EXPECT_EQ(proxy.impl(), nullptr);
    EXPECT_EQ(proxy.module(), nullptr);
    EXPECT_FALSE(moduleMapped(dir));
}

TEST_F(ConfigProxyTest, InvokeAfterUnloadLoadsAgain)
{
    const std::string dir = apptest::moduleBase("good");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(dir));
    proxy.unloadLib();
    EXPECT_EQ(proxy.invoke(1, 1, 1, 1), 1010101);
    EXPECT_EQ(fake::eventsWithPrefix("cfgmod.create").size(), 2u);
    EXPECT_TRUE(moduleMapped(dir));
}

TEST_F(ConfigProxyTest, MissingModuleIsPrintedAndFails)
{
    kuvtest::TempDir empty("kuvnomod");
    ProbeProxy proxy;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(proxy.init(empty.path()));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("[loadLib] laod err: ", 0), 0u) << out;
    EXPECT_NE(out.find("libconfigproxy.so"), std::string::npos) << out;
    EXPECT_EQ(out.find('\n'), std::string::npos);
    EXPECT_EQ(proxy.module(), nullptr);
    // A later request tries the stored directory again and fails the same way.
    testing::internal::CaptureStdout();
    EXPECT_EQ(proxy.invoke(0, 0, 0, 0), 13);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("[loadLib] laod err: ", 0), 0u);
}

TEST_F(ConfigProxyTest, ModuleWithoutCreateIsUnloaded)
{
    const std::string dir = apptest::moduleBase("nocreate");
    ProbeProxy proxy;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(proxy.init(dir));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[loadLib]:get  PFNCFGCreateInstance fail.");
    EXPECT_EQ(proxy.module(), nullptr);
    EXPECT_FALSE(moduleMapped(dir));
}

TEST_F(ConfigProxyTest, CreateReturningNullIsUnloaded)
{
    const std::string dir = apptest::moduleBase("nullcreate");
    ProbeProxy proxy;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(proxy.init(dir));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[loadLib]:get  m_CfgImpl fail.");
    EXPECT_EQ(proxy.module(), nullptr);
    EXPECT_EQ(proxy.impl(), nullptr);
    EXPECT_FALSE(moduleMapped(dir));
    // Nothing was created, so nothing is given back.
    EXPECT_TRUE(fake::eventsWithPrefix("cfgmod.release").empty());
}

TEST_F(ConfigProxyTest, ModuleWithoutReleaseStaysHalfReleased)
{
    const std::string dir = apptest::moduleBase("norelease");
    ProbeProxy proxy;
    ASSERT_TRUE(proxy.init(dir));
    proxy.unloadLib();
    EXPECT_NE(proxy.module(), nullptr);
    EXPECT_NE(proxy.impl(), nullptr);
    EXPECT_TRUE(moduleMapped(dir));
    // Still usable, and a second unload changes nothing.
    EXPECT_EQ(proxy.invoke(0, 0, 0, 2), 2);
    proxy.unloadLib();
    EXPECT_NE(proxy.impl(), nullptr);
}

TEST_F(ConfigProxyTest, SingletonHasOneInstanceAndTheFixedGuid)
{
    CMervoConfigProxy* first = CMervoConfigProxy::instance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(CMervoConfigProxy::instance(), first);
    EXPECT_EQ(first->getGuid(), kGuid);
    const std::string dir = apptest::moduleBase("good");
    ASSERT_TRUE(first->init(dir));
    // Releasing the singleton gives the object back through the module before closing it.
    config::SingletonAbstract<CMervoConfigProxy>::UninitInstance();
    EXPECT_EQ(fake::eventsWithPrefix("cfgmod.release"), std::vector<std::string>{std::string("cfgmod.release ") + kGuid});
    EXPECT_FALSE(moduleMapped(dir));
    CMervoConfigProxy* second = CMervoConfigProxy::instance();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->invoke(0, 0, 0, 0), 13);
}

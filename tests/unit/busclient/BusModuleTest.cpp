// SPDX-License-Identifier: GPL-2.0-or-later
// kuv::BusModule as tools and the back end use it: what it says when the module cannot be loaded or its
// client does not start.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "BusModule.h"
#include "Harness.h"

namespace {

// An installation directory of its own for one test; KUV_INSTALL_DIR points at it while the object lives.
class Installation {
public:
    Installation() : m_dir("busmodule")
    {
        setenv("KUV_INSTALL_DIR", (m_dir.path() + "/").c_str(), 1);
    }
    ~Installation() { unsetenv("KUV_INSTALL_DIR"); }
    // lib/modules/libZellClientMgr.so as a link to the module that was built.
    void addModule()
    {
        const std::string lib = m_dir.path() + "/lib";
        ASSERT_EQ(mkdir(lib.c_str(), 0755), 0);
        ASSERT_EQ(mkdir((lib + "/modules").c_str(), 0755), 0);
        ASSERT_EQ(symlink(KUV_ZELL_MODULE, (lib + "/modules/libZellClientMgr.so").c_str()), 0);
    }

private:
    kuvtest::TempDir m_dir;
};

} // namespace

TEST(BusModule, AMissingModuleIsReportedInTheLoadersWords)
{
    Installation install;
    kuv::BusModule bus;
    std::string error;
    EXPECT_FALSE(bus.open("./kuv_zell", false, error, "test"));
    EXPECT_NE(error.find("cannot load the bus module"), std::string::npos) << error;
    EXPECT_NE(error.find("lib/modules/libZellClientMgr.so: "), std::string::npos) << error;
    EXPECT_EQ(bus.mgr(), nullptr);
    EXPECT_EQ(bus.lastError(), "");
}

TEST(BusModule, AnInitFailureIsReportedByNameWithTheModulesLastErrorLine)
{
    Installation install;
    install.addModule();
    kuv::BusModule bus;
    std::string error;
    EXPECT_FALSE(bus.open("tcp://127.0.0.1:5555", false, error, "test"));
    EXPECT_NE(error.find("(ZELL_INIT_BAD_ADDRESS): unusable bus address"), std::string::npos) << error;
    EXPECT_NE(bus.lastError().find("unusable bus address"), std::string::npos) << bus.lastError();
}

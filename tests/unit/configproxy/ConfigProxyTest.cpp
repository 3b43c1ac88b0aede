// SPDX-License-Identifier: GPL-2.0-or-later
// libconfigproxy.so through its C entry points, as the service's proxy loads it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Harness.h"
#include "TempDir.h"
#include "IMervoConfig.h"
#include "Library.h"

namespace {

const char* const kGuid = "29562e31-2c2b-4fb2-9108-144d91a56755";

class ConfigProxy : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("KUV_CONFIG_DIR");
        ASSERT_TRUE(module.load()) << module.error();
        create = module.resolveAs<PFN_CFGCreateInstance>("CFGCreateInstance");
        release = module.resolveAs<PFN_CFGRelease>("CFGRelease");
        ASSERT_NE(create, nullptr);
        ASSERT_NE(release, nullptr);
        dir = tmp.path() + "/";
    }
    IMervoConfig* open(const std::string& path, const char* guid = kGuid)
    {
        sCfgCreateParas paras{};
        paras.path = path.c_str();
        paras.version = "1.0.0";
        return create(guid, &paras);
    }
    std::string file() const { return dir + "etc/config/" + kGuid + ".json"; }
    std::vector<std::string> corruptCopies() const
    {
        std::vector<std::string> out;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(dir + "etc/config", ec)) {
            const std::string name = entry.path().filename().string();
            if (name.find(".corrupt-") != std::string::npos) {
                out.push_back(name);
            }
        }
        return out;
    }

    kuv::test::TempDir tmp{"cfgproxy"};
    std::string dir;
    kuv::Library module{KUV_CONFIGPROXY_MODULE};
    PFN_CFGCreateInstance create = nullptr;
    PFN_CFGRelease release = nullptr;
};

std::string get(IMervoConfig* config, const char* key, int64_t* result = nullptr)
{
    char buffer[256];
    const int64_t rc = config->request(CFG_OP_GET, reinterpret_cast<int64_t>(key), reinterpret_cast<int64_t>(buffer),
                                       sizeof(buffer));
    if (result != nullptr) {
        *result = rc;
    }
    return rc == CFG_OK ? std::string(buffer) : std::string("<") + std::to_string(rc) + ">";
}

int64_t set(IMervoConfig* config, const char* key, const char* value)
{
    return config->request(CFG_OP_SET, reinterpret_cast<int64_t>(key), reinterpret_cast<int64_t>(value), 0);
}

} // namespace

TEST_F(ConfigProxy, RoundTripThroughTheFile)
{
    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(set(config, "language", "zh-CN"), CFG_OK);
    EXPECT_EQ(set(config, "greeting", "你好, \"world\"\n"), CFG_OK);
    EXPECT_EQ(get(config, "language"), "zh-CN");
    struct stat st;
    ASSERT_EQ(stat(file().c_str(), &st), 0) << "written at once";
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    release(kGuid);

    config = open(dir);
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(get(config, "language"), "zh-CN");
    EXPECT_EQ(get(config, "greeting"), "你好, \"world\"\n");
    int64_t needed = 0;
    EXPECT_EQ(config->request(CFG_OP_SIZE, reinterpret_cast<int64_t>("language"), reinterpret_cast<int64_t>(&needed), 0),
              CFG_OK);
    EXPECT_EQ(needed, 6);
    char small[5];
    EXPECT_EQ(config->request(CFG_OP_GET, reinterpret_cast<int64_t>("language"), reinterpret_cast<int64_t>(small),
                              sizeof(small)),
              CFG_BUFFER_TOO_SMALL);
    EXPECT_STREQ(small, "");
    EXPECT_EQ(config->request(CFG_OP_REMOVE, reinterpret_cast<int64_t>("language"), 0, 0), CFG_OK);
    EXPECT_EQ(config->request(CFG_OP_REMOVE, reinterpret_cast<int64_t>("language"), 0, 0), CFG_NOT_FOUND);
    EXPECT_EQ(config->request(CFG_OP_SAVE, 0, 0, 0), CFG_OK);
    release(kGuid);

    config = open(dir);
    int64_t rc = 0;
    get(config, "language", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    EXPECT_EQ(get(config, "greeting"), "你好, \"world\"\n");
    // The direct operations agree with the request entry.
    EXPECT_EQ(config->setString("direct", "yes"), CFG_OK);
    char buffer[8];
    EXPECT_EQ(config->getString("direct", buffer, sizeof(buffer)), CFG_OK);
    EXPECT_STREQ(buffer, "yes");
    EXPECT_EQ(config->removeKey("direct"), CFG_OK);
    EXPECT_EQ(config->save(), CFG_OK);
    release(kGuid);
}

TEST_F(ConfigProxy, MissingFileStartsFromDefaults)
{
    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    int64_t rc = 0;
    get(config, "anything", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    struct stat st;
    EXPECT_NE(stat(file().c_str(), &st), 0) << "nothing is written until something changes";
    release(kGuid);
}

TEST_F(ConfigProxy, CorruptFileIsKeptAsideAndDefaultsUsed)
{
    ASSERT_EQ(mkdir((dir + "etc").c_str(), 0700), 0);
    ASSERT_EQ(mkdir((dir + "etc/config").c_str(), 0700), 0);
    kuvtest::writeFile(file(), "{\"settings\": {\"a\": \"1\",");
    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    int64_t rc = 0;
    get(config, "a", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    const auto copies = corruptCopies();
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(kuvtest::readFile(dir + "etc/config/" + copies[0]), "{\"settings\": {\"a\": \"1\",")
        << "the user's file is kept as it was";
    EXPECT_EQ(set(config, "a", "2"), CFG_OK);
    release(kGuid);

    // A well-formed file of the wrong shape is set aside as well; stray non-text values are skipped.
    kuvtest::writeFile(file(), "[1, 2]");
    config = open(dir);
    get(config, "a", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    release(kGuid);
    kuvtest::writeFile(file(), "{\"version\":\"1.0.0\",\"settings\":{\"n\":5,\"t\":\"ok\"}}");
    config = open(dir);
    EXPECT_EQ(get(config, "t"), "ok");
    get(config, "n", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    release(kGuid);
}

TEST_F(ConfigProxy, OneObjectPerGuidReleasedByGuid)
{
    IMervoConfig* first = open(dir);
    IMervoConfig* again = open(dir);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, again) << "found again by its GUID";
    IMervoConfig* other = open(dir, "0F0E0D0C-0000-1111-2222-333344445555");
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, first);
    kuv::test::TempDir elsewhere("cfgother");
    EXPECT_EQ(open(elsewhere.path() + "/"), nullptr) << "the GUID is open with another directory";

    EXPECT_EQ(set(first, "k", "v"), CFG_OK);
    release(kGuid);
    EXPECT_EQ(get(again, "k"), "v") << "still referenced once";
    release(kGuid);
    release(kGuid); // one release too many is harmless
    release("0F0E0D0C-0000-1111-2222-333344445555");

    IMervoConfig* fresh = open(elsewhere.path());
    ASSERT_NE(fresh, nullptr) << "released: a new directory may be used, a final slash is added";
    int64_t rc = 0;
    get(fresh, "k", &rc);
    EXPECT_EQ(rc, CFG_NOT_FOUND);
    release(kGuid);
}

TEST_F(ConfigProxy, BadArgumentsAreRefused)
{
    EXPECT_EQ(open(dir, nullptr), nullptr);
    EXPECT_EQ(open(dir, "../escape"), nullptr);
    EXPECT_EQ(open(dir, ""), nullptr);
    EXPECT_EQ(create(kGuid, nullptr), nullptr);
    sCfgCreateParas empty{};
    EXPECT_EQ(create(kGuid, &empty), nullptr);

    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    char buffer[4];
    EXPECT_EQ(config->request(CFG_OP_GET, 0, reinterpret_cast<int64_t>(buffer), 4), CFG_BAD_ARGUMENT);
    EXPECT_EQ(config->request(CFG_OP_GET, reinterpret_cast<int64_t>("k"), 0, 4), CFG_BAD_ARGUMENT);
    EXPECT_EQ(config->request(CFG_OP_GET, reinterpret_cast<int64_t>("k"), reinterpret_cast<int64_t>(buffer), 0),
              CFG_BAD_ARGUMENT);
    EXPECT_EQ(config->request(CFG_OP_SET, reinterpret_cast<int64_t>(""), reinterpret_cast<int64_t>("v"), 0),
              CFG_BAD_ARGUMENT);
    EXPECT_EQ(config->request(CFG_OP_SET, reinterpret_cast<int64_t>("k"), 0, 0), CFG_BAD_ARGUMENT);
    const std::string longKey(2000, 'k');
    EXPECT_EQ(set(config, longKey.c_str(), "v"), CFG_BAD_ARGUMENT);
    EXPECT_EQ(config->request(99, 0, 0, 0), CFG_UNKNOWN_OP);
    EXPECT_NE(config->request(CFG_OP_GET, reinterpret_cast<int64_t>("k"), reinterpret_cast<int64_t>(buffer), 4), 13)
        << "13 is the service's own 'no module'";
    release(kGuid);
}

TEST_F(ConfigProxy, ConfigDirectoryFromTheEnvironment)
{
    kuv::test::TempDir conf("cfgenv");
    setenv("KUV_CONFIG_DIR", conf.path().c_str(), 1);
    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(set(config, "k", "v"), CFG_OK);
    release(kGuid);
    unsetenv("KUV_CONFIG_DIR");
    struct stat st;
    EXPECT_EQ(stat((conf.path() + "/config/" + kGuid + ".json").c_str(), &st), 0);
}

TEST_F(ConfigProxy, UnwritableDirectoryKeepsChangesInMemory)
{
    // A file where the configuration directory should be: nothing can be written, whoever we are.
    kuvtest::writeFile(dir + "etc", "not a directory");
    IMervoConfig* config = open(dir);
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(set(config, "k", "v"), CFG_IO_ERROR);
    EXPECT_EQ(get(config, "k"), "v");
    EXPECT_EQ(config->request(CFG_OP_SAVE, 0, 0, 0), CFG_IO_ERROR);
    release(kGuid);
}

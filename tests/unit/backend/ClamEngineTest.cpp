// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "TempDir.h"
#include "ClamEngine.h"

using kuv::scan::ClamEngine;
using kuv::scan::ClamSettings;
using kuv::scan::Verdict;

namespace {

// Built here, never stored: the standard antivirus test file.
std::string eicar()
{
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-" + "TEST-FILE!$H+H*";
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tmp = std::make_unique<kuv::test::TempDir>("kuvclam");
        dir = tmp->path();
        const char* shipped = getenv("KUV_SIGNATURES_DIR");
        ASSERT_NE(shipped, nullptr) << "run through ctest";
        dbDir = dir + "/db";
        ASSERT_EQ(system(("mkdir -p '" + dbDir + "' && cp '" + shipped + "'/* '" + dbDir + "'/").c_str()), 0);
    }
    void TearDown() override { tmp.reset(); }

    std::string write(const std::string& name, const std::string& content)
    {
        std::ofstream(dir + "/" + name, std::ios::binary) << content;
        return dir + "/" + name;
    }
    kuv::scan::ScanResult scan(ClamEngine& engine, const std::string& path, kuv::scan::ScanLimits limits = {},
                               const std::atomic<bool>* cancel = nullptr)
    {
        const int fd = ::open(path.c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        auto r = engine.scanFd(fd, path, limits, cancel);
        ::close(fd);
        return r;
    }
    std::unique_ptr<ClamEngine> make(ClamSettings settings)
    {
        std::string error;
        auto engine = kuv::scan::makeClamEngine(settings, error);
        EXPECT_TRUE(engine) << error;
        return engine;
    }

    std::unique_ptr<kuv::test::TempDir> tmp;
    std::string dir;
    std::string dbDir;
};

} // namespace

TEST_F(EngineTest, TheShippedDatabaseFindsTheTestFile)
{
    ClamSettings settings;
    settings.dbDirs = {dir + "/absent", dbDir};
    auto engine = make(settings);
    ASSERT_TRUE(engine->reload());
    const auto info = engine->info();
    EXPECT_EQ(info.engine, "libclamav");
    EXPECT_FALSE(info.engineVersion.empty());
    EXPECT_GE(info.signatures, 1u);
    EXPECT_TRUE(info.dbError.empty()) << info.dbError;

    auto r = scan(*engine, write("eicar.com", eicar()));
    EXPECT_EQ(r.verdict, Verdict::Infected);
    EXPECT_EQ(r.signature.rfind("Kuv.Test.EICAR", 0), 0u) << r.signature;
    r = scan(*engine, write("eicar-padded.txt", eicar() + "   \r\n"));
    EXPECT_EQ(r.verdict, Verdict::Infected) << "trailing blanks are still the test file";
    r = scan(*engine, write("clean.txt", "nothing to see here\n"));
    EXPECT_EQ(r.verdict, Verdict::Clean);
    EXPECT_EQ(r.bytesScanned, 20u);
}

TEST_F(EngineTest, ABrokenDatabaseKeepsTheRunningEngine)
{
    ClamSettings settings;
    settings.dbDirs = {dbDir};
    auto engine = make(settings);
    ASSERT_TRUE(engine->reload());
    std::ofstream(dbDir + "/broken.ndb") << "Broken.Sig:0:*:zz\n";
    EXPECT_FALSE(engine->reload());
    const auto info = engine->info();
    EXPECT_NE(info.dbError.find("broken.ndb"), std::string::npos) << info.dbError;
    EXPECT_EQ(scan(*engine, write("e", eicar())).verdict, Verdict::Infected) << "the previous engine stays";

    ::unlink((dbDir + "/broken.ndb").c_str());
    EXPECT_TRUE(engine->reload());
    EXPECT_TRUE(engine->info().dbError.empty());
}

TEST_F(EngineTest, AFirstLoadKeepsWhatLoads)
{
    std::ofstream(dbDir + "/broken.ndb") << "Broken.Sig:0:*:zz\n";
    ClamSettings settings;
    settings.dbDirs = {dbDir};
    auto engine = make(settings);
    EXPECT_TRUE(engine->reload());
    EXPECT_NE(engine->info().dbError.find("broken.ndb"), std::string::npos);
    EXPECT_EQ(scan(*engine, write("e", eicar())).verdict, Verdict::Infected);
}

TEST_F(EngineTest, NoDatabaseNoEngine)
{
    ClamSettings settings;
    settings.dbDirs = {dir + "/absent"};
    auto engine = make(settings);
    EXPECT_FALSE(engine->reload());
    EXPECT_FALSE(engine->ready());
    EXPECT_FALSE(engine->info().dbError.empty());
    const auto r = scan(*engine, write("x", "x"));
    EXPECT_EQ(r.verdict, Verdict::Error);
}

TEST_F(EngineTest, LimitsAndCancel)
{
    ClamSettings settings;
    settings.dbDirs = {dbDir};
    settings.maxFileSize = 1000;
    auto engine = make(settings);
    ASSERT_TRUE(engine->reload());
    const std::string big = write("big", std::string(5000, 'a'));
    auto r = scan(*engine, big);
    EXPECT_EQ(r.verdict, Verdict::Partial);
    EXPECT_EQ(r.reason, "not fully scanned: MaxFileSize");

    kuv::scan::ScanLimits limits;
    limits.maxFileSize = 10;
    r = scan(*engine, write("small", std::string(100, 'b')), limits);
    EXPECT_EQ(r.verdict, Verdict::Partial);
    EXPECT_EQ(r.reason, "not fully scanned: MaxFileSize");

    std::atomic<bool> cancel{true};
    r = scan(*engine, write("c", "content"), {}, &cancel);
    EXPECT_EQ(r.verdict, Verdict::Error);
    EXPECT_EQ(r.reason, "cancelled");
}

TEST(ClamEngineNames, LimitsAndDatabaseFiles)
{
    EXPECT_EQ(ClamEngine::limitFromVirusName("Heuristics.Limits.Exceeded.MaxFileSize"), "MaxFileSize");
    EXPECT_EQ(ClamEngine::limitFromVirusName("Heuristics.Limits.Exceeded."), "");
    EXPECT_EQ(ClamEngine::limitFromVirusName("Win.Test.EICAR_HDB-1"), "");
    EXPECT_TRUE(ClamEngine::isDatabaseFile("daily.cld"));
    EXPECT_TRUE(ClamEngine::isDatabaseFile("kuv-eicar.ndb"));
    EXPECT_FALSE(ClamEngine::isDatabaseFile(".daily.cld.tmp"));
    EXPECT_FALSE(ClamEngine::isDatabaseFile("freshclam.dat"));
    EXPECT_FALSE(ClamEngine::isDatabaseFile("notes.txt"));
}

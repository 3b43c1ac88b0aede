// SPDX-License-Identifier: GPL-2.0-or-later
// Shared set-up of the application tests: a private installation tree and a clean set of doubles.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakePlatform.h"
#include "FakeServiceParts.h"
#include "Harness.h"

#ifndef KUV_CFGMOD_DIR
#error "KUV_CFGMOD_DIR must name the directory of the configuration test modules"
#endif

namespace apptest {

// Install directories holding one configuration module variant each: <dir>/<variant>/lib/modules/.
inline std::string moduleBase(const std::string& variant) { return std::string(KUV_CFGMOD_DIR) + "/" + variant + "/"; }

inline bool exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// A private installation: debug configuration, the good configuration module, the guard script.
class TempInstall {
public:
    TempInstall() : m_tmp("kuvapp")
    {
        dir = m_tmp.path() + "/";
        mkdirs("etc/debug");
        mkdirs("lib/modules");
        mkdirs("script");
        mkdirs("data/pubcfg");
        mkdirs("log");
        kuvtest::writeFile(dir + "etc/debug/gui_debug.conf", "{\"log_size\":4096,\"log_backup_max_num\":2,\"log_level\":2}");
        copy(moduleBase("good") + "lib/modules/libconfigproxy.so", dir + "lib/modules/libconfigproxy.so");
        kuvtest::writeFile(dir + "script/kuvgui_guard.sh", "#!/bin/sh\nexit 0\n");
        chmod((dir + "script/kuvgui_guard.sh").c_str(), 0755);
        fake::setInstallDir(dir);
    }

    void mkdirs(const std::string& rel)
    {
        std::string path = dir;
        size_t start = 0;
        while (start <= rel.size()) {
            const size_t slash = rel.find('/', start);
            path = dir + rel.substr(0, slash);
            mkdir(path.c_str(), 0755);
            if (slash == std::string::npos) {
                break;
            }
            start = slash + 1;
        }
    }

    static void copy(const std::string& from, const std::string& to)
    {
        kuvtest::writeFile(to, kuvtest::readFile(from));
    }

    std::string marker() const { return dir + "data/pubcfg/.guiexit"; }
    std::string guard() const { return dir + "script/kuvgui_guard.sh"; }

    std::string dir;

private:
    kuvtest::TempDir m_tmp;
};

class AppTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::resetAll();
        fakeparts::reset();
    }
};

} // namespace apptest

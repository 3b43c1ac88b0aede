// SPDX-License-Identifier: GPL-2.0-or-later
// Times one plugin state update over N combo map files (5 plugins each): the first update, which
// installs every combo, and a second one over unchanged files, with the log written and filtered.
// Usage: bench_pluginmgr [--sizes N,N,...] [max files]   (default 10000); --help
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <QCoreApplication>

#include "CContainerMgr.h"
#include "CLogDebug.h"
#include "CPluginMgr.h"
#include "FakePlatform.h"
#include "FakePluginLoader.h"
#include "Harness.h"
#include "BenchSupport.h"

namespace {

constexpr int kPluginsPerFile = 5;

struct Timing {
    double firstMs;
    double againMs;
};

void writeMapFiles(const std::string& mapDir, int files)
{
    std::filesystem::remove_all(mapDir);
    std::filesystem::create_directories(mapDir);
    for (int i = 0; i < files; ++i) {
        std::string list;
        for (int k = 0; k < kPluginsPerFile; ++k) {
            list += (k ? "," : "") + std::string("{\"id\":\"plugin_") + std::to_string(i) + "_" + std::to_string(k) +
                    "\"}";
        }
        std::ofstream(mapDir + "/combo_" + std::to_string(i) + ".json")
            << "{\"index\":" << i << ",\"combo\":\"Combo_" << i << "\",\"pluginList\":[" << list << "]}";
    }
}

double elapsedMs(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

Timing runOnce(CContainerMgr& conMgr, const std::string& installDir, int files)
{
    // Resetting the doubles also resets the installation directory they report.
    fake::resetAll();
    fake::setInstallDir(installDir);
    CPluginMgr mgr;
    mgr.init(nullptr, &conMgr);
    const auto t0 = std::chrono::steady_clock::now();
    mgr.updatePluginStatus();
    const double first = elapsedMs(t0);
    // A run that loaded nothing would time nothing.
    const size_t installs = fake::loaderInstalls().size();
    if (installs != static_cast<size_t>(files) * kPluginsPerFile) {
        fprintf(stderr, "update of %d files made %zu plugin loads, expected %d\n", files, installs,
                files * kPluginsPerFile);
        exit(1);
    }
    const auto t1 = std::chrono::steady_clock::now();
    mgr.updatePluginStatus();
    const double again = elapsedMs(t1);
    return {first, again};
}

Timing measure(CContainerMgr& conMgr, const std::string& installDir, int files, int runs)
{
    std::vector<double> first;
    std::vector<double> again;
    for (int r = 0; r < runs; ++r) {
        const Timing t = runOnce(conMgr, installDir, files);
        first.push_back(t.firstMs);
        again.push_back(t.againMs);
    }
    return {kuvbench::percentile(first, 0.5), kuvbench::percentile(again, 0.5)};
}

} // namespace

int main(int argc, char** argv)
{
    int maxFiles = 10000;
    std::vector<int> only;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            printf("usage: bench_pluginmgr [--sizes N,N,...] [MAX_FILES]\n"
                   "Times updatePluginStatus over N combo map files (%d plugins each) with the log at the\n"
                   "shipped level 2 and with it at level 4: the first update and one over unchanged files.\n"
                   "Sizes default to 100, 300, 1000, ... up to MAX_FILES (default 10000); --sizes picks them.\n",
                   kPluginsPerFile);
            return 0;
        }
        if (a == "--sizes" && i + 1 < argc) {
            std::string list = argv[++i];
            for (size_t at = 0; at <= list.size();) {
                const size_t comma = list.find(',', at);
                const std::string item = list.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
                char* end = nullptr;
                const long n = strtol(item.c_str(), &end, 10);
                if (item.empty() || *end != '\0' || n < 1 || n > 1000000) {
                    fprintf(stderr, "bench_pluginmgr: bad size '%s'\n", item.c_str());
                    return 2;
                }
                only.push_back(static_cast<int>(n));
                if (comma == std::string::npos) {
                    break;
                }
                at = comma + 1;
            }
            continue;
        }
        char* end = nullptr;
        const long n = strtol(argv[i], &end, 10);
        if (*argv[i] == '\0' || *end != '\0' || n < 1 || n > 1000000) {
            fprintf(stderr, "bench_pluginmgr: '%s' is not a file count; see --help\n", argv[i]);
            return 2;
        }
        maxFiles = static_cast<int>(n);
    }
    QCoreApplication app(argc, argv);

    const kuvtest::TempDir tmp("kuvbench");
    const std::string root = tmp.path();
    const std::string installDir = root + "/";
    const std::string mapDir = installDir + "/etc/plugins-gui/combo_plugin_map";

    CLogDebug* log = CLogDebug::Instance();
    log->SetProperty(LOG_PROPERTY_PATH, (root + "/log/").c_str());
    log->SetProperty(LOG_PROPERTY_NAME, "kuvgui");
    log->SetProperty(LOG_PROPERTY_SIZE, "104857600");
    log->SetProperty(LOG_PROPERTY_BACKUP, "1");

    CContainerMgr conMgr(nullptr);
    std::vector<int> sizes = only;
    if (sizes.empty()) {
        for (int n : {100, 300, 1000, 3000, 10000, 30000, 100000}) {
            if (n <= maxFiles) {
                sizes.push_back(n);
            }
        }
    }

    printf("updatePluginStatus, %d plugins per map file, median of several runs (ms)\n", kPluginsPerFile);
    printf("%8s %8s | %12s %12s %10s | %12s %12s | %7s\n", "files", "plugins", "first,log", "again,log", "us/file",
           "first,nolog", "again,nolog", "growth");
    double previous = 0;
    int previousFiles = 0;
    for (int files : sizes) {
        writeMapFiles(mapDir, files);
        const int runs = files >= 10000 ? 3 : 5;
        log->SetProperty(LOG_PROPERTY_LEVEL, "2");
        const Timing logged = measure(conMgr, installDir, files, runs);
        log->SetProperty(LOG_PROPERTY_LEVEL, "4");
        const Timing quiet = measure(conMgr, installDir, files, runs);
        char growth[32] = "-";
        if (previousFiles != 0) {
            // Time ratio over size ratio: 1.00 is linear growth.
            snprintf(growth, sizeof(growth), "%.2f",
                     (logged.firstMs / previous) / (static_cast<double>(files) / previousFiles));
        }
        printf("%8d %8d | %12.2f %12.2f %10.2f | %12.2f %12.2f | %7s\n", files, files * kPluginsPerFile,
               logged.firstMs, logged.againMs, logged.firstMs * 1000.0 / files, quiet.firstMs, quiet.againMs,
               growth);
        fflush(stdout);
        previous = logged.firstMs;
        previousFiles = files;
    }
    printf("growth: (time ratio) / (files ratio) of the first update with the log, against the row above\n");

    CLogDebug::Close();
    fake::resetAll();
    return 0;
}

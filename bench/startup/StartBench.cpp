// SPDX-License-Identifier: GPL-2.0-or-later
// Start-up and idle memory of the installed service next to a bare Qt Widgets program, measured in the
// same run, interleaved. For kuvgui: exec to the tag attribute "status" "3" and to every plugin loaded
// (its log says so); for the bare program: exec to its "ready" line. Then, after a settle time, RSS and
// PSS of both from /proc/PID/smaps_rollup.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

using namespace kuvbench;

using Clock = std::chrono::steady_clock;

const char* const kUsage =
    "usage: kuv_bench_start [--install DIR] [--runs N] [--settle-ms MS] [--bare PATH]\n"
    "Start-up of the installed kuvgui (exec to \"status\" \"3\" and to all plugins loaded) and its idle\n"
    "RSS/PSS, next to the bare Qt program kuv_bare_qt built beside this one (exec to its window shown).\n"
    "DIR defaults to $KUV_STAGE_DIR; runs default to 10, interleaved; settle 3000 ms before memory.\n"
    "Headless (QT_QPA_PLATFORM=offscreen), private runtime directory, broker started here.\n"
    "Prints one line per figure: <name> <value> <unit>.\n";

double ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

// Waits on inotify events of the watched directories until done() holds; false after timeoutMs.
template <typename Done>
bool waitEvents(int inotifyFd, Done done, int timeoutMs)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[8192];
    while (!done()) {
        const long left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        struct pollfd p{inotifyFd, POLLIN, 0};
        // A short cap: an append to a log file opened before the watch still shows as IN_MODIFY, but be
        // safe against a missed event.
        if (poll(&p, 1, static_cast<int>(std::min<long>(left, 50))) > 0) {
            while (read(inotifyFd, buffer, sizeof buffer) > 0) {
            }
        }
    }
    return true;
}

struct Memory {
    double rssKiB = 0;
    double pssKiB = 0;
};

Memory memoryOf(pid_t pid)
{
    Memory m;
    std::istringstream in(readFile("/proc/" + std::to_string(pid) + "/smaps_rollup"));
    std::string key;
    double value = 0;
    std::string unit;
    while (in >> key) {
        if (key == "Rss:" && in >> value >> unit) {
            m.rssKiB = value;
        } else if (key == "Pss:" && in >> value >> unit) {
            m.pssKiB = value;
        }
    }
    return m;
}

int pluginCount(const std::string& install)
{
    int n = 0;
    DIR* dir = opendir((install + "etc/plugins-gui/plugins").c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
            ++n;
        }
    }
    closedir(dir);
    return n;
}

} // namespace

int main(int argc, char** argv)
{
    int runs = 10;
    int settleMs = 3000;
    std::string install = getenv("KUV_STAGE_DIR") ? getenv("KUV_STAGE_DIR") : "";
    std::string bare = selfDir() + "/kuv_bare_qt";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else if (a == "--runs" && i + 1 < argc) {
            runs = std::max(1, atoi(argv[++i]));
        } else if (a == "--settle-ms" && i + 1 < argc) {
            settleMs = std::max(0, atoi(argv[++i]));
        } else if (a == "--install" && i + 1 < argc) {
            install = argv[++i];
        } else if (a == "--bare" && i + 1 < argc) {
            bare = argv[++i];
        } else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    install = requireInstall(install);
    const std::string runtime = headlessRuntime("kuvbench-start");

    const std::string kuvDir = runtime + "/kuv";
    const std::string attr = kuvDir + "/A5F24530-52D7-11EE-AF47-4B159A309AD8.attr";
    const std::string logFile = install + "log/kuvgui.log";
    const int plugins = pluginCount(install);

    const pid_t broker = spawn({install + "bin/kuv-zelld", "--foreground"});
    for (int i = 0; i < 3000 && access((kuvDir + "/kuv_zell").c_str(), F_OK) != 0; ++i) {
        usleep(1000);
    }
    const int inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (broker < 0 || inotifyFd < 0 || inotify_add_watch(inotifyFd, kuvDir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0 ||
        inotify_add_watch(inotifyFd, (install + "log").c_str(), IN_MODIFY | IN_CREATE) < 0) {
        fprintf(stderr, "broker did not come up or cannot watch %s\n", kuvDir.c_str());
        return 1;
    }

    std::vector<double> tStatus, tPlugins, tBare;
    Memory kuvMem, bareMem;
    for (int run = 0; run < runs; ++run) {
        const bool last = run == runs - 1;
        // The bare program.
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            return 1;
        }
        auto t0 = Clock::now();
        const pid_t b = spawn({bare}, Output::to(fds[1]));
        close(fds[1]);
        char line[16];
        const ssize_t got = read(fds[0], line, sizeof line);
        tBare.push_back(ms(t0, Clock::now()));
        close(fds[0]);
        if (b < 0 || got <= 0) {
            fprintf(stderr, "the bare Qt program did not come up\n");
            return 1;
        }
        if (last) {
            usleep(static_cast<useconds_t>(settleMs) * 1000);
            bareMem = memoryOf(b);
        }
        kill(b, SIGTERM);
        waitExit(b);

        // The service.
        const std::string before = readFile(logFile);
        t0 = Clock::now();
        const pid_t s = spawn({install + "bin/kuvgui"});
        const std::string mine = "[" + std::to_string(s) + ":";
        const std::string three = "\"pid\":\"" + std::to_string(s) + "\",\"status\":\"3\"";
        if (!waitEvents(inotifyFd, [&] { return readFile(attr).find(three) != std::string::npos; }, 60000)) {
            fprintf(stderr, "kuvgui did not reach status 3\n");
            return 1;
        }
        tStatus.push_back(ms(t0, Clock::now()));
        const bool loaded = waitEvents(
            inotifyFd,
            [&] {
                const std::string text = readFile(logFile);
                const std::string fresh = text.size() > before.size() ? text.substr(before.size()) : text;
                int n = 0;
                for (size_t at = fresh.find(mine); at != std::string::npos; at = fresh.find(mine, at + 1)) {
                    const size_t eol = fresh.find('\n', at);
                    if (fresh.substr(at, eol == std::string::npos ? std::string::npos : eol - at)
                            .find("] loaded from [") != std::string::npos) {
                        ++n;
                    }
                }
                return n >= plugins;
            },
            60000);
        tPlugins.push_back(loaded ? ms(t0, Clock::now()) : -1);
        if (last) {
            usleep(static_cast<useconds_t>(settleMs) * 1000);
            kuvMem = memoryOf(s);
        }
        const pid_t q = spawn({install + "bin/kuvgui", "quit"});
        waitExit(q);
        waitExit(s);
    }
    kill(broker, SIGTERM);
    waitExit(broker);
    close(inotifyFd);
    const std::string rm = "rm -rf '" + runtime + "'";
    if (system(rm.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", runtime.c_str());
    }

    printf("start_bare_qt_ms %.1f ms\n", stats(tBare).median);
    printf("start_status3_ms %.1f ms\n", stats(tStatus).median);
    printf("start_plugins_ms %.1f ms\n", stats(tPlugins).median);
    printf("plugins %d count\n", plugins);
    printf("rss_bare_qt_kib %.0f KiB\n", bareMem.rssKiB);
    printf("pss_bare_qt_kib %.0f KiB\n", bareMem.pssKiB);
    printf("rss_kuvgui_kib %.0f KiB\n", kuvMem.rssKiB);
    printf("pss_kuvgui_kib %.0f KiB\n", kuvMem.pssKiB);
    printf("runs %d count\n", runs);
    return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Second-start cost: `kuvgui right "/a b" /c` against a running instance, next to a minimal C program that
// sends the same 39 bytes to the same socket and a minimal C++ one that makes them with JsonCpp (the floor
// for a client built on the C++ runtime and JsonCpp). Prints all three and the ratios to the C program.
//
// Usage: kuv_bench_forward [--runs N] [--gap-ms G] [--install DIR] [--min PATH]
//   DIR defaults to $KUV_STAGE_DIR (the staged installation); the minimal client defaults to the
//   kuv_forward_min built beside this program. The service runs headless in a private runtime directory.
//   Runs are spaced by G ms (default 30) so each start finds the instance idle, as a person's clicks
//   would, rather than racing the window updates of the previous request on a small machine.
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

using namespace kuvbench;

// Wall time of one whole process, from spawn to reaped, in microseconds.
double timeRun(const std::vector<std::string>& argv, int expectStatus)
{
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = spawn(argv);
    if (pid < 0) {
        fprintf(stderr, "cannot start %s\n", argv[0].c_str());
        exit(1);
    }
    const int status = waitExit(pid);
    const auto end = std::chrono::steady_clock::now();
    if (status != expectStatus) {
        fprintf(stderr, "%s exited with %d, expected %d\n", argv[0].c_str(), status, expectStatus);
        exit(1);
    }
    return std::chrono::duration<double, std::micro>(end - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    int runs = 200;
    int gapMs = 30;
    std::string install = getenv("KUV_STAGE_DIR") ? getenv("KUV_STAGE_DIR") : "";
    std::string minimal = selfDir() + "/kuv_forward_min";
    const std::string minimalCxx = selfDir() + "/kuv_forward_min_cxx";
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            printf("usage: %s [--runs N] [--gap-ms G] [--install DIR] [--min PATH]\n"
                   "Second start `kuvgui right \"/a b\" /c` against a running instance next to the minimal C\n"
                   "sender kuv_forward_min (same 39 bytes, also waits for the one-byte receipt) and the minimal\n"
                   "C++ sender kuv_forward_min_cxx (its text made by JsonCpp, as the service's client must), interleaved,\n"
                   "N runs each (default 200), G ms apart (default 30; 0 = back to back). DIR defaults to\n"
                   "$KUV_STAGE_DIR. Prints a table and the ratio of medians.\n",
                   argv[0]);
            return 0;
        }
        if (a == "--runs" && i + 1 < argc) {
            runs = std::max(10, atoi(argv[++i]));
        } else if (a == "--gap-ms" && i + 1 < argc) {
            gapMs = std::max(0, atoi(argv[++i]));
        } else if (a == "--install" && i + 1 < argc) {
            install = argv[++i];
        } else if (a == "--min" && i + 1 < argc) {
            minimal = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--runs N] [--gap-ms G] [--install DIR] [--min PATH]\n", argv[0]);
            return 2;
        }
    }
    install = requireInstall(install);

    const std::string runtime = headlessRuntime("kuvbench");

    const pid_t broker = spawn({install + "bin/kuv-zelld", "--foreground"});
    if (broker < 0 || !waitFor(runtime + "/kuv/kuv_zell", 30000)) {
        fprintf(stderr, "broker did not come up\n");
        return 1;
    }
    const pid_t service = spawn({install + "bin/kuvgui"});
    const std::string socket = runtime + "/kuv/kuv-gui";
    if (service < 0 || !waitFor(socket, 60000)) {
        fprintf(stderr, "service did not come up\n");
        return 1;
    }
    // Let the start-up settle before timing.
    std::this_thread::sleep_for(std::chrono::seconds(2));

    const std::vector<std::string> forward = {install + "bin/kuvgui", "right", "/a b", "/c"};
    const std::vector<std::string> floor = {minimal, socket};
    const std::vector<std::string> floorCxx = {minimalCxx, socket};
    // Same process, a word that sends nothing: the cost of starting and checking the tag alone.
    const std::vector<std::string> silent = {install + "bin/kuvgui", "RIGHT", "x"};
    const auto gap = [&] { std::this_thread::sleep_for(std::chrono::milliseconds(gapMs)); };
    for (int i = 0; i < 10; ++i) { // warm the page cache
        timeRun(forward, 1);
        gap();
        timeRun(floor, 0);
        gap();
    }
    std::vector<double> tForward, tFloor, tSilent, tFloorCxx;
    for (int i = 0; i < runs; ++i) { // interleaved, so drift hits all alike
        tForward.push_back(timeRun(forward, 1));
        gap();
        tFloor.push_back(timeRun(floor, 0));
        gap();
        tSilent.push_back(timeRun(silent, 0));
        gap();
        tFloorCxx.push_back(timeRun(floorCxx, 0));
        gap();
    }

    timeRun({install + "bin/kuvgui", "quit"}, 1);
    waitExit(service);
    kill(broker, SIGTERM);
    waitExit(broker);
    std::string rm = "rm -rf '" + runtime + "'";
    if (system(rm.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", runtime.c_str());
    }

    const kuvbench::Stats f = stats(tForward), m = stats(tFloor), q = stats(tSilent), c = stats(tFloorCxx);
    printf("second start, whole process, %d runs each, %d ms apart (microseconds)\n", runs, gapMs);
    printf("%-34s %9s %9s %9s %9s\n", "program", "median", "mean", "p10", "p90");
    printf("%-34s %9.0f %9.0f %9.0f %9.0f\n", "kuvgui right \"/a b\" /c", f.median, f.mean, f.p10, f.p90);
    printf("%-34s %9.0f %9.0f %9.0f %9.0f\n", "minimal C client (same 39 bytes)", m.median, m.mean, m.p10, m.p90);
    printf("%-34s %9.0f %9.0f %9.0f %9.0f\n", "kuvgui RIGHT x (sends nothing)", q.median, q.mean, q.p10, q.p90);
    printf("%-34s %9.0f %9.0f %9.0f %9.0f\n", "minimal C++ client with JsonCpp", c.median, c.mean, c.p10, c.p90);
    printf("ratio of medians: %.2f (goal: at most 2.0); C++ floor: %.2f\n", f.median / m.median, c.median / m.median);
    return 0;
}

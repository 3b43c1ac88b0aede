// SPDX-License-Identifier: GPL-2.0-or-later
// Context-menu scan latency: from starting `kuvgui right FILE` against a running instance to the
// verdict shown on its Scan page, with the back end's engine warm. The shell journal
// (KUV_SHELL_JOURNAL) stamps each verdict with the wall-clock time it reached the page ("time_ms").
//
// Usage: kuv_bench_scanpage [--runs N] [--gap-ms G] [--install DIR] [--fake] [--scand PATH]
//   DIR defaults to $KUV_STAGE_DIR. The back end is DIR/bin/kuv-scand when installed (the real engine,
//   scanning an EICAR test file), else --scand PATH or, with --fake, the scripted kuv-fake-scand of the
//   test tree (no engine: the floor of the shell, the bus and the command channel). Everything runs
//   headless in a private runtime directory.
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
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "BenchSupport.h"

namespace {

using namespace kuvbench;

int64_t wallMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Journal records of one event from line `from` on; `from` moves past what was read.
std::vector<Json::Value> newRecords(const std::string& journal, size_t& from, const char* event)
{
    std::vector<Json::Value> out;
    std::ifstream in(journal);
    std::string line;
    size_t n = 0;
    Json::CharReaderBuilder b;
    while (std::getline(in, line)) {
        if (n++ < from) {
            continue;
        }
        Json::Value v;
        std::string errs;
        std::istringstream one(line);
        if (Json::parseFromStream(b, one, &v, &errs) && v["event"].asString() == event) {
            out.push_back(v);
        }
    }
    from = n;
    return out;
}

// One context-menu scan: wall time from spawning `kuvgui right file` to the verdict and to the job end.
bool once(const std::string& kuvgui, const std::string& file, const std::string& journal, size_t& cursor,
          double& verdictMs, double& endMs, std::string& verdict, int timeoutMs)
{
    const int64_t start = wallMs();
    const pid_t pid = spawn({kuvgui, "right", file});
    if (pid < 0 || waitExit(pid) != 1) {
        fprintf(stderr, "kuvgui right did not hand the request over\n");
        return false;
    }
    int64_t verdictAt = 0;
    for (int i = 0; i < timeoutMs; ++i) {
        size_t before = cursor;
        for (const Json::Value& r : newRecords(journal, before, "scan-result")) {
            verdictAt = r["time_ms"].asInt64();
            verdict = r["verdict"].asString();
        }
        size_t again = cursor;
        const auto ends = newRecords(journal, again, "scan-end");
        if (!ends.empty()) {
            cursor = again;
            if (ends[0]["state"].asString() != "done") {
                fprintf(stderr, "the job ended %s: %s\n", ends[0]["state"].asString().c_str(),
                        ends[0]["reason"].asString().c_str());
                return false;
            }
            verdictMs = static_cast<double>(verdictAt - start);
            endMs = static_cast<double>(ends[0]["time_ms"].asInt64() - start);
            return verdictAt != 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    fprintf(stderr, "no verdict within %d ms\n", timeoutMs);
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    int runs = 50;
    int gapMs = 100;
    bool fake = false;
    std::string install = getenv("KUV_STAGE_DIR") ? getenv("KUV_STAGE_DIR") : "";
    std::string scand;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--runs" && i + 1 < argc) {
            runs = std::max(10, atoi(argv[++i]));
        } else if (a == "--gap-ms" && i + 1 < argc) {
            gapMs = std::max(0, atoi(argv[++i]));
        } else if (a == "--install" && i + 1 < argc) {
            install = argv[++i];
        } else if (a == "--scand" && i + 1 < argc) {
            scand = argv[++i];
        } else if (a == "--fake") {
            fake = true;
        } else if (a == "--help" || a == "-h") {
            printf("usage: %s [--runs N] [--gap-ms G] [--install DIR] [--fake] [--scand PATH]\n"
                   "From `kuvgui right FILE` to the verdict on the Scan page (shell journal time stamps),\n"
                   "engine warm. DIR defaults to $KUV_STAGE_DIR; the back end is DIR/bin/kuv-scand unless\n"
                   "--scand PATH or --fake (the scripted test back end, no engine) is given.\n",
                   argv[0]);
            return 0;
        } else {
            fprintf(stderr, "usage: %s [--runs N] [--gap-ms G] [--install DIR] [--fake] [--scand PATH]\n", argv[0]);
            return 2;
        }
    }
    install = requireInstall(install);
    std::vector<std::string> scandArgs;
    if (fake) {
#ifdef KUV_FAKE_SCAND
        scand = KUV_FAKE_SCAND;
        scandArgs = {"--steps", "1", "--step-ms", "0"};
#else
        fprintf(stderr, "--fake: the test tree's kuv-fake-scand was not built\n");
        return 2;
#endif
    } else {
        if (scand.empty()) {
            scand = install + "bin/kuv-scand";
        }
        // Stays this process's child, so it is stopped with the bench.
        scandArgs = {"--foreground"};
    }
    if (access(scand.c_str(), X_OK) != 0) {
        fprintf(stderr, "no back end at %s (build the back end, or use --fake)\n", scand.c_str());
        return 2;
    }

    const std::string tmp = privateTempDir("kuvbench-scan");
    const std::string runtime = tmp + "/run";
    mkdir(runtime.c_str(), 0700);
    const std::string journal = tmp + "/journal.jsonl";
    // The EICAR test file, put together here so that this source is no test file itself.
    const std::string file = tmp + "/eicar.com";
    std::ofstream(file) << "X5O!P%@AP[4\\PZX54(P^)7CC)7}$" << "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    // The scripted back end lives in the build tree; it uses the bus module of the installation.
    headlessEnvironment(runtime, {"KUV_SHELL_JOURNAL=" + journal, "KUV_INSTALL_DIR=" + install});

    int rc = 0;
    const pid_t broker = spawn({install + "bin/kuv-zelld", "--foreground"});
    pid_t service = -1;
    pid_t backend = -1;
    std::vector<double> toVerdict, toEnd;
    std::string verdict;
    if (broker < 0 || !waitFor(runtime + "/kuv/kuv_zell", 30000)) {
        fprintf(stderr, "broker did not come up\n");
        rc = 1;
    } else {
        std::vector<std::string> b{scand};
        b.insert(b.end(), scandArgs.begin(), scandArgs.end());
        backend = spawn(b);
        // On the bus with its engine loaded before kuvgui starts (whose guard then finds it running).
        bool ready = false;
        for (int i = 0; i < 120 && !ready && backend > 0; ++i) {
            const pid_t probe = spawn({install + "bin/kuvctl", "scan", file});
            ready = probe > 0 && waitExit(probe) == 1;
            if (!ready) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
        }
        if (!ready) {
            fprintf(stderr, "the back end did not report the test file within 120 s\n");
        }
        service = spawn({install + "bin/kuvgui"});
        if (service < 0 || backend < 0 || !waitFor(runtime + "/kuv/kuv-gui", 60000)) {
            fprintf(stderr, "service or back end did not start\n");
            rc = 1;
        }
    }
    size_t cursor = 0;
    double v = 0;
    double e = 0;
    if (rc == 0) {
        // Warm up: the engine loads its signatures and the shell joins the bus on the first job.
        bool warm = false;
        for (int i = 0; i < 30 && !warm; ++i) {
            warm = once(install + "bin/kuvgui", file, journal, cursor, v, e, verdict, 5000);
            if (!warm) {
                std::this_thread::sleep_for(std::chrono::seconds(2));
            }
        }
        for (int i = 0; warm && i < 5; ++i) {
            once(install + "bin/kuvgui", file, journal, cursor, v, e, verdict, 30000);
        }
        if (!warm) {
            fprintf(stderr, "the back end never answered\n");
            rc = 1;
        }
    }
    for (int i = 0; rc == 0 && i < runs; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
        if (!once(install + "bin/kuvgui", file, journal, cursor, v, e, verdict, 30000)) {
            rc = 1;
            break;
        }
        toVerdict.push_back(v);
        toEnd.push_back(e);
    }

    if (service > 0) {
        const pid_t q = spawn({install + "bin/kuvgui", "quit"});
        waitExit(q);
        waitExit(service);
    }
    for (pid_t p : {backend, broker}) {
        if (p > 0) {
            kill(p, SIGTERM);
            waitExit(p);
        }
    }
    const std::string rm = "rm -rf '" + tmp + "'";
    if (system(rm.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", tmp.c_str());
    }
    if (rc != 0) {
        return rc;
    }
    const kuvbench::Stats a = stats(toVerdict), b = stats(toEnd);
    printf("context-menu scan, %d runs, %d ms apart, back end %s%s (milliseconds)\n", runs, gapMs, scand.c_str(),
           fake ? " (scripted, no engine)" : "");
    printf("%-44s %8s %8s %8s %8s %8s\n", "from `kuvgui right FILE` to", "median", "mean", "p10", "p90", "max");
    printf("%-44s %8.1f %8.1f %8.1f %8.1f %8.1f\n", ("the verdict on the page (" + verdict + ")").c_str(), a.median,
           a.mean, a.p10, a.p90, a.max);
    printf("%-44s %8.1f %8.1f %8.1f %8.1f %8.1f\n", "the job's end on the page", b.median, b.mean, b.p10, b.p90, b.max);
    printf("goal: verdict at most 50 ms (median %s)\n", a.median <= 50 ? "met" : "not met");
    return 0;
}

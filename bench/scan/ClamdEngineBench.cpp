// SPDX-License-Identifier: GPL-2.0-or-later
// Scans a tree through the clamd engine (descriptor passing) with a pool of threads, once with pooled
// IDSESSION connections and once with a connection per file; prints files/s, MB/s and findings.
// Usage: bench_clamd_engine --socket PATH [--threads N] [--mode both|sessions|perfile] [--list] TREE
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ClamdEngine.h"

using namespace kuv::scan;

namespace {

std::vector<std::string> g_files;

int collect(const char* path, const struct stat* st, int type, struct FTW*)
{
    if (type == FTW_F && S_ISREG(st->st_mode)) {
        g_files.emplace_back(path);
    }
    return 0;
}

struct Totals {
    double seconds = 0;
    uint64_t files = 0, bytes = 0, infected = 0, partial = 0, errors = 0;
};

Totals run(IScanEngine& engine, unsigned threads, bool list)
{
    std::atomic<size_t> next{0};
    std::atomic<uint64_t> files{0}, bytes{0}, infected{0}, partial{0}, errors{0};
    std::mutex out;
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (unsigned t = 0; t < threads; ++t) {
        pool.emplace_back([&] {
            for (size_t i; (i = next++) < g_files.size();) {
                const int fd = ::open(g_files[i].c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
                if (fd < 0) {
                    ++errors;
                    continue;
                }
                const ScanResult r = engine.scanFd(fd, g_files[i], ScanLimits(), nullptr);
                ::close(fd);
                ++files;
                bytes += r.bytesScanned;
                if (r.verdict == Verdict::Infected) {
                    ++infected;
                    if (list) {
                        std::lock_guard<std::mutex> lock(out);
                        std::printf("%s: %s FOUND\n", g_files[i].c_str(), r.signature.c_str());
                    }
                } else if (r.verdict == Verdict::Partial) {
                    ++partial;
                } else if (r.verdict == Verdict::Error) {
                    ++errors;
                    if (list) {
                        std::lock_guard<std::mutex> lock(out);
                        std::printf("%s: %s ERROR\n", g_files[i].c_str(), r.reason.c_str());
                    }
                }
            }
        });
    }
    for (auto& th : pool) {
        th.join();
    }
    Totals t;
    t.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    t.files = files;
    t.bytes = bytes;
    t.infected = infected;
    t.partial = partial;
    t.errors = errors;
    return t;
}

void usage()
{
    std::puts("usage: bench_clamd_engine --socket PATH [--threads N] [--mode both|sessions|perfile] [--list] TREE\n"
              "Scans every regular file under TREE through clamd by descriptor passing and prints a table.\n"
              "  --socket PATH  clamd's Unix socket\n"
              "  --threads N    scanning threads (default: the number of cores)\n"
              "  --mode M       sessions: pooled IDSESSION connections; perfile: one connection per file;\n"
              "                 both (default) runs sessions, then perfile\n"
              "  --list         print every finding and error as it happens");
}

} // namespace

int main(int argc, char** argv)
{
    std::string socket, tree, mode = "both";
    unsigned threads = std::thread::hardware_concurrency();
    bool list = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--socket" && i + 1 < argc) {
            socket = argv[++i];
        } else if (a == "--threads" && i + 1 < argc) {
            threads = static_cast<unsigned>(std::atoi(argv[++i]));
        } else if (a == "--mode" && i + 1 < argc) {
            mode = argv[++i];
        } else if (a == "--list") {
            list = true;
        } else if (a == "--help" || a == "-h") {
            usage();
            return 0;
        } else if (!a.empty() && a[0] != '-' && tree.empty()) {
            tree = a;
        } else {
            usage();
            return 2;
        }
    }
    if (socket.empty() || tree.empty() || threads == 0 ||
        (mode != "both" && mode != "sessions" && mode != "perfile")) {
        usage();
        return 2;
    }
    if (nftw(tree.c_str(), collect, 64, FTW_PHYS) != 0) {
        std::fprintf(stderr, "bench_clamd_engine: cannot walk %s: %s\n", tree.c_str(), std::strerror(errno));
        return 2;
    }
    std::printf("%-28s %8s %10s %9s %8s %9s %8s %7s\n", "clamd engine", "files", "seconds", "files/s", "MB/s",
                "infected", "partial", "errors");
    for (const bool sessions : {true, false}) {
        if ((sessions && mode == "perfile") || (!sessions && mode == "sessions")) {
            continue;
        }
        ClamdOptions opt;
        opt.sessions = sessions;
        std::string error;
        auto engine = makeClamdEngine(socket, opt, error);
        if (!engine) {
            std::fprintf(stderr, "bench_clamd_engine: %s\n", error.c_str());
            return 2;
        }
        const Totals t = run(*engine, threads, list);
        std::printf("%-28s %8llu %10.2f %9.0f %8.1f %9llu %8llu %7llu\n",
                    sessions ? "sessions (IDSESSION pool)" : "connection per file",
                    static_cast<unsigned long long>(t.files), t.seconds, t.files / t.seconds,
                    t.bytes / 1e6 / t.seconds, static_cast<unsigned long long>(t.infected),
                    static_cast<unsigned long long>(t.partial), static_cast<unsigned long long>(t.errors));
    }
    return 0;
}

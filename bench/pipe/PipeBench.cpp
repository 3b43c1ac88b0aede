// SPDX-License-Identifier: GPL-2.0-or-later
// Messages per second over the command socket (one kept connection, 16 clients) and the cost of one
// connect-and-send as a second start makes it. Runs against a private runtime directory.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AfxPipe.h"

#include "BenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
const char* kName = "/tmp/kuv-bench";

class Counter : public IRemoteCallNotify {
public:
    void RecvData(CCharVector&, long, void*, unsigned long) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_count;
        m_changed.notify_all();
    }
    void waitFor(long n)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_count >= n; });
    }
    long count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    long m_count = 0;
};

std::string frame(size_t payload)
{
    sPipeFrameHead head{4, payload};
    std::string out(reinterpret_cast<const char*>(&head), sizeof head);
    out.append(payload, 'p');
    return out;
}

struct Row {
    std::string scenario;
    long messages = 0;
    double seconds = 0;
    std::vector<double> callUs; // per call, when measured
    long failures = 0;
};

// threads x each messages of the given payload; kept: one client object per thread, else one per message.
Row run(Counter& counter, const std::string& name, int threads, int each, size_t payload, bool kept)
{
    const std::string message = frame(payload);
    const long before = counter.count();
    std::vector<std::vector<double>> times(static_cast<size_t>(threads));
    std::atomic<long> failures{0};
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            CAfxPipeClient keptClient(kName);
            auto& mine = times[static_cast<size_t>(t)];
            mine.reserve(static_cast<size_t>(each));
            for (int i = 0; i < each; ++i) {
                const auto t0 = Clock::now();
                int rc;
                if (kept) {
                    rc = keptClient.async(message.data(), message.size());
                } else {
                    CAfxPipeClient once(kName);
                    rc = once.async(message.data(), message.size());
                }
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
                if (rc == 0) {
                    ++failures;
                }
            }
        });
    }
    for (auto& w : workers) {
        w.join();
    }
    const long total = static_cast<long>(threads) * each;
    counter.waitFor(before + total - failures);
    Row row;
    row.scenario = name;
    row.messages = total;
    row.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& v : times) {
        row.callUs.insert(row.callUs.end(), v.begin(), v.end());
    }
    row.failures = failures;
    return row;
}

} // namespace

int main(int argc, char** argv)
{
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("usage: kuv_bench_pipe [--quick]\n"
                        "Command socket throughput and the cost of one connect-and-send through a real\n"
                        "CAfxPipeServer in this process; --quick runs a tenth of the messages. Prints a table.\n");
            return 0;
        }
        if (std::strcmp(argv[i], "--quick") == 0) {
            quick = true;
        } else {
            std::fprintf(stderr, "kuv_bench_pipe: unknown argument %s; see --help\n", argv[i]);
            return 2;
        }
    }
    const int scale = quick ? 10 : 1;

    char base[] = "/tmp/kuv-bench-XXXXXX";
    if (::mkdtemp(base) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    ::chmod(base, 0700);
    ::setenv("XDG_RUNTIME_DIR", base, 1);

    Counter counter;
    CAfxPipeServer server;
    server.setName(kName);
    server.registerMonitor(&counter, 2, nullptr, true);
    if (server.start() != 1) {
        std::fprintf(stderr, "server did not start\n");
        return 1;
    }

    std::vector<Row> rows;
    run(counter, "warm-up", 1, 1000 / scale, 64, true);
    rows.push_back(run(counter, "1 client, kept connection, 64 B", 1, 50000 / scale, 64, true));
    rows.push_back(run(counter, "1 client, kept connection, 64 KiB", 1, 5000 / scale, 64 * 1024, true));
    rows.push_back(run(counter, "16 clients, kept connections, 64 B", 16, 5000 / scale, 64, true));
    rows.push_back(run(counter, "1 client, connect-and-send, 64 B", 1, 10000 / scale, 64, false));
    rows.push_back(run(counter, "16 clients, connect-and-send, 64 B", 16, 1000 / scale, 64, false));

    std::printf("%-38s %9s %9s %12s %10s %10s %10s %8s\n", "scenario", "messages", "seconds", "messages/s",
                "mean us", "p50 us", "p99 us", "failed");
    for (const Row& r : rows) {
        double sum = 0;
        for (double v : r.callUs) {
            sum += v;
        }
        std::printf("%-38s %9ld %9.3f %12.0f %10.1f %10.1f %10.1f %8ld\n", r.scenario.c_str(), r.messages, r.seconds,
                    static_cast<double>(r.messages) / r.seconds, r.callUs.empty() ? 0.0 : sum / static_cast<double>(r.callUs.size()),
                    kuvbench::percentile(r.callUs, 0.5), kuvbench::percentile(r.callUs, 0.99), r.failures);
    }
    server.stop();
    ::rmdir((std::string(base) + "/kuv").c_str());
    ::rmdir(base);
    return 0;
}

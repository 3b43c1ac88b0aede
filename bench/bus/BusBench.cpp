// SPDX-License-Identifier: GPL-2.0-or-later
// Message-bus throughput and latency through a real kuv-zelld, with clients loaded from
// libZellClientMgr.so. Prints a table; options: --messages N (per throughput row), --rtt N.
// The throughput rows send as fast as sendMsg() returns; when the receiving client cannot keep up, the
// broker drops what overflows its queue for it (--hwm, 100000 by default) and "recv" shows it.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <numeric>

#include "ZellTestSupport.h"
#include "BenchSupport.h"

using namespace zelltest;
using Clock = std::chrono::steady_clock;

namespace {

const GUID kA = guidOf("F6352E50-5C40-11EE-BEE1-47BAD2011C1F");
const GUID kB = guidOf("0B7E3A12-9C41-4D2B-8E5F-6A7B8C9D0E1F");

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

struct Counter : IMRReceiveComplete {
    std::atomic<uint64_t> count{0};
    std::atomic<int64_t> lastNs{0};
    void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override
    {
        ++count;
        lastNs.store(Clock::now().time_since_epoch().count());
    }
};

// Answers every message with the same body.
struct Echo : IMRReceiveComplete {
    IZellMREndPoint4* self = nullptr;
    void ReceiveCallback(uint64_t, int64_t type, const char* content, int length, uint64_t sender, uint64_t) override
    {
        self->sendMsg(*reinterpret_cast<const GUID*>(sender), type, content, length);
    }
};

struct Waiter : IMRReceiveComplete {
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t seen = 0;
    void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++seen;
        cv.notify_all();
    }
    bool waitFor(uint64_t n)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), [&] { return seen >= n; });
    }
};

void row(const char* what, const std::string& value, const std::string& extra)
{
    printf("| %-44s | %16s | %-34s |\n", what, value.c_str(), extra.c_str());
}

long rssKb(pid_t pid)
{
    const std::string status = kuvtest::readFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

std::string fmt(const char* format, double value)
{
    char text[64];
    snprintf(text, sizeof(text), format, value);
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    uint64_t messages = 200000;
    int rtts = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            printf("usage: bench_bus [--messages N] [--rtt N]\n"
                   "The bus through a real kuv-zelld with two clients of libZellClientMgr.so: one-way throughput\n"
                   "(64 B and 1 KiB, N messages, default 200000), round trip (N, default 10000), broker memory\n"
                   "with a stalled client, and the resume after kill -9. Prints a table.\n");
            return 0;
        }
        if ((a == "--messages" || a == "--rtt") && i + 1 < argc) {
            ++i;
        } else {
            fprintf(stderr, "bench_bus: unknown argument %s; see --help\n", argv[i]);
            return 2;
        }
    }
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::string(argv[i]) == "--messages") {
            messages = std::strtoull(argv[i + 1], nullptr, 10);
        } else if (std::string(argv[i]) == "--rtt") {
            rtts = atoi(argv[i + 1]);
        }
    }
    try {
        RuntimeDir runtime;
        auto broker = std::make_unique<Broker>(KUV_ZELLD_PATH, runtime, std::vector<std::string>{"--log-level", "3"});
        Module module(KUV_ZELL_MODULE);
        Client a(module, "bench-a");
        Client b(module, "bench-b");
        if (a.init(settingsJson()) != 0 || b.init(settingsJson()) != 0 || !a.waitConnected() || !b.waitConnected()) {
            fprintf(stderr, "bench: clients did not connect\n");
            return 1;
        }
        IZellMREndPoint4* rx = a->createEndPoint();
        IZellMREndPoint4* tx = b->createEndPoint();
        Counter counter;
        Waiter waiter;
        Echo echo;
        echo.self = rx;
        rx->init(kA);
        tx->init(kB);

        printf("| %-44s | %16s | %-34s |\n", "measure", "value", "detail");
        printf("|%s|%s|%s|\n", std::string(46, '-').c_str(), std::string(18, '-').c_str(),
               std::string(36, '-').c_str());

        for (size_t size : {size_t(64), size_t(1024)}) {
            rx->registerRecvNotify(1, &counter, 0);
            counter.count = 0;
            std::string body(size, 'x');
            const auto start = Clock::now();
            for (uint64_t i = 0; i < messages; ++i) {
                if (tx->sendMsg(kA, 1, body.data(), static_cast<int>(body.size())) != 0) {
                    fprintf(stderr, "bench: send failed\n");
                    return 1;
                }
            }
            const auto sent = Clock::now();
            // A receiver slower than the sender loses what overflows the broker's queue for it: stop
            // waiting once nothing more arrives for a second.
            uint64_t seen = 0;
            auto quietSince = Clock::now();
            while (counter.count.load() < messages && Clock::now() - quietSince < std::chrono::seconds(1)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                if (counter.count.load() != seen) {
                    seen = counter.count.load();
                    quietSince = Clock::now();
                }
            }
            const auto end = Clock::time_point(Clock::duration(counter.lastNs.load()));
            const double total = seconds(end - start);
            const std::string label = "one-way throughput, " + std::to_string(size) + " B bodies";
            row(label.c_str(), fmt("%.0f msg/s", static_cast<double>(counter.count.load()) / total),
                fmt("%.1f MiB/s", static_cast<double>(counter.count.load() * size) / total / 1048576.0) + ", " +
                    std::to_string(counter.count.load()) + "/" + std::to_string(messages) + " recv");
            row(("  sender side alone, " + std::to_string(size) + " B").c_str(),
                fmt("%.0f msg/s", static_cast<double>(messages) / seconds(sent - start)), "sendMsg() returns");
        }

        // Round trip: B sends, A's receiver echoes back, B's receiver wakes the caller.
        rx->registerRecvNotify(2, &echo, 0);
        tx->registerRecvNotify(2, &waiter, 0);
        std::vector<double> micros;
        micros.reserve(static_cast<size_t>(rtts));
        for (int i = 0; i < rtts; ++i) {
            const auto start = Clock::now();
            tx->sendMsg(kA, 2, "ping", 4);
            if (!waiter.waitFor(static_cast<uint64_t>(i) + 1)) {
                fprintf(stderr, "bench: round trip %d lost\n", i);
                return 1;
            }
            micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        const kuvbench::Stats rtt = kuvbench::stats(micros);
        row("round trip (4 B, through the broker twice)", fmt("%.1f us p50", rtt.median),
            fmt("p99 %.1f us", rtt.p99) + fmt(", mean %.1f us", rtt.mean));

        // Memory the broker holds for a client that stopped reading: its queue fills to --hwm.
        {
            struct Stalled : IMRReceiveComplete {
                std::atomic<bool> open{false};
                void ReceiveCallback(uint64_t, int64_t, const char*, int, uint64_t, uint64_t) override
                {
                    while (!open.load()) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(2));
                    }
                }
            } stalled;
            const pid_t brokerPid = atoi(kuvtest::readFile(runtime.socketPath() + ".lock").c_str());
            const long before = rssKb(brokerPid);
            rx->registerRecvNotify(4, &stalled, 0);
            const std::string body(64, 's');
            for (int i = 0; i < 400000; ++i) {
                tx->sendMsg(kA, 4, body.data(), static_cast<int>(body.size()));
            }
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const long full = rssKb(brokerPid);
            stalled.open = true;
            row("broker memory, one stalled client", fmt("%.1f MiB", static_cast<double>(full - before) / 1024.0),
                "64 B bodies, queue full (--hwm)");
        }

        // Resume after kill -9: time from the new broker's start until a message is routed again.
        const auto killStart = Clock::now();
        broker->kill9();
        kuvtest::waitUntil([&] { return a->isConnected() == 0 && b->isConnected() == 0; }, 30000, 1);
        const auto restart = Clock::now();
        broker->start();
        const auto listening = Clock::now();
        kuvtest::waitUntil([&] { return tx->sendMsgWait(kA, 3, "r", 1, 1000) == ZELL_SEND_ROUTED; }, 60000, 1);
        const auto resumed = Clock::now();
        row("delivery resumes after kill -9 + restart", fmt("%.0f ms", seconds(resumed - restart) * 1000),
            fmt("broker up in %.0f ms", seconds(listening - restart) * 1000));
        (void)killStart;
        return 0;
    } catch (const std::exception& e) {
        fprintf(stderr, "bench: %s\n", e.what());
        return 1;
    }
}

// SPDX-License-Identifier: GPL-2.0-or-later
// The floor for the bus: a plain libzmq ROUTER broker in its own process and two DEALER clients, each on
// its own thread, over ipc. A message is [destination id][body]; the broker swaps in the sender's id and
// passes it on. Measures the round trip (A -> B, B answers at once) and one-way throughput of 64 B.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kUsage =
    "usage: kuv_bench_zmq_baseline [--messages N] [--rtt N]\n"
    "A plain libzmq ROUTER broker (own process) with two DEALER clients over ipc: round trip p50/p99 and\n"
    "one-way throughput of 64-byte messages. The reference for bench_bus. Prints <name> <value> <unit>.\n";

[[noreturn]] void runBroker(const std::string& endpoint)
{
    void* ctx = zmq_ctx_new();
    void* router = zmq_socket(ctx, ZMQ_ROUTER);
    const int one = 1;
    const int hwm = 100000;
    zmq_setsockopt(router, ZMQ_ROUTER_MANDATORY, &one, sizeof one);
    zmq_setsockopt(router, ZMQ_SNDHWM, &hwm, sizeof hwm);
    if (zmq_bind(router, endpoint.c_str()) != 0) {
        _exit(1);
    }
    for (;;) {
        zmq_msg_t from, to, body;
        zmq_msg_init(&from);
        zmq_msg_init(&to);
        zmq_msg_init(&body);
        if (zmq_msg_recv(&from, router, 0) < 0 || zmq_msg_recv(&to, router, 0) < 0 ||
            zmq_msg_recv(&body, router, 0) < 0) {
            _exit(0);
        }
        // [to][from][body]: the receiver learns who sent it.
        zmq_msg_send(&to, router, ZMQ_SNDMORE);
        zmq_msg_send(&from, router, ZMQ_SNDMORE);
        zmq_msg_send(&body, router, 0);
        zmq_msg_close(&from);
        zmq_msg_close(&to);
        zmq_msg_close(&body);
    }
}

void* dealer(void* ctx, const char* id, const std::string& endpoint)
{
    void* s = zmq_socket(ctx, ZMQ_DEALER);
    const int hwm = 100000;
    zmq_setsockopt(s, ZMQ_ROUTING_ID, id, strlen(id));
    zmq_setsockopt(s, ZMQ_SNDHWM, &hwm, sizeof hwm);
    zmq_setsockopt(s, ZMQ_RCVHWM, &hwm, sizeof hwm);
    zmq_connect(s, endpoint.c_str());
    return s;
}

void sendTo(void* s, const char* to, const char* body, size_t size)
{
    zmq_send(s, to, strlen(to), ZMQ_SNDMORE);
    zmq_send(s, body, size, 0);
}

// Receives [from][body]; the body size.
int receive(void* s, char* from, size_t fromSize, char* body, size_t bodySize)
{
    const int n = zmq_recv(s, from, fromSize - 1, 0);
    if (n < 0) {
        return -1;
    }
    from[std::min<size_t>(static_cast<size_t>(n), fromSize - 1)] = '\0';
    return zmq_recv(s, body, bodySize, 0);
}

} // namespace

int main(int argc, char** argv)
{
    long messages = 200000;
    int rtts = 10000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            fputs(kUsage, stdout);
            return 0;
        } else if (a == "--messages" && i + 1 < argc) {
            messages = std::max(1000L, atol(argv[++i]));
        } else if (a == "--rtt" && i + 1 < argc) {
            rtts = std::max(100, atoi(argv[++i]));
        } else {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    char dir[] = "/tmp/kuvbench-zmq.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("mkdtemp");
        return 1;
    }
    const std::string endpoint = std::string("ipc://") + dir + "/broker";
    const pid_t broker = fork();
    if (broker == 0) {
        runBroker(endpoint);
    }
    usleep(100 * 1000);

    void* ctx = zmq_ctx_new();
    void* a = dealer(ctx, "A", endpoint);
    void* b = dealer(ctx, "B", endpoint);
    char from[64];
    char body[256];
    // Both connected: a message gets through each way.
    for (int tries = 0;; ++tries) {
        sendTo(a, "B", "hi", 2);
        zmq_pollitem_t item{b, 0, ZMQ_POLLIN, 0};
        if (zmq_poll(&item, 1, 100) > 0) {
            receive(b, from, sizeof from, body, sizeof body);
            break;
        }
        if (tries > 100) {
            fprintf(stderr, "baseline broker did not come up\n");
            return 1;
        }
    }

    // B answers every message on its own thread, as a bus receiver does.
    std::atomic<bool> echo{true};
    std::thread responder([&] {
        char f[64];
        char buf[256];
        for (;;) {
            const int n = receive(b, f, sizeof f, buf, sizeof buf);
            if (n < 0 || !echo.load()) {
                return;
            }
            if (n == 4 && memcmp(buf, "stop", 4) == 0) {
                return;
            }
            if (buf[0] == 'r') {
                sendTo(b, f, buf, static_cast<size_t>(std::min(n, 256)));
            }
        }
    });
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(rtts));
    char msg[64];
    memset(msg, 'r', sizeof msg);
    for (int i = 0; i < rtts; ++i) {
        const auto t0 = Clock::now();
        sendTo(a, "B", msg, sizeof msg);
        receive(a, from, sizeof from, body, sizeof body);
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    // One way: A sends, B counts (B's thread ignores messages not starting with 'r').
    memset(msg, 't', sizeof msg);
    const auto t0 = Clock::now();
    for (long i = 0; i < messages; ++i) {
        sendTo(a, "B", msg, sizeof msg);
    }
    sendTo(a, "B", "stop", 4);
    responder.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();

    zmq_close(a);
    zmq_close(b);
    zmq_ctx_term(ctx);
    kill(broker, SIGTERM);
    waitpid(broker, nullptr, 0);
    const std::string rm = std::string("rm -rf '") + dir + "'";
    if (system(rm.c_str()) != 0) {
        fprintf(stderr, "could not remove %s\n", dir);
    }
    printf("zmq_rtt_p50_us %.1f us\n", kuvbench::percentile(micros, 0.5));
    printf("zmq_rtt_p99_us %.1f us\n", kuvbench::percentile(micros, 0.99));
    printf("zmq_oneway_64B_msgs_per_s %.0f msg/s\n", static_cast<double>(messages) / seconds);
    return 0;
}

// SPDX-License-Identifier: GPL-2.0-or-later
// scand_probe: a bus client for the back end's tests that sends raw requests and prints every answer to its
// own endpoint, one per line: "type=<N> body=<body>".
//   scand_probe [--send TYPE BODY_FILE]... [--until TEXT] [--timeout MS]
// Exits 0 once an answer holds TEXT (or, without --until, when the timeout passes), 1 otherwise.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "BusModule.h"
#include "KuvScanProtocol.h"
#include "UniqueFd.h"
#include "ZellWire.h"

namespace {

class Printer : public IMRReceiveComplete {
public:
    explicit Printer(std::string until) : m_until(std::move(until)), m_wake(eventfd(0, EFD_CLOEXEC)) {}
    void ReceiveCallback(uint64_t, int64_t type, const char* content, int length, uint64_t, uint64_t) override
    {
        const std::string body(content, static_cast<size_t>(length));
        std::lock_guard<std::mutex> lock(m_mutex);
        printf("type=%lld body=%s\n", static_cast<long long>(type), body.c_str());
        fflush(stdout);
        if (!m_until.empty() && body.find(m_until) != std::string::npos) {
            const uint64_t one = 1;
            (void)!write(m_wake.get(), &one, sizeof(one));
        }
    }
    int fd() const { return m_wake.get(); }

private:
    std::string m_until;
    kuv::UniqueFd m_wake;
    std::mutex m_mutex;
};

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::pair<int64_t, std::string>> sends;
    std::string until;
    int timeoutMs = 30000;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--send" && i + 2 < argc) {
            std::ifstream in(argv[i + 2], std::ios::binary);
            std::ostringstream body;
            body << in.rdbuf();
            sends.emplace_back(atoll(argv[i + 1]), body.str());
            i += 2;
        } else if (a == "--until" && i + 1 < argc) {
            until = argv[++i];
        } else if (a == "--timeout" && i + 1 < argc) {
            timeoutMs = atoi(argv[++i]);
        } else {
            fprintf(stderr, "scand_probe: bad argument %s\n", a.c_str());
            return 2;
        }
    }
    std::string error;
    kuv::BusModule bus;
    if (!bus.open("./kuv_zell", false, error, "scand_probe") || !bus.waitConnected(10000)) {
        fprintf(stderr, "scand_probe: no bus: %s\n", error.c_str());
        return 1;
    }
    Printer printer(until);
    IZellMREndPoint4* endpoint = bus.mgr()->createEndPoint();
    std::random_device device;
    GUID self{};
    self.Data1 = device();
    self.Data2 = static_cast<uint16_t>(device());
    self.Data3 = 0x4000;
    self.Data4[0] = 0x80;
    self.Data4[7] = static_cast<uint8_t>(device());
    if (endpoint->registerRecvNotify(kZellAnyMsgType, &printer, 0) != 0 || endpoint->init(self) != 0) {
        fprintf(stderr, "scand_probe: no endpoint\n");
        return 1;
    }
    GUID scand{};
    zell::wire::parseGuidText(kuvscan::kScandGuid, scand);
    for (const auto& send : sends) {
        const int rc = endpoint->sendMsgWait(scand, send.first, send.second.data(),
                                             static_cast<int>(send.second.size()), 10000);
        if (rc != ZELL_SEND_ROUTED) {
            fprintf(stderr, "scand_probe: type %lld not delivered (%d)\n", static_cast<long long>(send.first), rc);
            bus.mgr()->destroyEndPoint(endpoint);
            return 1;
        }
    }
    fprintf(stderr, "scand_probe: sent\n");
    pollfd fd{printer.fd(), POLLIN, 0};
    const int ready = poll(&fd, 1, timeoutMs);
    bus.mgr()->destroyEndPoint(endpoint);
    return until.empty() ? 0 : (ready == 1 ? 0 : 1);
}

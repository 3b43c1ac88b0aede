#include "BusCommand.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <sstream>

#include "FileUtils.h"
#include "BusModule.h"
#include "ZellWire.h"

namespace kuvctl {

namespace {

constexpr int kOk = 0;
constexpr int kNotDelivered = 1;
constexpr int kUsage = 2;
constexpr size_t kMaxBody = 16u * 1024 * 1024;

const char* const kSendUsage =
    "Usage: kuvctl bus send --to GUID --type N [--body TEXT | --body-file FILE] [options]\n"
    "Sends one message to the bus endpoint GUID and waits for the broker's verdict.\n"
    "\n"
    "  --to GUID          destination endpoint, XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX (braces allowed)\n"
    "  --type N           message type (a 64-bit integer)\n"
    "  --body TEXT        message body (default: empty)\n"
    "  --body-file FILE   message body read from FILE (\"-\" for standard input), at most 16 MiB\n"
    "  --from GUID        the sending endpoint (default: a fresh random GUID)\n"
    "  --timeout MS       how long to wait for the broker and its verdict (default 5000)\n"
    "  --socket ADDR      bus address (default ./kuv_zell, in the private runtime directory)\n"
    "  --verbose          show the bus module's log on stderr\n"
    "\n"
    "Exit status: 0 delivered to the destination's connection; 1 not delivered (no broker, no such\n"
    "endpoint, destination congested, GUID of --from in use); 2 usage error.\n";

const char* const kListenUsage =
    "Usage: kuvctl bus listen --guid GUID [--type N] [--count N] [options]\n"
    "Registers the endpoint GUID on the bus and prints every message it receives, one per line:\n"
    "  type=<N> from=<sender GUID> seq=<sequence> body=<body, escaped>\n"
    "The body escapes backslash, control characters and DEL as \\\\ \\n \\r \\t \\xHH.\n"
    "Runs until SIGINT or SIGTERM, or until --count messages were printed.\n"
    "\n"
    "  --guid GUID        the endpoint to listen as\n"
    "  --type N           only messages of this type (default: every type)\n"
    "  --count N          exit after N messages\n"
    "  --socket ADDR      bus address (default ./kuv_zell, in the private runtime directory)\n"
    "  --verbose          show the bus module's log on stderr\n"
    "\n"
    "A broker that is not running yet (or restarts) is waited for. \"listening\" is written to stderr\n"
    "once the broker has confirmed the endpoint.\n"
    "Exit status: 0 stopped by a signal or after --count messages; 1 the GUID is in use or the bus\n"
    "module cannot be used; 2 usage error.\n";

struct Options {
    std::string to, from, guid, body, bodyFile, socket = "./kuv_zell";
    bool haveType = false, haveBody = false, verbose = false, help = false;
    int64_t type = 0;
    long long count = -1;
    int timeoutMs = 5000;
};

bool parseInt64(const std::string& text, long long min, long long max, long long& out)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) {
        return false;
    }
    out = value;
    return true;
}

int usageError(const std::string& message, const char* command)
{
    fprintf(stderr, "kuvctl: %s\nTry 'kuvctl bus %s --help'.\n", message.c_str(), command);
    return kUsage;
}

// 0 parsed; kUsage after printing why.
int parse(const std::vector<std::string>& args, const char* command, Options& opt)
{
    for (size_t i = 1; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool inlineValue = false;
        const size_t eq = name.find('=');
        if (name.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            inlineValue = true;
        }
        auto take = [&]() -> bool {
            if (inlineValue) {
                return true;
            }
            if (i + 1 >= args.size()) {
                return false;
            }
            value = args[++i];
            return true;
        };
        const std::string shown = kuv::escapeControl(name);
        if (name == "--help" || name == "-h") {
            opt.help = true;
        } else if (name == "--verbose" || name == "-v") {
            opt.verbose = true;
        } else if (name == "--to" || name == "--from" || name == "--guid" || name == "--body" ||
                   name == "--body-file" || name == "--socket" || name == "--type" || name == "--count" ||
                   name == "--timeout") {
            if (!take()) {
                return usageError(shown + " needs a value", command);
            }
            long long number = 0;
            if (name == "--to") {
                opt.to = value;
            } else if (name == "--from") {
                opt.from = value;
            } else if (name == "--guid") {
                opt.guid = value;
            } else if (name == "--body") {
                opt.body = value;
                opt.haveBody = true;
            } else if (name == "--body-file") {
                opt.bodyFile = value;
            } else if (name == "--socket") {
                opt.socket = value;
            } else if (name == "--type") {
                if (!parseInt64(value, LLONG_MIN, LLONG_MAX, number)) {
                    return usageError("--type takes an integer", command);
                }
                opt.type = number;
                opt.haveType = true;
            } else if (name == "--count") {
                if (!parseInt64(value, 1, LLONG_MAX, number)) {
                    return usageError("--count takes a positive integer", command);
                }
                opt.count = number;
            } else {
                if (!parseInt64(value, 0, 3600000, number)) {
                    return usageError("--timeout takes milliseconds, 0 to 3600000", command);
                }
                opt.timeoutMs = static_cast<int>(number);
            }
        } else {
            return usageError("unknown argument '" + shown + "'", command);
        }
    }
    return 0;
}

bool readBody(const std::string& file, std::string& body, std::string& error)
{
    std::istream* in = nullptr;
    std::ifstream stream;
    if (file == "-") {
        in = &std::cin;
    } else {
        stream.open(file, std::ios::binary);
        if (!stream) {
            error = "cannot read " + kuv::escapeControl(file) + ": " + strerror(errno);
            return false;
        }
        in = &stream;
    }
    body.clear();
    char chunk[65536];
    while (*in) {
        in->read(chunk, sizeof(chunk));
        body.append(chunk, static_cast<size_t>(in->gcount()));
        if (body.size() > kMaxBody) {
            error = "the body is larger than 16 MiB";
            return false;
        }
    }
    return true;
}

GUID randomGuid()
{
    std::random_device device;
    GUID guid;
    guid.Data1 = device();
    guid.Data2 = static_cast<uint16_t>(device());
    guid.Data3 = static_cast<uint16_t>((device() & 0x0FFF) | 0x4000);
    for (auto& byte : guid.Data4) {
        byte = static_cast<uint8_t>(device());
    }
    guid.Data4[0] = static_cast<uint8_t>((guid.Data4[0] & 0x3F) | 0x80);
    return guid;
}

int runSend(const std::vector<std::string>& args)
{
    Options opt;
    if (const int rc = parse(args, "send", opt)) {
        return rc;
    }
    if (opt.help) {
        fputs(kSendUsage, stdout);
        return kOk;
    }
    GUID to{};
    GUID from = randomGuid();
    if (opt.to.empty() || !opt.haveType) {
        return usageError("send needs --to and --type", "send");
    }
    if (!zell::wire::parseGuidText(opt.to, to)) {
        return usageError("--to: '" + kuv::escapeControl(opt.to) + "' is not a GUID", "send");
    }
    if (!opt.from.empty() && !zell::wire::parseGuidText(opt.from, from)) {
        return usageError("--from: '" + kuv::escapeControl(opt.from) + "' is not a GUID", "send");
    }
    if (opt.haveBody && !opt.bodyFile.empty()) {
        return usageError("--body and --body-file exclude each other", "send");
    }
    std::string error;
    if (!opt.bodyFile.empty() && !readBody(opt.bodyFile, opt.body, error)) {
        return usageError(error, "send");
    }
    if (opt.body.size() > kMaxBody) {
        return usageError("the body is larger than 16 MiB", "send");
    }

    kuv::BusModule client;
    if (!client.open(opt.socket, opt.verbose, error)) {
        fprintf(stderr, "kuvctl: %s\n", error.c_str());
        return kNotDelivered;
    }
    const auto start = std::chrono::steady_clock::now();
    if (!client.waitConnected(opt.timeoutMs)) {
        fprintf(stderr, "kuvctl: the bus broker is not running (%s)\n", kuv::escapeControl(opt.socket).c_str());
        return kNotDelivered;
    }
    IZellMREndPoint4* endpoint = client.mgr()->createEndPoint();
    if (endpoint == nullptr || endpoint->init(from) != 0) {
        fprintf(stderr, "kuvctl: cannot use %s as the sender: the GUID is in use on the bus\n",
                zell::wire::guidText(from).c_str());
        if (endpoint != nullptr) {
            client.mgr()->destroyEndPoint(endpoint);
        }
        return kNotDelivered;
    }
    const int spent = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    const int rc = endpoint->sendMsgWait(to, opt.type, opt.body.data(), static_cast<int>(opt.body.size()),
                                         std::max(opt.timeoutMs - spent, 1000));
    client.mgr()->destroyEndPoint(endpoint);
    switch (rc) {
    case ZELL_SEND_ROUTED:
        if (opt.verbose) {
            fprintf(stderr, "kuvctl: delivered to %s\n", zell::wire::guidText(to).c_str());
        }
        return kOk;
    case ZELL_SEND_UNKNOWN_DEST:
        fprintf(stderr, "kuvctl: no endpoint %s on the bus; not delivered\n", zell::wire::guidText(to).c_str());
        return kNotDelivered;
    case ZELL_SEND_CONGESTED:
        fprintf(stderr, "kuvctl: endpoint %s is congested; not delivered\n", zell::wire::guidText(to).c_str());
        return kNotDelivered;
    case ZELL_SEND_BAD_ARGS:
        fprintf(stderr, "kuvctl: the bus refused the message\n");
        return kUsage;
    default:
        fprintf(stderr, "kuvctl: no answer from the bus broker; not known to be delivered\n");
        return kNotDelivered;
    }
}

class Printer : public IMRReceiveComplete {
public:
    explicit Printer(long long limit) : m_limit(limit) {}
    void ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_done.load()) {
            return; // --count reached; the rest is not printed
        }
        const std::string from = sender != 0 ? zell::wire::guidText(*reinterpret_cast<const GUID*>(sender)) : "?";
        const std::string line = "type=" + std::to_string(msgType) + " from=" + from +
                                 " seq=" + std::to_string(sequence) +
                                 " body=" + escapeBody(std::string(content, static_cast<size_t>(length))) + "\n";
        if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
            m_done.store(true); // the reader went away
            return;
        }
        if (m_limit > 0 && ++m_printed >= m_limit) {
            m_done.store(true);
        }
    }
    bool done() const { return m_done.load(); }

private:
    std::mutex m_mutex;
    std::atomic<bool> m_done{false};
    long long m_limit;
    long long m_printed = 0;
};

int runListen(const std::vector<std::string>& args)
{
    Options opt;
    if (const int rc = parse(args, "listen", opt)) {
        return rc;
    }
    if (opt.help) {
        fputs(kListenUsage, stdout);
        return kOk;
    }
    GUID guid{};
    if (opt.guid.empty()) {
        return usageError("listen needs --guid", "listen");
    }
    if (!zell::wire::parseGuidText(opt.guid, guid)) {
        return usageError("--guid: '" + kuv::escapeControl(opt.guid) + "' is not a GUID", "listen");
    }

    // Blocked before the module starts its threads, so only sigtimedwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::string error;
    kuv::BusModule client;
    if (!client.open(opt.socket, opt.verbose, error)) {
        fprintf(stderr, "kuvctl: %s\n", error.c_str());
        return kNotDelivered;
    }
    Printer printer(opt.count);
    IZellMREndPoint4* endpoint = client.mgr()->createEndPoint();
    if (endpoint == nullptr) {
        fprintf(stderr, "kuvctl: the bus module gave no endpoint\n");
        return kNotDelivered;
    }
    endpoint->registerRecvNotify(opt.haveType ? opt.type : kZellAnyMsgType, &printer, 0);
    if (endpoint->init(guid) != 0) {
        fprintf(stderr, "kuvctl: %s is in use on the bus\n", zell::wire::guidText(guid).c_str());
        client.mgr()->destroyEndPoint(endpoint);
        return kNotDelivered;
    }
    bool announced = false;
    bool waitingShown = false;
    const auto start = std::chrono::steady_clock::now();
    int status = kOk;
    for (;;) {
        if (printer.done()) {
            break;
        }
        const int registration = endpoint->isRegistered();
        if (registration < 0) {
            fprintf(stderr, "kuvctl: %s is in use on the bus\n", zell::wire::guidText(guid).c_str());
            status = kNotDelivered;
            break;
        }
        const bool registered = registration == 1;
        if (registered && !announced) {
            fprintf(stderr, "kuvctl: listening as %s%s\n", zell::wire::guidText(guid).c_str(),
                    opt.haveType ? (" for type " + std::to_string(opt.type)).c_str() : "");
            announced = true;
        } else if (!registered && !waitingShown && client.mgr()->isConnected() == 0 &&
                   std::chrono::steady_clock::now() - start > std::chrono::seconds(1)) {
            fprintf(stderr, "kuvctl: waiting for the bus broker (%s)\n", kuv::escapeControl(opt.socket).c_str());
            waitingShown = true;
        }
        const timespec step{0, 50 * 1000 * 1000};
        const int sig = sigtimedwait(&stopSignals, nullptr, &step);
        if (sig == SIGINT || sig == SIGTERM) {
            break;
        }
    }
    client.mgr()->destroyEndPoint(endpoint);
    return status;
}

} // namespace

std::string escapeBody(const std::string& body)
{
    std::string out;
    out.reserve(body.size());
    for (const char c : body) {
        const auto u = static_cast<unsigned char>(c);
        switch (u) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (u < 0x20 || u == 0x7F) {
                char hex[5];
                snprintf(hex, sizeof(hex), "\\x%02X", u);
                out += hex;
            } else {
                out += c;
            }
        }
    }
    return out;
}

std::string busUsage()
{
    return std::string("Usage: kuvctl bus send|listen [options]   (kuvctl bus <command> --help for details)\n\n") +
           kSendUsage + "\n" + kListenUsage;
}

int runBus(const std::vector<std::string>& args)
{
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        if (args.empty()) {
            fputs(busUsage().c_str(), stderr);
            return kUsage;
        }
        fputs(busUsage().c_str(), stdout);
        return kOk;
    }
    if (args[0] == "send") {
        return runSend(args);
    }
    if (args[0] == "listen") {
        return runListen(args);
    }
    fprintf(stderr, "kuvctl: unknown bus command '%s'\nTry 'kuvctl bus --help'.\n",
            kuv::escapeControl(args[0]).c_str());
    return kUsage;
}

} // namespace kuvctl

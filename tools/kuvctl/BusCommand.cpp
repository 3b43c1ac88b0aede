// SPDX-License-Identifier: GPL-2.0-or-later
#include "BusCommand.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>

#include "ArgParser.h"
#include "BusSession.h"
#include "FileUtils.h"
#include "ZellWire.h"

namespace kuvctl {

namespace {

constexpr int kOk = 0;
constexpr int kNotDelivered = 1;
constexpr int kUsage = 2;
constexpr int kGoOn = -1; // parsed, and not only asked for help
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

// send and listen take the same options (each ignores the other's); "--name=value" is accepted throughout.
enum OptionId { kHelp, kVerbose, kTo, kFrom, kGuid, kBody, kBodyFile, kSocket, kType, kCount, kTimeout };
const std::vector<OptionSpec> kOptions = {
    {"help", 'h', false, true},      {"verbose", 'v', false, true},  {"to", 0, true, true},
    {"from", 0, true, true},         {"guid", 0, true, true},        {"body", 0, true, true},
    {"body-file", 0, true, true},    {"socket", 0, true, true},      {"type", 0, true, true},
    {"count", 0, true, true},        {"timeout", 0, true, true},
};

int usageError(const std::string& message, const char* command)
{
    fprintf(stderr, "kuvctl: %s\nTry 'kuvctl bus %s --help'.\n", message.c_str(), command);
    return kUsage;
}

// 0, or kUsage after printing why the value does not fit.
int takeOption(size_t id, const std::string& value, const char* command, Options& opt)
{
    long long number = 0;
    switch (id) {
    case kHelp: opt.help = true; break;
    case kVerbose: opt.verbose = true; break;
    case kTo: opt.to = value; break;
    case kFrom: opt.from = value; break;
    case kGuid: opt.guid = value; break;
    case kBody:
        opt.body = value;
        opt.haveBody = true;
        break;
    case kBodyFile: opt.bodyFile = value; break;
    case kSocket: opt.socket = value; break;
    case kType:
        if (!parseInteger(value, LLONG_MIN, LLONG_MAX, number)) {
            return usageError("--type takes an integer", command);
        }
        opt.type = number;
        opt.haveType = true;
        break;
    case kCount:
        if (!parseInteger(value, 1, LLONG_MAX, number)) {
            return usageError("--count takes a positive integer", command);
        }
        opt.count = number;
        break;
    default:
        if (!parseInteger(value, 0, 3600000, number)) {
            return usageError("--timeout takes milliseconds, 0 to 3600000", command);
        }
        opt.timeoutMs = static_cast<int>(number);
    }
    return 0;
}

// 0 parsed; kUsage after printing why. args[0] is the command word.
int parse(const std::vector<std::string>& args, const char* command, Options& opt)
{
    ArgParser parser(std::vector<std::string>(args.begin() + 1, args.end()), kOptions);
    ArgParser::Item item;
    while (parser.next(item)) {
        if (item.kind == ArgParser::Item::Option) {
            if (const int rc = takeOption(item.option, item.value, command, opt)) {
                return rc;
            }
        } else if (item.kind == ArgParser::Item::MissingValue) {
            return usageError(kuv::escapeControl(item.text) + " needs a value", command);
        } else {
            const std::string name = item.text.compare(0, 2, "--") == 0 ? item.text.substr(0, item.text.find('=')) : item.text;
            return usageError("unknown argument '" + kuv::escapeControl(name) + "'", command);
        }
    }
    return 0;
}

// kGoOn when the command is to run; else its exit status (a usage error, or the help printed).
int parseCommand(const std::vector<std::string>& args, const char* command, const char* usage, Options& opt)
{
    if (const int rc = parse(args, command, opt)) {
        return rc;
    }
    if (opt.help) {
        fputs(usage, stdout);
        return kOk;
    }
    return kGoOn;
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

struct Message {
    GUID to{};
    GUID from{};
    std::string body;
};

// 0 when the options name a message to send; kUsage after printing why not.
int messageFrom(Options& opt, Message& msg)
{
    msg.from = randomGuid();
    if (opt.to.empty() || !opt.haveType) {
        return usageError("send needs --to and --type", "send");
    }
    if (!zell::wire::parseGuidText(opt.to, msg.to)) {
        return usageError("--to: '" + kuv::escapeControl(opt.to) + "' is not a GUID", "send");
    }
    if (!opt.from.empty() && !zell::wire::parseGuidText(opt.from, msg.from)) {
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
    msg.body = std::move(opt.body);
    return 0;
}

// The exit status for the broker's verdict, with its line.
int reportVerdict(int rc, const GUID& to, bool verbose)
{
    switch (rc) {
    case ZELL_SEND_ROUTED:
        if (verbose) {
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

int sendMessage(const Options& opt, const Message& msg)
{
    BusSession bus;
    if (!bus.open(opt.socket, opt.verbose)) {
        return kNotDelivered;
    }
    const auto start = std::chrono::steady_clock::now();
    if (!bus.waitForBroker(opt.timeoutMs)) {
        return kNotDelivered;
    }
    if (bus.join(msg.from) != BusSession::Join::Joined) {
        fprintf(stderr, "kuvctl: cannot use %s as the sender: the GUID is in use on the bus\n",
                zell::wire::guidText(msg.from).c_str());
        return kNotDelivered;
    }
    const int spent = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
    const int rc = bus.endpoint().sendMsgWait(msg.to, opt.type, msg.body.data(), static_cast<int>(msg.body.size()),
                                              std::max(opt.timeoutMs - spent, 1000));
    return reportVerdict(rc, msg.to, opt.verbose);
}

int runSend(const std::vector<std::string>& args)
{
    Options opt;
    if (const int rc = parseCommand(args, "send", kSendUsage, opt); rc != kGoOn) {
        return rc;
    }
    Message msg;
    if (const int rc = messageFrom(opt, msg)) {
        return rc;
    }
    return sendMessage(opt, msg);
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

// Prints what arrives until a stop signal, --count messages, or the GUID is taken; the exit status.
int listenUntilStopped(BusSession& bus, const Printer& printer, const GUID& guid, const Options& opt,
                       const sigset_t& stopSignals)
{
    bool announced = false;
    bool waitingShown = false;
    const auto start = std::chrono::steady_clock::now();
    while (!printer.done()) {
        const int registration = bus.endpoint().isRegistered();
        if (registration < 0) {
            fprintf(stderr, "kuvctl: %s is in use on the bus\n", zell::wire::guidText(guid).c_str());
            return kNotDelivered;
        }
        if (registration == 1 && !announced) {
            fprintf(stderr, "kuvctl: listening as %s%s\n", zell::wire::guidText(guid).c_str(),
                    opt.haveType ? (" for type " + std::to_string(opt.type)).c_str() : "");
            announced = true;
        } else if (registration == 0 && !waitingShown && !bus.brokerConnected() &&
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
    return kOk;
}

int runListen(const std::vector<std::string>& args)
{
    Options opt;
    if (const int rc = parseCommand(args, "listen", kListenUsage, opt); rc != kGoOn) {
        return rc;
    }
    GUID guid{};
    if (opt.guid.empty()) {
        return usageError("listen needs --guid", "listen");
    }
    if (!zell::wire::parseGuidText(opt.guid, guid)) {
        return usageError("--guid: '" + kuv::escapeControl(opt.guid) + "' is not a GUID", "listen");
    }
    const sigset_t stopSignals = blockStopSignals();
    Printer printer(opt.count); // outlives the session, whose endpoint calls it
    BusSession bus;
    if (!bus.open(opt.socket, opt.verbose)) {
        return kNotDelivered;
    }
    switch (bus.join(guid, &printer, opt.haveType ? opt.type : kZellAnyMsgType)) {
    case BusSession::Join::NoEndpoint:
        fprintf(stderr, "kuvctl: the bus module gave no endpoint\n");
        return kNotDelivered;
    case BusSession::Join::Refused:
        fprintf(stderr, "kuvctl: %s is in use on the bus\n", zell::wire::guidText(guid).c_str());
        return kNotDelivered;
    case BusSession::Join::Joined:
        break;
    }
    return listenUntilStopped(bus, printer, guid, opt, stopSignals);
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

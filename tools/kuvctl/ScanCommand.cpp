// SPDX-License-Identifier: GPL-2.0-or-later
#include "ScanCommand.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>

#include <json/json.h>

#include "ArgParser.h"
#include "BusCommand.h"
#include "BusSession.h"
#include "FileUtils.h"
#include "KuvScanProtocol.h"
#include "SafeIo.h"
#include "ScanPaths.h"
#include "UniqueFd.h"
#include "ZellWire.h"

namespace kuvctl {

namespace {

constexpr int kClean = 0;
constexpr int kFound = 1;
constexpr int kError = 2;
constexpr int kGoOn = -1; // a step that does not end the command

const char* const kUsage =
    "Usage: kuvctl scan [options] PATH...\n"
    "Scans files and folders (recursively) with the back end kuv-scand and prints one line per file:\n"
    "  PATH: OK | PATH: <signature> FOUND | PATH: ERROR: <reason> | PATH: SKIPPED: <reason> |\n"
    "  PATH: PARTIAL: not fully scanned: <limit>\n"
    "followed by a summary. Backslashes and control characters in paths are written escaped\n"
    "(\\\\, \\n, \\t, \\xHH).\n"
    "kuvctl starts nothing: the back end must be running on the user's bus.\n"
    "\n"
    "  --json               print one JSON document instead: {\"job\", \"results\": [...], \"end\": {...}}, with\n"
    "                       every result (clean ones included) and the job end as the back end sent them\n"
    "  --infected, -i       print only what was found, errors and files not fully scanned (not --json)\n"
    "  --quarantine         move each file found into the user's quarantine (PATH: <signature> QUARANTINED)\n"
    "  --no-archives        do not look inside archives\n"
    "  --max-file-size N    leave files larger than N bytes unscanned (reported as not fully scanned)\n"
    "  --socket ADDR        bus address (default ./kuv_zell, in the private runtime directory)\n"
    "  --timeout MS         how long to wait for the bus and the back end to answer (default 10000)\n"
    "\n"
    "Ctrl-C cancels the job (a second one gives up waiting).\n"
    "Exit status: 0 nothing found; 1 something found; 2 an error: a file that could not be read or fully\n"
    "scanned, a cancelled or failed job, the back end not running or leaving, or a usage error.\n";

struct Options {
    bool json = false;
    bool infectedOnly = false;
    bool quarantine = false;
    bool archives = true;
    uint64_t maxFileSize = 0;
    int timeoutMs = 10000;
    std::string socket = "./kuv_zell";
    std::vector<std::string> paths;
};

enum OptionId { kHelp, kJson, kInfected, kQuarantine, kNoArchives, kMaxFileSize, kTimeout, kSocket };
const std::vector<OptionSpec> kOptions = {
    {"help", 'h', false},         {"json", 0, false},          {"infected", 'i', false},
    {"quarantine", 0, false},     {"no-archives", 0, false},   {"max-file-size", 0, true},
    {"timeout", 0, true},         {"socket", 0, true},
};

int usageError(const std::string& message)
{
    fprintf(stderr, "kuvctl: %s\nTry 'kuvctl scan --help'.\n", message.c_str());
    return kError;
}

// 0, or kError after printing why the value does not fit.
int takeOption(size_t id, const std::string& value, Options& opt, bool& help)
{
    long long n = 0;
    switch (id) {
    case kHelp: help = true; break;
    case kJson: opt.json = true; break;
    case kInfected: opt.infectedOnly = true; break;
    case kQuarantine: opt.quarantine = true; break;
    case kNoArchives: opt.archives = false; break;
    case kMaxFileSize:
        if (!parseInteger(value, 1, LLONG_MAX, n)) {
            return usageError("--max-file-size takes a positive byte count");
        }
        opt.maxFileSize = static_cast<uint64_t>(n);
        break;
    case kTimeout:
        if (!parseInteger(value, 100, 3600000, n)) {
            return usageError("--timeout takes milliseconds, 100 to 3600000");
        }
        opt.timeoutMs = static_cast<int>(n);
        break;
    default: opt.socket = value;
    }
    return 0;
}

int parse(const std::vector<std::string>& args, Options& opt, bool& help)
{
    ArgParser parser(args, kOptions);
    ArgParser::Item item;
    while (parser.next(item)) {
        switch (item.kind) {
        case ArgParser::Item::Option:
            if (const int rc = takeOption(item.option, item.value, opt, help)) {
                return rc;
            }
            break;
        case ArgParser::Item::Word: opt.paths.push_back(item.value); break;
        case ArgParser::Item::DoubleDash: break;
        case ArgParser::Item::MissingValue:
            if (item.option == kSocket) {
                return usageError("--socket needs a value");
            }
            return takeOption(item.option, std::string(), opt, help); // the number's own message
        case ArgParser::Item::Unknown: return usageError("unknown argument '" + kuv::escapeControl(item.text) + "'");
        }
    }
    return 0;
}

// The back end runs elsewhere: relative names are made absolute here, without resolving anything.
bool makeAbsolute(std::vector<std::string>& paths, std::string& error)
{
    std::string cwd;
    for (std::string& path : paths) {
        if (path[0] == '/') {
            continue;
        }
        if (cwd.empty()) {
            std::error_code ec;
            cwd = std::filesystem::current_path(ec).string();
            if (ec) {
                error = "cannot tell the current directory: " + ec.message();
                return false;
            }
        }
        path = (cwd == "/" ? std::string() : cwd) + "/" + path;
    }
    return true;
}

// What arrives from the bus, handed from the bus thread to the main thread.
class Inbox : public IMRReceiveComplete {
public:
    Inbox() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    void ReceiveCallback(uint64_t, int64_t msgType, const char* content, int length, uint64_t, uint64_t) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages.emplace_back(msgType, std::string(content, static_cast<size_t>(length)));
        }
        const uint64_t one = 1;
        (void)kuv::safeWrite(m_wake.get(), &one, sizeof(one));
    }
    int fd() const { return m_wake.get(); }
    bool take(int64_t& type, std::string& body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_messages.empty()) {
            uint64_t count = 0;
            (void)kuv::safeRead(m_wake.get(), &count, sizeof(count));
            return false;
        }
        type = m_messages.front().first;
        body = std::move(m_messages.front().second);
        m_messages.pop_front();
        return true;
    }

private:
    kuv::UniqueFd m_wake;
    std::mutex m_mutex;
    std::deque<std::pair<int64_t, std::string>> m_messages;
};

bool parseJson(const std::string& text, Json::Value& out)
{
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = 32;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors) && out.isObject();
}

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, value);
}

std::string shownPath(const Json::Value& value)
{
    std::string path;
    if (!kuvscan::pathFromJson(value, path)) {
        return "?";
    }
    return escapeBody(path); // one line per file, and a backslash in a name cannot pass for an escape
}

void printResult(const Json::Value& r, bool infectedOnly)
{
    const std::string verdict = r["verdict"].asString();
    const std::string path = shownPath(r["path"]);
    std::string line;
    if (verdict == "clean") {
        if (infectedOnly) {
            return;
        }
        line = path + ": OK";
    } else if (verdict == "infected") {
        line = path + ": " + kuv::escapeControl(r["signature"].asString()) + " FOUND";
    } else if (verdict == "quarantined") {
        line = path + ": " + kuv::escapeControl(r["signature"].asString()) + " QUARANTINED";
    } else if (verdict == "error") {
        line = path + ": ERROR: " + kuv::escapeControl(r["reason"].asString());
    } else if (verdict == "skipped") {
        if (infectedOnly) {
            return;
        }
        line = path + ": SKIPPED: " + kuv::escapeControl(r["reason"].asString());
    } else if (verdict == "partial") {
        line = path + ": PARTIAL: " + kuv::escapeControl(r["reason"].asString());
    } else {
        line = path + ": " + kuv::escapeControl(verdict) + " " + kuv::escapeControl(r["signature"].asString());
    }
    fprintf(stdout, "%s\n", line.c_str());
}

Json::Value scanRequest(const std::string& jobId, const Options& opt)
{
    Json::Value request(Json::objectValue);
    request["job"] = jobId;
    Json::Value& paths = request["paths"] = Json::Value(Json::arrayValue);
    for (const std::string& path : opt.paths) {
        paths.append(kuvscan::pathToJson(path));
    }
    Json::Value& options = request["options"] = Json::Value(Json::objectValue);
    options["report_clean"] = true;
    options["scan_archives"] = opt.archives;
    options["quarantine"] = opt.quarantine;
    if (opt.maxFileSize > 0) {
        options["max_file_size"] = Json::UInt64(opt.maxFileSize);
    }
    return request;
}

// One scan job on the back end, from the first word on the bus to the job's end.
class ScanJob {
public:
    explicit ScanJob(const Options& opt)
        : m_opt(opt), m_jobId("kuvctl-" + std::to_string(getpid()) + "-" + std::to_string(std::random_device()() % 1000000))
    {
    }
    // The exit status of the command.
    int run(const sigset_t& stopSignals);

private:
    bool start();
    int step(std::chrono::steady_clock::time_point waitLimit);
    int onStopSignal();
    int onMessages();
    int onMessage(int64_t type, const Json::Value& msg);
    int onBackendStatus(const Json::Value& msg);
    void onBackendGone();
    int summary() const;
    bool sendToBackend(int64_t type, const std::string& body);

    const Options& m_opt;
    const std::string m_jobId;
    kuv::UniqueFd m_signals;
    Inbox m_inbox; // outlives the session, whose endpoint calls it
    BusSession m_bus;
    GUID m_backend{};
    kuv::UniqueFd m_backendProcess;
    bool m_requested = false;
    bool m_cancelSent = false;
    bool m_ended = false;
    Json::Value m_results{Json::arrayValue};
    Json::Value m_end;
};

bool ScanJob::sendToBackend(int64_t type, const std::string& body)
{
    const int rc = m_bus.endpoint().sendMsgWait(m_backend, type, body.data(), static_cast<int>(body.size()), m_opt.timeoutMs);
    if (rc == ZELL_SEND_UNKNOWN_DEST) {
        fprintf(stderr, "kuvctl: the back end kuv-scand is not running (it is not on the bus)\n");
    } else if (rc != ZELL_SEND_ROUTED) {
        fprintf(stderr, "kuvctl: the back end could not be reached (bus answer %d)\n", rc);
    }
    return rc == ZELL_SEND_ROUTED;
}

bool ScanJob::start()
{
    if (!m_bus.open(m_opt.socket, false) ||
        !m_bus.waitForBroker(m_opt.timeoutMs, ", so the back end cannot be reached")) {
        return false;
    }
    if (m_bus.join(randomGuid(), &m_inbox) != BusSession::Join::Joined) {
        fprintf(stderr, "kuvctl: the bus module gave no endpoint\n");
        return false;
    }
    zell::wire::parseGuidText(kuvscan::kScandGuid, m_backend);
    // Its status names the process, so that its end is seen the moment it happens (a pidfd, no polling).
    return sendToBackend(kuvscan::KUV_SCAN_MSG_STATUS_REQUEST, "{}");
}

int ScanJob::run(const sigset_t& stopSignals)
{
    m_signals.reset(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!start()) {
        return kError;
    }
    const auto waitLimit = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_opt.timeoutMs);
    while (!m_ended) {
        const int rc = step(waitLimit);
        if (rc != kGoOn) {
            return rc;
        }
    }
    return summary();
}

// One wait for the bus, a stop signal or the back end's end, and what it brought.
int ScanJob::step(std::chrono::steady_clock::time_point waitLimit)
{
    pollfd fds[3] = {{m_inbox.fd(), POLLIN, 0}, {m_signals.get(), POLLIN, 0}, {m_backendProcess.get(), POLLIN, 0}};
    int timeout = -1;
    if (!m_requested) {
        // Only the first answer is waited for with a limit; a scan takes as long as it takes.
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(waitLimit - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            fprintf(stderr, "kuvctl: the back end did not answer within %d ms\n", m_opt.timeoutMs);
            return kError;
        }
        timeout = static_cast<int>(left);
    }
    const nfds_t count = m_backendProcess.valid() ? 3 : 2;
    const int n = kuv::retryEintr([&] { return poll(fds, count, timeout); });
    if (n < 0) {
        fprintf(stderr, "kuvctl: poll: %s\n", strerror(errno));
        return kError;
    }
    if (n == 0) {
        return kGoOn;
    }
    if (fds[1].revents & POLLIN) {
        if (const int rc = onStopSignal(); rc != kGoOn) {
            return rc;
        }
    }
    if (fds[0].revents & POLLIN) {
        if (const int rc = onMessages(); rc != kGoOn) {
            return rc;
        }
    }
    if (!m_ended && m_backendProcess.valid() && (fds[2].revents & (POLLIN | POLLHUP))) {
        onBackendGone();
    }
    return kGoOn;
}

int ScanJob::onStopSignal()
{
    signalfd_siginfo info;
    (void)kuv::safeRead(m_signals.get(), &info, sizeof(info));
    if (m_cancelSent || !m_requested) {
        fprintf(stderr, "kuvctl: interrupted; the job may still run\n");
        return kError;
    }
    Json::Value cancel(Json::objectValue);
    cancel["job"] = m_jobId;
    fprintf(stderr, "kuvctl: cancelling the scan\n");
    sendToBackend(kuvscan::KUV_SCAN_MSG_CANCEL, compact(cancel));
    m_cancelSent = true;
    return kGoOn;
}

int ScanJob::onMessages()
{
    int64_t type = 0;
    std::string body;
    while (!m_ended && m_inbox.take(type, body)) {
        Json::Value msg;
        if (!parseJson(body, msg)) {
            continue;
        }
        if (const int rc = onMessage(type, msg); rc != kGoOn) {
            return rc;
        }
    }
    return kGoOn;
}

int ScanJob::onBackendStatus(const Json::Value& msg)
{
    const int pid = msg["pid"].isInt() ? msg["pid"].asInt() : 0;
    if (pid > 0) {
        m_backendProcess.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    }
    if (pid > 0 && !m_backendProcess.valid() && errno == ESRCH) {
        fprintf(stderr, "kuvctl: the back end kuv-scand has just stopped\n");
        return kError;
    }
    if (!sendToBackend(kuvscan::KUV_SCAN_MSG_REQUEST, compact(scanRequest(m_jobId, m_opt)))) {
        return kError;
    }
    m_requested = true;
    return kGoOn;
}

int ScanJob::onMessage(int64_t type, const Json::Value& msg)
{
    if (type == kuvscan::KUV_SCAN_MSG_STATUS && !m_requested) {
        return onBackendStatus(msg);
    }
    if (msg["job"].asString() != m_jobId) {
        return kGoOn; // another client's job, or news for subscribers
    }
    if (type == kuvscan::KUV_SCAN_MSG_ACCEPTED) {
        const int position = msg["position"].asInt();
        if (position > 0 && !m_opt.json) {
            fprintf(stderr, "kuvctl: waiting for %d job(s) before this one\n", position);
        }
    } else if (type == kuvscan::KUV_SCAN_MSG_RESULTS) {
        for (const Json::Value& r : msg["results"]) {
            if (m_opt.json) {
                m_results.append(r);
            } else {
                printResult(r, m_opt.infectedOnly);
            }
        }
        if (!m_opt.json) {
            fflush(stdout);
        }
    } else if (type == kuvscan::KUV_SCAN_MSG_JOB_END) {
        m_end = msg;
        m_ended = true;
    } else if (type == kuvscan::KUV_SCAN_MSG_ERROR) {
        fprintf(stderr, "kuvctl: the back end refused the scan: %s: %s\n", kuv::escapeControl(msg["error"].asString()).c_str(),
                kuv::escapeControl(msg["detail"].asString()).c_str());
        return kError;
    }
    return kGoOn;
}

// The back end ended (crashed or was killed) before the job did: the job failed.
void ScanJob::onBackendGone()
{
    m_end = Json::Value(Json::objectValue);
    m_end["job"] = m_jobId;
    m_end["state"] = "failed";
    m_end["reason"] = "the back end stopped during the scan";
    m_ended = true;
    fprintf(stderr, "kuvctl: the back end kuv-scand stopped during the scan; the job failed\n");
}

int ScanJob::summary() const
{
    const std::string state = m_end["state"].asString();
    const uint64_t infected = m_end["infected"].asUInt64();
    const uint64_t errors = m_end["errors"].asUInt64();
    const uint64_t partial = m_end["partial"].asUInt64();
    if (m_opt.json) {
        Json::Value doc(Json::objectValue);
        doc["job"] = m_jobId;
        doc["results"] = m_results;
        doc["end"] = m_end;
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "  ";
        writer["emitUTF8"] = true;
        const std::string text = Json::writeString(writer, doc) + "\n";
        fwrite(text.data(), 1, text.size(), stdout);
    } else {
        printf("\n----------- SCAN SUMMARY -----------\n");
        printf("Scanned files: %llu\n", static_cast<unsigned long long>(m_end["files"].asUInt64()));
        printf("Infected files: %llu\n", static_cast<unsigned long long>(infected));
        printf("Errors: %llu\n", static_cast<unsigned long long>(errors));
        printf("Skipped: %llu\n", static_cast<unsigned long long>(m_end["skipped"].asUInt64()));
        printf("Not fully scanned: %llu\n", static_cast<unsigned long long>(partial));
        printf("Data scanned: %.2f MB\n", static_cast<double>(m_end["bytes"].asUInt64()) / (1024.0 * 1024.0));
        printf("Time: %.3f sec\n", static_cast<double>(m_end["duration_ms"].asInt64()) / 1000.0);
        const std::string reason = m_end["reason"].asString();
        printf("Job: %s%s%s\n", state.c_str(), reason.empty() ? "" : ": ", kuv::escapeControl(reason).c_str());
    }
    fflush(stdout);
    if (infected > 0) {
        return kFound;
    }
    if (state != "done" || errors > 0 || partial > 0) {
        return kError;
    }
    return kClean;
}

} // namespace

std::string scanUsage() { return kUsage; }

int runScan(const std::vector<std::string>& args)
{
    Options opt;
    bool help = false;
    if (const int rc = parse(args, opt, help)) {
        return rc;
    }
    if (help) {
        fputs(kUsage, stdout);
        return kClean;
    }
    if (opt.paths.empty()) {
        return usageError("scan needs at least one PATH");
    }
    if (opt.paths.size() > static_cast<size_t>(kuvscan::kMaxRequestPaths)) {
        return usageError("at most " + std::to_string(kuvscan::kMaxRequestPaths) + " paths in one scan");
    }
    std::string error;
    if (!makeAbsolute(opt.paths, error)) {
        return usageError(error);
    }
    const sigset_t stopSignals = blockStopSignals();
    ScanJob job(opt);
    return job.run(stopSignals);
}

} // namespace kuvctl

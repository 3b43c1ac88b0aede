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
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>

#include <json/json.h>

#include "BusCommand.h"
#include "BusModule.h"
#include "FileUtils.h"
#include "KuvScanProtocol.h"
#include "ScanPaths.h"
#include "UniqueFd.h"
#include "ZellWire.h"

namespace kuvctl {

namespace {

constexpr int kClean = 0;
constexpr int kFound = 1;
constexpr int kError = 2;

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
    "  --quarantine         ask for found files to be moved to quarantine (not supported yet: they stay)\n"
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

int usageError(const std::string& message)
{
    fprintf(stderr, "kuvctl: %s\nTry 'kuvctl scan --help'.\n", message.c_str());
    return kError;
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
        (void)!::write(m_wake.get(), &one, sizeof(one));
    }
    int fd() const { return m_wake.get(); }
    bool take(int64_t& type, std::string& body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_messages.empty()) {
            uint64_t count = 0;
            (void)!::read(m_wake.get(), &count, sizeof(count));
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

int parse(const std::vector<std::string>& args, Options& opt, bool& help)
{
    bool onlyPaths = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (onlyPaths || a.empty() || a[0] != '-' || a == "-") {
            opt.paths.push_back(a);
            continue;
        }
        auto number = [&](long long min, long long max, long long& out) {
            if (i + 1 >= args.size()) {
                return false;
            }
            const std::string& v = args[++i];
            char* end = nullptr;
            errno = 0;
            const long long n = strtoll(v.c_str(), &end, 10);
            if (v.empty() || errno != 0 || *end != '\0' || n < min || n > max) {
                return false;
            }
            out = n;
            return true;
        };
        long long n = 0;
        if (a == "--") {
            onlyPaths = true;
        } else if (a == "--help" || a == "-h") {
            help = true;
        } else if (a == "--json") {
            opt.json = true;
        } else if (a == "--infected" || a == "-i") {
            opt.infectedOnly = true;
        } else if (a == "--quarantine") {
            opt.quarantine = true;
        } else if (a == "--no-archives") {
            opt.archives = false;
        } else if (a == "--max-file-size") {
            if (!number(1, LLONG_MAX, n)) {
                return usageError("--max-file-size takes a positive byte count");
            }
            opt.maxFileSize = static_cast<uint64_t>(n);
        } else if (a == "--timeout") {
            if (!number(100, 3600000, n)) {
                return usageError("--timeout takes milliseconds, 100 to 3600000");
            }
            opt.timeoutMs = static_cast<int>(n);
        } else if (a == "--socket") {
            if (i + 1 >= args.size()) {
                return usageError("--socket needs a value");
            }
            opt.socket = args[++i];
        } else {
            return usageError("unknown argument '" + kuv::escapeControl(a) + "'");
        }
    }
    return 0;
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
    // The back end runs elsewhere: relative names are made absolute here, without resolving anything.
    std::string cwd;
    for (std::string& path : opt.paths) {
        if (path[0] != '/') {
            if (cwd.empty()) {
                char buffer[PATH_MAX];
                if (getcwd(buffer, sizeof(buffer)) == nullptr) {
                    return usageError(std::string("cannot tell the current directory: ") + strerror(errno));
                }
                cwd = buffer;
            }
            path = (cwd == "/" ? std::string() : cwd) + "/" + path;
        }
    }

    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    kuv::UniqueFd signals(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));

    std::string error;
    kuv::BusModule client;
    if (!client.open(opt.socket, false, error)) {
        fprintf(stderr, "kuvctl: %s\n", error.c_str());
        return kError;
    }
    if (!client.waitConnected(opt.timeoutMs)) {
        fprintf(stderr, "kuvctl: the bus broker is not running (%s), so the back end cannot be reached\n",
                kuv::escapeControl(opt.socket).c_str());
        return kError;
    }
    Inbox inbox;
    IZellMREndPoint4* endpoint = client.mgr()->createEndPoint();
    const GUID self = randomGuid();
    if (endpoint == nullptr || endpoint->registerRecvNotify(kZellAnyMsgType, &inbox, 0) != 0 ||
        endpoint->init(self) != 0) {
        fprintf(stderr, "kuvctl: the bus module gave no endpoint\n");
        return kError;
    }
    struct EndpointGuard {
        kuv::BusModule& client;
        IZellMREndPoint4* endpoint;
        ~EndpointGuard() { client.mgr()->destroyEndPoint(endpoint); }
    } guard{client, endpoint};

    GUID backend{};
    zell::wire::parseGuidText(kuvscan::kScandGuid, backend);
    auto sendToBackend = [&](int64_t type, const std::string& body) {
        const int rc = endpoint->sendMsgWait(backend, type, body.data(), static_cast<int>(body.size()), opt.timeoutMs);
        if (rc == ZELL_SEND_UNKNOWN_DEST) {
            fprintf(stderr, "kuvctl: the back end kuv-scand is not running (it is not on the bus)\n");
        } else if (rc != ZELL_SEND_ROUTED) {
            fprintf(stderr, "kuvctl: the back end could not be reached (bus answer %d)\n", rc);
        }
        return rc == ZELL_SEND_ROUTED;
    };

    // Its status names the process, so that its end is seen the moment it happens (a pidfd, no polling).
    if (!sendToBackend(kuvscan::KUV_SCAN_MSG_STATUS_REQUEST, "{}")) {
        return kError;
    }
    const std::string jobId = "kuvctl-" + std::to_string(getpid()) + "-" +
                              std::to_string(std::random_device()() % 1000000);
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

    kuv::UniqueFd backendProcess;
    bool requested = false;
    bool cancelSent = false;
    Json::Value results(Json::arrayValue);
    Json::Value end;
    bool ended = false;
    uint64_t resultCount = 0;
    auto waitLimit = std::chrono::steady_clock::now() + std::chrono::milliseconds(opt.timeoutMs);

    while (!ended) {
        pollfd fds[3] = {{inbox.fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}, {backendProcess.get(), POLLIN, 0}};
        int timeout = -1;
        if (!requested) {
            // Only the first answer is waited for with a limit; a scan takes as long as it takes.
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  waitLimit - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0) {
                fprintf(stderr, "kuvctl: the back end did not answer within %d ms\n", opt.timeoutMs);
                return kError;
            }
            timeout = static_cast<int>(left);
        }
        const int n = poll(fds, backendProcess.valid() ? 3 : 2, timeout);
        if (n < 0 && errno != EINTR) {
            fprintf(stderr, "kuvctl: poll: %s\n", strerror(errno));
            return kError;
        }
        if (n <= 0) {
            continue;
        }
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo info;
            (void)!::read(signals.get(), &info, sizeof(info));
            if (cancelSent || !requested) {
                fprintf(stderr, "kuvctl: interrupted; the job may still run\n");
                return kError;
            }
            Json::Value cancel(Json::objectValue);
            cancel["job"] = jobId;
            fprintf(stderr, "kuvctl: cancelling the scan\n");
            sendToBackend(kuvscan::KUV_SCAN_MSG_CANCEL, compact(cancel));
            cancelSent = true;
        }
        if (fds[0].revents & POLLIN) {
            int64_t type = 0;
            std::string body;
            while (!ended && inbox.take(type, body)) {
                Json::Value msg;
                if (!parseJson(body, msg)) {
                    continue;
                }
                if (type == kuvscan::KUV_SCAN_MSG_STATUS && !requested) {
                    const int pid = msg["pid"].isInt() ? msg["pid"].asInt() : 0;
                    if (pid > 0) {
                        backendProcess.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
                    }
                    if (pid > 0 && !backendProcess.valid() && errno == ESRCH) {
                        fprintf(stderr, "kuvctl: the back end kuv-scand has just stopped\n");
                        return kError;
                    }
                    if (!sendToBackend(kuvscan::KUV_SCAN_MSG_REQUEST, compact(request))) {
                        return kError;
                    }
                    requested = true;
                    continue;
                }
                if (msg["job"].asString() != jobId) {
                    continue; // another client's job, or news for subscribers
                }
                if (type == kuvscan::KUV_SCAN_MSG_ACCEPTED) {
                    const int position = msg["position"].asInt();
                    if (position > 0 && !opt.json) {
                        fprintf(stderr, "kuvctl: waiting for %d job(s) before this one\n", position);
                    }
                } else if (type == kuvscan::KUV_SCAN_MSG_RESULTS) {
                    for (const Json::Value& r : msg["results"]) {
                        ++resultCount;
                        if (opt.json) {
                            results.append(r);
                        } else {
                            printResult(r, opt.infectedOnly);
                        }
                    }
                    if (!opt.json) {
                        fflush(stdout);
                    }
                } else if (type == kuvscan::KUV_SCAN_MSG_JOB_END) {
                    end = msg;
                    ended = true;
                } else if (type == kuvscan::KUV_SCAN_MSG_ERROR) {
                    fprintf(stderr, "kuvctl: the back end refused the scan: %s: %s\n",
                            kuv::escapeControl(msg["error"].asString()).c_str(),
                            kuv::escapeControl(msg["detail"].asString()).c_str());
                    return kError;
                }
            }
        }
        if (!ended && backendProcess.valid() && (fds[2].revents & (POLLIN | POLLHUP))) {
            // The back end ended (crashed or was killed) before the job did: the job failed.
            end = Json::Value(Json::objectValue);
            end["job"] = jobId;
            end["state"] = "failed";
            end["reason"] = "the back end stopped during the scan";
            ended = true;
            fprintf(stderr, "kuvctl: the back end kuv-scand stopped during the scan; the job failed\n");
        }
    }

    const std::string state = end["state"].asString();
    const uint64_t infected = end["infected"].asUInt64();
    const uint64_t errors = end["errors"].asUInt64();
    const uint64_t partial = end["partial"].asUInt64();
    if (opt.quarantine && infected > 0) {
        fprintf(stderr, "kuvctl: --quarantine is not supported yet; the files found were left in place\n");
    }
    if (opt.json) {
        Json::Value doc(Json::objectValue);
        doc["job"] = jobId;
        doc["results"] = results;
        doc["end"] = end;
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "  ";
        writer["emitUTF8"] = true;
        const std::string text = Json::writeString(writer, doc) + "\n";
        fwrite(text.data(), 1, text.size(), stdout);
    } else {
        printf("\n----------- SCAN SUMMARY -----------\n");
        printf("Scanned files: %llu\n", static_cast<unsigned long long>(end["files"].asUInt64()));
        printf("Infected files: %llu\n", static_cast<unsigned long long>(infected));
        printf("Errors: %llu\n", static_cast<unsigned long long>(errors));
        printf("Skipped: %llu\n", static_cast<unsigned long long>(end["skipped"].asUInt64()));
        printf("Not fully scanned: %llu\n", static_cast<unsigned long long>(partial));
        printf("Data scanned: %.2f MB\n", static_cast<double>(end["bytes"].asUInt64()) / (1024.0 * 1024.0));
        printf("Time: %.3f sec\n", static_cast<double>(end["duration_ms"].asInt64()) / 1000.0);
        const std::string reason = end["reason"].asString();
        printf("Job: %s%s%s\n", state.c_str(), reason.empty() ? "" : ": ", kuv::escapeControl(reason).c_str());
    }
    fflush(stdout);
    (void)resultCount;
    if (infected > 0) {
        return kFound;
    }
    if (state != "done" || errors > 0 || partial > 0) {
        return kError;
    }
    return kClean;
}

} // namespace kuvctl

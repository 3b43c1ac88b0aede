// SPDX-License-Identifier: GPL-2.0-or-later
// A stand-in for kuv-scand in the shell's tests: joins the user's bus as the back end and answers scan
// requests with scripted progress, results and job ends. It does not scan: a path whose last component
// contains "eicar" is reported infected, one containing "unreadable" as an error, the rest clean.
//
//   kuv-fake-scand [--record FILE] [--pidfile FILE] [--steps N] [--step-ms MS] [--die-after-progress N]
//                  [--db-age-days D] [--lifetime-s S] [--no-announce] [--no-pid]
//
// --record: each request body, one line each, as received.  --steps/--step-ms: progress messages
// per job and the pause between them (cancel is honoured between steps).  --die-after-progress: the
// process kills itself (SIGKILL) after sending that many progress messages of a job.  --db-age-days:
// the database date in STATUS.  --lifetime-s: ends by itself after that long (default 300), so a
// test that loses track of it leaves nothing behind.  Without --no-announce it sends STATUS to every
// endpoint listed in the runtime directory's scand-subscribers when it starts, as kuv-scand does.
// --no-pid leaves "pid" out of its status, so a client cannot watch its process.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "BusModule.h"
#include "FileUtils.h"
#include "Guid.h"
#include "IZellClientMgr.h"
#include "KuvScanProtocol.h"
#include "ScanPaths.h"

namespace {

struct Options {
    std::string record;
    std::string pidfile;
    int steps = 2;
    int stepMs = 20;
    int dieAfterProgress = -1;
    double dbAgeDays = 1;
    int lifetimeS = 300;
    bool announce = true;
    bool reportPid = true;
};

std::string compact(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class FakeScand final : public IMRReceiveComplete {
public:
    explicit FakeScand(const Options& opt) : m_opt(opt) {}

    bool open(std::string& error)
    {
        if (!m_module.open("./kuv_zell", false, error, "kuv-fake-scand")) {
            return false;
        }
        m_ep = m_module.mgr()->createEndPoint();
        if (m_ep == nullptr) {
            error = "no endpoint";
            return false;
        }
        m_ep->registerRecvNotify(kZellAnyMsgType, this, 0);
        GUID guid{};
        stringToGuid(guid, kuvscan::kScandGuid);
        if (m_ep->init(guid) != 0) {
            error = "the back end's GUID is taken";
            return false;
        }
        // Registration is asynchronous; the broker may still hold a previous owner for a while.
        for (int i = 0; i < 3000 && m_ep->isRegistered() != 1; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (m_ep->isRegistered() != 1) {
            error = "not registered on the bus";
            return false;
        }
        m_worker = std::thread([this] { work(); });
        if (m_opt.announce) {
            announce();
        }
        return true;
    }

    void close()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
            m_cv.notify_all();
        }
        if (m_worker.joinable()) {
            m_worker.join();
        }
        if (m_ep != nullptr) {
            m_module.mgr()->destroyEndPoint(m_ep);
            m_ep = nullptr;
        }
    }

    void ReceiveCallback(uint64_t, int64_t type, const char* content, int length, uint64_t sender,
                         uint64_t) override
    {
        if (sender == 0) {
            return;
        }
        const GUID from = *reinterpret_cast<const GUID*>(static_cast<uintptr_t>(sender));
        const std::string text(content != nullptr ? content : "", content != nullptr ? static_cast<size_t>(length) : 0);
        Json::Value body;
        Json::CharReaderBuilder rb;
        std::string errs;
        std::istringstream in(text);
        const bool parsed = Json::parseFromStream(rb, in, &body, &errs) && body.isObject();
        if (type == kuvscan::KUV_SCAN_MSG_REQUEST && !m_opt.record.empty()) {
            std::ofstream(m_opt.record, std::ios::app) << text << '\n';
        }
        if (!parsed) {
            Json::Value err(Json::objectValue);
            err["request_type"] = static_cast<Json::Int64>(type);
            err["error"] = "malformed request";
            send(from, kuvscan::KUV_SCAN_MSG_ERROR, err);
            return;
        }
        switch (type) {
        case kuvscan::KUV_SCAN_MSG_STATUS_REQUEST: {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (body["subscribe"].asBool()) {
                m_subscribers.insert(guidKey(from));
            }
            send(from, kuvscan::KUV_SCAN_MSG_STATUS, status());
            break;
        }
        case kuvscan::KUV_SCAN_MSG_REQUEST: {
            std::lock_guard<std::mutex> lock(m_mutex);
            Job job{from, body};
            send(from, kuvscan::KUV_SCAN_MSG_ACCEPTED,
                 accepted(body["job"].asString(), static_cast<int>(m_jobs.size()) + (m_busy ? 1 : 0)));
            m_jobs.push_back(job);
            m_cv.notify_all();
            break;
        }
        case kuvscan::KUV_SCAN_MSG_CANCEL: {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_cancelled.insert(body["job"].asString());
            m_cv.notify_all();
            break;
        }
        default:
            break;
        }
    }

private:
    struct Job {
        GUID from;
        Json::Value body;
    };

    static std::string guidKey(const GUID& g) { return std::string(reinterpret_cast<const char*>(&g), sizeof(g)); }

    static Json::Value accepted(const std::string& job, int position)
    {
        Json::Value v(Json::objectValue);
        v["job"] = job;
        v["position"] = position;
        return v;
    }

    void send(const GUID& to, int64_t type, const Json::Value& body)
    {
        const std::string text = compact(body);
        m_ep->sendMsg(to, type, text.data(), static_cast<int>(text.size()));
    }

    Json::Value status()
    {
        Json::Value s(Json::objectValue);
        s["state"] = "ready";
        s["engine"] = "libclamav";
        s["engine_version"] = "1.0.7";
        s["db_version"] = "27100";
        s["signatures"] = 3627451;
        s["db_time"] = static_cast<Json::Int64>(nowMs() / 1000 - static_cast<int64_t>(m_opt.dbAgeDays * 86400));
        s["db_dirs"].append("/var/lib/clamav");
        if (m_opt.reportPid) {
            s["pid"] = static_cast<Json::Int64>(getpid());
        }
        s["jobs_running"] = m_busy ? 1 : 0;
        s["jobs_queued"] = static_cast<int>(m_jobs.size());
        if (!m_last.isNull()) {
            s["last_scan"] = m_last;
        }
        return s;
    }

    void announce()
    {
        const std::string path = kuv::runtimePath(std::string("./") + kuvscan::kSubscribersFile);
        std::ifstream in(path);
        std::string line;
        int n = 0;
        std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        all.resize(std::min(all.size(), static_cast<size_t>(kuvscan::kMaxSubscriberFileBytes)));
        std::istringstream lines(all);
        while (std::getline(lines, line) && n < 64) {
            GUID g{};
            if (line.size() != 36 || line.find_first_not_of("0123456789ABCDEFabcdef-") != std::string::npos) {
                continue;
            }
            stringToGuid(g, line.c_str());
            ++n;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_subscribers.insert(guidKey(g));
            }
            std::lock_guard<std::mutex> lock(m_mutex);
            send(g, kuvscan::KUV_SCAN_MSG_STATUS, status());
        }
    }

    void event(const Json::Value& e)
    {
        std::vector<GUID> to;
        for (const std::string& k : m_subscribers) {
            GUID g{};
            memcpy(&g, k.data(), sizeof(g));
            to.push_back(g);
        }
        for (const GUID& g : to) {
            send(g, kuvscan::KUV_SCAN_MSG_EVENT, e);
        }
    }

    // Waits up to ms for a cancel of job; true when cancelled.
    bool pause(std::unique_lock<std::mutex>& lock, const std::string& job, int ms)
    {
        m_cv.wait_for(lock, std::chrono::milliseconds(ms), [&] { return m_stop || m_cancelled.count(job) != 0; });
        return m_cancelled.count(job) != 0;
    }

    void work()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_cv.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
            if (m_stop) {
                return;
            }
            Job job = m_jobs.front();
            m_jobs.pop_front();
            m_busy = true;
            run(lock, job);
            m_busy = false;
        }
    }

    void run(std::unique_lock<std::mutex>& lock, const Job& job)
    {
        const std::string id = job.body["job"].asString();
        const auto start = std::chrono::steady_clock::now();
        auto elapsed = [&] {
            return static_cast<Json::Int64>(
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count());
        };
        std::vector<std::string> paths;
        for (const Json::Value& p : job.body["paths"]) {
            std::string bytes;
            if (kuvscan::pathFromJson(p, bytes)) {
                paths.push_back(bytes);
            }
        }
        const bool reportClean = job.body["options"]["report_clean"].asBool();
        const int64_t total = static_cast<int64_t>(paths.size());
        const int64_t bytesPerFile = 1 << 20;
        Json::Value progress(Json::objectValue);
        progress["job"] = id;
        progress["state"] = "counting";
        progress["files_total"] = -1;
        progress["bytes_total"] = -1;
        progress["files_scanned"] = 0;
        progress["bytes_scanned"] = 0;
        progress["threats"] = 0;
        progress["elapsed_ms"] = elapsed();
        send(job.from, kuvscan::KUV_SCAN_MSG_PROGRESS, progress);
        int sent = 0;
        std::string state = "done";
        int64_t infected = 0;
        int64_t errors = 0;
        Json::Value results(Json::arrayValue);
        for (int step = 0; step < m_opt.steps; ++step) {
            if (pause(lock, id, m_opt.stepMs)) {
                state = "cancelled";
                break;
            }
            // Results come in proportion to the steps, so a running job already has some.
            const size_t upto = static_cast<size_t>((step + 1) * paths.size() / m_opt.steps);
            Json::Value batch(Json::arrayValue);
            for (size_t i = results.size(); i < upto; ++i) {
                const std::string& p = paths[i];
                const std::string base = p.substr(p.rfind('/') + 1);
                Json::Value r(Json::objectValue);
                r["path"] = kuvscan::pathToJson(p);
                r["signature"] = "";
                r["reason"] = "";
                if (base.find("eicar") != std::string::npos) {
                    r["verdict"] = "infected";
                    r["signature"] = "Eicar-Test-Signature";
                    ++infected;
                    Json::Value e(Json::objectValue);
                    e["time"] = static_cast<Json::Int64>(nowMs());
                    e["kind"] = "detection";
                    e["severity"] = "critical";
                    e["path"] = kuvscan::pathToJson(p);
                    e["signature"] = "Eicar-Test-Signature";
                    e["action"] = "reported";
                    e["job"] = id;
                    event(e);
                } else if (base.find("unreadable") != std::string::npos) {
                    r["verdict"] = "error";
                    r["reason"] = "permission denied";
                    ++errors;
                } else if (reportClean) {
                    r["verdict"] = "clean";
                } else {
                    results.append(Json::Value());
                    continue;
                }
                results.append(r);
                batch.append(r);
            }
            if (!batch.empty()) {
                Json::Value msg(Json::objectValue);
                msg["job"] = id;
                msg["results"] = batch;
                send(job.from, kuvscan::KUV_SCAN_MSG_RESULTS, msg);
            }
            progress["state"] = "scanning";
            progress["files_total"] = static_cast<Json::Int64>(total);
            progress["bytes_total"] = static_cast<Json::Int64>(total * bytesPerFile);
            progress["files_scanned"] = static_cast<Json::Int64>(upto);
            progress["bytes_scanned"] = static_cast<Json::Int64>(upto * bytesPerFile);
            progress["threats"] = static_cast<Json::Int64>(infected);
            progress["current"] = kuvscan::pathToJson(upto > 0 ? paths[upto - 1] : std::string("/"));
            progress["elapsed_ms"] = elapsed();
            send(job.from, kuvscan::KUV_SCAN_MSG_PROGRESS, progress);
            if (++sent == m_opt.dieAfterProgress) {
                fflush(nullptr);
                kill(getpid(), SIGKILL);
            }
        }
        Json::Value end(Json::objectValue);
        end["job"] = id;
        end["state"] = state;
        end["reason"] = state == "cancelled" ? "cancelled by the user" : "";
        end["files"] = static_cast<Json::Int64>(results.size());
        end["bytes"] = static_cast<Json::Int64>(results.size() * bytesPerFile);
        end["infected"] = static_cast<Json::Int64>(infected);
        end["errors"] = static_cast<Json::Int64>(errors);
        end["skipped"] = 0;
        end["partial"] = 0;
        end["duration_ms"] = elapsed();
        send(job.from, kuvscan::KUV_SCAN_MSG_JOB_END, end);
        m_cancelled.erase(id);
        m_last = Json::Value(Json::objectValue);
        m_last["job"] = id;
        m_last["state"] = state;
        m_last["end_time"] = static_cast<Json::Int64>(nowMs() / 1000);
        m_last["files"] = end["files"];
        m_last["infected"] = end["infected"];
        m_busy = false;
        for (const std::string& k : m_subscribers) {
            GUID g{};
            memcpy(&g, k.data(), sizeof(g));
            send(g, kuvscan::KUV_SCAN_MSG_STATUS, status());
        }
    }

    const Options m_opt;
    kuv::BusModule m_module;
    IZellMREndPoint4* m_ep = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<Job> m_jobs;
    std::set<std::string> m_cancelled;
    std::set<std::string> m_subscribers;
    Json::Value m_last;
    bool m_busy = false;
    bool m_stop = false;
    std::thread m_worker;
};

} // namespace

namespace {

// The leading integer of text, 0 when there is none.
int number(const char* text)
{
    int value = 0;
    std::from_chars(text, text + std::strlen(text), value);
    return value;
}

} // namespace

int main(int argc, char** argv)
{
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--no-announce") {
            opt.announce = false;
        } else if (a == "--no-pid") {
            opt.reportPid = false;
        } else if (next == nullptr) {
            fprintf(stderr, "kuv-fake-scand: %s needs a value\n", a.c_str());
            return 2;
        } else if (a == "--record") {
            opt.record = argv[++i];
        } else if (a == "--pidfile") {
            opt.pidfile = argv[++i];
        } else if (a == "--steps") {
            opt.steps = std::max(1, number(argv[++i]));
        } else if (a == "--step-ms") {
            opt.stepMs = number(argv[++i]);
        } else if (a == "--die-after-progress") {
            opt.dieAfterProgress = number(argv[++i]);
        } else if (a == "--db-age-days") {
            opt.dbAgeDays = atof(argv[++i]);
        } else if (a == "--lifetime-s") {
            opt.lifetimeS = number(argv[++i]);
        } else {
            fprintf(stderr, "kuv-fake-scand: unknown option %s\n", a.c_str());
            return 2;
        }
    }
    // Started from the shell's button the options come from the environment.
    if (const char* env = getenv("KUV_FAKE_SCAND_RECORD")) {
        opt.record = env;
    }
    if (const char* env = getenv("KUV_FAKE_SCAND_PIDFILE")) {
        opt.pidfile = env;
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, nullptr);

    FakeScand scand(opt);
    std::string error;
    if (!scand.open(error)) {
        fprintf(stderr, "kuv-fake-scand: %s\n", error.c_str());
        scand.close();
        return 1;
    }
    if (!opt.pidfile.empty()) {
        std::ofstream(opt.pidfile) << getpid() << '\n';
    }
    fprintf(stderr, "kuv-fake-scand: ready as %s\n", kuvscan::kScandGuid);
    const timespec limit{opt.lifetimeS, 0};
    sigtimedwait(&stop, nullptr, &limit);
    scand.close();
    return 0;
}

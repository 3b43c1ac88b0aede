// SPDX-License-Identifier: GPL-2.0-or-later
// Helpers for tests that run a real kuv-zelld and load libZellClientMgr.so: the broker process, the module,
// client instances and a receiver that records what it is given.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Harness.h"
#include "IZellClientMgr.h"

namespace zelltest {

inline GUID guidOf(const char* text)
{
    GUID guid{};
    stringToGuid(guid, text);
    return guid;
}

inline std::string guidString(const GUID& g)
{
    char text[40];
    snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

// A private runtime directory for one test: XDG_RUNTIME_DIR points at it while the object lives.
class RuntimeDir {
public:
    RuntimeDir() : m_dir("zellrt")
    {
        const char* old = getenv("XDG_RUNTIME_DIR");
        m_hadOld = old != nullptr;
        if (m_hadOld) {
            m_old = old;
        }
        setenv("XDG_RUNTIME_DIR", m_dir.path().c_str(), 1);
    }
    ~RuntimeDir()
    {
        if (m_hadOld) {
            setenv("XDG_RUNTIME_DIR", m_old.c_str(), 1);
        } else {
            unsetenv("XDG_RUNTIME_DIR");
        }
    }
    const std::string& path() const { return m_dir.path(); }
    std::string socketPath(const std::string& name = "kuv_zell") const { return m_dir.path() + "/kuv/" + name; }
    std::string env() const { return "XDG_RUNTIME_DIR=" + m_dir.path(); }

private:
    kuvtest::TempDir m_dir;
    std::string m_old;
    bool m_hadOld = false;
};

// Whether something accepts connections on the unix socket at path.
inline bool socketAccepts(const std::string& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return ok;
}

// A child that dies with the test process, even when the test crashes, so no broker is left behind.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& errFile)
    {
        std::vector<std::string> args = argv;
        std::vector<char*> raw;
        for (auto& arg : args) {
            raw.push_back(&arg[0]);
        }
        raw.push_back(nullptr);
        const pid_t parent = getpid();
        m_pid = fork();
        if (m_pid < 0) {
            throw std::runtime_error("fork failed");
        }
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(127);
            }
            const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
            if (err >= 0 && null >= 0) {
                dup2(null, 0);
                dup2(null, 1);
                dup2(err, 2);
            }
            execv(raw[0], raw.data());
            _exit(127);
        }
    }
    ~Child()
    {
        signal(SIGKILL);
        wait(20000);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void signal(int sig)
    {
        if (!m_done) {
            ::kill(m_pid, sig);
        }
    }
    bool running() { return !wait(0); }
    // true once the child ended (within timeoutMs).
    bool wait(int timeoutMs)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!m_done) {
            int status = 0;
            const pid_t rc = waitpid(m_pid, &status, WNOHANG);
            if (rc == m_pid || (rc < 0 && errno != EINTR)) {
                m_done = true;
                m_status = rc == m_pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    int exitStatus() const { return m_status; }

private:
    pid_t m_pid = -1;
    bool m_done = false;
    int m_status = -1;
};

// kuv-zelld in the foreground, as a child process; its stderr collects in err().
class Broker {
public:
    Broker(std::string program, const RuntimeDir& runtime, std::vector<std::string> extra = {})
        : m_program(std::move(program)), m_runtime(runtime), m_extra(std::move(extra))
    {
        start();
    }

    void start()
    {
        std::vector<std::string> argv = {m_program, "--foreground", "--log-level", "1"};
        argv.insert(argv.end(), m_extra.begin(), m_extra.end());
        m_process.reset();
        m_process = std::make_unique<Child>(argv, m_runtime.path() + "/broker.err");
        const std::string path = m_runtime.socketPath();
        if (!kuvtest::waitUntil([&] { return socketAccepts(path) || !m_process->running(); }, 30000)) {
            throw std::runtime_error("kuv-zelld did not come up");
        }
        if (!m_process->running()) {
            throw std::runtime_error("kuv-zelld exited: " + err());
        }
    }

    std::string err() const { return kuvtest::readFile(m_runtime.path() + "/broker.err"); }

    void kill9()
    {
        m_process->signal(SIGKILL);
        m_process->wait(10000);
    }

    // Stops with SIGTERM; the exit status.
    int terminate()
    {
        m_process->signal(SIGTERM);
        m_process->wait(20000);
        return m_process->exitStatus();
    }

    Child& process() { return *m_process; }

private:
    std::string m_program;
    const RuntimeDir& m_runtime;
    std::vector<std::string> m_extra;
    std::unique_ptr<Child> m_process;
};

// The module, opened with dlopen as the service does.
class Module {
public:
    explicit Module(const std::string& path)
    {
        m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (m_handle == nullptr) {
            throw std::runtime_error(std::string("dlopen: ") + dlerror());
        }
        create = reinterpret_cast<PFN_CreateInstance>(dlsym(m_handle, "CreateInstance"));
        destroy = reinterpret_cast<PFN_DestoryInstance>(dlsym(m_handle, "DestoryInstance"));
        if (create == nullptr || destroy == nullptr) {
            throw std::runtime_error("entry points missing");
        }
    }
    ~Module()
    {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    PFN_CreateInstance create = nullptr;
    PFN_DestoryInstance destroy = nullptr;

private:
    void* m_handle = nullptr;
};

inline std::string settingsJson(const std::string& socket = "./kuv_zell", int threads = 1,
                                const std::string& logPath = std::string())
{
    std::string json = "{";
    if (!logPath.empty()) {
        json += "\"log_path\":\"" + logPath + "\",";
    }
    json += "\"socket_addr\":\"" + socket + "\",\"thread_nums\":" + std::to_string(threads) +
            ",\"log_level\":4,\"log_size\":10485760}";
    return json;
}

// One client instance; given back with stop(), release(), DestoryInstance() as the service does.
class Client {
public:
    Client(Module& module, std::string guid) : m_module(module), m_guid(std::move(guid))
    {
        m_mgr = m_module.create(m_guid.c_str());
        if (m_mgr == nullptr) {
            throw std::runtime_error("CreateInstance failed");
        }
    }
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int init(const std::string& settings) { return m_mgr->init(settings.c_str(), "test"); }
    // init, then wait for the broker.
    bool start(const std::string& settings = settingsJson()) { return init(settings) == ZELL_INIT_OK && waitConnected(); }
    IZellClientMgr* operator->() { return m_mgr; }
    IZellClientMgr* get() { return m_mgr; }
    bool waitConnected(int timeoutMs = 30000) { return m_mgr->waitConnected(timeoutMs) == 1; }
    void close()
    {
        if (m_mgr != nullptr) {
            m_mgr->stop();
            m_mgr->release();
            m_module.destroy(m_guid.c_str(), m_mgr);
            m_mgr = nullptr;
        }
    }

private:
    Module& m_module;
    std::string m_guid;
    IZellClientMgr* m_mgr = nullptr;
};

struct Received {
    uint64_t endpoint = 0;
    int64_t type = 0;
    std::string body;
    std::string sender;
    uint64_t sequence = 0;
};

// Records every call; tests wait on the count.
class Recorder : public IMRReceiveComplete {
public:
    void ReceiveCallback(uint64_t endpoint, int64_t msgType, const char* content, int length, uint64_t sender,
                         uint64_t sequence) override
    {
        Received r;
        r.endpoint = endpoint;
        r.type = msgType;
        r.body.assign(content, static_cast<size_t>(length));
        r.sender = sender != 0 ? guidString(*reinterpret_cast<const GUID*>(sender)) : std::string();
        r.sequence = sequence;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_items.push_back(std::move(r));
        m_cv.notify_all();
    }
    bool waitFor(size_t count, int timeoutMs = 30000)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_items.size() >= count; });
    }
    std::vector<Received> items()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items;
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items.size();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Received> m_items;
};

} // namespace zelltest

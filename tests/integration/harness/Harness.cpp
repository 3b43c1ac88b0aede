// SPDX-License-Identifier: GPL-2.0-or-later
#include "Harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kuvtest {

namespace {

int shell(const std::string& command) { return std::system(command.c_str()); }

std::string quote(const std::string& s)
{
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    return out + "'";
}

std::vector<std::string> mergedEnv(const std::vector<std::string>& extra)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        env.emplace_back(*e);
    }
    for (const std::string& kv : extra) {
        const std::string key = kv.substr(0, kv.find('=') + 1);
        bool replaced = false;
        for (std::string& cur : env) {
            if (cur.compare(0, key.size(), key) == 0) {
                cur = kv;
                replaced = true;
            }
        }
        if (!replaced) {
            env.push_back(kv);
        }
    }
    return env;
}

} // namespace

std::string stageDir()
{
    const char* stage = getenv("KUV_STAGE_DIR");
    if (stage == nullptr || *stage == '\0') {
        throw std::runtime_error("KUV_STAGE_DIR is not set: run through ctest");
    }
    std::string dir = stage;
    if (dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

Install::Install() : m_tmp("kuvinst")
{
    dir = m_tmp.path() + "/inst/";
    runtime = m_tmp.path() + "/run";
    if (shell("cp -a " + quote(stageDir()) + " " + quote(dir)) != 0) {
        throw std::runtime_error("cannot copy the staged installation");
    }
    mkdir(runtime.c_str(), 0700);
    chmod(runtime.c_str(), 0700);
}

std::vector<std::string> Install::env() const
{
    // The user's settings, quarantine and history stay inside the test too (never the real ~/.config).
    return {"XDG_RUNTIME_DIR=" + runtime, "QT_QPA_PLATFORM=offscreen", "KUV_SHELL_JOURNAL=" + journal(),
            "XDG_DATA_HOME=" + dataHome(), "XDG_CONFIG_HOME=" + configHome()};
}

Process::Process(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& cwd)
    : m_io("kuvproc")
{
    const std::string outPath = m_io.path() + "/out";
    const std::string errPath = m_io.path() + "/err";
    std::vector<std::string> envStrings = mergedEnv(env);
    std::vector<char*> envp;
    for (auto& s : envStrings) {
        envp.push_back(&s[0]);
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> argp;
    for (auto& s : args) {
        argp.push_back(&s[0]);
    }
    argp.push_back(nullptr);

    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        setpgid(0, 0);
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0) {
            _exit(126);
        }
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        execve(argp[0], argp.data(), envp.data());
        dprintf(2, "exec %s failed: %s\n", argp[0], strerror(errno));
        _exit(127);
    }
}

Process::~Process()
{
    if (!m_done && m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        wait(10000);
    }
}

bool Process::running()
{
    if (m_done) {
        return false;
    }
    return !wait(0);
}

bool Process::wait(int timeoutMs)
{
    if (m_done) {
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status = 0;
        const pid_t rc = waitpid(m_pid, &status, WNOHANG);
        if (rc == m_pid) {
            m_done = true;
            if (WIFEXITED(status)) {
                m_status = WEXITSTATUS(status);
            } else if (WIFSIGNALED(status)) {
                m_signal = WTERMSIG(status);
            }
            return true;
        }
        if (rc < 0 && errno != EINTR) {
            m_done = true;
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void Process::signal(int sig)
{
    if (!m_done && m_pid > 0) {
        ::kill(m_pid, sig);
    }
}

std::string Process::out() const { return readFile(m_io.path() + "/out"); }
std::string Process::err() const { return readFile(m_io.path() + "/err"); }

RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env, int timeoutMs,
              const std::string& cwd)
{
    Process p(argv, env, cwd);
    RunResult r;
    if (!p.wait(timeoutMs)) {
        r.timedOut = true;
        p.signal(SIGKILL);
        p.wait(10000);
    }
    r.status = r.timedOut ? -1 : p.exitStatus();
    r.signal = p.termSignal();
    r.out = p.out();
    r.err = p.err();
    return r;
}

bool waitUntil(const std::function<bool()>& cond, int timeoutMs, int stepMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (cond()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return cond();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
    }
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool fileContains(const std::string& path, const std::string& text)
{
    return readFile(path).find(text) != std::string::npos;
}

bool waitForFileContains(const std::string& path, const std::string& text, int timeoutMs)
{
    return waitUntil([&] { return fileContains(path, text); }, timeoutMs);
}

int countInFile(const std::string& path, const std::string& text)
{
    const std::string content = readFile(path);
    int n = 0;
    for (size_t pos = content.find(text); pos != std::string::npos; pos = content.find(text, pos + text.size())) {
        ++n;
    }
    return n;
}

std::vector<std::string> entriesStartingWith(const std::string& dir, const std::string& prefix)
{
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        const std::string name = e.path().filename().string();
        if (name.rfind(prefix, 0) == 0) {
            out.push_back(name);
        }
    }
    return out;
}

} // namespace kuvtest

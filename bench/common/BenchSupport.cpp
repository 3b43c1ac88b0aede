// SPDX-License-Identifier: GPL-2.0-or-later
#include "BenchSupport.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numeric>
#include <sstream>
#include <thread>

#include "SafeIo.h"

extern char** environ;

namespace kuvbench {

namespace {

std::vector<std::string> g_env;
bool g_envSet = false;

std::vector<char*> cstrings(std::vector<std::string>& v)
{
    std::vector<char*> out;
    for (auto& s : v) {
        out.push_back(&s[0]);
    }
    out.push_back(nullptr);
    return out;
}

} // namespace

double percentile(std::vector<double> sample, double p)
{
    if (sample.empty()) {
        return 0;
    }
    std::sort(sample.begin(), sample.end());
    return sample[std::min(sample.size() - 1, static_cast<size_t>(p * static_cast<double>(sample.size())))];
}

Stats stats(const std::vector<double>& sample)
{
    Stats s;
    if (sample.empty()) {
        return s;
    }
    s.median = percentile(sample, 0.5);
    s.mean = std::accumulate(sample.begin(), sample.end(), 0.0) / static_cast<double>(sample.size());
    s.p10 = percentile(sample, 0.1);
    s.p90 = percentile(sample, 0.9);
    s.p99 = percentile(sample, 0.99);
    s.max = *std::max_element(sample.begin(), sample.end());
    return s;
}

void setChildEnvironment(const std::vector<std::string>& drop, const std::vector<std::string>& extra)
{
    g_env.clear();
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        if (std::find(drop.begin(), drop.end(), name) == drop.end()) {
            g_env.push_back(entry);
        }
    }
    g_env.insert(g_env.end(), extra.begin(), extra.end());
    g_envSet = true;
}

void headlessEnvironment(const std::string& runtime, const std::vector<std::string>& extra)
{
    std::vector<std::string> drop{"XDG_RUNTIME_DIR", "QT_QPA_PLATFORM"};
    std::vector<std::string> add{"XDG_RUNTIME_DIR=" + runtime, "QT_QPA_PLATFORM=offscreen"};
    // The user's own history, settings and logs stay out of the figures, and the figures out of them: a
    // run of the forwarding bench alone records hundreds of scan jobs.
    for (const char* home : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"}) {
        drop.push_back(home);
        add.push_back(std::string(home) + "=" + runtime + "/home/" + home);
    }
    for (const std::string& e : extra) {
        drop.push_back(e.substr(0, e.find('=')));
        add.push_back(e);
    }
    setChildEnvironment(drop, add);
}

std::string headlessRuntime(const std::string& prefix)
{
    const std::string runtime = privateTempDir(prefix);
    headlessEnvironment(runtime);
    return runtime;
}

std::string requireInstall(std::string install)
{
    if (install.empty()) {
        std::fprintf(stderr, "no installation: give --install DIR or set KUV_STAGE_DIR\n");
        std::exit(2);
    }
    if (install.back() != '/') {
        install += '/';
    }
    return install;
}

pid_t spawn(const std::vector<std::string>& argv, Output out)
{
    if (!g_envSet) {
        setChildEnvironment({}, {});
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    switch (out.kind) {
    case Output::DISCARD:
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        break;
    case Output::FD:
        posix_spawn_file_actions_adddup2(&actions, out.fd, 1);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        break;
    case Output::INHERIT:
        break;
    }
    std::vector<std::string> args = argv;
    auto argp = cstrings(args);
    auto envp = cstrings(g_env);
    pid_t pid = -1;
    if (posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int waitExit(pid_t pid)
{
    int status = 0;
    if (kuv::retryEintr([&] { return ::waitpid(pid, &status, 0); }) < 0) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

bool waitFor(const std::string& path, int ms)
{
    for (int i = 0; i < ms / 20 && !exists(path); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return exists(path);
}

std::string selfDir()
{
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    const std::string p(buf, n > 0 ? static_cast<size_t>(n) : 0);
    return p.substr(0, p.rfind('/'));
}

std::string privateTempDir(const std::string& prefix)
{
    std::string pattern = "/tmp/" + prefix + ".XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr || ::chmod(pattern.c_str(), 0700) != 0) {
        perror("mkdtemp");
        std::exit(1);
    }
    return pattern;
}

} // namespace kuvbench

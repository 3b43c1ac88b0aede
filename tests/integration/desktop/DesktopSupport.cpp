// SPDX-License-Identifier: GPL-2.0-or-later
#include "DesktopSupport.h"

#include "ScanPaths.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace kuvdesk {

using namespace kuvtest;

std::string findProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr && *path != '\0' ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::string();
}

PrivateInstall::PrivateInstall(const std::string& existingPrefix) : m_tmp("kuvdesk")
{
    prefix = existingPrefix;
    runtime = m_tmp.path() + "/run";
    home = m_tmp.path() + "/home";
    journal = m_tmp.path() + "/journal.jsonl";
    mkdir(runtime.c_str(), 0700);
    chmod(runtime.c_str(), 0700);
    mkdir(home.c_str(), 0700);
}

PrivateInstall::PrivateInstall() : PrivateInstall(std::string())
{
    prefix = m_tmp.path() + "/inst dir";

    const char* build = std::getenv("KUV_BUILD_DIR");
    if (build == nullptr || *build == '\0') {
        throw std::runtime_error("KUV_BUILD_DIR is not set: run through ctest");
    }
    const RunResult r = run({KUV_CMAKE_COMMAND, "--install", build, "--prefix", prefix}, {}, 240000);
    if (r.status != 0) {
        throw std::runtime_error("cmake --install into \"" + prefix + "\" failed (" + std::to_string(r.status) +
                                 "): " + r.out + r.err);
    }
}

PrivateInstall::~PrivateInstall()
{
    if (running()) {
        stop();
    }
    // Whatever a launcher started from this installation and a failed test left running (a
    // daemonised broker, a service started by the autostart entry): the guard first, so it
    // cannot start the service again. The paths are this installation's alone.
    const std::vector<std::string> programs = {prefix + "/script/kuvgui_guard.sh", bin("kuvgui"), bin("kuv-zelld")};
    for (const std::string& program : programs) {
        for (pid_t pid : processesWithArg(program)) {
            kill(pid, SIGKILL);
        }
        waitUntil([&] { return processesWithArg(program).empty(); }, 10000);
    }
}

std::vector<std::string> PrivateInstall::env() const
{
    std::vector<std::string> env = {
        "XDG_RUNTIME_DIR=" + runtime,
        "QT_QPA_PLATFORM=offscreen",
        "KUV_SHELL_JOURNAL=" + journal,
        "HOME=" + home,
        "XDG_DATA_HOME=" + home + "/.local/share",
        "XDG_CONFIG_HOME=" + home + "/.config",
        // No session bus and no user manager of the machine: everything stays in this test.
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + m_tmp.path() + "/no-bus",
        "DISPLAY=",
        "WAYLAND_DISPLAY=",
        "XAUTHORITY=",
        "XDG_CURRENT_DESKTOP=",
        "XDG_SESSION_TYPE=",
        kNoLeakCheck,
    };
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    return env;
}

bool PrivateInstall::running() const { return m_service && m_service->running(); }

std::string PrivateInstall::serviceOutput() const
{
    return m_service ? "stdout:\n" + m_service->out() + "\nstderr:\n" + m_service->err() : std::string();
}

std::string PrivateInstall::start()
{
    const std::string zelld = bin("kuv-zelld");
    if (access(zelld.c_str(), X_OK) == 0) {
        m_broker = std::make_unique<Process>(std::vector<std::string>{zelld, "--foreground"}, env());
        const std::string socket = runtime + "/kuv/kuv_zell";
        if (!waitUntil([&] { return access(socket.c_str(), F_OK) == 0 || !m_broker->running(); }, 30000) ||
            !m_broker->running()) {
            return "the broker did not come up: " + m_broker->err();
        }
    }
    m_service = std::make_unique<Process>(std::vector<std::string>{bin("kuvgui")}, env());
    const std::string socket = runtime + "/kuv/kuv-gui";
    const bool up = waitUntil(
        [&] {
            return !m_service->running() ||
                   (access(socket.c_str(), F_OK) == 0 && fileContains(journal, "{\"event\":\"init\"}"));
        },
        60000);
    if (!up || !m_service->running()) {
        return "the service did not come up (status " + std::to_string(m_service->exitStatus()) + ")\n" +
               serviceOutput();
    }
    return std::string();
}

std::string PrivateInstall::stop()
{
    std::string problems;
    if (m_service) {
        if (m_service->running()) {
            run({bin("kuvgui"), "quit"}, env(), 30000);
            if (!m_service->wait(60000)) {
                problems += "the service did not quit within 60 s; ";
                m_service->signal(SIGKILL);
                m_service->wait(10000);
            } else if (m_service->exitStatus() != 0) {
                problems += "the service quit with status " + std::to_string(m_service->exitStatus()) + "; ";
            }
        }
    }
    if (m_broker && m_broker->running()) {
        m_broker->signal(SIGTERM);
        if (!m_broker->wait(30000)) {
            problems += "the broker did not stop on SIGTERM; ";
        }
    }
    return problems;
}

std::vector<Json::Value> readJournal(const std::string& path)
{
    std::vector<Json::Value> records;
    std::istringstream lines(readFile(path));
    std::string line;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    while (std::getline(lines, line)) {
        Json::Value v;
        std::string errors;
        if (reader->parse(line.data(), line.data() + line.size(), &v, &errors) && v.isObject()) {
            records.push_back(v);
        }
    }
    return records;
}

std::vector<std::vector<std::string>> scanRequests(const std::string& journalPath)
{
    std::vector<std::vector<std::string>> out;
    for (const Json::Value& r : readJournal(journalPath)) {
        if (r.get("event", "").asString() == "ctrl" && r.get("code", -1).asInt() == 1) {
            std::vector<std::string> paths;
            for (const Json::Value& p : r["paths"]) {
                // A name that is not UTF-8 is marked {"b64": ...} with its exact bytes.
                std::string bytes;
                if (p.isString()) {
                    bytes = p.asString();
                } else if (!kuvscan::pathFromJson(p, bytes)) {
                    bytes = "<unreadable journal entry>";
                }
                paths.push_back(bytes);
            }
            out.push_back(paths);
        }
    }
    return out;
}

int ctrlCount(const std::string& journalPath, int code)
{
    int n = 0;
    for (const Json::Value& r : readJournal(journalPath)) {
        if (r.get("event", "").asString() == "ctrl" && r.get("code", -1).asInt() == code) {
            ++n;
        }
    }
    return n;
}

KeyFile readKeyFile(const std::string& path)
{
    KeyFile groups;
    std::istringstream lines(readFile(path));
    std::string line;
    std::string group;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[' && line.back() == ']') {
            group = line.substr(1, line.size() - 2);
            groups[group];
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        std::string key = line.substr(0, eq);
        while (!key.empty() && key.back() == ' ') {
            key.pop_back();
        }
        size_t v = eq + 1;
        while (v < line.size() && line[v] == ' ') {
            ++v;
        }
        groups[group][key] = line.substr(v);
    }
    return groups;
}

std::vector<pid_t> processesWithArg(const std::string& arg)
{
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return pids;
    }
    while (dirent* e = readdir(proc)) {
        char* end = nullptr;
        const long pid = strtol(e->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') {
            continue;
        }
        const std::string cmdline = readFile("/proc/" + std::string(e->d_name) + "/cmdline");
        size_t start = 0;
        while (start < cmdline.size()) {
            size_t nul = cmdline.find('\0', start);
            if (nul == std::string::npos) {
                nul = cmdline.size();
            }
            if (cmdline.compare(start, nul - start, arg) == 0) {
                pids.push_back(static_cast<pid_t>(pid));
                break;
            }
            start = nul + 1;
        }
    }
    closedir(proc);
    return pids;
}

bool processAlive(pid_t pid)
{
    if (kill(pid, 0) != 0) {
        return false;
    }
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

std::string visible(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string visible(const std::vector<std::string>& list)
{
    std::string out = "[";
    for (size_t i = 0; i < list.size(); ++i) {
        out += (i ? ", \"" : "\"") + visible(list[i]) + "\"";
    }
    return out + "]";
}

Xvfb::Xvfb(int first, int last)
{
    const std::string program = findProgram("Xvfb");
    if (program.empty()) {
        m_error = "Xvfb (package xvfb) is not installed: run scripts/setup";
        return;
    }
    for (int n = first; n < last && m_display.empty(); ++n) {
        const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
        const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
        if (access(socket.c_str(), F_OK) == 0 || access(lock.c_str(), F_OK) == 0) {
            continue;
        }
        auto server = std::make_unique<kuvtest::Process>(std::vector<std::string>{
            program, ":" + std::to_string(n), "-screen", "0", "1280x800x24", "-nolisten", "tcp", "-noreset"});
        // Another test may have taken the number in between: then the server ends at once.
        if (kuvtest::waitUntil([&] { return access(socket.c_str(), F_OK) == 0 || !server->running(); }, 30000) &&
            server->running()) {
            m_display = ":" + std::to_string(n);
            m_server = std::move(server);
        } else {
            m_error = "Xvfb :" + std::to_string(n) + " did not start: " + server->err();
        }
    }
}

Xvfb::~Xvfb()
{
    if (m_server) {
        m_server->signal(SIGTERM);
        m_server->wait(20000);
    }
}

} // namespace kuvdesk

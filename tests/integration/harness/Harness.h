// SPDX-License-Identifier: GPL-2.0-or-later
// Multi-process test harness: private installations, child processes with captured output, polling.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "TempDir.h"

namespace kuvtest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
using TempDir = kuv::test::TempDir;

// The staged installation ($KUV_STAGE_DIR), with a final "/".
std::string stageDir();

// A private copy of the staged installation and a private runtime directory.
class Install {
public:
    Install();
    std::string dir;     // installation directory, final "/"
    std::string runtime; // value for XDG_RUNTIME_DIR (0700)
    std::string bin(const std::string& program) const { return dir + "bin/" + program; }
    std::string log() const { return dir + "log/kuvgui.log"; }
    std::string journal() const { return m_tmp.path() + "/journal.jsonl"; }
    // XDG_DATA_HOME and XDG_CONFIG_HOME of the processes of this installation (not created in advance).
    std::string dataHome() const { return m_tmp.path() + "/data"; }
    std::string configHome() const { return m_tmp.path() + "/config"; }
    // XDG_RUNTIME_DIR, QT_QPA_PLATFORM=offscreen, KUV_SHELL_JOURNAL, XDG_DATA_HOME, XDG_CONFIG_HOME.
    std::vector<std::string> env() const;

private:
    TempDir m_tmp;
};

struct RunResult {
    int status = -1;      // exit status, or -1 when killed by a signal or timed out
    int signal = 0;       // terminating signal, 0 when it exited
    bool timedOut = false;
    std::string out;
    std::string err;
};

// A child process with stdout and stderr captured into files; killed and reaped on destruction.
class Process {
public:
    // env: KEY=VALUE entries added to (or replacing in) this process's environment.
    Process(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
            const std::string& cwd = std::string());
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    bool running();
    // true when the process ended within timeoutMs.
    bool wait(int timeoutMs);
    void signal(int sig);
    int exitStatus() const { return m_status; }
    int termSignal() const { return m_signal; }
    std::string out() const;
    std::string err() const;

private:
    pid_t m_pid = -1;
    bool m_done = false;
    int m_status = -1;
    int m_signal = 0;
    TempDir m_io;
};

// Runs argv to completion (killed after timeoutMs).
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
              int timeoutMs = 30000, const std::string& cwd = std::string());

// Polls cond until it holds or timeoutMs passes.
bool waitUntil(const std::function<bool()>& cond, int timeoutMs = 15000, int stepMs = 20);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
bool fileContains(const std::string& path, const std::string& text);
bool waitForFileContains(const std::string& path, const std::string& text, int timeoutMs = 15000);
// Occurrences of text in the file.
int countInFile(const std::string& path, const std::string& text);
// Names of the entries of dir that start with prefix, in directory order; none when dir cannot be read.
std::vector<std::string> entriesStartingWith(const std::string& dir, const std::string& prefix);

} // namespace kuvtest

// SPDX-License-Identifier: GPL-2.0-or-later
// Support for the desktop tests: a private installation under a path with a blank, the running
// service with its broker, the GUI shell journal, and desktop-entry parsing.
#pragma once

#include "Harness.h"

#include <json/json.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kuvdesk {

// Sanitizer builds: these tests are about launchers, not the service's own leak checks (its
// tests do those); an exit-time leak scan of the service can also trip LeakSanitizer's tracer
// now and then, which would fail a launcher test for nothing. Tools under test here
// (kuvctl logs) get kLeakCheck back.
constexpr const char* kNoLeakCheck = "ASAN_OPTIONS=detect_leaks=0:abort_on_error=0:detect_odr_violation=0";
constexpr const char* kLeakCheck = "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:detect_odr_violation=0";

// Absolute path of a program found on PATH; empty when there is none.
std::string findProgram(const std::string& name);

// An Xvfb on the first free display in [first, last); empty display() (and error() says why) when none
// could be started. Tests that run side by side use ranges of their own.
class Xvfb {
public:
    Xvfb(int first, int last);
    ~Xvfb();
    Xvfb(const Xvfb&) = delete;
    Xvfb& operator=(const Xvfb&) = delete;
    const std::string& display() const { return m_display; }
    const std::string& error() const { return m_error; }

private:
    std::unique_ptr<kuvtest::Process> m_server;
    std::string m_display;
    std::string m_error;
};

// A fresh `cmake --install` of the build tree into "<tmp>/inst dir", so every file filled in at
// install time names this prefix; with its own runtime directory, home and shell journal.
class PrivateInstall {
public:
    PrivateInstall();
    // An installation that is already there (an unpacked package, say), used in place.
    explicit PrivateInstall(const std::string& existingPrefix);
    ~PrivateInstall();
    PrivateInstall(const PrivateInstall&) = delete;
    PrivateInstall& operator=(const PrivateInstall&) = delete;

    std::string root() const { return m_tmp.path(); }
    std::string prefix;  // no final "/"
    std::string runtime; // XDG_RUNTIME_DIR, 0700
    std::string home;
    std::string journal;
    std::vector<std::string> extraEnv; // added last to env(), so they win
    std::string bin(const std::string& program) const { return prefix + "/bin/" + program; }
    std::string share(const std::string& rel) const { return prefix + "/share/" + rel; }

    // Private runtime dir, home and XDG dirs, journal, offscreen Qt, no session bus or user
    // manager reachable (so nothing from the machine's own session leaks in), kNoLeakCheck;
    // then extraEnv.
    std::vector<std::string> env() const;

    // Starts the broker and the service and waits until the service holds its tag and runs.
    // Empty on success, else what went wrong.
    std::string start();
    // Quits the service through "kuvgui quit" and stops the broker; empty on success.
    std::string stop();
    bool running() const;
    std::string serviceOutput() const;

private:
    kuvtest::TempDir m_tmp;
    std::unique_ptr<kuvtest::Process> m_broker;
    std::unique_ptr<kuvtest::Process> m_service;
};

// One JSON object per journal line (lines that do not parse are skipped).
std::vector<Json::Value> readJournal(const std::string& path);
// The "paths" of every {"event":"ctrl","code":1} record, in journal order.
std::vector<std::vector<std::string>> scanRequests(const std::string& journalPath);
// Number of {"event":"ctrl","code":code} records.
int ctrlCount(const std::string& journalPath, int code);

// group name -> key -> raw value (still escaped) of a desktop-entry style file.
using KeyFile = std::map<std::string, std::map<std::string, std::string>>;
KeyFile readKeyFile(const std::string& path);

// Processes (of any owner) one of whose command-line words equals arg.
std::vector<pid_t> processesWithArg(const std::string& arg);

// Whether pid runs (a zombie does not).
bool processAlive(pid_t pid);

// Text for messages: control characters shown as \xHH.
std::string visible(const std::string& text);
std::string visible(const std::vector<std::string>& list);

} // namespace kuvdesk

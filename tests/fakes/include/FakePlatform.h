// SPDX-License-Identifier: GPL-2.0-or-later
// Control and inspection of the platform test doubles that unit tests link instead of the real libraries.
#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

namespace fake {

// One ordered journal of platform calls across all doubles ("tag.trylock", "log.set 2=/x/", ...).
// Exported: the test modules a test loads report into it too.
__attribute__((visibility("default"))) void record(const std::string& event);
std::vector<std::string> events();
// Events whose text starts with prefix, in order.
std::vector<std::string> eventsWithPrefix(const std::string& prefix);
void clearEvents();

// Resets every double to its defaults and clears all journals.
void resetAll();

// Log double (CLogDebug, LogInit, LogPrintStrEx).
struct LogLine {
    std::string log;  // "" for the process log, else the LogInit name
    int level;
    std::string file;
    std::string function;
    unsigned int line;
    std::string message;
};
std::vector<LogLine> logLines();
// Messages of the process log (or of the named log), in order.
std::vector<std::string> logMessages(const std::string& log = "");
bool logContains(const std::string& message, int level = -1, const std::string& log = "");
// Properties set so far on a log, in order, as "code=value".
std::vector<std::string> logProperties(const std::string& log = "");
int logCloseCount();
void resetLog();

// ConstConfig double.
void setInstallDir(const std::string& dir);
void setConfigurationDir(const std::string& dir);
void setClientVersion(const std::string& version);
int constConfigUninitCount();

// GUI shell double.
void setShellInitResult(int result);
void setShellStopBackendAnswer(bool answer);
struct ShellCtrl {
    int code;
    std::list<std::string> paths;
};
std::vector<ShellCtrl> shellCtrls();
std::string shellLanguage();
// The uninstall record handed to init, run as the shell would on quit; -1 when none was handed.
int shellRunUninstall();
int shellInitCount();
int shellExecCount();

// Instance tag double.
void setTagTrylockResult(int result);
std::map<std::string, std::string> tagAttributes();
int tagLiveCount();

// Timer double.
struct TimerEntry {
    std::string name;
    int intervalMs;
    int repeat;
    bool runNow;
    int mode;
};
std::vector<TimerEntry> timersAdded();
std::vector<std::string> timersCancelled();
bool timerActive(const std::string& name);
// Runs the named timer's function once on the calling thread; false when no such timer.
bool fireTimer(const std::string& name);

// Process double.
struct ProcessRun {
    std::string program;
    std::string arguments;
    bool flag;
};
void setProcessResult(int result);
std::vector<ProcessRun> processRuns();

// Pipe double.
void setPipeServerStartResult(int result);
void setPipeClientResult(int result);
struct PipeSend {
    std::string name;
    std::string bytes;
};
std::vector<PipeSend> pipeSends();
std::string pipeServerName();
bool pipeServerRunning();

} // namespace fake

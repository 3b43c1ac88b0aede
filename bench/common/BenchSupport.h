// SPDX-License-Identifier: GPL-2.0-or-later
// What the benchmarks share: order statistics of a sample, child processes with a chosen environment,
// files and paths.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kuvbench {

// The value below which a fraction p (0..1) of the sample lies (nearest rank); 0 for an empty sample.
double percentile(std::vector<double> sample, double p);

struct Stats {
    double median = 0;
    double mean = 0;
    double p10 = 0;
    double p90 = 0;
    double p99 = 0;
    double max = 0;
};
Stats stats(const std::vector<double>& sample);

// The environment children are started with: this process's, without the given variables, plus extra.
void setChildEnvironment(const std::vector<std::string>& drop, const std::vector<std::string>& extra);

// Children run headless with runtime as their XDG_RUNTIME_DIR, plus extra ("NAME=value", replacing
// what this process has).
void headlessEnvironment(const std::string& runtime, const std::vector<std::string>& extra = {});
// A fresh private runtime directory (prefix names it), set up as with headlessEnvironment.
std::string headlessRuntime(const std::string& prefix);
// The installation directory with a final "/"; exits with status 2 and a hint when none was given.
std::string requireInstall(std::string install);

// Where a child's standard output goes: /dev/null, this process's own, or a descriptor.
struct Output {
    enum Kind { DISCARD, INHERIT, FD } kind = DISCARD;
    int fd = -1;
    static Output discard() { return Output{}; }
    static Output inherit() { return Output{INHERIT, -1}; }
    static Output to(int fd) { return Output{FD, fd}; }
};

// Starts argv[0] (a path) with the child environment, stdin from /dev/null; -1 when it cannot start.
// stderr follows out unless out is a descriptor, when it is discarded.
pid_t spawn(const std::vector<std::string>& argv, Output out = Output::discard());
// The exit status of pid once it ended; -1 when it did not exit normally.
int waitExit(pid_t pid);

std::string readFile(const std::string& path);
bool exists(const std::string& path);
// Waits up to ms for path to exist.
bool waitFor(const std::string& path, int ms);
// The directory of this executable.
std::string selfDir();
// A private (0700) temporary directory named after prefix; exits when it cannot be made.
std::string privateTempDir(const std::string& prefix);

} // namespace kuvbench

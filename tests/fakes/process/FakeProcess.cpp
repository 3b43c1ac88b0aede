// SPDX-License-Identifier: GPL-2.0-or-later
// CProcess double: records what would be started.
#include <mutex>

#include "FakePlatform.h"
#include "FileUtils.h"
#include "ResetHook.h"

namespace {
std::mutex g_mutex;
int g_result = 1;
std::vector<fake::ProcessRun> g_runs;

void resetProcess()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_result = 1;
    g_runs.clear();
}
fake::ResetHook g_hook(&resetProcess);
} // namespace

CProcess::CProcess() = default;

int CProcess::execute(std::string program, std::string arguments, bool wait)
{
    fake::record("process.execute " + program + " " + arguments);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_runs.push_back({program, arguments, wait});
    return g_result;
}

namespace fake {
void setProcessResult(int result)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_result = result;
}
std::vector<ProcessRun> processRuns()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_runs;
}
} // namespace fake

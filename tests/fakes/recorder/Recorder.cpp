// SPDX-License-Identifier: GPL-2.0-or-later
#include "FakePlatform.h"

#include <mutex>

namespace fake {
namespace {
std::mutex g_mutex;
std::vector<std::string>& journal()
{
    static std::vector<std::string> j;
    return j;
}
} // namespace

void record(const std::string& event)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    journal().push_back(event);
}

std::vector<std::string> events()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return journal();
}

std::vector<std::string> eventsWithPrefix(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> out;
    for (const auto& e : journal()) {
        if (e.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(e);
        }
    }
    return out;
}

void clearEvents()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    journal().clear();
}

// Each double registers its reset here; doubles not linked simply do not take part.
std::vector<void (*)()>& resetHooks()
{
    static std::vector<void (*)()> hooks;
    return hooks;
}

void resetAll()
{
    for (auto hook : resetHooks()) {
        hook();
    }
    clearEvents();
}

} // namespace fake

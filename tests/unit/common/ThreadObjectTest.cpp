// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "ThreadObject.h"

namespace {

// Knows whether it was destroyed: its memory (thread storage) outlives it.
struct Probe {
    bool alive = true;
    int uses = 0;
    ~Probe() { alive = false; }
};

// One call site, so one object per thread: how often it was used, or -1 when handed a destroyed one.
int useProbe()
{
    return kuv::withThreadObject<Probe>([](Probe& p) { return p.alive ? ++p.uses : -1; });
}

} // namespace

TEST(ThreadObject, EachThreadKeepsItsOwnObject)
{
    EXPECT_EQ(useProbe(), 1);
    EXPECT_EQ(useProbe(), 2);
    int other = 0;
    std::thread([&] { other = useProbe(); }).join();
    EXPECT_EQ(other, 1);
    EXPECT_EQ(useProbe(), 3);
}

// exit() destroys the main thread's per-thread objects before it runs atexit handlers and static
// destructors: those are handed a fresh object, never the destroyed one.
TEST(ThreadObjectDeathTest, AnExitHandlerGetsAFreshObject)
{
    EXPECT_EXIT(
        {
            useProbe();
            useProbe();
            std::atexit([] { _exit(useProbe() == 1 ? 0 : 3); });
            std::exit(7);
        },
        testing::ExitedWithCode(0), "");
}

// The same on a thread of its own: a thread_local destructor that runs after the object is gone.
TEST(ThreadObject, AThreadsLastDestructorGetsAFreshObject)
{
    int seen = 0;
    std::thread([&] {
        struct Late {
            int* out;
            ~Late() { *out = useProbe(); }
        };
        thread_local Late late{&seen}; // made first, so destroyed after the probe
        useProbe();
        useProbe();
        (void)late;
    }).join();
    EXPECT_EQ(seen, 1);
}

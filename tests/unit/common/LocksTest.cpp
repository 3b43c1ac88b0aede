// SPDX-License-Identifier: GPL-2.0-or-later
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <type_traits>

#include "Locks.h"

#include <dlfcn.h>
#include <pthread.h>

// A test double of the lock primitive: this executable's pthread_rwlock_unlock and
// pthread_mutex_destroy are seen before libc's. Calls on the watched object are counted, and an
// unlock of a lock that is not held is absorbed instead of reaching pthreads (where it would be
// undefined behaviour).
namespace {
std::atomic<void*> g_watched{nullptr};
std::atomic<int> g_unlocks{0};
std::atomic<int> g_forwardedUnlocks{0};
std::atomic<int> g_destroys{0};
bool g_watchedHeld = false;
} // namespace

extern "C" int pthread_rwlock_unlock(pthread_rwlock_t* lock)
{
    using Fn = int (*)(pthread_rwlock_t*);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "pthread_rwlock_unlock"));
    if (lock == g_watched.load()) {
        ++g_unlocks;
        if (!g_watchedHeld) {
            return 0;
        }
        g_watchedHeld = false;
        ++g_forwardedUnlocks;
    }
    return real(lock);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t* mutex)
{
    using Fn = int (*)(pthread_mutex_t*);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "pthread_mutex_destroy"));
    if (mutex == g_watched.load()) {
        ++g_destroys;
    }
    return real(mutex);
}

namespace {
// The pthread object inside a wrapper is its only member.
template <typename T>
void watch(T& object)
{
    g_unlocks = 0;
    g_forwardedUnlocks = 0;
    g_destroys = 0;
    g_watched = static_cast<void*>(&object);
}
} // namespace

// Either guard, unlocked early, unlocks again when it goes: the second unlock is absorbed by the
// double (only one reaches pthreads).
template <typename Guard>
class EarlyUnlock : public ::testing::Test {};
using Guards = ::testing::Types<CReadLocker, CWriteLocker>;
TYPED_TEST_SUITE(EarlyUnlock, Guards);

TYPED_TEST(EarlyUnlock, UnlocksAgainInDestructor)
{
    CRwLock lock;
    watch(lock);
    {
        TypeParam guard(lock);
        g_watchedHeld = true;
        guard.unlock();
        EXPECT_EQ(g_unlocks.load(), 1);
    }
    EXPECT_EQ(g_unlocks.load(), 2);
    EXPECT_EQ(g_forwardedUnlocks.load(), 1);
    g_watched = nullptr;
}

TEST(Locks, ScopedGuardUnlocksOnce)
{
    CRwLock lock;
    watch(lock);
    {
        CWriteLocker guard(lock);
        g_watchedHeld = true;
    }
    EXPECT_EQ(g_unlocks.load(), 1);
    g_watched = nullptr;
}

TEST(Locks, MutexDestroyedThroughOwnTypeDestroysThePthreadMutex)
{
    {
        CMutex mutex;
        // The vtable pointer comes first; the pthread mutex follows it.
        g_destroys = 0;
        g_watched = reinterpret_cast<char*>(&mutex) + sizeof(void*);
    }
    EXPECT_EQ(g_destroys.load(), 1);
    g_watched = nullptr;
}

TEST(Locks, BaseInterfaceCannotDestroyAMutex)
{
    // No virtual destructor, and not destructible through the base: deleting a CMutex through a
    // CBasicLock* (which would skip ~CMutex) does not compile.
    EXPECT_FALSE(std::has_virtual_destructor<CBasicLock>::value);
    EXPECT_FALSE(std::is_destructible<CBasicLock>::value);
    EXPECT_TRUE(std::is_destructible<CMutex>::value);
}

TEST(Locks, GuardsHoldOnlyAPointer)
{
    EXPECT_EQ(sizeof(CReadLocker), sizeof(void*));
    EXPECT_EQ(sizeof(CWriteLocker), sizeof(void*));
    EXPECT_FALSE(std::is_polymorphic<CRwLock>::value);
    EXPECT_FALSE(std::has_virtual_destructor<CBasicLock>::value);
    EXPECT_TRUE(std::is_abstract<CBasicLock>::value);
}

TEST(Locks, ReadLockIsShared)
{
    CRwLock lock;
    CReadLocker first(lock);
    std::atomic<bool> gotIt{false};
    std::thread other([&] {
        CReadLocker second(lock);
        gotIt = true;
    });
    other.join();
    EXPECT_TRUE(gotIt.load());
}

TEST(Locks, WriteLockExcludesReaders)
{
    CRwLock lock;
    std::atomic<int> stage{0};
    std::thread reader;
    {
        CWriteLocker writer(lock);
        reader = std::thread([&] {
            stage = 1;
            CReadLocker read(lock);
            stage = 2;
        });
        while (stage.load() == 0) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(stage.load(), 1);
    }
    reader.join();
    EXPECT_EQ(stage.load(), 2);
}

TEST(Locks, MutexSerialises)
{
    CMutex mutex;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                mutex.lock();
                ++counter;
                mutex.unlock();
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(counter, 40000);
}

TEST(Locks, MutexThroughBaseInterface)
{
    CMutex mutex;
    CBasicLock& base = mutex;
    base.lock();
    std::atomic<bool> acquired{false};
    std::thread other([&] {
        mutex.lock();
        acquired = true;
        mutex.unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(acquired.load());
    base.unlock();
    other.join();
    EXPECT_TRUE(acquired.load());
}

// SPDX-License-Identifier: GPL-2.0-or-later
// Singleton templates: one instance per type, created on first use under a mutex, released explicitly.
#pragma once

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

namespace kuv {

// The one implementation behind utils:: and config::SingletonAbstract. The instance pointer is an
// atomic, so the lock-free fast path of createOnce() is a proper acquire load. Creation and
// destruction go through functions of the friend class that T names, which may use T's private
// constructor and destructor.
template <typename T, typename Tag>
class SingletonCore {
public:
    // Destroys the instance, if any; the next instance() makes a new one.
    static void UninitInstance() { releaseInstance(); }

protected:
    SingletonCore() = default;
    ~SingletonCore() = default;

    using Destroy = void (*)(T*);

    template <typename Create>
    static T* createOnce(Create&& create, Destroy destroy)
    {
        T* current = s_instance.load(std::memory_order_acquire);
        if (current != nullptr) {
            return current;
        }
        std::lock_guard<std::mutex> lock(s_mutex);
        current = s_instance.load(std::memory_order_relaxed);
        if (current == nullptr) {
            current = create();
            s_destroy = destroy;
            s_instance.store(current, std::memory_order_release);
        }
        return current;
    }

    static void releaseInstance()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        T* old = s_instance.exchange(nullptr, std::memory_order_acq_rel);
        if (old != nullptr) {
            s_destroy(old);
        }
    }

private:
    // Trivially destructible on purpose: an instance nobody released stays alive through exit, so
    // no destructor runs after the objects it uses are gone.
    static inline std::atomic<T*> s_instance{nullptr};
    static inline std::mutex s_mutex;
    static inline Destroy s_destroy = nullptr;
};

} // namespace kuv

namespace utils {

// GetInstance() creates on first use and releases again at exit.
template <typename T>
class SingletonAbstract : public kuv::SingletonCore<T, SingletonAbstract<T>> {
    using Core = kuv::SingletonCore<T, SingletonAbstract<T>>;

public:
    static T* GetInstance()
    {
        return Core::createOnce(
            [] {
                // Safe to run twice: the explicit release at exit and this one after main.
                static std::once_flag registered;
                std::call_once(registered, [] { std::atexit(&Core::UninitInstance); });
                return new (std::nothrow) T();
            },
            [](T* object) { delete object; });
    }
};

} // namespace utils

namespace config {

// instance() creates on first use; the owner releases it explicitly.
template <typename T>
class SingletonAbstract : public kuv::SingletonCore<T, SingletonAbstract<T>> {
    using Core = kuv::SingletonCore<T, SingletonAbstract<T>>;

public:
    static T* instance()
    {
        return Core::createOnce([] { return new (std::nothrow) T(); }, [](T* object) { delete object; });
    }
};

} // namespace config

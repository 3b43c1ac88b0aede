// SPDX-License-Identifier: GPL-2.0-or-later
// kuv::withThreadObject: a per-thread object that exit handlers and static destructors can still use.
#pragma once

namespace kuv {

// exit() destroys the main thread's thread_local objects before it runs atexit handlers and static
// destructors, so a cache kept in one would be used after its destruction by anything those call. Once
// this thread's object is gone, fn is handed a fresh temporary instead. Each call site has its own object.
template <typename T, typename Fn>
decltype(auto) withThreadObject(Fn&& fn)
{
    struct Holder {
        T value{};
        Holder() = default;
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        ~Holder() { gone() = true; }
        // Trivially destructible, so it stays readable until the thread's storage goes.
        static bool& gone()
        {
            thread_local bool flag = false;
            return flag;
        }
    };
    if (!Holder::gone()) {
        thread_local Holder holder;
        if (!Holder::gone()) {
            return fn(holder.value);
        }
    }
    T temporary{};
    return fn(temporary);
}

} // namespace kuv

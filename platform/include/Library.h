// SPDX-License-Identifier: GPL-2.0-or-later
// Owns one dlopen() handle: closed on destruction, movable, keeps dlerror() of the last failure.
#pragma once

#include <dlfcn.h>

#include <string>
#include <utility>

namespace kuv {

class Library {
public:
    Library() = default;
    explicit Library(std::string path) : m_path(std::move(path)) {}
    ~Library() { unload(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    Library(Library&& other) noexcept
        : m_path(std::move(other.m_path)), m_handle(std::exchange(other.m_handle, nullptr)),
          m_error(std::move(other.m_error))
    {
    }
    Library& operator=(Library&& other) noexcept
    {
        if (this != &other) {
            unload();
            m_path = std::move(other.m_path);
            m_handle = std::exchange(other.m_handle, nullptr);
            m_error = std::move(other.m_error);
        }
        return *this;
    }

    const std::string& path() const { return m_path; }
    void setPath(std::string path) { m_path = std::move(path); }
    bool loaded() const { return m_handle != nullptr; }
    void* handle() const { return m_handle; }
    // The loader's own words for the last failure of load(), resolve() or unload().
    const std::string& error() const { return m_error; }

    bool load(int flags = RTLD_NOW | RTLD_LOCAL)
    {
        unload();
        dlerror();
        m_handle = ::dlopen(m_path.c_str(), flags);
        if (m_handle == nullptr) {
            keepError();
            return false;
        }
        m_error.clear();
        return true;
    }

    bool unload()
    {
        if (m_handle == nullptr) {
            return true;
        }
        const int rc = ::dlclose(std::exchange(m_handle, nullptr));
        if (rc != 0) {
            keepError();
            return false;
        }
        return true;
    }

    // Address of an exported symbol, or nullptr with error() set.
    void* resolve(const char* name)
    {
        if (m_handle == nullptr) {
            m_error = "not loaded";
            return nullptr;
        }
        dlerror();
        void* symbol = ::dlsym(m_handle, name);
        if (symbol == nullptr) {
            keepError();
        }
        return symbol;
    }
    template <typename Fn>
    Fn resolveAs(const char* name)
    {
        return reinterpret_cast<Fn>(resolve(name));
    }

private:
    void keepError()
    {
        const char* why = ::dlerror();
        m_error = why != nullptr ? why : "unknown dynamic loader error";
    }

    std::string m_path;
    void* m_handle = nullptr;
    std::string m_error;
};

} // namespace kuv

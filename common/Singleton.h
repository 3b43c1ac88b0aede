// Singleton templates: static instance pointer and mutex, double-checked creation, explicit release.
#pragma once

#include <cstdlib>
#include <new>
#include <pthread.h>

namespace utils {

template <typename T>
class SingletonAbstract {
public:
    static T* GetInstance()
    {
        if (p_instance_ != nullptr) {
            return p_instance_;
        }
        pthread_mutex_lock(&m_mutex_);
        if (p_instance_ == nullptr) {
            p_instance_ = new (std::nothrow) T();
            // Safe to run twice: the explicit release at exit and this one after main.
            atexit(&SingletonAbstract<T>::UninitInstance);
        }
        pthread_mutex_unlock(&m_mutex_);
        return p_instance_;
    }

    static void UninitInstance()
    {
        pthread_mutex_lock(&m_mutex_);
        if (p_instance_ != nullptr) {
            delete p_instance_;
            p_instance_ = nullptr;
        }
        pthread_mutex_unlock(&m_mutex_);
    }

protected:
    SingletonAbstract() = default;
    ~SingletonAbstract() = default;

    static T* volatile p_instance_;
    static pthread_mutex_t m_mutex_;
};

template <typename T>
T* volatile SingletonAbstract<T>::p_instance_ = nullptr;
template <typename T>
pthread_mutex_t SingletonAbstract<T>::m_mutex_ = PTHREAD_MUTEX_INITIALIZER;

} // namespace utils

namespace config {

template <typename T>
class SingletonAbstract {
public:
    static T* instance()
    {
        if (p_instance_ != nullptr) {
            return p_instance_;
        }
        pthread_mutex_lock(&m_mutex_);
        if (p_instance_ == nullptr) {
            p_instance_ = new (std::nothrow) T();
        }
        pthread_mutex_unlock(&m_mutex_);
        return p_instance_;
    }

    static void UninitInstance()
    {
        pthread_mutex_lock(&m_mutex_);
        if (p_instance_ != nullptr) {
            delete p_instance_;
            p_instance_ = nullptr;
        }
        pthread_mutex_unlock(&m_mutex_);
    }

protected:
    SingletonAbstract() = default;
    ~SingletonAbstract() = default;

    static T* volatile p_instance_;
    static pthread_mutex_t m_mutex_;
};

template <typename T>
T* volatile SingletonAbstract<T>::p_instance_ = nullptr;
template <typename T>
pthread_mutex_t SingletonAbstract<T>::m_mutex_ = PTHREAD_MUTEX_INITIALIZER;

} // namespace config

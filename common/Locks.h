// SPDX-License-Identifier: GPL-2.0-or-later
// Thin pthread wrappers: a reader/writer lock with scoped guards, and a plain mutex.
#pragma once

#include <pthread.h>

class CRwLock {
public:
    CRwLock();
    ~CRwLock();
    CRwLock(const CRwLock&) = delete;
    CRwLock& operator=(const CRwLock&) = delete;

    void rlock();
    void wlock();
    void unlock();

private:
    pthread_rwlock_t m_lock;
};

// Keeps no "held" flag on purpose: an early unlock() is followed by a second one in the destructor.
class CReadLocker {
public:
    explicit CReadLocker(CRwLock& lock);
    ~CReadLocker();
    CReadLocker(const CReadLocker&) = delete;
    CReadLocker& operator=(const CReadLocker&) = delete;
    void unlock();

private:
    CRwLock* m_pLock;
};

class CWriteLocker {
public:
    explicit CWriteLocker(CRwLock& lock);
    ~CWriteLocker();
    CWriteLocker(const CWriteLocker&) = delete;
    CWriteLocker& operator=(const CWriteLocker&) = delete;
    void unlock();

private:
    CRwLock* m_pLock;
};

// No virtual destructor by design: lock objects are always destroyed through their own type.
class CBasicLock {
public:
    virtual void lock() = 0;
    virtual void unlock() = 0;

protected:
    CBasicLock() = default;
    ~CBasicLock() = default;
};

class CMutex : public CBasicLock {
public:
    CMutex();
    ~CMutex();
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock() override;
    void unlock() override;

private:
    pthread_mutex_t m_mutex;
};

// SPDX-License-Identifier: GPL-2.0-or-later
#include "Locks.h"

#include <cstring>

CRwLock::CRwLock() { pthread_rwlock_init(&m_lock, nullptr); }
CRwLock::~CRwLock() { pthread_rwlock_destroy(&m_lock); }
void CRwLock::rlock() { pthread_rwlock_rdlock(&m_lock); }
void CRwLock::wlock() { pthread_rwlock_wrlock(&m_lock); }
void CRwLock::unlock() { pthread_rwlock_unlock(&m_lock); }

CReadLocker::CReadLocker(CRwLock& lock) : m_pLock(&lock) { m_pLock->rlock(); }
CReadLocker::~CReadLocker() { unlock(); }
void CReadLocker::unlock() { m_pLock->unlock(); }

CWriteLocker::CWriteLocker(CRwLock& lock) : m_pLock(&lock) { m_pLock->wlock(); }
CWriteLocker::~CWriteLocker() { unlock(); }
void CWriteLocker::unlock() { m_pLock->unlock(); }

CMutex::CMutex()
{
    memset(&m_mutex, 0, sizeof(m_mutex));
    pthread_mutex_init(&m_mutex, nullptr);
}
CMutex::~CMutex() { pthread_mutex_destroy(&m_mutex); }
void CMutex::lock() { pthread_mutex_lock(&m_mutex); }
void CMutex::unlock() { pthread_mutex_unlock(&m_mutex); }

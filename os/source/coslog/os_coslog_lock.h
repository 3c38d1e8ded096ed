// os_coslog_lock.h: the logger's locks, usable in a signal handler.
#pragma once

#include "os_types.h"

#include <atomic>
#include <cstdint>

// A lock with timed waits. A signal handler that logs may have interrupted the lock's owner: the lock is refused then.
class OsLogLock
{
public:
    bool Acquire(uint32_t a_u32Milliseconds);
    void Release() { m_u64Owner.store(0, std::memory_order_release); }

    bool IsHeld() const { return m_u64Owner.load(std::memory_order_acquire) != 0; }

    bool IsOwn() const;   // held by the calling thread

    // Waits until no other thread holds the lock. False on a timeout, or when the calling thread holds it.
    bool Wait(uint32_t a_u32Milliseconds) const;

private:
    std::atomic<uint64_t> m_u64Owner{0};   // thread id, 0 when free
};

class OsLogGuard
{
public:
    explicit OsLogGuard(OsLogLock& a_osloglock, uint32_t a_u32Milliseconds = OS_INFINITE)
        : m_osloglock(a_osloglock), m_blHeld(a_osloglock.Acquire(a_u32Milliseconds))
    {
    }
    ~OsLogGuard()
    {
        if (m_blHeld)
            m_osloglock.Release();
    }
    OsLogGuard(const OsLogGuard&) = delete;
    OsLogGuard& operator=(const OsLogGuard&) = delete;

    bool Held() const { return m_blHeld; }

private:
    OsLogLock& m_osloglock;
    bool m_blHeld;
};

// Restores the calling thread's errors at the end of the scope.
class OsLogKeepError
{
public:
    OsLogKeepError();
    ~OsLogKeepError();
    OsLogKeepError(const OsLogKeepError&) = delete;
    OsLogKeepError& operator=(const OsLogKeepError&) = delete;

    uint32_t Error() const { return m_u32Error; }

private:
    uint32_t m_u32Error;
    int m_iErrno;
};

// os_coslog_lock.h: the locks of the logger, which may be asked for by a signal handler.
#pragma once

#include "os_types.h"

#include <atomic>
#include <cstdint>

// A lock that a thread waits for with a limit. A signal handler that logs may find that the thread which it interrupted
// holds it: it is refused then.
class OsLogLock
{
public:
    bool Acquire(uint32_t a_u32Milliseconds);
    void Release() { m_u64Owner.store(0, std::memory_order_release); }

    bool IsHeld() const { return m_u64Owner.load(std::memory_order_acquire) != 0; }

    bool IsOwn() const;   // the calling thread holds it

    // Waits until no other thread holds it. False when it is still held then, or when the calling thread holds it.
    bool Wait(uint32_t a_u32Milliseconds) const;

private:
    std::atomic<uint64_t> m_u64Owner{0};   // a thread id, 0 when it is free
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

// Leaves the calling thread's errors as it found them.
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

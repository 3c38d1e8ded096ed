// os_coslog_lock.cpp: waiting for a lock with a time limit; the calling thread's errors.
#include "os_coslog_lock.h"

#include "plat_system.h"
#include "plat_thread.h"

#include <cerrno>
#include <thread>

bool OsLogLock::Acquire(uint32_t a_u32Milliseconds)
{
    uint64_t u64Free = 0;
    while (!m_u64Owner.compare_exchange_strong(u64Free, PlatThreadId(), std::memory_order_acquire))
    {
        if (!Wait(a_u32Milliseconds))
            return false;
        u64Free = 0;
    }
    return true;
}

bool OsLogLock::IsOwn() const
{
    return m_u64Owner.load(std::memory_order_relaxed) == PlatThreadId();
}

bool OsLogLock::Wait(uint32_t a_u32Milliseconds) const
{
    const uint64_t u64Begin = PlatTicks();
    while (const uint64_t u64Owner = m_u64Owner.load(std::memory_order_acquire))
    {
        const bool blOver = a_u32Milliseconds != OS_INFINITE && PlatTicks() - u64Begin >= a_u32Milliseconds;
        if (blOver || u64Owner == PlatThreadId())
            return false;
        std::this_thread::yield();
    }
    return true;
}

OsLogKeepError::OsLogKeepError() : m_u32Error(PlatGetLastError()), m_iErrno(errno) {}

OsLogKeepError::~OsLogKeepError()
{
    PlatSetLastError(m_u32Error);
    errno = m_iErrno;
}

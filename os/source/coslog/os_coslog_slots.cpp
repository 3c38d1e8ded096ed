// os_coslog_slots.cpp: claiming, entering and leaving a slot, reclaiming it from an ended thread.
#include "os_coslog_slots.h"

#include "plat_process.h"
#include "plat_thread.h"

#include <cstring>
#include <new>
#include <thread>
#include <utility>

// ------------------------------------------------------------------------------------------------------ one slot

// Untracked allocation: the memory tracker logs.
bool OsLogSlot::SetBuffer(size_t a_sizetBuffer)
{
    char* const szNew = new (std::nothrow) char[OS_LOGPREFIXMAX + a_sizetBuffer];
    if (!szNew)
        return false;
    delete[] szBuffer;
    szBuffer = szNew;
    sizetBuffer = a_sizetBuffer;
    return true;
}

OsLogLinePrefix OsLogSlot::Prefix(int32_t a_i32Number) const
{
    OsLogLinePrefix osloglineprefix = {.i32Number = a_i32Number,
                                       .ostimerecord = osloglinetime.ostimerecord,
                                       .u32Microseconds = osloglinetime.u32Microseconds,
                                       .pchSource = achSource,
                                       .sizetSource = sizetSource,
                                       .u32Line = u32Line,
                                       .u32LastError = u32LastError,
                                       .u64ThreadId = PlatThreadId(),
                                       .u8S = OS_LOGS,
                                       .u32Level = u32Level};
    if (blDeterministic)
    {
        osloglineprefix.i32Number = 0;
        osloglineprefix.ostimerecord = {};
        osloglineprefix.u32LastError = 0;
    }
    return osloglineprefix;
}

std::span<char> OsLogSlot::Line(int32_t a_i32Number) const
{
    char achPrefix[OS_LOGPREFIXMAX];
    const auto sizetPrefix = static_cast<size_t>(OsLogPutPrefix(achPrefix, Prefix(a_i32Number)) - achPrefix);
    char* const pchLine = Message() - sizetPrefix;
    std::memcpy(pchLine, achPrefix, sizetPrefix);
    return {pchLine, sizetPrefix + sizetMessage};
}

// ----------------------------------------------------------------------------------------------------- the slots

COsLogSlots::~COsLogSlots()
{
    for (OsLogSlot& oslogslot : m_aoslogslot)
        delete[] oslogslot.szBuffer;
}

// The index of the thread's last slot, only a hint: it may belong to another thread or another logger by now.
static thread_local size_t t_sizetSlot = 0;

OsLogSlot* COsLogSlots::Find(uint64_t a_u64ThreadId)
{
    for (size_t sizetTry = 0; sizetTry < OS_LOGSLOTS; ++sizetTry)
    {
        const size_t sizetSlot = (t_sizetSlot + sizetTry) % OS_LOGSLOTS;
        if (m_au64ThreadId[sizetSlot].load(std::memory_order_acquire) == a_u64ThreadId)
        {
            t_sizetSlot = sizetSlot;
            return &m_aoslogslot[sizetSlot];
        }
    }
    return nullptr;
}

bool COsLogSlots::IsInside()
{
    const OsLogSlot* const poslogslot = Find(PlatThreadId());
    return poslogslot && poslogslot->u32Busy.load(std::memory_order_relaxed) == OsLogSlot::OS_INSIDE;
}

OsLogSlot* COsLogSlots::ClaimFree(uint64_t a_u64ThreadId)
{
    for (size_t sizetSlot = 0; sizetSlot < OS_LOGSLOTS; ++sizetSlot)
    {
        uint64_t u64Free = 0;
        if (!m_au64ThreadId[sizetSlot].compare_exchange_strong(u64Free, a_u64ThreadId, std::memory_order_acq_rel))
            continue;
        t_sizetSlot = sizetSlot;
        return &m_aoslogslot[sizetSlot];
    }
    return nullptr;
}

// Lock-free, because a signal handler that logs may have interrupted a thread in here.
OsLogSlot* COsLogSlots::Claim(uint64_t a_u64ThreadId)
{
    if (OsLogSlot* const poslogslot = ClaimFree(a_u64ThreadId))
        return poslogslot;
    Reclaim();
    return ClaimFree(a_u64ThreadId);
}

// Frees the slots of ended threads. A slot is marked during the check, because its thread id may be reused by a new
// thread at any time; that thread then waits and looks again.
void COsLogSlots::Reclaim()
{
    for (size_t sizetSlot = 0; sizetSlot < OS_LOGSLOTS; ++sizetSlot)
    {
        OsLogSlot& oslogslot = m_aoslogslot[sizetSlot];
        const uint64_t u64ThreadId = m_au64ThreadId[sizetSlot].load(std::memory_order_acquire);
        uint32_t u32Busy = oslogslot.u32Busy.load(std::memory_order_relaxed);
        if (!u64ThreadId || u32Busy == OsLogSlot::OS_RECLAIM || PlatThreadIsAlive(u64ThreadId) ||
            !oslogslot.u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_RECLAIM, std::memory_order_acquire))
            continue;
        const bool blEnded =
            m_au64ThreadId[sizetSlot].load(std::memory_order_relaxed) == u64ThreadId && !PlatThreadIsAlive(u64ThreadId);
        if (blEnded)
        {
            OsLogFile::Release(std::exchange(oslogslot.poslogfile, nullptr));   // of one terminated inside a call
            delete[] oslogslot.szBuffer;
            oslogslot.szBuffer = nullptr;
            m_au64ThreadId[sizetSlot].store(0, std::memory_order_release);
        }
        oslogslot.u32Busy.store(blEnded ? OsLogSlot::OS_IDLE : u32Busy, std::memory_order_release);
    }
}

OsLogSlot* COsLogSlots::Enter(size_t a_sizetBuffer, EOSLOGLOST& a_eosloglost)
{
    const uint64_t u64ThreadId = PlatThreadId();
    for (;;)
    {
        OsLogSlot* poslogslot = Find(u64ThreadId);
        if (!poslogslot)
            poslogslot = Claim(u64ThreadId);
        if (!poslogslot)
        {
            a_eosloglost = OS_LOGLOST_THREADS;
            return nullptr;
        }

        uint32_t u32Busy = OsLogSlot::OS_IDLE;
        if (!poslogslot->u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_INSIDE, std::memory_order_acquire))
        {
            if (u32Busy == OsLogSlot::OS_INSIDE)
                return nullptr;
            std::this_thread::yield();
            continue;
        }
        std::atomic<uint64_t>& u64Holder = m_au64ThreadId[poslogslot - m_aoslogslot];
        const bool blMine = u64Holder.load(std::memory_order_acquire) == u64ThreadId;
        if (blMine && (poslogslot->szBuffer || poslogslot->SetBuffer(a_sizetBuffer)))
            return poslogslot;
        poslogslot->u32Busy.store(OsLogSlot::OS_IDLE, std::memory_order_release);
        if (blMine)
        {
            u64Holder.store(0, std::memory_order_release);
            a_eosloglost = OS_LOGLOST_MEMORY;
            return nullptr;
        }
    }
}

OsLogSlot* COsLogSlots::EnterAgain(OsLogSlot** a_pposlogslotInside)
{
    *a_pposlogslotInside = nullptr;
    OsLogSlot* const poslogslot = Find(PlatThreadId());
    uint32_t u32Busy = OsLogSlot::OS_IDLE;
    if (poslogslot && poslogslot->u32Busy.compare_exchange_strong(u32Busy, OsLogSlot::OS_INSIDE))
        return poslogslot;
    if (poslogslot && u32Busy == OsLogSlot::OS_INSIDE)
        *a_pposlogslotInside = poslogslot;
    return nullptr;
}

// Keeps the buffer of a call that was in progress: it may have been half replaced.
void COsLogSlots::LeaveToParent()
{
    for (size_t sizetSlot = 0; sizetSlot < OS_LOGSLOTS; ++sizetSlot)
    {
        OsLogSlot& oslogslot = m_aoslogslot[sizetSlot];
        OsLogFile::Release(std::exchange(oslogslot.poslogfile, nullptr));
        if (oslogslot.u32Busy.exchange(OsLogSlot::OS_IDLE) != OsLogSlot::OS_IDLE)
            oslogslot.szBuffer = nullptr;
        m_au64ThreadId[sizetSlot] = 0;
    }
}

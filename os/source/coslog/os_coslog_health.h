// os_coslog_health.h: how the logger fares: where its lines go, what was written and what was lost, and why.
//
// It is counted here for this process and in the status file for others. Nothing waits, but for a few instructions: a
// line is counted wherever it is lost, also in a signal handler.
#pragma once

#include "os_coslog_lock.h"
#include "os_coslogstatus.h"
#include "os_coslogstatus_own.h"

#include <atomic>

class COsLogHealth
{
public:
    COsLogHealth() = default;
    COsLogHealth(const COsLogHealth&) = delete;
    COsLogHealth& operator=(const COsLogHealth&) = delete;

    void Wrote(EOSLOGWHERE a_eoslogwhere);
    void Lost(EOSLOGLOST a_eosloglost);

    // By what the system said of a file. a_eosloglost is why when the disk has room.
    void Lost(EOSLOGLOST a_eosloglost, uint32_t a_u32Error, const char* a_szPath);

    // Logging has been switched off by a failure, of which the two are as above: from now on each line is lost for it.
    void GoneOff(EOSLOGLOST a_eosloglost, uint32_t a_u32Error = 0)
    {
        m_u32GoneOff.store(Reason(a_eosloglost, a_u32Error) + 1u, std::memory_order_relaxed);
    }
    void LostWhileOff()
    {
        if (const uint32_t u32GoneOff = m_u32GoneOff.load(std::memory_order_relaxed))
            Lost(static_cast<EOSLOGLOST>(u32GoneOff - 1));
    }

    // Where the next line will go.
    void SetWhere(EOSLOGWHERE a_eoslogwhere);

    // Lines were lost, lines are written again, and nothing says so yet; once a second at most.
    bool IsOwed() const { return m_u64Owed.load(std::memory_order_relaxed) != 0 && IsDue(); }

    // Writes what is owed, as "%llu (REASON), %llu (REASON)"; false when nothing is, or when another thread does this.
    // Settle ends it: what is not told is owed again.
    bool TakeOwed(char* a_szText, size_t a_sizetText);
    void Settle(bool a_blTold);

    OsLogHealth Tell();

    // Has the status file say the same.
    void Publish();

private:
    static EOSLOGLOST Reason(EOSLOGLOST a_eosloglost, uint32_t a_u32Error);
    bool IsDue() const;

    OsLogStatusCounts m_oslogstatuscounts{};
    std::atomic<uint32_t> m_u32Where{OS_LOGWHERE_NOWHERE};
    std::atomic<uint32_t> m_u32GoneOff{0};     // a reason and 1
    std::atomic<uint64_t> m_u64Owed{0};        // lines
    std::atomic<uint64_t> m_u64OwedAgain{0};   // ticks
    std::atomic_flag m_atomicflagTelling;
    uint64_t m_au64Told[OS_LOGLOST_LAST] = {};   // of the thread that tells
    uint64_t m_au64Telling[OS_LOGLOST_LAST] = {};

    OsLogLock m_osloglock;   // what follows
    uint32_t m_u32LastError = 0;
    uint64_t m_u64LastErrorTime = 0;
    char m_szLastErrorPath[OS_PATHSIZE] = {};
};

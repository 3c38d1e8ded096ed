// os_coslog_health.h: the logger's state: its destination, and the numbers of lines written and lost by reason.
//
// Counted here for this process and in the status file for others. Lines are also lost in signal handlers, so nothing
// here blocks for more than a few instructions.
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

    // Classifies by the file's system error. a_eosloglost is the reason unless the disk is full.
    void Lost(EOSLOGLOST a_eosloglost, uint32_t a_u32Error, const char* a_szPath);

    // A failure, with arguments as above, has switched logging off: each line from now on is lost for this reason.
    void GoneOff(EOSLOGLOST a_eosloglost, uint32_t a_u32Error = 0)
    {
        m_u32GoneOff.store(Reason(a_eosloglost, a_u32Error) + 1u, std::memory_order_relaxed);
    }
    void LostWhileOff()
    {
        if (const uint32_t u32GoneOff = m_u32GoneOff.load(std::memory_order_relaxed))
            Lost(static_cast<EOSLOGLOST>(u32GoneOff - 1));
    }

    // Sets the destination of the next line.
    void SetWhere(EOSLOGWHERE a_eoslogwhere);

    // True when losses are unreported, lines are being written again, and the last report is at least a second old.
    bool IsOwed() const { return m_u64Owed.load(std::memory_order_relaxed) != 0 && IsDue(); }

    // Formats the unreported losses as "%llu (REASON), %llu (REASON)"; false without any, or when another thread is
    // reporting. Must be followed by Settle; losses whose report failed stay unreported.
    bool TakeOwed(char* a_szText, size_t a_sizetText);
    void Settle(bool a_blTold);

    OsLogHealth Tell();

    // Copies the state to the status file.
    void Publish();

private:
    static EOSLOGLOST Reason(EOSLOGLOST a_eosloglost, uint32_t a_u32Error);
    bool IsDue() const;

    OsLogStatusCounts m_oslogstatuscounts{};
    std::atomic<uint32_t> m_u32Where{OS_LOGWHERE_NOWHERE};
    std::atomic<uint32_t> m_u32GoneOff{0};     // reason + 1
    std::atomic<uint64_t> m_u64Owed{0};        // unreported lines
    std::atomic<uint64_t> m_u64OwedAgain{0};   // ticks
    std::atomic_flag m_atomicflagTelling;
    uint64_t m_au64Told[OS_LOGLOST_LAST] = {};   // owned by the reporting thread
    uint64_t m_au64Telling[OS_LOGLOST_LAST] = {};

    OsLogLock m_osloglock;   // guards the members below
    uint32_t m_u32LastError = 0;
    uint64_t m_u64LastErrorTime = 0;
    char m_szLastErrorPath[OS_PATHSIZE] = {};
};

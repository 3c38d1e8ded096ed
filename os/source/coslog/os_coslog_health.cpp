// os_coslog_health.cpp: counting, the line that reports losses, the answer.
#include "os_coslog_health.h"

#include "os_coslog_format.h"
#include "os_log.h"

#include "plat_system.h"

#include <algorithm>
#include <cstring>

static constexpr uint64_t g_u64OwedAgain = 1000;   // ms

// --------------------------------------------------------------------------------------------------------- counting

// The status file's count may lag by one until the next line: a second atomic addition would slow down each line.
static void Count(std::atomic<uint64_t>& a_u64Own, std::atomic<uint64_t>& a_u64Status)
{
    a_u64Status.store(a_u64Own.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void COsLogHealth::SetWhere(EOSLOGWHERE a_eoslogwhere)
{
    if (m_u32Where.load(std::memory_order_relaxed) == a_eoslogwhere)
        return;
    m_u32Where.store(a_eoslogwhere, std::memory_order_relaxed);
    COsLogStatusOwn::Get().Record().u32Where.store(a_eoslogwhere, std::memory_order_relaxed);
}

void COsLogHealth::Wrote(EOSLOGWHERE a_eoslogwhere)
{
    Count(m_oslogstatuscounts.u64Written, COsLogStatusOwn::Get().Record().oslogstatuscounts.u64Written);
    SetWhere(a_eoslogwhere);
}

// Formatting failures have been reported on the standard error stream.
static bool IsTold(EOSLOGLOST a_eosloglost)
{
    return a_eosloglost != OS_LOGLOST_FORMAT;
}

void COsLogHealth::Lost(EOSLOGLOST a_eosloglost)
{
    Count(m_oslogstatuscounts.au64Lost[a_eosloglost],
          COsLogStatusOwn::Get().Record().oslogstatuscounts.au64Lost[a_eosloglost]);
    if (IsTold(a_eosloglost))
        m_u64Owed.fetch_add(1, std::memory_order_relaxed);
}

EOSLOGLOST COsLogHealth::Reason(EOSLOGLOST a_eosloglost, uint32_t a_u32Error)
{
    return a_u32Error == PLAT_ERROR_DISKFULL ? OS_LOGLOST_NOSPACE : a_eosloglost;
}

void COsLogHealth::Lost(EOSLOGLOST a_eosloglost, uint32_t a_u32Error, const char* a_szPath)
{
    Lost(Reason(a_eosloglost, a_u32Error));
    SetWhere(OS_LOGWHERE_NOWHERE);
    const uint64_t u64Time = PlatClock();
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held())
    {
        m_u32LastError = a_u32Error;
        m_u64LastErrorTime = u64Time;
        *std::copy_n(a_szPath, std::min(std::strlen(a_szPath), sizeof m_szLastErrorPath - 1), m_szLastErrorPath) = '\0';
    }
    COsLogStatusOwn::Get().PutError(a_u32Error, u64Time, a_szPath);
}

// -------------------------------------------------------------------------------------------------- what is told

bool COsLogHealth::IsDue() const
{
    return m_u32Where.load(std::memory_order_relaxed) != OS_LOGWHERE_NOWHERE &&
           PlatTicks() >= m_u64OwedAgain.load(std::memory_order_relaxed);
}

bool COsLogHealth::TakeOwed(char* a_szText, size_t a_sizetText)
{
    *a_szText = '\0';
    if (m_u64Owed.load() == 0 || m_atomicflagTelling.test_and_set(std::memory_order_acquire))
        return false;
    m_u64Owed.store(0);
    for (size_t sizet = 0; sizet < OS_LOGLOST_LAST; ++sizet)
    {
        m_au64Telling[sizet] = m_oslogstatuscounts.au64Lost[sizet].load();
        const uint64_t u64Lost = m_au64Telling[sizet] - m_au64Told[sizet];
        if (u64Lost != 0 && IsTold(static_cast<EOSLOGLOST>(sizet)))
        {
            LogSStrCatf(a_szText, a_sizetText, "%s%llu (%s)", *a_szText ? ", " : "",
                        static_cast<unsigned long long>(u64Lost), OsLogLostText(static_cast<EOSLOGLOST>(sizet)));
        }
    }
    if (*a_szText)
        return true;
    m_atomicflagTelling.clear(std::memory_order_release);
    return false;
}

void COsLogHealth::Settle(bool a_blTold)
{
    if (a_blTold)
        std::copy(std::begin(m_au64Telling), std::end(m_au64Telling), m_au64Told);
    else
        m_u64Owed.fetch_add(1);
    m_u64OwedAgain = PlatTicks() + g_u64OwedAgain;
    m_atomicflagTelling.clear(std::memory_order_release);
}

OsLogHealth COsLogHealth::Tell()
{
    const int iState = OsLogGetState();
    const bool blOff = iState == OS_LOGSTATE_OFF || iState == OS_LOGSTATE_NOTSTARTED;
    OsLogHealth osloghealth = {};
    osloghealth.eoslogwhere = blOff ? OS_LOGWHERE_NOWHERE : static_cast<EOSLOGWHERE>(m_u32Where.load());
    osloghealth.u64Written = m_oslogstatuscounts.u64Written;
    std::copy(std::begin(m_oslogstatuscounts.au64Lost), std::end(m_oslogstatuscounts.au64Lost), osloghealth.au64Lost);
    if (const OsLogGuard oslogguard(m_osloglock); oslogguard.Held())
    {
        osloghealth.u32LastError = m_u32LastError;
        osloghealth.u64LastErrorTime = m_u64LastErrorTime;
        std::copy(std::begin(m_szLastErrorPath), std::end(m_szLastErrorPath), osloghealth.szLastErrorPath);
    }
    return osloghealth;
}

void COsLogHealth::Publish()
{
    const OsLogHealth osloghealth = Tell();
    OsLogStatusRecord& oslogstatusrecord = COsLogStatusOwn::Get().Record();
    oslogstatusrecord.u32Where = m_u32Where.load();
    oslogstatusrecord.oslogstatuscounts.u64Written = osloghealth.u64Written;
    std::copy(std::begin(osloghealth.au64Lost), std::end(osloghealth.au64Lost),
              oslogstatusrecord.oslogstatuscounts.au64Lost);
    if (osloghealth.u32LastError != 0)
    {
        COsLogStatusOwn::Get().PutError(osloghealth.u32LastError, osloghealth.u64LastErrorTime,
                                        osloghealth.szLastErrorPath);
    }
}

// os_costime.cpp: time records and time stamps.
#include "os_costime.h"

#include "os_cosstring.h"
#include "os_log.h"

#include "plat_system.h"

#include <bit>
#include <cstring>

static constexpr char g_szSource[] = "os/source/os_costime";

static_assert(offsetof(OsTimeRecord, u16Day) == offsetof(PlatTime, u16Day) &&
              offsetof(OsTimeRecord, u16Milliseconds) == offsetof(PlatTime, u16Milliseconds));

// One clock reading gives both, so that the microseconds belong to the record's millisecond.
static EOSSTS ReadClock(bool (*a_pConvert)(uint64_t, PlatTime*), OsTimeRecord* a_postimerecord,
                        uint32_t* a_pu32Microseconds)
{
    if (!a_postimerecord)
    {
        OSLOG(OS_LOG_CHECK, "a_ptimerecord is NULL...");
        return EOSSTS_NOTOPEN;
    }
    constexpr uint64_t OS_MICROSECONDSTO1970 = 11'644'473'600'000'000;
    const uint64_t u64Clock = PlatClock();
    if (a_pu32Microseconds)
        *a_pu32Microseconds = static_cast<uint32_t>((u64Clock / 10 - OS_MICROSECONDSTO1970) % 1000);
    PlatTime plattime{};
    if (!a_pConvert(u64Clock, &plattime))
        return EOSSTS_FAIL;
    *a_postimerecord = std::bit_cast<OsTimeRecord>(plattime);
    return EOSSTS_SUCCESS;
}

EOSSTS OsTimeLocal(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds)
{
    return ReadClock(PlatTimeLocal, a_postimerecord, a_pu32Microseconds);
}

EOSSTS OsTimeUtc(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds)
{
    return ReadClock(PlatTimeUtc, a_postimerecord, a_pu32Microseconds);
}

bool OsTimeFromClock(uint64_t a_u64Clock, OsTimeRecord* a_postimerecord)
{
    PlatTime plattime{};
    if (!PlatTimeLocal(a_u64Clock, &plattime))
        return false;
    *a_postimerecord = std::bit_cast<OsTimeRecord>(plattime);
    return true;
}

EOSSTS OsTimeStamp(const OsTimeRecord* a_postimerecord, uint32_t a_u32Microseconds, char* a_szTime)
{
    if (!a_szTime)
    {
        OSLOG(OS_LOG_CHECK, "a_szTime is null...");
        return EOSSTS_FAIL;
    }
    std::memset(a_szTime, 0, OS_TIMESTAMPSIZE);
    if (!a_postimerecord)
    {
        OSLOG(OS_LOG_CHECK, "a_ptimerecord is NULL...");
        return EOSSTS_FAIL;
    }
    const OsTimeRecord& record = *a_postimerecord;
    const int iLength = SStrPrintf(a_szTime, OS_TIMESTAMPSIZE, "%.4d%.2d%.2d%.2d%.2d%.2d%.3d%03u", record.u16Year,
                                   record.u16Month, record.u16Day, record.u16Hour, record.u16Minute, record.u16Second,
                                   record.u16Milliseconds, a_u32Microseconds);
    return iLength > 0 ? EOSSTS_SUCCESS : EOSSTS_FAIL;
}

EOSSTS OsTimeToSeconds(const OsTimeRecord* a_postimerecord, int64_t* a_pi64Seconds)
{
    if (!a_postimerecord || !a_pi64Seconds)
    {
        OSLOG(OS_LOG_ERROR, "a_ptimerecord or a_ptimet are NULL...");
        return EOSSTS_NOTOPEN;
    }
    *a_pi64Seconds = 0;
    int64_t i64Seconds = 0;
    bool blDaylight = false;
    const auto plattime = std::bit_cast<PlatTime>(*a_postimerecord);
    if (!PlatTimeToSeconds(&plattime, &i64Seconds, &blDaylight))
        return EOSSTS_FAIL;
    *a_pi64Seconds = i64Seconds - (blDaylight ? 3600 : 0);
    return EOSSTS_SUCCESS;
}

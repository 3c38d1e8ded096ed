// os_costime.h: time records and time stamps.
#pragma once

#include "os_types.h"

struct OsTimeRecord
{
    uint16_t u16Year;
    uint16_t u16Month;       // 1 to 12
    uint16_t u16DayOfWeek;   // 0 is Sunday
    uint16_t u16Day;
    uint16_t u16Hour;
    uint16_t u16Minute;
    uint16_t u16Second;
    uint16_t u16Milliseconds;
};

inline constexpr size_t OS_TIMESTAMPSIZE = 512;

// The time now, local or UTC. *a_pu32Microseconds (may be null) receives the microseconds within the millisecond.
// EOSSTS_NOTOPEN for a null record.
EOSSTS OsTimeLocal(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds);
EOSSTS OsTimeUtc(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds);

// The local time of a clock in units of 100 ns since 1601-01-01 UTC. False, with the record unchanged, for a time
// before 1601 or after 9999.
bool OsTimeFromClock(uint64_t a_u64Clock, OsTimeRecord* a_postimerecord);

// Writes the 20 digits of year, month, day, hour, minute, second, milliseconds and microseconds into a buffer of
// OS_TIMESTAMPSIZE bytes. EOSSTS_FAIL for a null destination.
EOSSTS OsTimeStamp(const OsTimeRecord* a_postimerecord, uint32_t a_u32Microseconds, char* a_szTime);

// Seconds since 1970 of a local date and time. EOSSTS_FAIL when it does not convert, EOSSTS_NOTOPEN for null.
EOSSTS OsTimeToSeconds(const OsTimeRecord* a_postimerecord, int64_t* a_pi64Seconds);

// os_costime.h: time records and time stamps.
#pragma once

#include "os_types.h"

#include "plat_system.h"

using OsTimeRecord = PlatTime;   // year, month, day of week, day, hour, minute, second, milliseconds

inline constexpr size_t OS_TIMESTAMPSIZE = 512;

// The time now, local or UTC. *a_pu32Microseconds (may be null) receives the microseconds within the millisecond.
// EOSSTS_NOTOPEN for a null record.
EOSSTS OsTimeLocal(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds);
EOSSTS OsTimeUtc(OsTimeRecord* a_postimerecord, uint32_t* a_pu32Microseconds);

// Writes the 20 digits of year, month, day, hour, minute, second, milliseconds and microseconds into a buffer of
// OS_TIMESTAMPSIZE bytes. EOSSTS_FAIL for a null destination.
EOSSTS OsTimeStamp(const OsTimeRecord* a_postimerecord, uint32_t a_u32Microseconds, char* a_szTime);

// Seconds since 1970 of a local date and time. EOSSTS_FAIL when it does not convert, EOSSTS_NOTOPEN for null.
EOSSTS OsTimeToSeconds(const OsTimeRecord* a_postimerecord, int64_t* a_pi64Seconds);

// os_coslogline.h: the prefix of every log line.
//
// Used by the logger, and by a collector for its own lines in a log file. Nothing here logs, locks or allocates.
#pragma once

#include "os_costime.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t OS_LOGPREFIXMAX = 128;   // longest prefix, with a margin

// The time of a line. The owner keeps the object from line to line: the calendar is converted once a second.
struct OsLogLineTime
{
    OsTimeRecord ostimerecord{};   // local time
    uint32_t u32Microseconds = 0;
    uint64_t u64Second = 0;   // for which ostimerecord was converted

    void Take();   // the time now
};

struct OsLogLinePrefix
{
    int32_t i32Number;
    OsTimeRecord ostimerecord;   // only the time of day
    uint32_t u32Microseconds;    // below the millisecond
    const char* pchSource;       // not terminated; 32 characters are shown
    size_t sizetSource;
    uint32_t u32Line;
    uint32_t u32LastError;
    uint64_t u64ThreadId;
    uint8_t u8S;
    uint32_t u32Level;
};

// Writes the prefix, at most OS_LOGPREFIXMAX bytes and without a terminator; returns its end.
char* OsLogPutPrefix(char* a_pch, const OsLogLinePrefix& a_osloglineprefix);

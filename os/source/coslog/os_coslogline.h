// os_coslogline.h: what every line of a log begins with.
//
// For whoever writes lines into a log file: the logger, and a collector that has a word of its own to say in it.
// Nothing here logs, locks or allocates.
#pragma once

#include "os_costime.h"

#include <cstddef>
#include <cstdint>

inline constexpr size_t OS_LOGPREFIXMAX = 128;   // room for a prefix, with a margin

// When a line was logged. Of one owner, who keeps it from line to line: the calendar is asked once a second.
struct OsLogLineTime
{
    OsTimeRecord ostimerecord{};   // local time
    uint32_t u32Microseconds = 0;
    uint64_t u64Second = 0;   // that ostimerecord was converted for

    void Take();   // the time now
};

struct OsLogLinePrefix
{
    int32_t i32Number;
    OsTimeRecord ostimerecord;   // of the day only
    uint32_t u32Microseconds;    // below the millisecond
    const char* pchSource;       // not closed by a zero; 32 characters of it are shown
    size_t sizetSource;
    uint32_t u32Line;
    uint32_t u32LastError;
    uint64_t u64ThreadId;
    uint8_t u8S;
    uint32_t u32Level;
};

// Writes the prefix, OS_LOGPREFIXMAX bytes at most and without a zero, and returns its end.
char* OsLogPutPrefix(char* a_pch, const OsLogLinePrefix& a_osloglineprefix);

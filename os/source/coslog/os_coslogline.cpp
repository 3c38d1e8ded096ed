// os_coslogline.cpp: the time and the prefix of a line.
#include "os_coslogline.h"

#include "os_log.h"

#include "plat_system.h"

#include <algorithm>
#include <cstring>

static constexpr uint64_t g_u64ClockPerSecond = 10000000;   // units of 100 ns
static constexpr uint64_t g_u64ClockPerMillisecond = 10000;
static constexpr uint64_t g_u64ClockPerMicrosecond = 10;

// Below the second all clocks agree.
void OsLogLineTime::Take()
{
    const uint64_t u64Clock = PlatClock();
    if (u64Clock / g_u64ClockPerSecond != u64Second && OsTimeFromClock(u64Clock, &ostimerecord))
        u64Second = u64Clock / g_u64ClockPerSecond;
    ostimerecord.u16Milliseconds = static_cast<uint16_t>(u64Clock / g_u64ClockPerMillisecond % 1000);
    u32Microseconds = static_cast<uint32_t>(u64Clock / g_u64ClockPerMicrosecond % 1000);
}

static constexpr char g_szPairs[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                                    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                                    "8081828384858687888990919293949596979899";

// Exactly two and three digits.
static char* PutPair(char* a_pch, uint32_t a_u32Number)
{
    std::memcpy(a_pch, g_szPairs + size_t{a_u32Number % 100} * 2, 2);
    return a_pch + 2;
}

static char* PutTriple(char* a_pch, uint32_t a_u32Number)
{
    *a_pch = static_cast<char>('0' + a_u32Number / 100 % 10);
    return PutPair(a_pch + 1, a_u32Number);
}

// Decimal, at least a_sizetDigits digits.
static char* PutNumber(char* a_pch, uint64_t a_u64Number, size_t a_sizetDigits)
{
    char achDigits[24];
    char* const pchEnd = achDigits + sizeof achDigits;
    char* pch = pchEnd;
    for (; a_u64Number >= 10; a_u64Number /= 100)
        std::memcpy(pch -= 2, g_szPairs + a_u64Number % 100 * 2, 2);
    if (a_u64Number)
        *--pch = static_cast<char>('0' + a_u64Number);
    while (static_cast<size_t>(pchEnd - pch) < a_sizetDigits)
        *--pch = '0';
    const auto sizetLength = static_cast<size_t>(pchEnd - pch);
    std::memcpy(a_pch, pch, sizetLength);
    return a_pch + sizetLength;
}

// A signed number of at least a_sizetDigits digits, filled with blanks to a_sizetWidth.
static char* PutSigned(char* a_pch, int32_t a_i32Number, size_t a_sizetDigits, size_t a_sizetWidth)
{
    char achNumber[24];
    char* pchEnd = achNumber;
    const int64_t i64Number = a_i32Number;
    if (i64Number < 0)
        *pchEnd++ = '-';
    pchEnd = PutNumber(pchEnd, static_cast<uint64_t>(i64Number < 0 ? -i64Number : i64Number), a_sizetDigits);
    const auto sizetLength = static_cast<size_t>(pchEnd - achNumber);
    for (size_t sizet = sizetLength; sizet < a_sizetWidth; ++sizet)
        *a_pch++ = ' ';
    std::memcpy(a_pch, achNumber, sizetLength);
    return a_pch + sizetLength;
}

static char LetterOf(uint32_t a_u32Level)
{
    switch (a_u32Level)
    {
    case OS_LOG_ERROR:
        return 'E';
    case OS_LOG_CHECK:
        return 'A';
    case OS_LOG_MILESTONE:
        return 'P';
    default:
        return '.';
    }
}

// "%05.5d %02.2d%02.2d%02.2d%03.3d%03.3d %-32.32s %5d %5d T%04llu S%d V%c ", formatted by hand because every line has
// it.
char* OsLogPutPrefix(char* a_pch, const OsLogLinePrefix& a_osloglineprefix)
{
    static constexpr size_t g_sizetSource = 32;
    const OsTimeRecord& ostimerecord = a_osloglineprefix.ostimerecord;
    char* pch = PutSigned(a_pch, a_osloglineprefix.i32Number, 5, 5);
    *pch++ = ' ';
    pch = PutPair(pch, ostimerecord.u16Hour);
    pch = PutPair(pch, ostimerecord.u16Minute);
    pch = PutPair(pch, ostimerecord.u16Second);
    pch = PutTriple(pch, ostimerecord.u16Milliseconds);
    pch = PutTriple(pch, a_osloglineprefix.u32Microseconds);
    *pch++ = ' ';
    const size_t sizetSource = std::min(a_osloglineprefix.sizetSource, g_sizetSource);
    std::memcpy(pch, a_osloglineprefix.pchSource, sizetSource);
    std::memset(pch + sizetSource, ' ', g_sizetSource + 1 - sizetSource);
    pch = PutSigned(pch + g_sizetSource + 1, static_cast<int32_t>(a_osloglineprefix.u32Line), 1, 5);
    *pch++ = ' ';
    pch = PutSigned(pch, static_cast<int32_t>(a_osloglineprefix.u32LastError), 1, 5);
    *pch++ = ' ';
    *pch++ = 'T';
    pch = PutNumber(pch, a_osloglineprefix.u64ThreadId, 4);
    *pch++ = ' ';
    *pch++ = 'S';
    pch = PutNumber(pch, a_osloglineprefix.u8S, 1);
    *pch++ = ' ';
    *pch++ = 'V';
    *pch++ = LetterOf(a_osloglineprefix.u32Level);
    *pch++ = ' ';
    return pch;
}

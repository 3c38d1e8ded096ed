// os_coslog_line.cpp: the prefix of a line, and the formatting that cannot fail through the logger.
#include "os_coslog_impl.h"

#include "os_cosstring.h"

#include "plat_process.h"
#include "plat_thread.h"

#include <algorithm>
#include <cstring>

// -------------------------------------------------------------------------------------------------------- prefix

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

// "%05.5d %02.2d%02.2d%02.2d%03.3d%03.3d %-32.32s %5d %5d T%04llu S%d V%c ", by hand: it is in every line.
char* OsLogPutPrefix(char* a_pch, const OsLogSlot& a_oslogslot, int32_t a_i32Number, uint8_t a_u8S,
                     bool a_blDeterministic)
{
    static constexpr size_t g_sizetSource = 32;
    const OsTimeRecord ostimerecord = a_blDeterministic ? OsTimeRecord{} : a_oslogslot.ostimerecord;
    char* pch = PutSigned(a_pch, a_blDeterministic ? 0 : a_i32Number, 5, 5);
    *pch++ = ' ';
    pch = PutPair(pch, ostimerecord.u16Hour);
    pch = PutPair(pch, ostimerecord.u16Minute);
    pch = PutPair(pch, ostimerecord.u16Second);
    pch = PutTriple(pch, ostimerecord.u16Milliseconds);
    pch = PutTriple(pch, a_oslogslot.u32Microseconds);
    *pch++ = ' ';
    const size_t sizetSource = std::min(a_oslogslot.sizetSource, g_sizetSource);
    std::memcpy(pch, a_oslogslot.achSource, sizetSource);
    std::memset(pch + sizetSource, ' ', g_sizetSource + 1 - sizetSource);
    pch = PutSigned(pch + g_sizetSource + 1, static_cast<int32_t>(a_oslogslot.u32Line), 1, 5);
    *pch++ = ' ';
    pch = PutSigned(pch, a_blDeterministic ? 0 : static_cast<int32_t>(a_oslogslot.u32LastError), 1, 5);
    *pch++ = ' ';
    *pch++ = 'T';
    pch = PutNumber(pch, PlatThreadId(), 4);
    *pch++ = ' ';
    *pch++ = 'S';
    pch = PutNumber(pch, a_u8S, 1);
    *pch++ = ' ';
    *pch++ = 'V';
    *pch++ = LetterOf(a_oslogslot.u32Level);
    *pch++ = ' ';
    return pch;
}

// ----------------------------------------------------------------------------------------------------- formatting

// Straight to the standard error stream: what is told there is that the logger itself has failed.
void LogTellStandardError(const char* a_szFormat, ...)
{
    char szText[2048];
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = OsFormat(szText, sizeof szText, a_szFormat, valist);
    va_end(valist);
    if (iLength > 0)
        PlatStandardWrite(PLAT_STANDARD_ERROR, szText, std::min(static_cast<size_t>(iLength), sizeof szText - 1));
}

void LogTellFormatFailed(const char* a_szFunction, const char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat)
{
    if (a_szBuffer && a_sizetBuffer && a_szFormat)
    {
        LogTellStandardError("%s failed...<%s>", a_szFunction, a_szFormat);
        return;
    }
    LogTellStandardError("%s failed...%p %u %p", a_szFunction, static_cast<const void*>(a_szBuffer),
                         static_cast<unsigned>(a_sizetBuffer), static_cast<const void*>(a_szFormat));
}

static int FormatAt(const char* a_szFunction, char* a_szBuffer, size_t a_sizetBuffer, bool a_blAppend,
                    const char* a_szFormat, va_list a_valist)
{
    if (a_szBuffer && a_sizetBuffer && a_szFormat)
    {
        const size_t sizetStart = a_blAppend ? std::min(std::strlen(a_szBuffer), a_sizetBuffer) : 0;
        const int iLength = OsFormat(a_szBuffer + sizetStart, a_sizetBuffer - sizetStart, a_szFormat, a_valist);
        if (iLength >= 0 && static_cast<size_t>(iLength) < a_sizetBuffer - sizetStart)
            return iLength + static_cast<int>(sizetStart);
        if (sizetStart < a_sizetBuffer)
            a_szBuffer[sizetStart] = '\0';
    }
    LogTellFormatFailed(a_szFunction, a_szBuffer, a_sizetBuffer, a_szFormat);
    return -1;
}

int LogSStrPrintf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...)
{
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = FormatAt("LogSStrPrintf", a_szBuffer, a_sizetBuffer, false, a_szFormat, valist);
    va_end(valist);
    return iLength;
}

int LogSStrCatf(char* a_szBuffer, size_t a_sizetBuffer, const char* a_szFormat, ...)
{
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = FormatAt("LogSStrCatf", a_szBuffer, a_sizetBuffer, true, a_szFormat, valist);
    va_end(valist);
    return iLength;
}

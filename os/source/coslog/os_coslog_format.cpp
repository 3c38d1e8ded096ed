// os_coslog_format.cpp: formatting whose errors bypass the logger.
#include "os_coslog_format.h"

#include "os_cosstring.h"

#include "plat_process.h"

#include <algorithm>
#include <cstring>

// Writes directly to the standard error stream: the logger itself has failed.
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

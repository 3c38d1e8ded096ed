// os_coswideprintf.cpp: formatting into 16-bit text.
#include "os_coswideprintf.h"

#include "os_coslocale.h"
#include "os_cosstring.h"
#include "os_log.h"

#include <cstdarg>
#include <memory>
#include <new>

static constexpr char g_szSource[] = "os/source/os_cosstring";

// Formats as UTF-8, then converts; -1 with the destination empty when either fails.
static int FormatWide(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist)
{
    *a_wszDestination = 0;
    const int iLength = OsFormat(nullptr, 0, a_szFormat, a_valist);
    if (iLength < 0)
        return -1;
    const size_t sizetText = static_cast<size_t>(iLength) + 1;
    const std::unique_ptr<char[]> szText(new (std::nothrow) char[sizetText]);
    if (!szText)
        return -1;
    OsFormat(szText.get(), sizetText, a_szFormat, a_valist);
    const size_t sizetWritten = CopyStringFromUtf8(a_wszDestination, a_sizetDestination, szText.get());
    return sizetWritten ? static_cast<int>(sizetWritten - 1) : -1;
}

int SWcsPrintf(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szFormat, ...)
{
    if (!a_wszDestination || !a_sizetDestination || !a_szFormat)
    {
        OSLOG(OS_LOG_CHECK, "%s failed...%p %u %p", "SWcsPrintf", static_cast<void*>(a_wszDestination),
              static_cast<unsigned>(a_sizetDestination), static_cast<const void*>(a_szFormat));
        return -1;
    }
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = FormatWide(a_wszDestination, a_sizetDestination, a_szFormat, valist);
    va_end(valist);
    if (iLength < 0)
        OSLOG(OS_LOG_CHECK, "%s failed...<%s>", "SWcsPrintf", a_szFormat);
    return iLength;
}

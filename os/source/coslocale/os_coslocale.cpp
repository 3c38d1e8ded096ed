// os_coslocale.cpp: conversion between UTF-8 and UTF-16, and the search in the table of languages
// (os_coslocale_table.cpp).
#include "os_coslocale.h"

#include "os_cfg.h"
#include "os_cosstring.h"
#include "os_log.h"

#include "plat_utf.h"

#include <atomic>
#include <string>

static constexpr char g_szSource[] = "os/source/os_coslocale";

// -------------------------------------------------------------------------------------------------- UTF-8 and 16

// Returns the number of characters without the terminator, SIZE_MAX when the text does not fit or is invalid UTF-8.
static size_t ToWide(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szText)
{
    size_t sizetLength = 0;
    while (*a_szText)
    {
        const uint32_t u32Point = PlatUtf8Take(a_szText);
        const size_t sizetUnits = u32Point < 0x10000 ? 1 : 2;
        if (u32Point == PLAT_UTF_INVALID || sizetLength + sizetUnits >= a_sizetDestination)
            return SIZE_MAX;
        sizetLength += PlatUtf16Put(a_wszDestination + sizetLength, u32Point);
    }
    a_wszDestination[sizetLength] = 0;
    return sizetLength;
}

size_t CopyStringFromUtf8(char16_t* a_wszDestination, size_t a_sizetDestination, const char* a_szText)
{
    if (!a_wszDestination || !a_sizetDestination || !a_szText)
    {
        OSLOG(OS_LOG_CHECK, "CopyStringFromUtf8 failed...%p %u %p", static_cast<void*>(a_wszDestination),
              static_cast<unsigned>(a_sizetDestination), static_cast<const void*>(a_szText));
        return 0;
    }
    const size_t sizetLength = ToWide(a_wszDestination, a_sizetDestination, a_szText);
    if (sizetLength == SIZE_MAX)
    {
        *a_wszDestination = 0;
        OSLOG(OS_LOG_ERROR, "CopyStringFromUtf8 failed <%s>", a_szText);
        return 0;
    }
    return sizetLength + 1;
}

// Calls a_take(bytes, count) for each character; false for invalid UTF-16.
template <class Take>
static bool ForEachUtf8(const char16_t* a_wszText, size_t a_sizetLength, Take a_take)
{
    const char16_t* const pwchEnd = a_wszText + a_sizetLength;
    while (a_wszText != pwchEnd)
    {
        const uint32_t u32Point = PlatUtf16Take(a_wszText, pwchEnd);
        if (u32Point == PLAT_UTF_INVALID)
            return false;
        char achPoint[PLAT_UTF8_MAX];
        a_take(achPoint, PlatUtf8Put(achPoint, u32Point));
    }
    return true;
}

size_t CopyStringToUtf8(char* a_szDestination, size_t a_sizetDestination, const char16_t* a_wszText,
                        size_t a_sizetLength)
{
    const bool blMeasure = !a_szDestination || !a_sizetDestination;
    if (!blMeasure)
        *a_szDestination = 0;
    if (!a_wszText)
    {
        OSLOG(OS_LOG_CHECK, "CopyStringToUtf8 failed...%p %u %p", static_cast<void*>(a_szDestination),
              static_cast<unsigned>(a_sizetDestination), static_cast<const void*>(a_wszText));
        return 0;
    }
    const size_t sizetText = a_sizetLength == SIZE_MAX ? std::char_traits<char16_t>::length(a_wszText) : a_sizetLength;

    size_t sizetNeeded = 0;
    const bool blUtf16 = ForEachUtf8(a_wszText, sizetText, [&](const char* a_pch, size_t a_sizetBytes) {
        if (!blMeasure && sizetNeeded + a_sizetBytes < a_sizetDestination)
            std::char_traits<char>::copy(a_szDestination + sizetNeeded, a_pch, a_sizetBytes);
        sizetNeeded += a_sizetBytes;
    });
    if (blMeasure)
    {
        if (!blUtf16)
            OSLOG(OS_LOG_CHECK, "WideCharToMultiByte failed...");
        return blUtf16 ? sizetNeeded : 0;
    }
    if (!blUtf16 || sizetNeeded >= a_sizetDestination)
    {
        *a_szDestination = 0;
        OSLOG(OS_LOG_CHECK, "WideCharToMultiByte failed...s=%d d=%d", static_cast<int>(sizetText),
              blUtf16 ? static_cast<int>(sizetNeeded) : 0);
        return 0;
    }
    a_szDestination[sizetNeeded] = 0;
    return sizetNeeded;
}

// ----------------------------------------------------------------------------------------------------- languages

// Computed once, as soon as the configuration has a language.
static uint32_t CurrentLanguage()
{
    static std::atomic<uint32_t> g_u32Current{0};
    if (const uint32_t u32Current = g_u32Current.load(std::memory_order_relaxed))
        return u32Current;
    const char* const szKey = OsCfgGetString(OS_CFGTAG_DEFAULTLANGUAGE);
    if (!*szKey)
        return OS_LANGUAGE_ENUSA;
    const uint32_t u32Language = OsLanguageGetId(szKey);
    const uint32_t u32Current = u32Language ? u32Language : OS_LANGUAGE_ENUSA;
    g_u32Current.store(u32Current, std::memory_order_relaxed);
    return u32Current;
}

uint32_t OsLanguageGetId(const char* a_szKey)
{
    if (!a_szKey)
        return CurrentLanguage();
    for (uint32_t u32 = 0; u32 < OS_LANGUAGECOUNT; ++u32)
    {
        if (StrICmp(OsLanguageGet(u32)->szKey, a_szKey) == 0)
            return u32;
    }
    OSLOG(OS_LOG_ERROR, "GetLanguageId: not found (%s)...", a_szKey);
    return 0;
}

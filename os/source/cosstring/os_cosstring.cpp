// os_cosstring.cpp: bounded copies and formatting, versions. The formatter and the functions that search,
// compare and read numbers have sources of their own.
#include "os_cosstring.h"
#include "os_log.h"

#include <charconv>
#include <cstring>
#include <string>

static constexpr char g_szSource[] = "os/source/os_cosstring";

// ---------------------------------------------------------------------------------------------------- failures

static bool IsUsable(const char* a_szFunction, const void* a_pvDestination, size_t a_sizetDestination,
                     const void* a_pvSource)
{
    if (a_pvDestination && a_sizetDestination && a_pvSource)
        return true;
    OSLOG(OS_LOG_CHECK, "%s failed...%p %u %p", a_szFunction, a_pvDestination,
          static_cast<unsigned>(a_sizetDestination), a_pvSource);
    return false;
}

static void LogFailed(const char* a_szFunction, const char* a_szText, uint32_t a_u32Level = OS_LOG_CHECK)
{
    OSLOG(a_u32Level, "%s failed...<%s>", a_szFunction, a_szText);
}

static void LogFailed(const char* a_szFunction, const char16_t* a_wszText)
{
    OSLOG(OS_LOG_CHECK, OsWideFormat("%s failed...<%S>"), a_szFunction, a_wszText);
}

// ----------------------------------------------------------------------------------------------- copy and append

// The length of a text, or a_sizetRoom if no terminator is found within that many characters.
template <class Char>
static size_t LengthWithin(const Char* a_tsz, size_t a_sizetRoom)
{
    const Char* const ptchEnd = std::char_traits<Char>::find(a_tsz, a_sizetRoom, Char());
    return ptchEnd ? static_cast<size_t>(ptchEnd - a_tsz) : a_sizetRoom;
}

template <class Char>
static void Copy(const char* a_szFunction, Char* a_tszDestination, size_t a_sizetDestination, const Char* a_tszSource)
{
    if (!IsUsable(a_szFunction, a_tszDestination, a_sizetDestination, a_tszSource))
        return;
    const size_t sizetSource = LengthWithin(a_tszSource, a_sizetDestination);
    if (sizetSource == a_sizetDestination)
    {
        LogFailed(a_szFunction, a_tszSource);
        *a_tszDestination = 0;
        return;
    }
    std::char_traits<Char>::move(a_tszDestination, a_tszSource, sizetSource + 1);
}

template <class Char>
static void Append(const char* a_szFunction, Char* a_tszDestination, size_t a_sizetDestination, const Char* a_tszSource)
{
    if (!IsUsable(a_szFunction, a_tszDestination, a_sizetDestination, a_tszSource))
        return;
    const size_t sizetText = LengthWithin(a_tszDestination, a_sizetDestination);
    const size_t sizetRoom = a_sizetDestination - sizetText;
    const size_t sizetSource = LengthWithin(a_tszSource, sizetRoom);
    if (sizetSource == sizetRoom)
    {
        LogFailed(a_szFunction, a_tszSource);
        *a_tszDestination = 0;
        return;
    }
    std::char_traits<Char>::copy(a_tszDestination + sizetText, a_tszSource, sizetSource + 1);
}

void SStrCpy(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource)
{
    Copy("SStrCpy", a_szDestination, a_sizetDestination, a_szSource);
}

void SStrCat(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource)
{
    Append("SStrCat", a_szDestination, a_sizetDestination, a_szSource);
}

void SWcsCpy(char16_t* a_wszDestination, size_t a_sizetDestination, const char16_t* a_wszSource)
{
    Copy("SWcsCpy", a_wszDestination, a_sizetDestination, a_wszSource);
}

void SWcsCat(char16_t* a_wszDestination, size_t a_sizetDestination, const char16_t* a_wszSource)
{
    Append("SWcsCat", a_wszDestination, a_sizetDestination, a_wszSource);
}

// -------------------------------------------------------------------------------------------------------- format

// The length of the text, or -1 with the destination empty when it does not fit or the format is unknown.
static int FormatWhole(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist)
{
    const int iLength = OsFormat(a_szDestination, a_sizetDestination, a_szFormat, a_valist);
    if (iLength >= 0 && static_cast<size_t>(iLength) < a_sizetDestination)
        return iLength;
    *a_szDestination = 0;
    return -1;
}

int SStrPrintf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, ...)
{
    if (!IsUsable("SStrPrintf", a_szDestination, a_sizetDestination, a_szFormat))
        return -1;
    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength = FormatWhole(a_szDestination, a_sizetDestination, a_szFormat, valist);
    va_end(valist);
    if (iLength < 0)
        LogFailed("SStrPrintf", a_szFormat);
    return iLength;
}

int SStrVprintf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, va_list a_valist)
{
    if (!IsUsable("SStrVprintf", a_szDestination, a_sizetDestination, a_szFormat))
        return -1;
    const int iLength = FormatWhole(a_szDestination, a_sizetDestination, a_szFormat, a_valist);
    if (iLength < 0)
        LogFailed("SStrVprintf", a_szFormat, OS_LOG_ERROR);
    return iLength;
}

// A destination without terminator is emptied, as on overflow.
int SStrCatf(char* a_szDestination, size_t a_sizetDestination, const char* a_szFormat, ...)
{
    if (!IsUsable("SStrCatf", a_szDestination, a_sizetDestination, a_szFormat))
        return -1;
    const size_t sizetText = LengthWithin(a_szDestination, a_sizetDestination);
    const bool blTerminated = sizetText < a_sizetDestination;
    if (!blTerminated)
        *a_szDestination = 0;

    va_list valist;
    va_start(valist, a_szFormat);
    const int iLength =
        blTerminated ? FormatWhole(a_szDestination + sizetText, a_sizetDestination - sizetText, a_szFormat, valist)
                     : -1;
    va_end(valist);
    if (iLength >= 0)
        return static_cast<int>(sizetText) + iLength;
    LogFailed("SStrCatf", a_szFormat);
    return -1;
}

int StrVcprintf(const char* a_szFormat, va_list a_valist)
{
    if (!a_szFormat)
    {
        OSLOG(OS_LOG_CHECK, "StrVcprintf null argument...%p", static_cast<const void*>(a_szFormat));
        return -1;
    }
    const int iLength = OsFormat(nullptr, 0, a_szFormat, a_valist);
    if (iLength < 0)
        LogFailed("StrVcprintf", a_szFormat, OS_LOG_ERROR);
    return iLength;
}

char* SStrFromNum(char* a_szDestination, size_t a_sizetDestination, uint64_t a_u64Number)
{
    if (!a_szDestination || !a_sizetDestination)
    {
        OSLOG(OS_LOG_CHECK, "SStrFromNum failed...%p %u", static_cast<void*>(a_szDestination),
              static_cast<unsigned>(a_sizetDestination));
        return a_szDestination;
    }
    char szNumber[24];
    *std::to_chars(szNumber, szNumber + sizeof szNumber, a_u64Number).ptr = 0;
    Copy<char>("SStrFromNum", a_szDestination, a_sizetDestination, szNumber);
    return a_szDestination;
}

// ------------------------------------------------------------------------------------------------------ versions

static constexpr size_t OS_VERSIONFIELDS = 4;

static uint32_t FieldNumber(const char* a_pch, const char* a_pchEnd)
{
    uint32_t u32Number = 0;
    const std::from_chars_result result = std::from_chars(a_pch, a_pchEnd, u32Number);
    return result.ec == std::errc::result_out_of_range ? UINT32_MAX : u32Number;
}

static EOSSTS ParseFields(const char* a_szText, uint32_t (&a_au32Fields)[OS_VERSIONFIELDS])
{
    const size_t sizetText = std::strlen(a_szText);
    if (std::strspn(a_szText, "0123456789.") != sizetText)
    {
        OSLOG(OS_LOG_NOTE, "Non-numeric version...<%s>", a_szText);
        return EOSSTS_NOTOPEN;
    }
    const bool blPacked = sizetText == 2 * OS_VERSIONFIELDS && !std::strchr(a_szText, '.');
    const char* pch = a_szText;
    for (uint32_t& u32Field : a_au32Fields)
    {
        const char* const pchEnd = blPacked ? pch + 2 : pch + std::strcspn(pch, ".");
        u32Field = FieldNumber(pch, pchEnd);
        pch = *pchEnd == '.' ? pchEnd + 1 : pchEnd;
        if (!*pchEnd)
            return EOSSTS_SUCCESS;
    }
    OSLOG(OS_LOG_NOTE, "More than 4 version fields...<%s>", a_szText);
    return EOSSTS_NOTOPEN;
}

EOSSTS StrVersionParse(const char* a_szText, uint32_t* a_pu32Major, uint32_t* a_pu32Minor, uint32_t* a_pu32Patch,
                       uint32_t* a_pu32Build)
{
    uint32_t* const apu32Outputs[OS_VERSIONFIELDS] = {a_pu32Major, a_pu32Minor, a_pu32Patch, a_pu32Build};
    bool blComplete = a_szText != nullptr;
    for (uint32_t* const pu32Output : apu32Outputs)
    {
        blComplete = blComplete && pu32Output;
        if (pu32Output)
            *pu32Output = 0;
    }
    if (!blComplete)
    {
        OSLOG(OS_LOG_ERROR, "invalid argument");
        return EOSSTS_FAIL;
    }

    uint32_t au32Fields[OS_VERSIONFIELDS] = {};
    if (const EOSSTS eossts = ParseFields(a_szText, au32Fields); eossts != EOSSTS_SUCCESS)
        return eossts;
    for (size_t sizet = 0; sizet < OS_VERSIONFIELDS; ++sizet)
        *apu32Outputs[sizet] = au32Fields[sizet];
    return EOSSTS_SUCCESS;
}

void SStrVersion(char* a_szDestination, size_t a_sizetDestination, const char* a_szText)
{
    if (!IsUsable("SStrVersion", a_szDestination, a_sizetDestination, a_szText))
        return;
    uint32_t u32Major = 0;
    uint32_t u32Minor = 0;
    uint32_t u32Patch = 0;
    uint32_t u32Build = 0;
    if (StrVersionParse(a_szText, &u32Major, &u32Minor, &u32Patch, &u32Build) != EOSSTS_SUCCESS)
    {
        SStrCpy(a_szDestination, a_sizetDestination, a_szText);
        return;
    }
    const char* const szFormat = u32Build ? "%u.%u.%u.%u" : u32Patch ? "%u.%u.%u" : "%u.%u";
    SStrPrintf(a_szDestination, a_sizetDestination, szFormat, u32Major, u32Minor, u32Patch, u32Build);
}

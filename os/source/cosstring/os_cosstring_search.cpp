// os_cosstring_search.cpp: search, compare, trim and replace, and parsing numbers.
#include "os_cosstring.h"
#include "os_log.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

static constexpr char g_szSource[] = "os/source/os_cosstring";

static constexpr std::string_view OS_WHITESPACE = " \t\n\v\f\r";

static int Fold(char a_ch)
{
    return static_cast<unsigned char>(a_ch >= 'A' && a_ch <= 'Z' ? a_ch + ('a' - 'A') : a_ch);
}

static bool AreThere(const char* a_szFunction, const void* a_pvFirst, const void* a_pvSecond)
{
    if (a_pvFirst && a_pvSecond)
        return true;
    OSLOG(OS_LOG_CHECK, "%s failed...%p %p", a_szFunction, a_pvFirst, a_pvSecond);
    return false;
}

// -------------------------------------------------------------------------------------------- search and compare

static bool StartsWithFolded(const char* a_szText, const char* a_szPrefix)
{
    while (*a_szPrefix && Fold(*a_szText) == Fold(*a_szPrefix))
    {
        ++a_szText;
        ++a_szPrefix;
    }
    return !*a_szPrefix;
}

const char* StrIstr(const char* a_szText, const char* a_szPattern)
{
    if (!AreThere("StrIstr", a_szText, a_szPattern))
        return nullptr;
    if (!*a_szPattern)
        return *a_szText ? nullptr : a_szText;
    for (; *a_szText; ++a_szText)
    {
        if (StartsWithFolded(a_szText, a_szPattern))
            return a_szText;
    }
    return nullptr;
}

bool StrStartsWith(const char* a_szText, const char* a_szPrefix)
{
    return AreThere("StrStartsWith", a_szText, a_szPrefix) &&
           std::strncmp(a_szText, a_szPrefix, std::strlen(a_szPrefix)) == 0;
}

bool StrIStartsWith(const char* a_szText, const char* a_szPrefix)
{
    return AreThere("StrIStartsWith", a_szText, a_szPrefix) && StartsWithFolded(a_szText, a_szPrefix);
}

// False if the suffix cannot match by length. An empty suffix matches only texts of at most one character.
static bool HasTail(size_t a_sizetText, size_t a_sizetSuffix)
{
    return a_sizetText >= a_sizetSuffix && (a_sizetSuffix > 0 || a_sizetText < 2);
}

bool StrEndsWith(const char* a_szText, const char* a_szSuffix, bool a_blIgnoreCase)
{
    if (!AreThere("StrEndsWith", a_szText, a_szSuffix))
        return false;
    const size_t sizetText = std::strlen(a_szText);
    const size_t sizetSuffix = std::strlen(a_szSuffix);
    if (!HasTail(sizetText, sizetSuffix))
        return false;
    const char* const szTail = a_szText + sizetText - sizetSuffix;
    return a_blIgnoreCase ? StartsWithFolded(szTail, a_szSuffix) : std::strcmp(szTail, a_szSuffix) == 0;
}

bool WcsEndsWith(const char16_t* a_wszText, const char16_t* a_wszSuffix)
{
    if (!AreThere("WcsEndsWith", a_wszText, a_wszSuffix))
        return false;
    const std::u16string_view strviewText(a_wszText);
    const std::u16string_view strviewSuffix(a_wszSuffix);
    return HasTail(strviewText.size(), strviewSuffix.size()) && strviewText.ends_with(strviewSuffix);
}

int StrICmp(const char* a_szLeft, const char* a_szRight)
{
    if (!AreThere("StrICmp", a_szLeft, a_szRight))
        return (a_szLeft != nullptr) - (a_szRight != nullptr);
    while (*a_szLeft && Fold(*a_szLeft) == Fold(*a_szRight))
    {
        ++a_szLeft;
        ++a_szRight;
    }
    return Fold(*a_szLeft) - Fold(*a_szRight);
}

void StrLower(char* a_szText)
{
    for (char* sz = a_szText; *sz; ++sz)
        *sz = static_cast<char>(Fold(*sz));
}

const char* StrFileName(const char* a_szPath)
{
    return a_szPath + (std::string_view(a_szPath).find_last_of("\\/") + 1);   // npos + 1 is the start
}

int StrWildcard(const char* a_szText, const char* a_szPattern, bool a_blIgnoreCase)
{
    if (!AreThere("StrWildcard", a_szText, a_szPattern))
        return 1;
    // Backtracks to the last "*" only: earlier ones need no retry.
    const char* szRunPattern = nullptr;
    const char* szRunText = nullptr;
    while (*a_szText)
    {
        const bool blSame = a_blIgnoreCase ? Fold(*a_szText) == Fold(*a_szPattern) : *a_szText == *a_szPattern;
        if (*a_szPattern == '*')
        {
            szRunPattern = ++a_szPattern;
            szRunText = a_szText;
        }
        else if (blSame || *a_szPattern == '?')
        {
            ++a_szText;
            ++a_szPattern;
        }
        else if (szRunPattern)
        {
            a_szPattern = szRunPattern;
            a_szText = ++szRunText;
        }
        else
        {
            return 1;
        }
    }
    return a_szPattern[std::strspn(a_szPattern, "*")] ? 1 : 0;
}

// ---------------------------------------------------------------------------------------------- trim and replace

void SStrTrim(char* a_szDestination, size_t a_sizetDestination, const char* a_szSource)
{
    if (!a_szDestination || !a_sizetDestination || !a_szSource)
    {
        OSLOG(OS_LOG_CHECK, "SStrTrim failed...%p %u %p", static_cast<void*>(a_szDestination),
              static_cast<unsigned>(a_sizetDestination), static_cast<const void*>(a_szSource));
        return;
    }
    std::string_view strview(a_szSource);
    strview.remove_prefix(std::min(strview.find_first_not_of(OS_WHITESPACE), strview.size()));
    strview = strview.substr(0, strview.find_last_not_of(OS_WHITESPACE) + 1);
    if (strview.size() >= a_sizetDestination)
    {
        OSLOG(OS_LOG_CHECK, "SStrTrim failed...<%s>", a_szSource);
        return;
    }
    std::memmove(a_szDestination, strview.data(), strview.size());
    a_szDestination[strview.size()] = 0;
}

// Counts non-overlapping occurrences of a_szFind, at most a_sizetMost.
static size_t CountOccurrences(const char* a_szText, const char* a_szFind, size_t a_sizetMost)
{
    size_t sizetCount = 0;
    const size_t sizetFind = std::strlen(a_szFind);
    while (sizetCount < a_sizetMost && (a_szText = std::strstr(a_szText, a_szFind)))
    {
        ++sizetCount;
        a_szText += sizetFind;
    }
    return sizetCount;
}

static void ReplaceOccurrences(char* a_szText, const char* a_szFind, const char* a_szReplacement, size_t a_sizetCount)
{
    const size_t sizetFind = std::strlen(a_szFind);
    const size_t sizetReplacement = std::strlen(a_szReplacement);
    for (; a_sizetCount; --a_sizetCount)
    {
        a_szText = std::strstr(a_szText, a_szFind);
        const char* const szRest = a_szText + sizetFind;
        std::memmove(a_szText + sizetReplacement, szRest, std::strlen(szRest) + 1);
        std::copy_n(a_szReplacement, sizetReplacement, a_szText);
        a_szText += sizetReplacement;
    }
}

EOSSTS SStrReplace(char* a_szText, size_t a_sizetText, const char* a_szFind, const char* a_szReplacement, bool a_blAll)
{
    const bool blNull = !a_szText || !a_szFind || !a_szReplacement;
    if (blNull || !a_sizetText)
    {
        OSLOG(blNull ? OS_LOG_CHECK : OS_LOG_NOTE, "%s...%p %d %p %p <%s> <%s> <%s>",
              blNull ? "null argument" : "0 dest size", static_cast<void*>(a_szText), static_cast<int>(a_sizetText),
              static_cast<const void*>(a_szFind), static_cast<const void*>(a_szReplacement), a_szText, a_szFind,
              a_szReplacement);
        return blNull ? EOSSTS_FAIL : EOSSTS_SUCCESS;
    }
    if (!*a_szFind)
        return EOSSTS_SUCCESS;
    const size_t sizetCount = CountOccurrences(a_szText, a_szFind, a_blAll ? SIZE_MAX : 1);
    if (!sizetCount)
        return EOSSTS_NOSPACE;

    const size_t sizetKept = std::strlen(a_szText) - sizetCount * std::strlen(a_szFind);
    if (sizetKept + sizetCount * std::strlen(a_szReplacement) >= a_sizetText)
    {
        OSLOG(OS_LOG_CHECK, "buffer overflow...<%s> %d <%s> <%s>", a_szText, static_cast<int>(a_sizetText), a_szFind,
              a_szReplacement);
        return EOSSTS_FAIL;
    }
    ReplaceOccurrences(a_szText, a_szFind, a_szReplacement, sizetCount);
    return EOSSTS_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------- numbers

static bool IsThere(const char* a_szFunction, const char* a_szText)
{
    if (a_szText)
        return true;
    OSLOG(OS_LOG_CHECK, "%s failed...%p", a_szFunction, static_cast<const void*>(a_szText));
    return false;
}

uint64_t StrHex(const char* a_szText)
{
    if (!IsThere("StrHex", a_szText))
        return 0;
    if (a_szText[0] == '0' && (a_szText[1] | 0x20) == 'x')
        a_szText += 2;
    uint64_t u64Number = 0;
    const std::from_chars_result result = std::from_chars(a_szText, a_szText + std::strlen(a_szText), u64Number, 16);
    return result.ec == std::errc::result_out_of_range ? UINT64_MAX : u64Number;
}

int64_t StrToInt64(const char* a_szText)
{
    if (!IsThere("StrToInt64", a_szText))
        return 0;
    std::string_view strview(a_szText);
    strview.remove_prefix(std::min(strview.find_first_not_of(OS_WHITESPACE), strview.size()));
    const bool blPlus = strview.starts_with('+') && !strview.starts_with("+-");
    strview.remove_prefix(blPlus ? 1 : 0);

    int64_t i64Number = 0;
    const std::from_chars_result result = std::from_chars(strview.data(), strview.data() + strview.size(), i64Number);
    if (result.ec == std::errc::result_out_of_range)
        return strview.starts_with('-') ? INT64_MIN : INT64_MAX;
    return i64Number;
}

int32_t StrToInt32(const char* a_szText)
{
    return static_cast<int32_t>(std::clamp<int64_t>(StrToInt64(a_szText), INT32_MIN, INT32_MAX));
}

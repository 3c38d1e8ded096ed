// lcctl_logline.cpp: parses a prefix column by column, without a copy.
#include "lcctl_logline.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstring>

static constexpr size_t g_sizetTime = 12;
static constexpr size_t g_sizetSource = 32;
static constexpr ptrdiff_t g_ptrdiffShortest = 76;   // prefix

static constexpr std::array<std::string_view, LCCTL_LEVELS> g_asvLevel{"error", "warning", "milestone", "note"};

std::string_view LcctlLevelName(LcctlLevel a_lcctllevel)
{
    return g_asvLevel[a_lcctllevel];
}

std::optional<LcctlLevel> LcctlLevelOf(std::string_view a_svName)
{
    static constexpr std::array<std::string_view, LCCTL_LEVELS> g_asvLetter{"e", "a", "p", "."};
    std::string strName(a_svName);
    std::transform(strName.begin(), strName.end(), strName.begin(),
                   [](unsigned char a_ch) { return static_cast<char>(std::tolower(a_ch)); });
    if (strName == "check")
        return LCCTL_LEVEL_WARNING;
    for (uint8_t u8 = 0; u8 < LCCTL_LEVELS; ++u8)
    {
        if (strName == g_asvLevel[u8] || strName == g_asvLetter[u8])
            return static_cast<LcctlLevel>(u8);
    }
    return {};
}

// ------------------------------------------------------------------------------------------------------ the prefix

static bool IsDigit(char a_ch)
{
    return static_cast<unsigned char>(a_ch - '0') < 10;
}

// Two digits as a number; more than 99 when they are not digits.
static unsigned Pair(const char* a_pch)
{
    const auto uTens = static_cast<unsigned char>(a_pch[0] - '0');
    const auto uOnes = static_cast<unsigned char>(a_pch[1] - '0');
    return uTens < 10 && uOnes < 10 ? uTens * 10u + uOnes : 1000;
}

// False for an invalid time of day.
static bool ReadTime(const char* a_pch, LcctlTime& a_lcctltimeOfDay)
{
    const unsigned uHour = Pair(a_pch);
    const unsigned uMinute = Pair(a_pch + 2);
    const unsigned uSecond = Pair(a_pch + 4);
    const unsigned uHigh = Pair(a_pch + 6);
    const unsigned uMiddle = Pair(a_pch + 8);
    const unsigned uLow = Pair(a_pch + 10);
    a_lcctltimeOfDay = (uHour * 3600 + uMinute * 60 + uSecond) * LCCTL_SECOND + uHigh * 10000 + uMiddle * 100 + uLow;
    return uHour < 24 && uMinute < 60 && uSecond < 61 && (uHigh | uMiddle | uLow) < 1000 && uHigh < 100 &&
           uMiddle < 100 && uLow < 100;
}

// Parses a number up to the next blank and skips both; empty for anything else.
static inline std::string_view TakeNumber(const char*& a_pch, const char* a_pchEnd)
{
    const char* pch = a_pch;
    if (pch < a_pchEnd && *pch == '-')
        ++pch;
    const char* const pchDigits = pch;
    while (pch < a_pchEnd && IsDigit(*pch))
        ++pch;
    if (pch == pchDigits || pch == a_pchEnd || *pch != ' ')
        return {};
    const std::string_view sv(a_pch, static_cast<size_t>(pch - a_pch));
    a_pch = pch + 1;
    return sv;
}

static std::string_view TakeFilledNumber(const char*& a_pch, const char* a_pchEnd)
{
    while (a_pch < a_pchEnd && *a_pch == ' ')
        ++a_pch;
    return TakeNumber(a_pch, a_pchEnd);
}

static bool ReadLevel(char a_ch, LcctlLevel& a_lcctllevel)
{
    switch (a_ch)
    {
    case 'E':
        a_lcctllevel = LCCTL_LEVEL_ERROR;
        return true;
    case 'A':
        a_lcctllevel = LCCTL_LEVEL_WARNING;
        return true;
    case 'P':
        a_lcctllevel = LCCTL_LEVEL_MILESTONE;
        return true;
    case '.':
        a_lcctllevel = LCCTL_LEVEL_NOTE;
        return true;
    default:
        return false;
    }
}

static std::string_view WithoutFilling(const char* a_pch, size_t a_sizet)
{
    while (a_sizet && a_pch[a_sizet - 1] == ' ')
        --a_sizet;
    return {a_pch, a_sizet};
}

// Parses from the thread's "T" on.
static bool ReadTail(const char* a_pch, const char* a_pchEnd, LcctlPrefix& a_lcctlprefix)
{
    if (a_pch == a_pchEnd || *a_pch++ != 'T')
        return false;
    a_lcctlprefix.svThread = TakeNumber(a_pch, a_pchEnd);
    if (a_lcctlprefix.svThread.empty() || a_pch == a_pchEnd || *a_pch++ != 'S' || TakeNumber(a_pch, a_pchEnd).empty())
        return false;
    if (a_pchEnd - a_pch < 3 || a_pch[0] != 'V' || a_pch[2] != ' ' || !ReadLevel(a_pch[1], a_lcctlprefix.lcctllevel))
        return false;
    a_lcctlprefix.pchMessage = a_pch + 3;
    return true;
}

bool LcctlParsePrefix(const char* a_pch, const char* a_pchEnd, LcctlPrefix& a_lcctlprefix)
{
    if (a_pchEnd - a_pch < g_ptrdiffShortest)
        return false;
    a_lcctlprefix.svNumber = TakeNumber(a_pch, a_pchEnd);
    const char* const pchSource = a_pch + g_sizetTime + 1;
    if (a_lcctlprefix.svNumber.size() < 5 || a_pchEnd - pchSource < static_cast<ptrdiff_t>(g_sizetSource) + 1)
        return false;
    if (a_pch[g_sizetTime] != ' ' || !ReadTime(a_pch, a_lcctlprefix.lcctltimeOfDay) || pchSource[g_sizetSource] != ' ')
        return false;
    a_lcctlprefix.pchTime = a_pch;
    a_lcctlprefix.svSource = WithoutFilling(pchSource, g_sizetSource);

    const char* pch = pchSource + g_sizetSource + 1;
    a_lcctlprefix.svLine = TakeFilledNumber(pch, a_pchEnd);
    a_lcctlprefix.svError = TakeFilledNumber(pch, a_pchEnd);
    if (a_lcctlprefix.svLine.empty() || a_lcctlprefix.svError.empty())
        return false;
    a_lcctlprefix.blTimeless =
        a_lcctlprefix.lcctltimeOfDay < 1000 && a_lcctlprefix.svLine == "0" && a_lcctlprefix.svNumber == "00000";
    return ReadTail(pch, a_pchEnd, a_lcctlprefix);
}

// ------------------------------------------------------------------------------------------------------ the header

// "### (2026/11/23 14:01:24.993) Debug=..."
std::optional<LcctlTime> LcctlRunStart(std::string_view a_svMessage)
{
    static constexpr std::string_view g_svPicture = "### (dddd/dd/dd dd:dd:dd.ddd) Debug=";
    if (a_svMessage.size() < g_svPicture.size() || a_svMessage[4] != '(')
        return {};
    for (size_t sizet = 0; sizet < g_svPicture.size(); ++sizet)
    {
        const bool blDigit = g_svPicture[sizet] == 'd';
        if (blDigit ? !IsDigit(a_svMessage[sizet]) : a_svMessage[sizet] != g_svPicture[sizet])
            return {};
    }
    const auto number = [&](size_t a_sizetStart, size_t a_sizetDigits) {
        int iNumber = 0;
        std::from_chars(a_svMessage.data() + a_sizetStart, a_svMessage.data() + a_sizetStart + a_sizetDigits, iNumber);
        return iNumber;
    };
    const auto day =
        LcctlDayOf({number(5, 4), static_cast<unsigned>(number(10, 2)), static_cast<unsigned>(number(13, 2))});
    if (!day || number(16, 2) > 23 || number(19, 2) > 59)
        return {};
    const int64_t i64Second = number(16, 2) * 3600 + number(19, 2) * 60 + number(22, 2);
    return *day * LCCTL_DAY + i64Second * LCCTL_SECOND + number(25, 3) * 1000;
}

// "### systemInfo <... pid:4242 ..."
std::optional<uint64_t> LcctlRunProcess(std::string_view a_svMessage)
{
    static constexpr std::string_view g_svSystem = "### systemInfo <";
    static constexpr std::string_view g_svPid = " pid:";
    const size_t sizetPid = a_svMessage.starts_with(g_svSystem) ? a_svMessage.find(g_svPid) : std::string_view::npos;
    uint64_t u64ProcessId = 0;
    if (sizetPid == std::string_view::npos)
        return {};
    const char* const pch = a_svMessage.data() + sizetPid + g_svPid.size();
    const auto [pchEnd, error] = std::from_chars(pch, a_svMessage.data() + a_svMessage.size(), u64ProcessId);
    return error == std::errc() && pchEnd != pch ? std::optional(u64ProcessId) : std::nullopt;
}

// os_coslog_filter.cpp: the filter, which chooses the sources whose lines are written.
//
// A filter is immutable once in use, so its verdict for a source stays valid. Verdicts are cached in a table that only
// grows, so calls read it without a lock. The table index comes from the address of the file argument, which is a
// constant in most callers; the match is decided by the text alone.
#include "os_coslog_filter.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

static constexpr uint64_t g_u64Tries = 4;   // table entries that may hold a verdict
static constexpr uint64_t g_u64Spread = 0x9E3779B97F4A7C15;

static char Lower(char a_ch)
{
    return a_ch >= 'A' && a_ch <= 'Z' ? static_cast<char>(a_ch + ('a' - 'A')) : a_ch;
}

size_t OsLogSourceName(char* a_achSource, const char* a_szFile)
{
    std::string_view strview(a_szFile ? a_szFile : "");
    strview.remove_prefix(strview.rfind('\\') + 1);   // without a backslash: removes 0
    strview = strview.substr(0, std::min(strview.rfind('.'), OS_PATHSIZE));
    std::transform(strview.begin(), strview.end(), a_achSource, Lower);
    return strview.size();
}

// ------------------------------------------------------------------------------------------------------- the call

bool OsLogFilter::Passes(const char* a_szFile) const
{
    if (!sizetTokens)
        return true;
    if (!uniqueVerdicts || !a_szFile)
        return Judge(a_szFile);
    const uint64_t u64Place = reinterpret_cast<uint64_t>(a_szFile) * g_u64Spread >> 56;
    for (uint64_t u64Try = 0; u64Try < g_u64Tries; ++u64Try)
    {
        Verdict& verdict = uniqueVerdicts[(u64Place + u64Try) % OS_LOGVERDICTS];
        const uint32_t u32State = verdict.u32State.load(std::memory_order_acquire);
        if (u32State == Verdict::OS_FREE)
            return Remember(verdict, a_szFile);
        if (u32State == Verdict::OS_KNOWN && std::strcmp(verdict.szFile, a_szFile) == 0)
            return verdict.blPasses;
    }
    return Judge(a_szFile);
}

bool OsLogFilter::Remember(Verdict& a_verdict, const char* a_szFile) const
{
    const bool blPasses = Judge(a_szFile);
    const size_t sizetSize = std::strlen(a_szFile) + 1;
    uint32_t u32Free = Verdict::OS_FREE;
    if (sizetSize <= OS_LOGVERDICTSIZE && a_verdict.u32State.compare_exchange_strong(u32Free, Verdict::OS_CLAIMED))
    {
        std::memcpy(a_verdict.szFile, a_szFile, sizetSize);
        a_verdict.blPasses = blPasses;
        a_verdict.u32State.store(Verdict::OS_KNOWN, std::memory_order_release);
    }
    return blPasses;
}

bool OsLogFilter::Judge(const char* a_szFile) const
{
    char achSource[OS_PATHSIZE];
    const std::string_view strviewSource(achSource, OsLogSourceName(achSource, a_szFile));
    bool blIncluded = !blIncludes;
    for (size_t sizetToken = 0; sizetToken < sizetTokens; ++sizetToken)
    {
        const Token& token = atoken[sizetToken];
        const bool blFound = strviewSource.find(token.strview) != std::string_view::npos;
        if (blFound && token.blExclude)
            return false;
        blIncluded |= blFound && !token.blExclude;
    }
    return blIncluded;
}

// ------------------------------------------------------------------------------------------------------- setting

// Copies the tokens that fit, each completely or not at all.
static void FillFilter(OsLogFilter& a_oslogfilter, std::string_view a_strviewFilter, const char* a_szSeparators,
                       bool a_blLower)
{
    char* pch = a_oslogfilter.szText;
    const char* const pchEnd = pch + sizeof a_oslogfilter.szText;
    while (a_oslogfilter.sizetTokens < OS_LOGFILTERTOKENS)
    {
        a_strviewFilter.remove_prefix(
            std::min(a_strviewFilter.find_first_not_of(a_szSeparators), a_strviewFilter.size()));
        const std::string_view strviewToken = a_strviewFilter.substr(0, a_strviewFilter.find_first_of(a_szSeparators));
        a_strviewFilter.remove_prefix(strviewToken.size());
        const size_t sizetBlank = a_oslogfilter.sizetTokens ? 1 : 0;
        if (strviewToken.empty() || static_cast<size_t>(pchEnd - pch) <= sizetBlank + strviewToken.size())
            break;

        if (sizetBlank)
            *pch++ = ' ';
        const char* const pchToken = pch;
        for (const char ch : strviewToken)
            *pch++ = a_blLower ? Lower(ch) : ch;
        const bool blExclude = *pchToken == '~';
        const size_t sizetSkip = blExclude ? 1 : 0;
        a_oslogfilter.atoken[a_oslogfilter.sizetTokens++] = {{pchToken + sizetSkip, strviewToken.size() - sizetSkip},
                                                             blExclude};
        a_oslogfilter.blIncludes |= !blExclude;
    }
    *pch = '\0';
}

COsLogFilter::~COsLogFilter()
{
    while (m_uniqueFilters)
        m_uniqueFilters = std::move(m_uniqueFilters->uniqueNext);
}

void COsLogFilter::Set(const char* a_szFilter, const char* a_szSeparators, bool a_blLower)
{
    std::unique_ptr<OsLogFilter> uniqueFilter(new (std::nothrow) OsLogFilter{});
    if (!uniqueFilter)
        return;
    FillFilter(*uniqueFilter, a_szFilter, a_szSeparators, a_blLower);
    if (uniqueFilter->sizetTokens)
        uniqueFilter->uniqueVerdicts.reset(new (std::nothrow) OsLogFilter::Verdict[OS_LOGVERDICTS]{});

    const OsLogGuard oslogguard(m_osloglock);
    OsLogFilter* poslogfilter = m_uniqueFilters.get();
    while (poslogfilter && std::strcmp(poslogfilter->szText, uniqueFilter->szText) != 0)
        poslogfilter = poslogfilter->uniqueNext.get();
    if (!poslogfilter)
    {
        poslogfilter = uniqueFilter.get();
        uniqueFilter->uniqueNext = std::move(m_uniqueFilters);
        m_uniqueFilters = std::move(uniqueFilter);
    }
    m_poslogfilter.store(poslogfilter, std::memory_order_release);
}

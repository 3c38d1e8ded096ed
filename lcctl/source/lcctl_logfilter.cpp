// lcctl_logfilter.cpp: time, level, source, thread; the expression last, because it costs most.
#include "lcctl_logfilter.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

struct CLcctlLogFilter::Expression
{
    explicit Expression(const std::string& a_strPattern);
    ~Expression()
    {
        pcre2_match_data_free(pmatchdata);
        pcre2_code_free(pcode);
    }
    Expression(const Expression&) = delete;
    Expression& operator=(const Expression&) = delete;

    // A match that exceeds the library's effort limit counts as none.
    bool Matches(std::string_view a_svText) const
    {
        const auto* const pchText = reinterpret_cast<PCRE2_SPTR>(a_svText.data());
        return pcre2_match(pcode, pchText, a_svText.size(), 0, 0, pmatchdata, nullptr) > 0;
    }

    pcre2_code* pcode;
    pcre2_match_data* pmatchdata = nullptr;
};

// A pattern without capital letters ignores case.
CLcctlLogFilter::Expression::Expression(const std::string& a_strPattern)
{
    const bool blSmall =
        std::none_of(a_strPattern.begin(), a_strPattern.end(), [](unsigned char a_ch) { return std::isupper(a_ch); });
    const uint32_t u32Options = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF | (blSmall ? PCRE2_CASELESS : 0u);
    int iError = 0;
    PCRE2_SIZE sizetOffset = 0;
    pcode = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(a_strPattern.data()), a_strPattern.size(), u32Options, &iError,
                          &sizetOffset, nullptr);
    if (!pcode)
    {
        char szError[256];
        pcre2_get_error_message(iError, reinterpret_cast<PCRE2_UCHAR*>(szError), sizeof szError);
        throw std::invalid_argument(fmt::format("--grep={}: {} at character {}; put a backslash before characters that "
                                                "are meant as they stand",
                                                a_strPattern, szError, sizetOffset));
    }
    pcre2_jit_compile(pcode, PCRE2_JIT_COMPLETE);   // optional: only faster
    pmatchdata = pcre2_match_data_create_from_pattern(pcode, nullptr);
}

bool LcctlMatches(std::string_view a_svName, std::string_view a_svPattern)
{
    const auto same = [](char a_chName, char a_chPattern) {
        return a_chPattern == '?' || a_chName == std::tolower(static_cast<unsigned char>(a_chPattern));
    };
    size_t sizetName = 0;
    size_t sizetPattern = 0;
    size_t sizetStar = std::string_view::npos;   // the last "*", and how much of the name it has matched
    size_t sizetBehind = 0;
    while (sizetName < a_svName.size())
    {
        if (sizetPattern < a_svPattern.size() && a_svPattern[sizetPattern] == '*')
        {
            sizetStar = sizetPattern++;
            sizetBehind = sizetName;
        }
        else if (sizetPattern < a_svPattern.size() && same(a_svName[sizetName], a_svPattern[sizetPattern]))
        {
            ++sizetName;
            ++sizetPattern;
        }
        else if (sizetStar != std::string_view::npos)
        {
            sizetPattern = sizetStar + 1;
            sizetName = ++sizetBehind;
        }
        else
        {
            return false;
        }
    }
    return a_svPattern.find_first_not_of('*', sizetPattern) == std::string_view::npos;
}

// Matches the whole source, or its name after the folders.
static bool IsAmong(std::string_view a_svSource, const std::vector<std::string>& a_vecstrPattern)
{
    const std::string_view svName = a_svSource.substr(a_svSource.rfind('/') + 1);
    return std::any_of(a_vecstrPattern.begin(), a_vecstrPattern.end(), [&](const std::string& a_strPattern) {
        return LcctlMatches(a_svSource, a_strPattern) || LcctlMatches(svName, a_strPattern);
    });
}

CLcctlLogFilter::CLcctlLogFilter(const LcctlFilterArgs& a_filterargs) : m_filterargs(a_filterargs)
{
    if (!m_filterargs.strGrep.empty())
        m_uniqueExpression = std::make_unique<Expression>(m_filterargs.strGrep);
    for (std::string& strThread : m_filterargs.vecstrThread)
        strThread.erase(0, std::min(strThread.find_first_not_of('0'), strThread.size() - 1));
    m_blPassesAll = !m_filterargs.since && !m_filterargs.until && m_filterargs.lcctllevelFrom == LCCTL_LEVEL_ERROR &&
                    m_filterargs.lcctllevelTo == LCCTL_LEVEL_NOTE && m_filterargs.vecstrSource.empty() &&
                    m_filterargs.vecstrNotSource.empty() && m_filterargs.vecstrThread.empty() && !m_uniqueExpression;
}

CLcctlLogFilter::~CLcctlLogFilter() = default;

bool CLcctlLogFilter::PassesSource(std::string_view a_svSource) const
{
    return (m_filterargs.vecstrSource.empty() || IsAmong(a_svSource, m_filterargs.vecstrSource)) &&
           !IsAmong(a_svSource, m_filterargs.vecstrNotSource);
}

bool CLcctlLogFilter::Check(const LcctlRecord& a_lcctlrecord) const
{
    const LcctlPrefix& lcctlprefix = a_lcctlrecord.lcctlprefix;
    const LcctlTime lcctltime = a_lcctlrecord.lcctltime;
    if ((m_filterargs.since && lcctltime < *m_filterargs.since) ||
        (m_filterargs.until && lcctltime > *m_filterargs.until))
        return false;
    if (!a_lcctlrecord.blPrefix)
        return false;
    if (lcctlprefix.lcctllevel < m_filterargs.lcctllevelFrom || lcctlprefix.lcctllevel > m_filterargs.lcctllevelTo)
        return false;
    const std::vector<std::string>& vecstrThread = m_filterargs.vecstrThread;
    const std::string_view svThread = lcctlprefix.svThread.substr(
        std::min(lcctlprefix.svThread.find_first_not_of('0'), lcctlprefix.svThread.size() - 1));
    if (!vecstrThread.empty() && std::find(vecstrThread.begin(), vecstrThread.end(), svThread) == vecstrThread.end())
        return false;
    return PassesSource(lcctlprefix.svSource) &&
           (!m_uniqueExpression || m_uniqueExpression->Matches(a_lcctlrecord.svText));
}

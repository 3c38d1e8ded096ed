// lcctl_logfilter.h: selects records.
#pragma once

#include "lcctl_logreader.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

struct LcctlFilterArgs
{
    std::optional<LcctlTime> since;
    std::optional<LcctlTime> until;
    LcctlLevel lcctllevelFrom = LCCTL_LEVEL_ERROR;
    LcctlLevel lcctllevelTo = LCCTL_LEVEL_NOTE;
    std::vector<std::string> vecstrSource;   // none: all
    std::vector<std::string> vecstrNotSource;
    std::vector<std::string> vecstrThread;   // decimal
    std::string strGrep;                     // a Perl-compatible regular expression, "" for none
};

class CLcctlLogFilter
{
public:
    // Throws std::invalid_argument, with the position, for an invalid expression.
    explicit CLcctlLogFilter(const LcctlFilterArgs& a_filterargs);
    ~CLcctlLogFilter();
    CLcctlLogFilter(const CLcctlLogFilter&) = delete;
    CLcctlLogFilter& operator=(const CLcctlLogFilter&) = delete;

    // A record without a prefix continues another one: ask about that one.
    bool Passes(const LcctlRecord& a_lcctlrecord) const { return m_blPassesAll || Check(a_lcctlrecord); }

private:
    struct Expression;
    bool Check(const LcctlRecord& a_lcctlrecord) const;
    bool PassesSource(std::string_view a_svSource) const;

    LcctlFilterArgs m_filterargs;
    bool m_blPassesAll;
    std::unique_ptr<Expression> m_uniqueExpression;
};

// Matches a name with a pattern in which "*" is any text and "?" any character. Ignores case.
bool LcctlMatches(std::string_view a_svName, std::string_view a_svPattern);

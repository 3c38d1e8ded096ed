// lcctl_logfilter.h: which records are wanted.
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
    // Throws std::invalid_argument for an expression that does not compile, saying where.
    explicit CLcctlLogFilter(const LcctlFilterArgs& a_filterargs);
    ~CLcctlLogFilter();
    CLcctlLogFilter(const CLcctlLogFilter&) = delete;
    CLcctlLogFilter& operator=(const CLcctlLogFilter&) = delete;

    // A record without a prefix is the rest of something else: ask about that.
    bool Passes(const LcctlRecord& a_lcctlrecord) const { return m_blPassesAll || Check(a_lcctlrecord); }

private:
    struct Expression;
    bool Check(const LcctlRecord& a_lcctlrecord) const;
    bool PassesSource(std::string_view a_svSource) const;

    LcctlFilterArgs m_filterargs;
    bool m_blPassesAll;
    std::unique_ptr<Expression> m_uniqueExpression;
};

// A name matches a pattern in which "*" is any text and "?" any character. Cases are the same: logs have small letters.
bool LcctlMatches(std::string_view a_svName, std::string_view a_svPattern);

// os_coslog_filter.h: which sources pass.
//
// A filter is never changed once it is in use and lives as long as the logger: a call goes on with the one that it
// began with while another is set.
#pragma once

#include "os_coslog_lock.h"

#include <memory>
#include <string_view>

inline constexpr size_t OS_LOGFILTERSIZE = 128;
inline constexpr size_t OS_LOGFILTERTOKENS = 31;
inline constexpr size_t OS_LOGVERDICTS = 256;     // that a filter remembers
inline constexpr size_t OS_LOGVERDICTSIZE = 56;   // of the file argument; a longer one is not remembered

struct OsLogFilter
{
    struct Token
    {
        std::string_view strview;   // of szText, without the "~"
        bool blExclude;
    };

    // What the filter says to a call's file argument. Written once, by the call that claimed it.
    struct Verdict
    {
        enum : uint32_t
        {
            OS_FREE,
            OS_CLAIMED,
            OS_KNOWN,
        };
        std::atomic<uint32_t> u32State;
        bool blPasses;
        char szFile[OS_LOGVERDICTSIZE];
    };

    // Whether a call with this file argument, which may be null, passes. Verdicts are remembered: a call that is
    // filtered out pays for little more than a comparison of texts. Neither locks nor allocates.
    bool Passes(const char* a_szFile) const;
    bool Judge(const char* a_szFile) const;
    bool Remember(Verdict& a_verdict, const char* a_szFile) const;

    std::unique_ptr<OsLogFilter> uniqueNext;
    char szText[OS_LOGFILTERSIZE];   // as the header prints it
    Token atoken[OS_LOGFILTERTOKENS];
    size_t sizetTokens;
    bool blIncludes;                             // there is a token that is not excluded
    std::unique_ptr<Verdict[]> uniqueVerdicts;   // null: none is remembered
};

// The filter in force.
class COsLogFilter
{
public:
    COsLogFilter() = default;
    ~COsLogFilter();
    COsLogFilter(const COsLogFilter&) = delete;
    COsLogFilter& operator=(const COsLogFilter&) = delete;

    bool Passes(const char* a_szFile) const { return Current()->Passes(a_szFile); }
    const char* Text() const { return Current()->szText; }

    void LeaveToParent() { m_osloglock.Release(); }   // in a fork

    // Takes the tokens between the separators. Without memory the filter before stays.
    void Set(const char* a_szFilter, const char* a_szSeparators, bool a_blLower);

private:
    const OsLogFilter* Current() const { return m_poslogfilter.load(std::memory_order_acquire); }

    std::atomic<const OsLogFilter*> m_poslogfilter{&m_oslogfilterNone};
    OsLogFilter m_oslogfilterNone = {};
    OsLogLock m_osloglock;
    std::unique_ptr<OsLogFilter> m_uniqueFilters;   // all that were used
};

// The base name of a call's file argument, which may be null: what is behind the last backslash, without extension, in
// lower case. The name has OS_PATHSIZE bytes and no end; returns its length.
size_t OsLogSourceName(char* a_achSource, const char* a_szFile);

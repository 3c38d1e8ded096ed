// os_coslog_filter.h: the filter: which sources are logged.
//
// A filter is immutable once in use and lives as long as the logger: a call keeps the filter that it started with while
// another is set.
#pragma once

#include "os_coslog_lock.h"

#include <memory>
#include <string_view>

inline constexpr size_t OS_LOGFILTERSIZE = 128;
inline constexpr size_t OS_LOGFILTERTOKENS = 31;
inline constexpr size_t OS_LOGVERDICTS = 256;     // cached by a filter
inline constexpr size_t OS_LOGVERDICTSIZE = 56;   // of the file argument; a longer one is not cached

struct OsLogFilter
{
    struct Token
    {
        std::string_view strview;   // in szText, without the "~"
        bool blExclude;
    };

    // The filter's verdict for a call's file argument. Written once, by the call that claimed the entry.
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

    // Whether a call with this file argument, which may be null, passes. Verdicts are cached: a call that is filtered
    // out costs little more than a text comparison. Neither locks nor allocates.
    bool Passes(const char* a_szFile) const;
    bool Judge(const char* a_szFile) const;
    bool Remember(Verdict& a_verdict, const char* a_szFile) const;

    std::unique_ptr<OsLogFilter> uniqueNext;
    char szText[OS_LOGFILTERSIZE];   // as the header prints it
    Token atoken[OS_LOGFILTERTOKENS];
    size_t sizetTokens;
    bool blIncludes;                             // at least one token is not an exclusion
    std::unique_ptr<Verdict[]> uniqueVerdicts;   // null: no cache
};

// The current filter.
class COsLogFilter
{
public:
    COsLogFilter() = default;
    ~COsLogFilter();
    COsLogFilter(const COsLogFilter&) = delete;
    COsLogFilter& operator=(const COsLogFilter&) = delete;

    bool Passes(const char* a_szFile) const { return Current()->Passes(a_szFile); }
    const char* Text() const { return Current()->szText; }

    void LeaveToParent() { m_osloglock.Release(); }   // in a forked child

    // Parses the tokens between the separators. Without memory the previous filter stays.
    void Set(const char* a_szFilter, const char* a_szSeparators, bool a_blLower);

private:
    const OsLogFilter* Current() const { return m_poslogfilter.load(std::memory_order_acquire); }

    std::atomic<const OsLogFilter*> m_poslogfilter{&m_oslogfilterNone};
    OsLogFilter m_oslogfilterNone = {};
    OsLogLock m_osloglock;
    std::unique_ptr<OsLogFilter> m_uniqueFilters;   // every filter used so far
};

// The base name of a call's file argument, which may be null: the text after the last backslash, without extension, in
// lower case. OS_PATHSIZE bytes, not terminated; returns its length.
size_t OsLogSourceName(char* a_achSource, const char* a_szFile);

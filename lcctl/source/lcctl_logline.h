// lcctl_logline.h: parses one line of a log: its prefix, and the contents of header lines.
#pragma once

#include "lcctl_logtime.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// The severity of a line, the worst first, with its letter in the log.
enum LcctlLevel : uint8_t
{
    LCCTL_LEVEL_ERROR,       // E
    LCCTL_LEVEL_WARNING,     // A
    LCCTL_LEVEL_MILESTONE,   // P
    LCCTL_LEVEL_NOTE,        // .
    LCCTL_LEVELS,
};
std::string_view LcctlLevelName(LcctlLevel a_lcctllevel);

// Parses the names above, the log's letters, and "check" (the library's name for a warning); ignores case.
std::optional<LcctlLevel> LcctlLevelOf(std::string_view a_svName);

// The prefix of a line; refers to the bytes of the line.
struct LcctlPrefix
{
    const char* pchTime;   // HHMMSSmmmuuu
    LcctlTime lcctltimeOfDay;
    std::string_view svNumber;
    std::string_view svSource;   // without padding
    std::string_view svLine;     // the source line number; this and the following without padding
    std::string_view svError;
    std::string_view svThread;
    LcctlLevel lcctllevel;
    bool blTimeless;   // written in deterministic mode: its time is meaningless
    const char* pchMessage;
};

// Parses the prefix of the line from a_pch to a_pchEnd. False for a line without one; a_lcctlprefix is then undefined.
bool LcctlParsePrefix(const char* a_pch, const char* a_pchEnd, LcctlPrefix& a_lcctlprefix);

// Parse a header's message: the start of the run, and the id of the writing process.
std::optional<LcctlTime> LcctlRunStart(std::string_view a_svMessage);
std::optional<uint64_t> LcctlRunProcess(std::string_view a_svMessage);

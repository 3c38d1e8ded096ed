// lcctl_logline.h: one line of a log: its prefix, and what the lines of a header tell.
#pragma once

#include "lcctl_logtime.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// How bad a line is, the worst first. A log has letters for them.
enum LcctlLevel : uint8_t
{
    LCCTL_LEVEL_ERROR,       // E
    LCCTL_LEVEL_WARNING,     // A
    LCCTL_LEVEL_MILESTONE,   // P
    LCCTL_LEVEL_NOTE,        // .
    LCCTL_LEVELS,
};
std::string_view LcctlLevelName(LcctlLevel a_lcctllevel);

// By the names above, the letters of the log, and "check", which the library calls warnings; in any case.
std::optional<LcctlLevel> LcctlLevelOf(std::string_view a_svName);

// The prefix of a line, in the bytes of the line itself.
struct LcctlPrefix
{
    const char* pchTime;   // HHMMSSmmmuuu
    LcctlTime lcctltimeOfDay;
    std::string_view svNumber;
    std::string_view svSource;   // without the blanks that fill it
    std::string_view svLine;     // the source's line; this and what follows without filling
    std::string_view svError;
    std::string_view svThread;
    LcctlLevel lcctllevel;
    bool blTimeless;   // written in deterministic mode: its time tells nothing
    const char* pchMessage;
};

// The prefix of the line from a_pch to a_pchEnd. False, and a_lcctlprefix is worth nothing, for a line without one.
bool LcctlParsePrefix(const char* a_pch, const char* a_pchEnd, LcctlPrefix& a_lcctlprefix);

// What a message of a header tells: when the run began, and the process that writes.
std::optional<LcctlTime> LcctlRunStart(std::string_view a_svMessage);
std::optional<uint64_t> LcctlRunProcess(std::string_view a_svMessage);

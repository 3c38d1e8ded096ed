// lcctl_logtime.h: times as logs contain them, and as users enter them.
//
// Logs have the local time of the machine that wrote them, without a zone. A time here is such a local time; times of
// different machines are compared without conversion.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

using LcctlTime = int64_t;   // microseconds since 1970-01-01 00:00, local time

inline constexpr LcctlTime LCCTL_SECOND = 1000000;
inline constexpr LcctlTime LCCTL_HOUR = 3600 * LCCTL_SECOND;
inline constexpr LcctlTime LCCTL_DAY = 24 * LCCTL_HOUR;

struct LcctlCalendar
{
    int iYear = 1970;
    unsigned uMonth = 1;
    unsigned uDay = 1;
};

// Days since 1970-01-01, and back. None for an invalid date.
std::optional<int64_t> LcctlDayOf(const LcctlCalendar& a_calendar);
LcctlCalendar LcctlCalendarOf(int64_t a_i64Day);

// This machine's local time, now and when a file was written; 0 when unknown.
LcctlTime LcctlNow();
LcctlTime LcctlWallTime(std::filesystem::file_time_type a_filetime);

// The start given by the digits after "log." in a folder's name (UTC), as this machine's local time; none if invalid.
std::optional<LcctlTime> LcctlStampTime(const std::string& a_strDigits);

// By how much this machine's clock is put back during a day; 0 on most days.
LcctlTime LcctlClockGoesBack(int64_t a_i64Day);

// "2026-11-23 12:00:00.123456", or with a "T" between date and time.
std::string LcctlTimeText(LcctlTime a_lcctltime, char a_chBetween = ' ');

// Parses the formats of journalctl: "2026-11-23 12:00:00", parts of it ("2026-11-23", "12:00"), "now", "today",
// "yesterday", "tomorrow", "@SECONDS", "-1h30min", "+5 min", "2 hours ago". None for anything else.
std::optional<LcctlTime> LcctlParseTime(const std::string& a_strText, LcctlTime a_lcctltimeNow);

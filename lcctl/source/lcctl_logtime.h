// lcctl_logtime.h: times as logs show them, and as people write them.
//
// Logs carry the local time of the machine that wrote them, without a zone. So a time here is what a clock on its wall
// showed: it is compared with other walls' times as it stands.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

using LcctlTime = int64_t;   // microseconds since 1970-01-01 00:00 on the wall clock

inline constexpr LcctlTime LCCTL_SECOND = 1000000;
inline constexpr LcctlTime LCCTL_HOUR = 3600 * LCCTL_SECOND;
inline constexpr LcctlTime LCCTL_DAY = 24 * LCCTL_HOUR;

struct LcctlCalendar
{
    int iYear = 1970;
    unsigned uMonth = 1;
    unsigned uDay = 1;
};

// Days since 1970-01-01, and back. None for a date that no calendar has.
std::optional<int64_t> LcctlDayOf(const LcctlCalendar& a_calendar);
LcctlCalendar LcctlCalendarOf(int64_t a_i64Day);

// The wall clock of this machine, now and when a file was written; 0 when that cannot be told.
LcctlTime LcctlNow();
LcctlTime LcctlWallTime(std::filesystem::file_time_type a_filetime);

// The start that the digits behind "log." in a folder's name tell (UTC), on this machine's wall clock; none for others.
std::optional<LcctlTime> LcctlStampTime(const std::string& a_strDigits);

// By how much this machine's clocks are put back in the course of a day; 0 on most days.
LcctlTime LcctlClockGoesBack(int64_t a_i64Day);

// "2026-11-23 12:00:00.123456", or with a "T" between date and time.
std::string LcctlTimeText(LcctlTime a_lcctltime, char a_chBetween = ' ');

// What journalctl takes: "2026-11-23 12:00:00", parts of it ("2026-11-23", "12:00"), "now", "today", "yesterday",
// "tomorrow", "@SECONDS", "-1h30min", "+5 min", "2 hours ago". None for anything else.
std::optional<LcctlTime> LcctlParseTime(const std::string& a_strText, LcctlTime a_lcctltimeNow);

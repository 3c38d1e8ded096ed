// lcctl_logtime.cpp: the calendar, the clocks, parsing user input.
#include "lcctl_logtime.h"

#include <fmt/format.h>

#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <ctime>
#include <string_view>

// ---------------------------------------------------------------------------------------------------- the calendar

std::optional<int64_t> LcctlDayOf(const LcctlCalendar& a_calendar)
{
    const std::chrono::year_month_day date{std::chrono::year(a_calendar.iYear), std::chrono::month(a_calendar.uMonth),
                                           std::chrono::day(a_calendar.uDay)};
    if (!date.ok())
        return {};
    return std::chrono::sys_days(date).time_since_epoch().count();
}

LcctlCalendar LcctlCalendarOf(int64_t a_i64Day)
{
    const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(static_cast<int>(a_i64Day)))};
    return {static_cast<int>(date.year()), static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day())};
}

std::string LcctlTimeText(LcctlTime a_lcctltime, char a_chBetween)
{
    const int64_t i64Day = a_lcctltime / LCCTL_DAY - (a_lcctltime % LCCTL_DAY < 0 ? 1 : 0);
    const LcctlTime lcctltimeOfDay = a_lcctltime - i64Day * LCCTL_DAY;
    const LcctlCalendar calendar = LcctlCalendarOf(i64Day);
    const int64_t i64Seconds = lcctltimeOfDay / LCCTL_SECOND;
    return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}.{:06}", calendar.iYear, calendar.uMonth, calendar.uDay,
                       a_chBetween, i64Seconds / 3600, i64Seconds / 60 % 60, i64Seconds % 60,
                       lcctltimeOfDay % LCCTL_SECOND);
}

// -------------------------------------------------------------------------------------------------------- clocks

static LcctlTime WallTime(int64_t a_i64Seconds, int64_t a_i64Microseconds)
{
    const std::time_t time = a_i64Seconds;
    const std::tm* const ptm = std::localtime(&time);
    if (!ptm)
        return 0;
    const auto day =
        LcctlDayOf({ptm->tm_year + 1900, static_cast<unsigned>(ptm->tm_mon + 1), static_cast<unsigned>(ptm->tm_mday)});
    const int64_t i64Second = ptm->tm_hour * 3600 + ptm->tm_min * 60 + ptm->tm_sec;
    return day.value_or(0) * LCCTL_DAY + i64Second * LCCTL_SECOND + a_i64Microseconds;
}

static LcctlTime WallTime(std::chrono::system_clock::time_point a_timepoint)
{
    const int64_t i64 = std::chrono::duration_cast<std::chrono::microseconds>(a_timepoint.time_since_epoch()).count();
    return i64 < 0 ? 0 : WallTime(i64 / LCCTL_SECOND, i64 % LCCTL_SECOND);
}

LcctlTime LcctlNow()
{
    return WallTime(std::chrono::system_clock::now());
}

LcctlTime LcctlWallTime(std::filesystem::file_time_type a_filetime)
{
    return WallTime(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(std::chrono::file_clock::to_sys(a_filetime)));
}

LcctlTime LcctlClockGoesBack(int64_t a_i64Day)
{
    // The real length of the day in hours: 25 where the clocks are put back by one.
    const auto midnight = [](int64_t a_i64) {
        const LcctlCalendar calendar = LcctlCalendarOf(a_i64);
        std::tm tm{};
        tm.tm_year = calendar.iYear - 1900;
        tm.tm_mon = static_cast<int>(calendar.uMonth) - 1;
        tm.tm_mday = static_cast<int>(calendar.uDay);
        tm.tm_isdst = -1;
        return static_cast<int64_t>(std::mktime(&tm)) * LCCTL_SECOND;
    };
    const LcctlTime lcctltimeLonger = midnight(a_i64Day + 1) - midnight(a_i64Day) - LCCTL_DAY;
    return lcctltimeLonger > 0 ? lcctltimeLonger : 0;
}

// ------------------------------------------------------------------------------------------------------- user input

namespace
{
// Parses pieces off the front of a text.
class Pieces
{
public:
    explicit Pieces(std::string_view a_svText) : m_svText(a_svText) {}

    bool IsEmpty() const { return m_svText.empty(); }
    bool Skip(char a_ch)
    {
        const bool blIs = !m_svText.empty() && m_svText.front() == a_ch;
        m_svText.remove_prefix(blIs ? 1 : 0);
        return blIs;
    }
    void SkipBlanks()
    {
        while (Skip(' '))
        {
        }
    }
    // A number of at most so many digits.
    std::optional<int64_t> Number(size_t a_sizetDigits)
    {
        int64_t i64 = 0;
        const std::string_view sv = m_svText.substr(0, a_sizetDigits);
        if (sv.empty() || !std::isdigit(static_cast<unsigned char>(sv.front())))
            return {};
        const auto [pch, error] = std::from_chars(sv.data(), sv.data() + sv.size(), i64);
        if (error != std::errc())
            return {};
        m_svText.remove_prefix(static_cast<size_t>(pch - sv.data()));
        return i64;
    }
    std::string_view Word()
    {
        size_t sizet = 0;
        while (sizet < m_svText.size() && std::isalpha(static_cast<unsigned char>(m_svText[sizet])))
            ++sizet;
        const std::string_view svWord = m_svText.substr(0, sizet);
        m_svText.remove_prefix(sizet);
        return svWord;
    }
    // The digits after a decimal point, as microseconds.
    std::optional<int64_t> Fraction()
    {
        int64_t i64 = 0;
        int64_t i64Unit = LCCTL_SECOND;
        size_t sizet = 0;
        for (; sizet < m_svText.size() && std::isdigit(static_cast<unsigned char>(m_svText[sizet])); ++sizet)
        {
            i64Unit /= 10;
            i64 += (m_svText[sizet] - '0') * i64Unit;
        }
        m_svText.remove_prefix(sizet);
        return sizet ? std::optional<int64_t>(i64) : std::nullopt;
    }

private:
    std::string_view m_svText;
};

struct Unit
{
    std::string_view svName;
    LcctlTime lcctltime;
};

constexpr std::array g_aunit{
    Unit{"us", 1},
    Unit{"ms", 1000},
    Unit{"s", LCCTL_SECOND},
    Unit{"sec", LCCTL_SECOND},
    Unit{"second", LCCTL_SECOND},
    Unit{"seconds", LCCTL_SECOND},
    Unit{"m", 60 * LCCTL_SECOND},
    Unit{"min", 60 * LCCTL_SECOND},
    Unit{"minute", 60 * LCCTL_SECOND},
    Unit{"minutes", 60 * LCCTL_SECOND},
    Unit{"h", LCCTL_HOUR},
    Unit{"hr", LCCTL_HOUR},
    Unit{"hour", LCCTL_HOUR},
    Unit{"hours", LCCTL_HOUR},
    Unit{"d", LCCTL_DAY},
    Unit{"day", LCCTL_DAY},
    Unit{"days", LCCTL_DAY},
    Unit{"w", 7 * LCCTL_DAY},
    Unit{"week", 7 * LCCTL_DAY},
    Unit{"weeks", 7 * LCCTL_DAY},
};

// "1h 30min"; with a_pblAgo the word "ago" may follow. The default unit is seconds.
std::optional<LcctlTime> ParseSpan(Pieces a_pieces, bool* a_pblAgo)
{
    static constexpr int64_t g_i64Most = int64_t{1000} * 366 * LCCTL_DAY;
    LcctlTime lcctltime = 0;
    for (bool blFirst = true; !a_pieces.IsEmpty() || blFirst; blFirst = false)
    {
        const auto number = a_pieces.Number(9);
        if (!number)
            return !blFirst && a_pblAgo && a_pieces.Word() == "ago" && a_pieces.IsEmpty() && (*a_pblAgo = true)
                       ? std::optional(lcctltime)
                       : std::nullopt;
        a_pieces.SkipBlanks();
        const std::string_view svUnit = a_pieces.Word();
        LcctlTime lcctltimeUnit = svUnit.empty() ? LCCTL_SECOND : 0;
        for (const Unit& unit : g_aunit)
            lcctltimeUnit = unit.svName == svUnit ? unit.lcctltime : lcctltimeUnit;
        if (lcctltimeUnit == 0 || *number > g_i64Most / lcctltimeUnit)
            return {};
        lcctltime += *number * lcctltimeUnit;
        a_pieces.SkipBlanks();
    }
    return lcctltime;
}

// "12:00", "12:00:01", "12:00:01.5", up to the end.
std::optional<LcctlTime> ParseTimeOfDay(Pieces& a_pieces)
{
    const auto hour = a_pieces.Number(2);
    if (!hour || *hour > 23 || !a_pieces.Skip(':'))
        return {};
    const auto minute = a_pieces.Number(2);
    if (!minute || *minute > 59)
        return {};
    LcctlTime lcctltime = *hour * LCCTL_HOUR + *minute * 60 * LCCTL_SECOND;
    if (a_pieces.Skip(':'))
    {
        const auto second = a_pieces.Number(2);
        if (!second || *second > 59)
            return {};
        lcctltime += *second * LCCTL_SECOND;
        if (a_pieces.Skip('.'))
        {
            const auto fraction = a_pieces.Fraction();
            if (!fraction)
                return {};
            lcctltime += *fraction;
        }
    }
    return a_pieces.IsEmpty() ? std::optional(lcctltime) : std::nullopt;
}

// "2026-11-23", optionally followed by a time of day.
std::optional<LcctlTime> ParseDate(Pieces a_pieces)
{
    const auto year = a_pieces.Number(4);
    if (!year || !a_pieces.Skip('-'))
        return {};
    const auto month = a_pieces.Number(2);
    if (!month || !a_pieces.Skip('-'))
        return {};
    const auto monthday = a_pieces.Number(2);
    if (!monthday)
        return {};
    const auto day =
        LcctlDayOf({static_cast<int>(*year), static_cast<unsigned>(*month), static_cast<unsigned>(*monthday)});
    if (!day)
        return {};
    if (a_pieces.IsEmpty())
        return *day * LCCTL_DAY;
    if (!a_pieces.Skip('T') && !a_pieces.Skip(' '))
        return {};
    a_pieces.SkipBlanks();
    const auto timeofday = ParseTimeOfDay(a_pieces);
    return timeofday ? std::optional(*day * LCCTL_DAY + *timeofday) : std::nullopt;
}
}   // namespace

std::optional<LcctlTime> LcctlParseTime(const std::string& a_strText, LcctlTime a_lcctltimeNow)
{
    const LcctlTime lcctltimeToday = a_lcctltimeNow - a_lcctltimeNow % LCCTL_DAY;
    if (a_strText == "now")
        return a_lcctltimeNow;
    if (a_strText == "today")
        return lcctltimeToday;
    if (a_strText == "yesterday")
        return lcctltimeToday - LCCTL_DAY;
    if (a_strText == "tomorrow")
        return lcctltimeToday + LCCTL_DAY;

    Pieces pieces(a_strText);
    if (pieces.Skip('@'))
    {
        const auto seconds = pieces.Number(11);
        return seconds && pieces.IsEmpty() ? std::optional(WallTime(*seconds, 0)) : std::nullopt;
    }
    const bool blBefore = pieces.Skip('-');
    if (blBefore || pieces.Skip('+'))
    {
        pieces.SkipBlanks();
        const auto span = ParseSpan(pieces, nullptr);
        return span ? std::optional(a_lcctltimeNow + (blBefore ? -*span : *span)) : std::nullopt;
    }
    if (const auto date = ParseDate(pieces))
        return date;
    if (const auto timeofday = ParseTimeOfDay(pieces))
        return lcctltimeToday + *timeofday;
    bool blAgo = false;
    const auto span = ParseSpan(Pieces(a_strText), &blAgo);
    return span && blAgo ? std::optional(a_lcctltimeNow - *span) : std::nullopt;
}

std::optional<LcctlTime> LcctlStampTime(const std::string& a_strDigits)
{
    if (a_strDigits.size() < 14 || a_strDigits.find_first_not_of("0123456789") != std::string::npos)
        return {};
    const auto number = [&](size_t a_sizetStart, size_t a_sizetDigits) {
        return std::stoi(a_strDigits.substr(a_sizetStart, a_sizetDigits));
    };
    const auto day =
        LcctlDayOf({number(0, 4), static_cast<unsigned>(number(4, 2)), static_cast<unsigned>(number(6, 2))});
    if (!day)
        return {};
    const int64_t i64Second = number(8, 2) * 3600 + number(10, 2) * 60 + number(12, 2);
    Pieces pieces(std::string_view(a_strDigits).substr(14, 6));
    return WallTime(*day * 86400 + i64Second, pieces.Fraction().value_or(0));
}

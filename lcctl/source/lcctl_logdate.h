// lcctl_logdate.h: which day a line was written on. A run's first line has a date, all others the time of day alone.
#pragma once

#include "lcctl_logtime.h"

// Follows the lines of one log in their order.
//
// A time that is earlier than the line before means the next day: midnight has passed. Not where it is earlier by
// LCCTL_JITTER at most (threads write in another order than they took their times, clocks are set), or by as much as
// the clocks are put back on that day. A log that says nothing for a day or longer loses a day; its next run line sets
// it right.
inline constexpr LcctlTime LCCTL_JITTER = 5 * LCCTL_SECOND;

class CLcctlLogDate
{
public:
    // A run line says so.
    void Set(LcctlTime a_lcctltime)
    {
        m_i64Day = a_lcctltime / LCCTL_DAY;
        m_lcctltimeOfDay = a_lcctltime % LCCTL_DAY;
    }

    // The time of the next line.
    LcctlTime Take(LcctlTime a_lcctltimeOfDay)
    {
        const LcctlTime lcctltimeStep = a_lcctltimeOfDay - m_lcctltimeOfDay;
        if (lcctltimeStep < -LCCTL_JITTER || lcctltimeStep > LCCTL_DAY - LCCTL_JITTER)
            ChangeDay(lcctltimeStep);
        m_lcctltimeOfDay = a_lcctltimeOfDay;
        return Last();
    }

    // Of the line before.
    LcctlTime Last() const { return m_i64Day * LCCTL_DAY + m_lcctltimeOfDay; }

private:
    void ChangeDay(LcctlTime a_lcctltimeStep)
    {
        if (a_lcctltimeStep > 0)
            --m_i64Day;   // from before midnight
        else if (a_lcctltimeStep < -LCCTL_JITTER - LcctlClockGoesBack(m_i64Day))
            ++m_i64Day;
    }

    int64_t m_i64Day = 0;
    LcctlTime m_lcctltimeOfDay = 0;
};

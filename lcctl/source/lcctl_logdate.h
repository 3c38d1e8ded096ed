// lcctl_logdate.h: the date of a line. Only a run's first line has a date, all others only the time of day.
#pragma once

#include "lcctl_logtime.h"

// Follows the lines of one log in order.
//
// A time earlier than that of the line before means that midnight has passed, except if it is earlier by at most
// LCCTL_JITTER (threads may write out of order, clocks are set) or by the amount that the clocks are put back on that
// day. A log without lines for a day or longer loses a day; its next run line corrects that.
inline constexpr LcctlTime LCCTL_JITTER = 5 * LCCTL_SECOND;

class CLcctlLogDate
{
public:
    // Sets the time from a run line.
    void Set(LcctlTime a_lcctltime)
    {
        m_i64Day = a_lcctltime / LCCTL_DAY;
        m_lcctltimeOfDay = a_lcctltime % LCCTL_DAY;
    }

    // Returns the full time of the next line.
    LcctlTime Take(LcctlTime a_lcctltimeOfDay)
    {
        const LcctlTime lcctltimeStep = a_lcctltimeOfDay - m_lcctltimeOfDay;
        if (lcctltimeStep < -LCCTL_JITTER || lcctltimeStep > LCCTL_DAY - LCCTL_JITTER)
            ChangeDay(lcctltimeStep);
        m_lcctltimeOfDay = a_lcctltimeOfDay;
        return Last();
    }

    // The full time of the previous line.
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

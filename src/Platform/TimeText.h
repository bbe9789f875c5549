#ifndef PLATFORM_TIMETEXT_H
#define PLATFORM_TIMETEXT_H

#include <cstddef>
#include <cstdio>

/// A moment, as a calendar and a clock on the wall tell it.
struct LocalTime {
    int year;
    int month;       ///< from 1
    int day;         ///< from 1
    int day_of_week; ///< 0 is Sunday
    int hours;
    int minutes;
    int seconds;
};

/// Writes it in the C library's usual form of 24 characters, and a line end, cut to `size` bytes
/// with its zero, whatever the host's language.
inline void WriteTime(const LocalTime& time, char* text, std::size_t size)
{
    constexpr char days_of_week[][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr char months[][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::snprintf(text, size, "%s %s %2d %02d:%02d:%02d %d\n", days_of_week[time.day_of_week % 7],
                  months[(time.month + 11) % 12], time.day, time.hours, time.minutes, time.seconds,
                  time.year);
}

#endif

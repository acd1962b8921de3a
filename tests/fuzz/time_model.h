//  A second implementation of the time text, for time zones with a fixed offset from UTC. It uses the calendar of the
//  standard library.
#ifndef FUZZ_TIME_MODEL_H
#define FUZZ_TIME_MODEL_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

struct zone {
    const char* name;  // value of TZ, for tzset(3)
    int64_t clock;     // offset of the clock fields from UTC, seconds
    int64_t hours;     // whole hours of the zone that the text shows
};

inline constexpr zone zones[] = {
    {"STD0", 0, 0},          {"STD-8", 28800, 8},   {"STD5", -18000, -5},
    {"STD-5:30", 19800, 5},  {"STD0:45", -2700, 0}, {"STD-0:59:59", 3599, 0},
    {"STD3:30", -12600, -3}, {"STD-14", 50400, 14}, {"STD12", -43200, -12},
};

//  Returns the number in decimal with at least width characters; zeros follow the sign.
inline std::string padded(int64_t number, size_t width) {
    const std::string sign = number < 0 ? "-" : "";
    const std::string digits = std::to_string(std::abs(number));
    return sign + std::string(width > sign.size() + digits.size() ? width - sign.size() - digits.size() : 0, '0') +
           digits;
}

inline std::string model_time(int64_t milliseconds, const zone& where) {
    constexpr int64_t era_days = 146097;  // days of 400 years, after which the calendar repeats
    constexpr int64_t day_seconds = 86400;
    const int64_t remainder = milliseconds % 1000;
    const int64_t local = (milliseconds - remainder) / 1000 + where.clock;
    const int64_t second = ((local % day_seconds) + day_seconds) % day_seconds;
    const int64_t days = (local - second) / day_seconds;
    const int64_t era_day = ((days % era_days) + era_days) % era_days;
    const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{era_day}}};
    const int64_t year = static_cast<int>(date.year()) + (days - era_day) / era_days * 400;

    std::string text = std::to_string(year) + "-" + padded(static_cast<unsigned>(date.month()), 2) + "-" +
                       padded(static_cast<unsigned>(date.day()), 2) + "T" + padded(second / 3600, 2) + ":" +
                       padded(second / 60 % 60, 2) + ":" + padded(second % 60, 2);
    if (remainder != 0)
        text += "." + padded(remainder, 3);
    if (where.hours == 0)
        return text + "Z";
    return text + (where.hours < 0 ? "-" : "+") + padded(std::abs(where.hours), 2) + ":00";
}

#endif

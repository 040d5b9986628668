// Date serials (days since 1899-12-30, the fraction the time of day) and
// their formatting and parsing with the "%" codes of CV-TIME.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A broken-down time: month 0-11, years since 1900, weekday 0 = Sunday.
struct BrokenTime {
  int64_t second = 0, minute = 0, hour = 0;
  int64_t day = 1, month = 0, year = 0;
  int weekday = 0;
};

// The serial of a full year, a month 0-11, a day and a time of day.  Fields
// past their ranges carry into the next larger one; a result below zero
// gives -1.0.
double date_serial(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute, int64_t second);
// The machine's local wall-clock time, to the second.
double date_now();
// The fields of a serial, or nothing when it lies before day 0 or after
// 9999-12-31 (after `local` has moved it back a fixed five hours).
std::optional<BrokenTime> date_break_down(double serial, bool local);
// `format` applied to a serial; nothing when the serial does not break down.
std::optional<std::string> date_format(double serial, bool local, std::string_view format);
// Reads `text` (up to its first zero byte) by `format`.  A text that stops
// matching ends the walk: the fields read so far make the serial.
double date_parse(std::string_view text, bool local, std::string_view format);

// Date serials: building them from fields, breaking them down, and the
// "%" codes that format and parse them.
#include "base/dates.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "base/nocase.h"

namespace {

constexpr const char* kShortDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kLongDays[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
constexpr const char* kShortMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char* kLongMonths[] = {"January", "February", "March",     "April",   "May",      "June",
                                       "July",    "August",   "September", "October", "November", "December"};
constexpr int kDaysBefore[2][12] = {{0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334},
                                    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335}};

constexpr int64_t kSecondsPerDay = 86400;
// "local" is a fixed offset five hours behind GMT, not the machine's zone.
constexpr int64_t kLocalOffset = 18000;
// 10000-01-01: the first day a four-digit year cannot show.
constexpr int64_t kDayLimit = 2958466;
// Numbers read from a date text stop growing here, so no field overflows.
constexpr int64_t kNumberLimit = 1000000000;

bool is_leap(int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int64_t floor_div(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

std::string two_digits(int64_t n) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02lli", static_cast<long long>(n));
  return buf;
}

// Days since 1899-12-30 to a civil date (proleptic Gregorian).
void civil_from_days(int64_t days, BrokenTime* t) {
  int64_t z = days - 25569 + 719468;  // shift to days since 0000-03-01
  int64_t era = floor_div(z, 146097);
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  int64_t year = yoe + era * 400 + (mp >= 10 ? 1 : 0);
  t->day = doy - (153 * mp + 2) / 5 + 1;
  t->month = mp < 10 ? mp + 2 : mp - 10;
  t->year = year - 1900;
  t->weekday = static_cast<int>((days + 6) % 7);  // day 0 was a Saturday
}

// The index of the name in `names` that `text` starts with, or -1.
int match_name(std::string_view text, const char* const* names, int count) {
  for (int i = 0; i < count; ++i) {
    std::string_view name(names[i]);
    if (text.size() >= name.size() && equals_nocase(text.substr(0, name.size()), name)) return i;
  }
  return -1;
}

// A run of decimal digits after optional blanks; false when there is none.
bool read_number(std::string_view text, size_t* pos, int64_t* out) {
  size_t p = *pos;
  while (p < text.size() && (text[p] == ' ' || text[p] == '\t')) ++p;
  if (p >= text.size() || text[p] < '0' || text[p] > '9') return false;
  int64_t n = 0;
  for (; p < text.size() && text[p] >= '0' && text[p] <= '9'; ++p) {
    n = n * 10 + (text[p] - '0');
    if (n > kNumberLimit) n = kNumberLimit;
  }
  *pos = p;
  *out = n;
  return true;
}

bool read_literal(std::string_view text, size_t* pos, std::string_view word) {
  if (text.size() - *pos < word.size() || !equals_nocase(text.substr(*pos, word.size()), word)) return false;
  *pos += word.size();
  return true;
}

}  // namespace

double date_serial(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute, int64_t second) {
  minute += floor_div(second, 60);
  second -= floor_div(second, 60) * 60;
  hour += floor_div(minute, 60);
  minute -= floor_div(minute, 60) * 60;
  day += floor_div(hour, 24);
  hour -= floor_div(hour, 24) * 24;
  year += floor_div(month, 12);
  month -= floor_div(month, 12) * 12;
  // Days past the end of the month simply count on from its first day.
  int64_t y = year - 1;
  int64_t days = 365 * year + y / 4 - y / 100 + y / 400 - 693135 + kDaysBefore[is_leap(year)][month] + day - 460 - 364;
  double serial = static_cast<double>(days) + static_cast<double>(hour * 3600 + minute * 60 + second) / 86400.0;
  return serial < 0 ? -1.0 : serial;
}

double date_now() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  if (!localtime_r(&now, &local)) return -1.0;
  return date_serial(local.tm_year + 1900, local.tm_mon, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
}

std::optional<BrokenTime> date_break_down(double serial, bool local) {
  if (!std::isfinite(serial) || serial < 0 || serial >= static_cast<double>(kDayLimit)) return std::nullopt;
  // Rounded to the second: a time read back from text is rarely exact.
  int64_t total = std::llround(serial * kSecondsPerDay);
  if (local) total -= kLocalOffset;
  if (total < 0 || total >= kDayLimit * kSecondsPerDay) return std::nullopt;
  BrokenTime t;
  civil_from_days(total / kSecondsPerDay, &t);
  int64_t seconds = total % kSecondsPerDay;
  t.hour = seconds / 3600;
  t.minute = seconds / 60 % 60;
  t.second = seconds % 60;
  return t;
}

std::optional<std::string> date_format(double serial, bool local, std::string_view format) {
  std::optional<BrokenTime> broken = date_break_down(serial, local);
  if (!broken) return std::nullopt;
  const BrokenTime& t = *broken;
  std::string out;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    switch (format[++i]) {
      case 'd': out += two_digits(t.day); break;
      case 'D': out += std::to_string(t.weekday + 1); break;
      case 'h': out += two_digits(t.hour); break;
      case 'H': out += two_digits(t.hour % 12 == 0 ? 12 : t.hour % 12); break;
      case 'm': out += two_digits(t.minute); break;
      case 's': out += two_digits(t.second); break;
      case 'n': out += two_digits(t.month + 1); break;
      case 'N': out += kShortMonths[t.month]; break;
      case 'M': out += kLongMonths[t.month]; break;
      case 'w': out += kShortDays[t.weekday]; break;
      case 'W': out += kLongDays[t.weekday]; break;
      case 'y': out += two_digits((t.year + 1900) % 100); break;
      case 'Y': {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%04lli", static_cast<long long>(t.year + 1900));
        out += buf;
        break;
      }
      case 't': out += t.hour < 12 ? "am" : "pm"; break;
      case 'T': out += t.hour < 12 ? "a.m." : "p.m."; break;
      case '%': out += '%'; break;
      default: break;  // an unknown code prints nothing
    }
  }
  return out;
}

// The parse keeps the serial's time frame: "local" only shifts what is
// broken down for display, and a text read in carries no zone of its own.
double date_parse(std::string_view text, bool /*local*/, std::string_view format) {
  text = text.substr(0, text.find('\0'));
  BrokenTime t;
  int pm = -1;  // -1: no am/pm marker read; 0 am; 1 pm
  size_t pos = 0;
  bool matching = true;
  for (size_t i = 0; i < format.size() && matching; ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      matching = pos < text.size() && text[pos] == format[i];
      pos += matching;
      continue;
    }
    char code = format[++i];
    int64_t n = 0;
    int index = -1;
    switch (code) {
      case 'd': if ((matching = read_number(text, &pos, &n))) t.day = ((n - 1) & 31) + 1; break;
      case 'D': matching = read_number(text, &pos, &n); break;
      case 'h': if ((matching = read_number(text, &pos, &n))) t.hour = n % 24; break;
      case 'H': if ((matching = read_number(text, &pos, &n))) t.hour = n % 12; break;
      case 'm': if ((matching = read_number(text, &pos, &n))) t.minute = n % 60; break;
      case 's': if ((matching = read_number(text, &pos, &n))) t.second = n % 60; break;
      case 'n': if ((matching = read_number(text, &pos, &n) && n > 0)) t.month = (n - 1) % 12; break;
      // Two-digit years 69-99 are the 1900s, 00-68 the 2000s.
      case 'y': if ((matching = read_number(text, &pos, &n))) t.year = n % 100 < 69 ? n % 100 + 100 : n % 100; break;
      case 'Y': if ((matching = read_number(text, &pos, &n))) t.year = n - 1900; break;
      case 'w': case 'W': case 'N': case 'M': {
        bool days = code == 'w' || code == 'W';
        const char* const* names = code == 'w' ? kShortDays : code == 'W' ? kLongDays
                                  : code == 'N' ? kShortMonths : kLongMonths;
        index = match_name(text.substr(pos), names, days ? 7 : 12);
        matching = index >= 0;
        if (!matching) break;
        pos += std::string_view(names[index]).size();
        if (!days) t.month = index;
        break;
      }
      case 't':
        if (read_literal(text, &pos, "am")) pm = 0;
        else if (read_literal(text, &pos, "pm")) pm = 1;
        else matching = false;
        break;
      case 'T':
        if (read_literal(text, &pos, "a.m.")) pm = 0;
        else if (read_literal(text, &pos, "p.m.")) pm = 1;
        else matching = false;
        break;
      case '%': matching = pos < text.size() && text[pos] == '%'; pos += matching; break;
      default: break;
    }
  }
  if (pm >= 0) t.hour = t.hour % 12 + (pm ? 12 : 0);
  return date_serial(t.year + 1900, t.month, t.day, t.hour, t.minute, t.second);
}

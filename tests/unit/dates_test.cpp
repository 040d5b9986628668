// Date serials: the fixed points, carrying, and formatting/parsing round trips.
#include "base/dates.h"

#include <gtest/gtest.h>

TEST(DateSerial, FixedPoints) {
  EXPECT_EQ(0.0, date_serial(1899, 11, 30, 0, 0, 0));
  EXPECT_EQ(2.0, date_serial(1900, 0, 1, 0, 0, 0));
  EXPECT_EQ(25569.0, date_serial(1970, 0, 1, 0, 0, 0));
  EXPECT_EQ(36526.0, date_serial(2000, 0, 1, 0, 0, 0));
  EXPECT_EQ(36526.5, date_serial(2000, 0, 1, 12, 0, 0));
  EXPECT_EQ(-1.0, date_serial(1899, 11, 29, 0, 0, 0));
}

TEST(DateSerial, FieldsCarry) {
  // 2023-12-31 23:59:60 is 2024-01-01 00:00:00; month 12 is January next year.
  EXPECT_EQ(date_serial(2024, 0, 1, 0, 0, 0), date_serial(2023, 11, 31, 23, 59, 60));
  EXPECT_EQ(date_serial(2024, 0, 15, 0, 0, 0), date_serial(2023, 12, 15, 0, 0, 0));
  // February 30 of a leap year and of a common year.
  EXPECT_EQ(date_serial(2024, 2, 1, 0, 0, 0), date_serial(2024, 1, 30, 0, 0, 0));
  EXPECT_EQ(date_serial(2023, 2, 2, 0, 0, 0), date_serial(2023, 1, 30, 0, 0, 0));
}

TEST(DateBreakDown, RangeAndLocalOffset) {
  EXPECT_FALSE(date_break_down(-0.01, false));
  EXPECT_FALSE(date_break_down(2958466, false));
  EXPECT_TRUE(date_break_down(2958465.5, false));
  EXPECT_FALSE(date_break_down(18000.0 / 86400 - 0.001, true));
  std::optional<BrokenTime> t = date_break_down(18000.0 / 86400, true);
  ASSERT_TRUE(t);
  EXPECT_EQ(-1, t->year);  // 1899-12-30 00:00
  EXPECT_EQ(11, t->month);
  EXPECT_EQ(30, t->day);
  EXPECT_EQ(6, t->weekday);
}

TEST(DateFormat, RoundsToTheNearestSecond) {
  // Just below 12:00:01, as a serial read back from text often is.
  EXPECT_EQ("12:00:01", date_format(36526 + 43200.9999 / 86400, false, "%h:%m:%s"));
  EXPECT_EQ("2000-01-02 00:00:00", date_format(36526 + 86399.6 / 86400, false, "%Y-%n-%d %h:%m:%s"));
}

TEST(DateParse, RoundTripsThroughFormat) {
  const char* format = "%W %d %M %Y, %H:%m:%s %T";
  for (double serial : {2.0, 25569.25, 36526.75, 45351.5 + 1.0 / 86400, 2958465.0}) {
    std::optional<std::string> text = date_format(serial, false, format);
    ASSERT_TRUE(text);
    EXPECT_NEAR(serial, date_parse(*text, false, format), 0.5 / 86400) << *text;
  }
}

TEST(DateParse, TextEndsAtZeroByteAndHugeNumbersSaturate) {
  EXPECT_EQ(date_serial(2001, 0, 1, 0, 0, 0), date_parse(std::string("2001\0-05", 8), false, "%Y-%n"));
  // A year with more digits than any field holds still gives a serial.
  EXPECT_GT(date_parse("99999999999999999999999", false, "%Y"), 0);
}

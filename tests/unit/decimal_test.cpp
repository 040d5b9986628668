// Tests for the decimal engine: reading, printing, arithmetic and scales.
#include "values/decimal.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace {

std::string text_of(std::string_view in) { return decimal_to_text(decimal_from_text(in)); }

Decimal num(std::string_view in) { return decimal_from_text(in); }

std::string div_text(std::string_view a, std::string_view b) {
  Decimal out;
  EXPECT_TRUE(decimal_div(num(a), num(b), &out));
  return decimal_to_text(out);
}

std::string mod_text(std::string_view a, std::string_view b) {
  Decimal out;
  EXPECT_TRUE(decimal_mod(num(a), num(b), &out));
  return decimal_to_text(out);
}

std::string mul_text(std::string_view a, std::string_view b) {
  return decimal_to_text(decimal_mul(num(a), num(b)));
}

// Each test starts and ends at the default precision.
class DecimalTest : public ::testing::Test {
 protected:
  void SetUp() override { set_number_mode(&mode); }
  void TearDown() override { set_number_mode(nullptr); }
  NumberMode mode;
};

TEST_F(DecimalTest, ReadsLeadingNumericPart) {
  const std::pair<std::string, std::string> cases[] = {
      {"  -007.50xyz", "-7.50"}, {"abc", "0"}, {"-", "0"}, {".", "0"}, {"-.25", "-0.25"}, {"5.", "5"},
      {"+3", "3"}, {"\t\n 12 34", "12"}, {"1e5", "1"}, {"1.2.3", "1.2"}, {"000", "0"},
      {"-0", "0"}, {"-0.000", "0.000"},  // negative zero loses its sign
      {"0000.00000000000000000000000001", "0.00000000000000000000000001"},
      {"18446744073709551615", "18446744073709551615"}};
  for (const auto& [in, out] : cases) EXPECT_EQ(out, text_of(in)) << in;
  std::string big = "-" + std::string(30, '9') + "." + std::string(10, '1');
  EXPECT_EQ(big, text_of(big));
  EXPECT_FALSE(decimal_is_negative(num("-0.0")));
  EXPECT_TRUE(decimal_is_negative(num("-0.01")));
}

TEST_F(DecimalTest, DivisionKeepsThePrecision) {
  EXPECT_EQ("0.33333333333333333333", div_text("1", "3"));
  EXPECT_EQ("-0.33333333333333333333", div_text("-1", "3"));
  EXPECT_EQ("2.50000000000000000000", div_text("10", "4"));
  decimal_set_precision(5);
  EXPECT_EQ("0.33333", div_text("1", "3"));
  EXPECT_EQ("4.00000", div_text("0.5", "0.125"));
  decimal_set_precision(2);
  EXPECT_EQ("1.23", div_text("1.23456", "1"));  // dividend finer than the result
  decimal_set_precision(0);
  EXPECT_EQ("3", div_text("7", "2"));
  EXPECT_EQ("-3", div_text("-7", "2"));
  set_number_mode(nullptr);
  EXPECT_EQ(kDefaultDecimalPrecision, decimal_precision());
}

TEST_F(DecimalTest, MixedScaleAddSubCompare) {
  EXPECT_EQ("3.75", decimal_to_text(decimal_add(num("1.5"), num("2.25"))));
  EXPECT_EQ("-0.15", decimal_to_text(decimal_sub(num("0.1"), num("0.25"))));
  EXPECT_EQ("0.00", decimal_to_text(decimal_sub(num("7"), num("7.00"))));
  EXPECT_EQ(0, decimal_compare(num("1.5"), num("1.50")));
  EXPECT_EQ(0, decimal_compare(num("0"), num("-0.000")));
  EXPECT_EQ(1, decimal_compare(num("1.5"), num("1.49")));
  EXPECT_EQ(-1, decimal_compare(num("-2"), num("1")));
  EXPECT_EQ(-1, decimal_compare(num("-1.5"), num("-1.25")));
  EXPECT_EQ(1, decimal_compare(num("100000000000000000000000"), num("99999999999999999999999.99")));
}

TEST_F(DecimalTest, MultiplicationCapsTheScale) {
  EXPECT_EQ("3.375", mul_text("1.5", "2.25"));
  // 21 fraction digits exceed the precision and both scales: cut to 20.
  EXPECT_EQ("0.00000000000000000000", mul_text("0.0000000001", "0.00000000001"));
  EXPECT_EQ("0.000000000000000000001", mul_text("1.0", "0.000000000000000000001"));
  decimal_set_precision(2);
  EXPECT_EQ("1.56", mul_text("1.25", "1.25"));
  EXPECT_EQ("2.510", mul_text("1.255", "2"));
  EXPECT_EQ("0.062", mul_text("0.5", "0.125"));  // the longer operand scale is kept
}

TEST_F(DecimalTest, RemainderTakesTheSignOfTheLeftOperand) {
  EXPECT_EQ("1.5", mod_text("5.5", "2"));
  EXPECT_EQ("-1.5", mod_text("-5.5", "2"));
  EXPECT_EQ("1.5", mod_text("5.5", "-2"));
  EXPECT_EQ("2.0", mod_text("7", "2.5"));
  EXPECT_EQ("0.05", mod_text("1", "0.19"));
}

TEST_F(DecimalTest, ZeroDivisorLeavesTheResultAlone) {
  Decimal out = num("42");
  EXPECT_FALSE(decimal_div(num("1"), num("0.000"), &out));
  EXPECT_FALSE(decimal_mod(num("1"), num("-0"), &out));
  EXPECT_EQ("42", decimal_to_text(out));
}

TEST_F(DecimalTest, HugeProduct) {
  std::string nines(250, '9');
  // (10^250 - 1)^2 = 10^500 - 2*10^250 + 1
  std::string expected = std::string(249, '9') + "8" + std::string(249, '0') + "1";
  EXPECT_EQ(expected, mul_text(nines, nines));
}

TEST_F(DecimalTest, FromDoubleAndInt) {
  EXPECT_EQ("2.500000000000000", decimal_to_text(decimal_from_double(2.5)));
  EXPECT_EQ("-0.100000000000000", decimal_to_text(decimal_from_double(-0.1)));
  EXPECT_EQ("0.000000000000000", decimal_to_text(decimal_from_double(-0.0)));
  EXPECT_EQ("100000000000000000000.000000000000000", decimal_to_text(decimal_from_double(1e20)));
  EXPECT_EQ("0", decimal_to_text(decimal_from_double(std::numeric_limits<double>::quiet_NaN())));
  EXPECT_EQ("0", decimal_to_text(decimal_from_double(-std::numeric_limits<double>::infinity())));
  EXPECT_EQ(309u + 16u, decimal_to_text(decimal_from_double(std::numeric_limits<double>::max())).size());
  EXPECT_EQ("-9223372036854775808",
            decimal_to_text(decimal_from_int(std::numeric_limits<int64_t>::min())));
}

TEST_F(DecimalTest, IntegerPartAndConversions) {
  EXPECT_EQ("-12", decimal_integer_text(num("-12.75")));
  EXPECT_EQ("0", decimal_integer_text(num("-0.5")));
  EXPECT_EQ(-12, decimal_to_int(num("-12.75")));
  EXPECT_EQ(7, decimal_to_int(num("7.999")));
  EXPECT_EQ(std::numeric_limits<int64_t>::max(), decimal_to_int(num("99999999999999999999999")));
  EXPECT_EQ(std::numeric_limits<int64_t>::min(), decimal_to_int(num("-99999999999999999999.5")));
  EXPECT_EQ(0.1, decimal_to_double(num("0.1")));
  EXPECT_EQ(1.2345678901234568e29, decimal_to_double(num("123456789012345678901234567890.5")));
  EXPECT_EQ(0.3333333333333333, decimal_to_double(num("0.333333333333333333333333333333")));
}

TEST_F(DecimalTest, CopiesAreIndependent) {
  Decimal a = num("-1.25");
  Decimal b = a;
  b = decimal_add(b, num("1"));
  EXPECT_EQ("-1.25", decimal_to_text(a));
  EXPECT_EQ("-0.25", decimal_to_text(b));
  Decimal c = std::move(a);
  a = num("3.5");  // a moved-from value takes a new one
  EXPECT_EQ("3.5", decimal_to_text(a));
  EXPECT_EQ("-1.25", decimal_to_text(c));
}

}  // namespace

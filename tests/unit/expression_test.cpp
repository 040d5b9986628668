// Tests of the two arithmetic evaluators and the helpers around them.
#include "values/expression.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

std::string dec(std::string_view text) { return decimal_to_text(expr_eval_decimal(text)); }

TEST(ExpressionTest, Precedence) {
  EXPECT_DOUBLE_EQ(7, expr_eval_double("1+2*3"));
  EXPECT_DOUBLE_EQ(9, expr_eval_double("(1+2)*3"));
  EXPECT_DOUBLE_EQ(2, expr_eval_double("2*3%4"));
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1<2==1"));  // relational before equality
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1|2&0"));   // "&" before "|"
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1^1|1"));   // "^" before "|"
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1||0&&0"));  // "&&" before "||"
  EXPECT_DOUBLE_EQ(16, expr_eval_double("1+1<<2+1"));  // shifts after "+"
  EXPECT_DOUBLE_EQ(1, expr_eval_double("8-2-3-2"));  // left to right
  EXPECT_DOUBLE_EQ(3, expr_eval_double(" 12 / 2 / 2 "));
  EXPECT_EQ(EVAL_OK, eval_status);
}

TEST(ExpressionTest, IntegerOperands) {
  EXPECT_DOUBLE_EQ(0, expr_eval_double("0.5 && 1"));
  EXPECT_DOUBLE_EQ(14, expr_eval_double("7.9 << 1"));
  EXPECT_DOUBLE_EQ(4294967295.0, expr_eval_double("~0"));
  EXPECT_DOUBLE_EQ(0, expr_eval_double("~~0"));
  EXPECT_DOUBLE_EQ(1, expr_eval_double("!!1"));
  EXPECT_DOUBLE_EQ(0, expr_eval_double("!~0"));  // the operator nearest the number first
  EXPECT_DOUBLE_EQ(0, expr_eval_double("~-1"));  // -1 is 4294967295 as 32 bits
  EXPECT_DOUBLE_EQ(0, expr_eval_double("1<<32"));
  EXPECT_DOUBLE_EQ(2147483647.0, expr_eval_double("4294967295>>1"));
  EXPECT_DOUBLE_EQ(1, expr_eval_double("2^^0"));
  EXPECT_DOUBLE_EQ(0, expr_eval_double("2^^3"));
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1!=2"));  // "!=" is not a unary "!"
  EXPECT_DOUBLE_EQ(1, expr_eval_double("3=3"));
  EXPECT_EQ(EVAL_OK, eval_status);
}

TEST(ExpressionTest, SignsAndRemainders) {
  EXPECT_DOUBLE_EQ(1.5, expr_eval_double("5.5 % 2"));
  EXPECT_DOUBLE_EQ(-1.5, expr_eval_double("-5.5 % 2"));
  EXPECT_DOUBLE_EQ(-6, expr_eval_double("2*-3"));
  EXPECT_DOUBLE_EQ(3, expr_eval_double("1--2"));
  EXPECT_DOUBLE_EQ(6, expr_eval_double("-2*-3"));
  EXPECT_DOUBLE_EQ(4, expr_eval_double("1-(0-3)"));  // the group prints as -3.000000000000000
  EXPECT_DOUBLE_EQ(-0.5, expr_eval_double("-.5"));
  EXPECT_EQ(EVAL_OK, eval_status);
}

TEST(ExpressionTest, PrintedFormRoundTrip) {
  // Results are printed with fifteen decimals and read back.
  EXPECT_EQ(0.3, expr_eval_double("0.1+0.2"));
  EXPECT_EQ(0.333333333333333, expr_eval_double("1/3"));
  EXPECT_EQ(1, expr_eval_double("0.1+0.2==0.3"));
  EXPECT_EQ(0.999999999999999, expr_eval_double("(1/3)*3"));
}

TEST(ExpressionTest, Conditionals) {
  EXPECT_DOUBLE_EQ(5, expr_eval_double("1?5:7"));
  EXPECT_DOUBLE_EQ(7, expr_eval_double("0?5:7"));
  EXPECT_DOUBLE_EQ(3, expr_eval_double("1?0?2:3:4"));  // nested in the then-part
  EXPECT_DOUBLE_EQ(4, expr_eval_double("0?1?2:3:4"));
  EXPECT_DOUBLE_EQ(6, expr_eval_double("0?1:0?5:6"));
  EXPECT_DOUBLE_EQ(9, expr_eval_double("2>1?4+5:0"));
  EXPECT_DOUBLE_EQ(11, expr_eval_double("(0?1:2)+(1?9:0)"));
  EXPECT_EQ(EVAL_OK, eval_status);
  EXPECT_DOUBLE_EQ(5, expr_eval_double("1?5"));
  EXPECT_EQ(EVAL_MISSING_COLON, eval_status);
  EXPECT_DOUBLE_EQ(0, expr_eval_double("0?5"));
  EXPECT_EQ(EVAL_MISSING_COLON, eval_status);
}

TEST(ExpressionTest, FaultsGiveValueAndStatus) {
  EXPECT_DOUBLE_EQ(0, expr_eval_double("10/0"));
  EXPECT_EQ(EVAL_DIVISION_BY_ZERO, eval_status);
  EXPECT_DOUBLE_EQ(3, expr_eval_double("10%0+3"));
  EXPECT_EQ(EVAL_DIVISION_BY_ZERO, eval_status);
  EXPECT_DOUBLE_EQ(3, expr_eval_double("(1+2"));
  EXPECT_EQ(EVAL_UNMATCHED_PAREN, eval_status);
  EXPECT_DOUBLE_EQ(6, expr_eval_double("2*(1+(2"));
  EXPECT_EQ(EVAL_UNMATCHED_PAREN, eval_status);
  // A missing operand: the operator and its one operand become 0.
  EXPECT_DOUBLE_EQ(0, expr_eval_double("*3"));
  EXPECT_EQ(EVAL_ILLEGAL_OPERATOR, eval_status);
  EXPECT_DOUBLE_EQ(1, expr_eval_double("1+*3"));
  EXPECT_EQ(EVAL_ILLEGAL_OPERATOR, eval_status);
  EXPECT_DOUBLE_EQ(3, expr_eval_double("5-+2"));  // a sign, not a fault
  EXPECT_EQ(EVAL_OK, eval_status);
  EXPECT_DOUBLE_EQ(0, expr_eval_double("!"));
  EXPECT_EQ(EVAL_ILLEGAL_OPERATOR, eval_status);
  EXPECT_DOUBLE_EQ(3, expr_eval_double("1+2)"));  // the stray ")" is dropped
  EXPECT_EQ(EVAL_ILLEGAL_OPERATOR, eval_status);
  // The status does not carry over.
  EXPECT_DOUBLE_EQ(2, expr_eval_double("1+1"));
  EXPECT_EQ(EVAL_OK, eval_status);
}

TEST(ExpressionTest, Classification) {
  EXPECT_TRUE(expr_is_arithmetic("1.2+3.4"));
  EXPECT_TRUE(expr_is_arithmetic(" (1 < 2) ? 3 : 4\r\n"));
  EXPECT_TRUE(expr_is_arithmetic(""));
  EXPECT_FALSE(expr_is_arithmetic("1.2.3"));
  EXPECT_FALSE(expr_is_arithmetic("1.(2).3"));  // parentheses do not end a number
  EXPECT_FALSE(expr_is_arithmetic("x+1"));
  EXPECT_FALSE(expr_is_arithmetic("1,5"));
  EXPECT_FALSE(expr_is_arithmetic(std::string_view("1\0", 2)));
}

TEST(ExpressionTest, BlankTextStaysText) {
  ValuePtr v = expr_evaluate(" \t");
  ASSERT_EQ(VT_STRING, v->type);
  EXPECT_EQ(" \t", v->bytes);
}

TEST(ExpressionTest, DeepInputIsLinear) {
  const int n = 100000;
  std::string nested(n, '(');
  nested += "2";
  nested += std::string(n, ')');
  EXPECT_DOUBLE_EQ(2, expr_eval_double(nested));
  EXPECT_EQ(EVAL_OK, eval_status);
  EXPECT_DOUBLE_EQ(2, expr_eval_double(std::string(n, '(') + "2"));
  EXPECT_EQ(EVAL_UNMATCHED_PAREN, eval_status);

  std::string sum = "0";
  for (int i = 0; i < n; i++) sum += "+1";
  EXPECT_DOUBLE_EQ(n, expr_eval_double(sum));

  std::string chain;  // 0?1:0?1: ... :7
  for (int i = 0; i < n; i++) chain += "0?1:";
  EXPECT_DOUBLE_EQ(7, expr_eval_double(chain + "7"));
  std::string thens;  // 1?1? ... 1?7:0 ... :0
  for (int i = 0; i < n; i++) thens += "1?";
  thens += "7";
  for (int i = 0; i < n; i++) thens += ":0";
  EXPECT_DOUBLE_EQ(7, expr_eval_double(thens));
  EXPECT_EQ(EVAL_OK, eval_status);

  EXPECT_DOUBLE_EQ(1, expr_eval_double(std::string(n, '!') + "5"));  // an even count
  EXPECT_DOUBLE_EQ(0, expr_eval_double(std::string(n, '~') + "0"));
}

TEST(ExpressionTest, DecimalEvaluator) {
  decimal_set_precision(20);
  EXPECT_EQ("0.33333333333333333333", dec("1/3"));
  EXPECT_EQ(0, decimal_compare(expr_eval_decimal("0.1+0.2"), decimal_from_text("0.3")));
  EXPECT_EQ("1", dec("0.1+0.2==0.3"));
  EXPECT_EQ("7", dec("1+2*3"));
  EXPECT_EQ("-1.5", dec("-5.5%2"));
  EXPECT_EQ("4294967295", dec("~0"));
  EXPECT_EQ("5", dec("0?3:5"));
  EXPECT_EQ("0", dec("10/0"));
  EXPECT_EQ(EVAL_DIVISION_BY_ZERO, eval_status);
  EXPECT_EQ("12345678901234567890.5", dec("12345678901234567890+0.5"));
}

TEST(ExpressionTest, ValueAsInteger) {
  int64_t n = 0;
  EXPECT_TRUE(expr_value_as_integer(*value_from_number(-2.9), &n));
  EXPECT_EQ(-2, n);
  EXPECT_TRUE(expr_value_as_integer(*value_from_number(1e300), &n));
  EXPECT_EQ(INT64_MAX, n);
  EXPECT_TRUE(expr_value_as_integer(*value_from_decimal(decimal_from_text("-12.75")), &n));
  EXPECT_EQ(-12, n);
  EXPECT_TRUE(expr_value_as_integer(*value_from_integer(5), &n));
  EXPECT_EQ(5, n);
  EXPECT_FALSE(expr_value_as_integer(*value_from_string("5"), &n));
}

TEST(ExpressionTest, Truth) {
  bool numeric = false;
  EXPECT_TRUE(expr_value_truth(*value_from_number(0.000001), &numeric));
  EXPECT_TRUE(numeric);
  EXPECT_TRUE(expr_value_truth(*value_from_number(-0.000001), &numeric));
  EXPECT_FALSE(expr_value_truth(*value_from_number(0.0000009), &numeric));
  EXPECT_TRUE(expr_value_truth(*value_from_decimal(decimal_from_text("0.0000000001")), &numeric));
  EXPECT_FALSE(expr_value_truth(*value_from_decimal(decimal_from_text("0")), &numeric));
  EXPECT_FALSE(expr_value_truth(*value_from_integer(0), &numeric));
  EXPECT_TRUE(numeric);
  expr_value_truth(*value_from_string("1"), &numeric);
  EXPECT_FALSE(numeric);
}

}  // namespace

namespace {

// One operator between two numbers: the result is the operation's printed
// "%.15lf" form read back, exactly as when the same operation stands
// inside longer text.
TEST(ExpressionTest, SingleOperation) {
  EXPECT_EQ(3.5, expr_eval_double("7 / 2"));
  EXPECT_EQ(0.333333333333333, expr_eval_double("1/3"));
  EXPECT_EQ(expr_eval_double("1/3"), expr_eval_double("1/3+0"));
  EXPECT_EQ(0.3, expr_eval_double("0.1+0.2"));
  EXPECT_EQ(-3, expr_eval_double("5-8"));
  EXPECT_EQ(13, expr_eval_double("5--8"));
  EXPECT_EQ(-40, expr_eval_double("5*-8"));
  EXPECT_EQ(1, expr_eval_double("5000.000000000000000 < 10000"));
  EXPECT_EQ(0, expr_eval_double("2>=3"));
  EXPECT_EQ(1, expr_eval_double("2!=3"));
  EXPECT_EQ(2, expr_eval_double("6.7 & 3"));
  EXPECT_EQ(-1, expr_eval_double("-7 % 3"));
  EXPECT_EQ(EVAL_OK, eval_status);
  // -0 prints with its sign and is read back negative.
  EXPECT_TRUE(std::signbit(expr_eval_double("-0 * 1")));
  // Beyond 1e15 the fifteen decimals are printed and read back.
  EXPECT_EQ(1e200 * 1e10, expr_eval_double("1" + std::string(200, '0') + " * 10000000000"));
  // Infinity prints as a word, which reads back as 0.
  EXPECT_EQ(0, expr_eval_double("1" + std::string(300, '0') + " * 10000000000"));
  EXPECT_EQ(0, expr_eval_double("5 % 0"));
  EXPECT_EQ(EVAL_DIVISION_BY_ZERO, eval_status);
  EXPECT_EQ(0, expr_eval_double("5 +"));
  EXPECT_EQ(EVAL_ILLEGAL_OPERATOR, eval_status);
  EXPECT_EQ(0, decimal_compare(expr_eval_decimal("5 / 2"), decimal_from_text("2.5")));
  EXPECT_EQ("1", dec("5 > 2"));
}

}  // namespace

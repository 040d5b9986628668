// Tests of the two arithmetic evaluators and the helpers around them.
#include "runtime/expression.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "runtime/run.h"

namespace {

uint8_t eval_status = EVAL_OK;
double eval_double(std::string_view text) { return expr_eval_double(text, &eval_status); }
Decimal eval_decimal(std::string_view text) { return expr_eval_decimal(text, &eval_status); }

std::string dec(std::string_view text) { return decimal_to_text(eval_decimal(text)); }

struct Case {
  std::string text;
  double value;
  EvalStatus status = EVAL_OK;
};

// Precedence, 32-bit integer operators, signs, the printed "%.15lf" form read
// back after each operation, conditionals and faults with their value.
TEST(ExpressionTest, DoubleEvaluator) {
  const Case cases[] = {
      {"1+2*3", 7}, {"2*3%4", 2}, {"1<2==1", 1}, {"1|2&0", 1}, {"1^1|1", 1}, {"1||0&&0", 1},
      {"1+1<<2+1", 16}, {"8-2-3-2", 1}, {" 12 / 2 / 2 ", 3},
      {"0.5 && 1", 0}, {"~0", 4294967295.0}, {"!~0", 0}, {"~-1", 0}, {"1<<32", 0},
      {"4294967295>>1", 2147483647.0}, {"2^^3", 0}, {"1!=2", 1}, {"3=3", 1}, {"6.7 & 3", 2},
      {"-5.5 % 2", -1.5}, {"1--2", 3}, {"-2*-3", 6}, {"1-(0-3)", 4}, {"-.5", -0.5}, {"5-+2", 3},
      {"0.1+0.2==0.3", 1}, {"1/3", 0.333333333333333}, {"(1/3)*3", 0.999999999999999},
      {"5000.000000000000000 < 10000", 1},
      {"1?0?2:3:4", 3}, {"0?1?2:3:4", 4}, {"0?1:0?5:6", 6}, {"2>1?4+5:0", 9}, {"(0?1:2)+(1?9:0)", 11},
      {"1?5", 5, EVAL_MISSING_COLON}, {"0?5", 0, EVAL_MISSING_COLON},
      {"10/0", 0, EVAL_DIVISION_BY_ZERO}, {"10%0+3", 3, EVAL_DIVISION_BY_ZERO},
      {"2*(1+(2", 6, EVAL_UNMATCHED_PAREN},
      // A missing operand: the operator and its one operand become 0.
      {"*3", 0, EVAL_ILLEGAL_OPERATOR}, {"1+*3", 1, EVAL_ILLEGAL_OPERATOR}, {"!", 0, EVAL_ILLEGAL_OPERATOR},
      {"5 +", 0, EVAL_ILLEGAL_OPERATOR}, {"1+2)", 3, EVAL_ILLEGAL_OPERATOR},  // the stray ")" is dropped
      {"+", 0, EVAL_ILLEGAL_OPERATOR}, {" - ", 0, EVAL_ILLEGAL_OPERATOR},  // a sign alone is no number
      {"1+1", 2},  // the status does not carry over
      // Beyond 1e15 the fifteen decimals are read back; infinity prints as a word that reads as 0.
      {"1" + std::string(200, '0') + " * 10000000000", 1e200 * 1e10},
      {"1" + std::string(300, '0') + " * 10000000000", 0},
  };
  // The evaluator's shortcuts for common shapes and the plain rewriting
  // must agree on every case.
  for (bool shortcuts : {true, false}) {
    arithmetic_shortcuts = shortcuts;
    for (const Case& c : cases) {
      EXPECT_EQ(c.value, eval_double(c.text)) << c.text << (shortcuts ? "" : " (no shortcuts)");
      EXPECT_EQ(c.status, eval_status) << c.text << (shortcuts ? "" : " (no shortcuts)");
    }
    EXPECT_TRUE(std::signbit(eval_double("-0 * 1")));
  }
  arithmetic_shortcuts = true;
}

TEST(ExpressionTest, ClassificationAndBlankText) {
  EXPECT_TRUE(expr_is_arithmetic(" (1 < 2) ? 3 : 4\r\n"));
  EXPECT_TRUE(expr_is_arithmetic(""));
  EXPECT_FALSE(expr_is_arithmetic("1.2.3"));
  EXPECT_FALSE(expr_is_arithmetic("1.(2).3"));  // parentheses do not end a number
  EXPECT_FALSE(expr_is_arithmetic("1,5"));
  EXPECT_FALSE(expr_is_arithmetic(std::string_view("1\0", 2)));
  ::Run run;
  ValuePtr v = expr_evaluate(run, " \t");
  ASSERT_EQ(VT_STRING, v->type);
  EXPECT_EQ(" \t", v->bytes);
}

TEST(ExpressionTest, DeepInputIsLinear) {
  const int n = 100000;
  EXPECT_DOUBLE_EQ(2, eval_double(std::string(n, '(') + "2" + std::string(n, ')')));
  EXPECT_EQ(EVAL_OK, eval_status);
  EXPECT_DOUBLE_EQ(2, eval_double(std::string(n, '(') + "2"));
  EXPECT_EQ(EVAL_UNMATCHED_PAREN, eval_status);
  std::string sum = "0", chain, thens;
  for (int i = 0; i < n; i++) sum += "+1", chain += "0?1:", thens += "1?";
  EXPECT_DOUBLE_EQ(n, eval_double(sum));
  EXPECT_DOUBLE_EQ(7, eval_double(chain + "7"));
  for (int i = 0; i < n; i++) thens += i ? ":0" : "7:0";
  EXPECT_DOUBLE_EQ(7, eval_double(thens));
  EXPECT_EQ(EVAL_OK, eval_status);
  EXPECT_DOUBLE_EQ(1, eval_double(std::string(n, '!') + "5"));
  EXPECT_DOUBLE_EQ(0, eval_double(std::string(n, '~') + "0"));
}

TEST(ExpressionTest, DecimalEvaluator) {
  decimal_set_precision(20);
  EXPECT_EQ("0.33333333333333333333", dec("1/3"));
  EXPECT_EQ("1", dec("0.1+0.2==0.3"));
  EXPECT_EQ("7", dec("1+2*3"));
  EXPECT_EQ("-1.5", dec("-5.5%2"));
  EXPECT_EQ("4294967295", dec("~0"));
  EXPECT_EQ("5", dec("0?3:5"));
  EXPECT_EQ("0", dec("10/0"));
  EXPECT_EQ(EVAL_DIVISION_BY_ZERO, eval_status);
  EXPECT_EQ("12345678901234567890.5", dec("12345678901234567890+0.5"));
  EXPECT_EQ(0, decimal_compare(eval_decimal("5 / 2"), decimal_from_text("2.5")));
}

TEST(ExpressionTest, IntegerAndTruthOfValues) {
  int64_t n = 0;
  EXPECT_TRUE(expr_value_as_integer(*value_from_number(-2.9), &n));
  EXPECT_EQ(-2, n);
  EXPECT_TRUE(expr_value_as_integer(*value_from_number(1e300), &n));
  EXPECT_EQ(INT64_MAX, n);
  EXPECT_TRUE(expr_value_as_integer(*value_from_decimal(decimal_from_text("-12.75")), &n));
  EXPECT_EQ(-12, n);
  EXPECT_FALSE(expr_value_as_integer(*value_from_string("5"), &n));
  EXPECT_FALSE(expr_value_as_integer(*value_from_integer(5), &n));  // not a numeric option's kind
  bool numeric = false;
  EXPECT_TRUE(expr_value_truth(*value_from_number(-0.000001), &numeric));
  EXPECT_TRUE(numeric);
  EXPECT_FALSE(expr_value_truth(*value_from_number(0.0000009), &numeric));
  EXPECT_TRUE(expr_value_truth(*value_from_decimal(decimal_from_text("0.0000000001")), &numeric));
  expr_value_truth(*value_from_integer(1), &numeric);
  EXPECT_FALSE(numeric);  // an integer is not a condition's kind
  expr_value_truth(*value_from_string("1"), &numeric);
  EXPECT_FALSE(numeric);
}

}  // namespace

// Expression evaluation: conditions and arithmetic in option texts.
//
// Arithmetic text is reduced by rewriting: parenthesised parts first, then a
// top-level ?:, then one pass per precedence level, each replacing operators
// and their operands by the printed result.  Two evaluators share the
// grammar: floating point, and decimal numbers while decimal mode is on.
#pragma once

#include <cstdint>
#include <string_view>

#include "values/decimal.h"
#include "values/value.h"

enum EvalStatus : uint8_t {
  EVAL_OK = 0,
  EVAL_DIVISION_BY_ZERO = 1,
  EVAL_ILLEGAL_OPERATOR = 2,
  EVAL_UNMATCHED_PAREN = 3,
  EVAL_MISSING_COLON = 4,
};

// Status of the last arithmetic evaluation.
extern uint8_t eval_status;

// A new value: a number for arithmetic text (decimal in decimal mode), the
// value of a variable tag for other text, else the text itself as a string.
ValuePtr expr_evaluate(std::string_view text);
// The two evaluators over arithmetic text (white space already removed or
// not); they set eval_status.
double expr_eval_double(std::string_view text);
Decimal expr_eval_decimal(std::string_view text);
// True when every byte may appear in arithmetic text and no number holds a
// second decimal point.
bool expr_is_arithmetic(std::string_view text);

// Reads a numeric option's result the way tags do: a decimal's integer part,
// a floating-point number truncated towards zero.  False for other kinds,
// integers included (values/option_number.h evaluates and reads in one step).
bool expr_value_as_integer(const Value& v, int64_t* out);
// Truth of a condition's result: decimal non-zero; floating point outside
// the band strictly between -0.000001 and 0.000001.  False in `numeric` for
// other kinds, integers included.
bool expr_value_truth(const Value& v, bool* numeric);

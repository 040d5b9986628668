// Expression evaluation: an option's text as a number, a variable's value or
// the text itself, with the evaluation status reported.
#pragma once

#include <cstdint>
#include <string_view>

#include "values/arithmetic.h"
#include "values/decimal.h"
#include "values/value.h"

struct Run;

// A new value: a number for arithmetic text (decimal in decimal mode), the
// value of a variable tag for other text, else the text itself as a string.
ValuePtr expr_evaluate(Run& run, std::string_view text);
// Reads a numeric option's result the way tags do: a decimal's integer part,
// a floating-point number truncated towards zero.  False for other kinds,
// integers included (runtime/option_number.h evaluates and reads in one step).
bool expr_value_as_integer(const Value& v, int64_t* out);
// Truth of a condition's result: decimal non-zero; floating point outside
// the band strictly between -0.000001 and 0.000001.  False in `numeric` for
// other kinds, integers included.
bool expr_value_truth(const Value& v, bool* numeric);

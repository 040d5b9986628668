// Numbers read from evaluated option texts ("condition", "element", "seek",
// "value" ...): every tag option that takes a number goes through here.
//
// An evaluated option is a number only when its result is one of the two
// numeric kinds an evaluation yields: a decimal number or a floating-point
// number.  An integer value (a size, position or count that a tag stored in a
// variable) is neither, so an option whose text is the name of such a
// variable gets the option's error message like any other non-number.  The
// exception is a handle the engine itself stored (CVFILE's file handle,
// CVWEB's socket number): the tag that reads it back accepts it.
#pragma once

#include <cstdint>
#include <string_view>

#include "values/value.h"

struct Run;

// True for a decimal or a floating-point value.
bool is_option_number(const Value& v);

// The evaluated option when it is a number, else null.  The evaluation may
// run variable tags; a caller that reports checks run.stop first.
ValuePtr evaluate_number_option(Run& run, std::string_view text);
// A whole number: a decimal's integer part, a floating-point number truncated
// towards zero (both saturated to 64 bits).  False for other results.
bool evaluate_whole_option(Run& run, std::string_view text, int64_t* out);
// A floating-point number as it is, a decimal read through its text (its
// fraction kept).  False for other results.
bool evaluate_real_option(Run& run, std::string_view text, double* out);
// A condition: false when the result is not a number; else `truth` is set
// (decimal: not zero; floating point: outside the band strictly between
// -0.000001 and 0.000001).
bool evaluate_condition(Run& run, std::string_view text, bool* truth);

// A handle read back from the variable a tag stored it in: an integer as it
// is, a decimal's integer part, a floating-point number truncated.  False for
// every other kind and for a floating-point NaN.
bool stored_handle(const Value& v, int64_t* out);

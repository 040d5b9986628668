// Helpers shared by the Level 4 resolution files (not for other callers).
#pragma once

#include <cstdint>
#include <string_view>

#include "page/tag.h"
#include "values/value.h"

struct Run;

// Writes a resolution failure to the diagnostic buffer and returns null.
Value* level4_fail(Run& run, std::string_view message);
// Evaluates an option text as a number: a decimal result's integer part or
// a floating-point result truncated.  False for any other result, an integer
// included (evaluate_whole_option).
bool level4_option_integer(Run& run, std::string_view text, int64_t* out);
// 0-based row of `cell` among a hash's values, or -1.
int level4_hash_position(const Value& hash, const Value* cell);
// The query-result options of a reference to a query value.
Value* level4_query_select(Run& run, Value& query, const ParsedTag& tag);

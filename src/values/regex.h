// Regular-expression matching for CV-STR "regex": PCRE2 over byte strings,
// with each group's nesting depth taken from the pattern's parentheses.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "values/value.h"

// One capture record: group 0 first, then the groups in the order of their
// opening parentheses.  `capturing` is false for a group that took no part
// in the match.  Depth: 0 for group 0; a group's depth is 1 plus the number
// of capturing groups whose parentheses enclose it.
struct RegexCapture {
  bool capturing = false;
  uint32_t start = 0, end = 0;
  uint32_t depth = 0;
};

enum RegexStatus : uint8_t { REGEX_MATCH, REGEX_NO_MATCH, REGEX_FAILED };

// Limits that keep a hostile pattern from holding the page: backtracking
// steps, nesting depth of the backtracking, and its heap in KiB.
constexpr uint32_t kRegexMatchLimit = 1000000;
constexpr uint32_t kRegexDepthLimit = 10000;
constexpr uint32_t kRegexHeapLimitKib = 65536;

// Matches `pattern` against `subject` (both counted bytes).  REGEX_FAILED
// covers a pattern that does not compile and any match error, limits
// included.
RegexStatus regex_match(std::string_view pattern, std::string_view subject, std::vector<RegexCapture>* out);

// Depths of groups 0..n as the parentheses of `pattern` nest them; the
// result's size is the number of capturing groups found plus one.
std::vector<uint32_t> regex_group_depths(std::string_view pattern);

// The list tree of the records: each record becomes [text, children] (or,
// with `ranges`, [start, end, children]) and is placed by its depth.
ValuePtr regex_result_tree(const std::vector<RegexCapture>& captures, std::string_view subject, bool ranges);

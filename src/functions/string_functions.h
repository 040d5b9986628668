// Byte-string operations behind CV-STR: comparisons, case, trimming, white
// space, splitting, searching and the quoting and escaping helpers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The orderings of CV-STR "compare" and "sort".  Not reduced to -1/0/1: a
// difference of bytes is returned as it is.  An empty string sorts first.
// Byte order: unsigned bytes over the shorter length, then the longer is
// greater; `fold` maps a to z to upper case first.
int str_compare_bytes(std::string_view a, std::string_view b, bool fold);
// Natural order: where the first string has a digit, the numbers at both
// positions decide; otherwise characters, up to the first difference.  Both
// walks end at a zero byte.
int str_compare_natural(std::string_view a, std::string_view b, bool fold);
int str_compare(std::string_view a, std::string_view b, bool fold, bool natural);

// Sorts the texts' indices in the given order; safe whatever the ordering
// does (the natural one is not transitive).
void str_sort_indices(const std::vector<std::string>& texts, bool fold, bool natural,
                      std::vector<size_t>& order);

void str_uppercase(std::string& s);  // only a to z
void str_lowercase(std::string& s);  // only A to Z
void str_ltrim(std::string& s);      // only byte 0x20
void str_rtrim(std::string& s);
// Drops every byte that occurs in `set`.
std::string str_remove_bytes(std::string_view s, std::string_view set);
// Runs of blanks inside a line become one space; blanks at line ends, blank
// lines, indentation and carriage returns vanish.
std::string str_singlespace(std::string_view s);
// The double quote, "&", "<" and ">" as character references.
std::string str_htmlsafe(std::string_view s);

// Pieces between occurrences of `separator`, always with the rest after the
// last one.  An empty separator or text gives one piece.
std::vector<std::string> str_explode(std::string_view text, std::string_view separator, bool fold);
// Zero-based position of the first occurrence, -1 when none or when either
// text is empty.
int64_t str_find(std::string_view text, std::string_view needle, bool fold);

enum QuoteFlags : int { QUOTE_NOTNULL = 1, QUOTE_APPEND_NUL = 2 };
// Doubles every `quote` byte; with QUOTE_NOTNULL an empty result becomes one
// space, with QUOTE_APPEND_NUL a zero byte ends it.  Shared with SQL text.
std::string quote_double(std::string_view bytes, char quote, int flags);

// Case-insensitive comparison of names and keywords, byte by byte.
//
// The program runs in the C locale, where case folding maps only "a"-"z";
// an inline fold avoids a library call per byte on the hottest paths (tag
// lookup, option lookup).
#pragma once

#include <string>
#include <string_view>

inline unsigned char fold_upper(unsigned char c) { return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c; }

inline bool equals_nocase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (fold_upper(static_cast<unsigned char>(a[i])) != fold_upper(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

// Keyword option values ("insert", "on", ...) are read with white space
// (space, tab, carriage return, line feed) removed.
inline std::string without_white_space(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') out += c;
  }
  return out;
}

// A keyword option value compared with `word`: white space removed, case ignored.
inline bool keyword_is(std::string_view value, std::string_view word) {
  return equals_nocase(without_white_space(value), word);
}

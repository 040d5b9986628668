// Case-insensitive comparison of names and keywords, byte by byte.
//
// The program runs in the C locale, where case folding maps only "a"-"z";
// an inline fold avoids a library call per byte on the hottest paths (tag
// lookup, option lookup).
#pragma once

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

// Orderings of byte strings: plain and case-insensitive, and natural orders
// in which runs of digits compare by their value.
#include <algorithm>

#include "base/nocase.h"
#include "values/value.h"

namespace {

bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

template <bool kNoCase>
int compare_plain(std::string_view a, std::string_view b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++) {
    unsigned char x = a[i], y = b[i];
    if (kNoCase) x = fold_upper(x), y = fold_upper(y);
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

// Digit runs met at the same place compare by value: the run without its
// leading zeros that is longer is larger, equal lengths compare digit by
// digit, so runs of any length work.  Strings equal in this sense fall back
// to the plain ordering ("01" before "1") so the order stays total.
template <bool kNoCase>
int compare_natural_impl(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    unsigned char x = a[i], y = b[j];
    if (is_digit(x) && is_digit(y)) {
      size_t ri = i, rj = j;
      while (ri < a.size() && a[ri] == '0') ri++;
      while (rj < b.size() && b[rj] == '0') rj++;
      size_t ei = ri, ej = rj;
      while (ei < a.size() && is_digit(a[ei])) ei++;
      while (ej < b.size() && is_digit(b[ej])) ej++;
      if (ei - ri != ej - rj) return ei - ri < ej - rj ? -1 : 1;
      int c = a.substr(ri, ei - ri).compare(b.substr(rj, ej - rj));
      if (c != 0) return c < 0 ? -1 : 1;
      i = ei, j = ej;
      continue;
    }
    if (kNoCase) x = fold_upper(x), y = fold_upper(y);
    if (x != y) return x < y ? -1 : 1;
    i++, j++;
  }
  bool a_left = i < a.size(), b_left = j < b.size();
  if (a_left != b_left) return a_left ? 1 : -1;
  return compare_plain<kNoCase>(a, b);
}

}  // namespace

int compare_bytes(std::string_view a, std::string_view b) { return compare_plain<false>(a, b); }
int compare_bytes_nocase(std::string_view a, std::string_view b) { return compare_plain<true>(a, b); }
int compare_natural(std::string_view a, std::string_view b) { return compare_natural_impl<false>(a, b); }
int compare_natural_nocase(std::string_view a, std::string_view b) {
  return compare_natural_impl<true>(a, b);
}

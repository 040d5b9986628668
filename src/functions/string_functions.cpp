// Byte-string operations behind CV-STR.  Every operation walks the stored
// length, so zero bytes are data unless a function says otherwise.
#include "functions/string_functions.h"

#include <algorithm>
#include <cstdint>

namespace {

unsigned char fold_upper(unsigned char c) { return (c >= 'a' && c <= 'z') ? c - 32 : c; }

bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }

// The empty-string rules every ordering starts with; 2 when both have bytes.
int compare_empties(std::string_view a, std::string_view b) {
  if (a.empty() && b.empty()) return 0;
  if (b.empty()) return 1;
  if (a.empty()) return -1;
  return 2;
}

// A digit run read as a number; long runs saturate rather than overflow.
int64_t read_number(std::string_view s, size_t at, size_t* digits) {
  int64_t n = 0;
  size_t i = at;
  for (; i < s.size() && is_digit(s[i]); i++) n = n > (INT64_MAX - 9) / 10 ? INT64_MAX : n * 10 + (s[i] - '0');
  *digits = i - at;
  return n;
}

}  // namespace

int str_compare_bytes(std::string_view a, std::string_view b, bool fold) {
  int e = compare_empties(a, b);
  if (e != 2) return e;
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++) {
    unsigned char x = a[i], y = b[i];
    if (fold) {
      x = fold_upper(x);
      y = fold_upper(y);
    }
    if (x != y) return int(x) - int(y);
  }
  if (a.size() == b.size()) return 0;
  return a.size() > b.size() ? 1 : -1;
}

int str_compare_natural(std::string_view a, std::string_view b, bool fold) {
  int e = compare_empties(a, b);
  if (e != 2) return e;
  // Positions past the end read as the terminating zero byte.
  auto at = [](std::string_view s, size_t i) -> unsigned char { return i < s.size() ? s[i] : 0; };
  size_t i = 0, j = 0;
  while (at(a, i) && at(b, j)) {
    if (is_digit(at(a, i))) {
      size_t digits_a = 0, digits_b = 0;
      int64_t x = read_number(a, i, &digits_a);
      int64_t y = read_number(b, j, &digits_b);
      if (x < y) return -1;
      if (x > y) return 1;
      // Both advance by the first string's run; the second may be shorter,
      // so its position stops at its end.
      i += digits_a;
      j = std::min(j + digits_a, b.size());
      continue;
    }
    unsigned char x = at(a, i), y = at(b, j);
    if (fold) {
      x = fold_upper(x);
      y = fold_upper(y);
    }
    if (x != y) return int(x) - int(y);
    i++;
    j++;
  }
  unsigned char x = at(a, i), y = at(b, j);
  if (fold) {
    x = fold_upper(x);
    y = fold_upper(y);
  }
  return int(x) - int(y);
}

int str_compare(std::string_view a, std::string_view b, bool fold, bool natural) {
  return natural ? str_compare_natural(a, b, fold) : str_compare_bytes(a, b, fold);
}

void str_sort_indices(const std::vector<std::string>& texts, bool fold, bool natural,
                      std::vector<size_t>& order) {
  // A bottom-up merge sort: its index arithmetic never depends on what the
  // comparison answers, so an ordering that is not transitive cannot make it
  // leave the array (the library sorts assume a strict weak ordering).
  order.resize(texts.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = i;
  std::vector<size_t> merged(order.size());
  for (size_t width = 1; width < order.size(); width *= 2) {
    for (size_t lo = 0; lo < order.size(); lo += 2 * width) {
      size_t mid = std::min(lo + width, order.size()), hi = std::min(lo + 2 * width, order.size());
      size_t l = lo, r = mid, out = lo;
      while (l < mid && r < hi)
        merged[out++] = str_compare(texts[order[r]], texts[order[l]], fold, natural) < 0 ? order[r++] : order[l++];
      while (l < mid) merged[out++] = order[l++];
      while (r < hi) merged[out++] = order[r++];
    }
    order.swap(merged);
  }
}

void str_uppercase(std::string& s) {
  for (char& c : s)
    if (c >= 'a' && c <= 'z') c = char(c - 32);
}

void str_lowercase(std::string& s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = char(c + 32);
}

void str_ltrim(std::string& s) {
  size_t n = 0;
  while (n < s.size() && s[n] == ' ') n++;
  s.erase(0, n);
}

void str_rtrim(std::string& s) {
  size_t n = s.size();
  while (n > 0 && s[n - 1] == ' ') n--;
  s.resize(n);
}

std::string str_remove_bytes(std::string_view s, std::string_view set) {
  std::string out;
  out.reserve(s.size());
  for (char c : s)
    if (set.find(c) == std::string_view::npos) out += c;
  return out;
}

std::string str_singlespace(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\0'; };
  auto any_space = [&](char c) { return blank(c) || c == '\r' || c == '\n'; };
  std::string out;
  out.reserve(s.size());
  size_t i = 0;
  while (i < s.size() && any_space(s[i])) i++;
  while (i < s.size()) {
    char c = s[i];
    if (blank(c)) {
      while (i < s.size() && blank(s[i])) i++;
      // One space between words; none before a line break or at the end.
      if (i < s.size() && !any_space(s[i])) out += ' ';
    } else if (c == '\n') {
      out += '\n';
      i++;
      while (i < s.size() && any_space(s[i])) i++;
    } else {
      if (c != '\r') out += c;
      i++;
    }
  }
  return out;
}

std::string str_htmlsafe(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '"': out += "&quot;"; break;
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      default: out += c;
    }
  }
  return out;
}

std::vector<std::string> str_explode(std::string_view text, std::string_view separator, bool fold) {
  std::vector<std::string> pieces;
  if (separator.empty() || text.empty()) {
    pieces.emplace_back(text);
    return pieces;
  }
  std::string folded_text(text), folded_sep(separator);
  if (fold) {
    str_uppercase(folded_text);
    str_uppercase(folded_sep);
  }
  size_t from = 0;
  for (;;) {
    size_t hit = folded_text.find(folded_sep, from);
    if (hit == std::string::npos) break;
    pieces.emplace_back(text.substr(from, hit - from));
    from = hit + separator.size();
  }
  pieces.emplace_back(text.substr(from));
  return pieces;
}

int64_t str_find(std::string_view text, std::string_view needle, bool fold) {
  if (text.empty() || needle.empty()) return -1;
  size_t hit;
  if (fold) {
    std::string t(text), n(needle);
    str_uppercase(t);
    str_uppercase(n);
    hit = t.find(n);
  } else {
    hit = text.find(needle);
  }
  return hit == std::string_view::npos ? -1 : int64_t(hit);
}

std::string quote_double(std::string_view bytes, char quote, int flags) {
  std::string out;
  out.reserve(bytes.size() + 2);
  for (char c : bytes) {
    out += c;
    if (c == quote) out += c;
  }
  if ((flags & QUOTE_NOTNULL) && out.empty()) out.push_back(' ');
  if (flags & QUOTE_APPEND_NUL) out += '\0';
  return out;
}

// PCRE2 behind CV-STR "regex": matching with limits, group depths from the
// pattern, and the list tree of the capture records.
#include "values/regex.h"

#include <pcre2.h>

#include <memory>

namespace {

struct CodeFree {
  void operator()(pcre2_code* p) const { pcre2_code_free(p); }
};
struct MatchDataFree {
  void operator()(pcre2_match_data* p) const { pcre2_match_data_free(p); }
};
struct MatchContextFree {
  void operator()(pcre2_match_context* p) const { pcre2_match_context_free(p); }
};

// The name of a named group starts after "(?<", "(?'" or "(?P<"; "(?<=" and
// "(?<!" are lookbehinds.
bool opens_named_group(std::string_view p, size_t at) {
  // `at` is the index of the "?" after "(".
  if (at + 1 >= p.size()) return false;
  char c = p[at + 1];
  if (c == '\'') return true;
  if (c == '<') return at + 2 < p.size() && p[at + 2] != '=' && p[at + 2] != '!';
  return c == 'P' && at + 2 < p.size() && p[at + 2] == '<';
}

// Skips a character class starting at its "[", returning the index after "]".
size_t skip_class(std::string_view p, size_t i) {
  i++;
  if (i < p.size() && p[i] == '^') i++;
  if (i < p.size() && p[i] == ']') i++;  // a leading "]" is literal
  while (i < p.size() && p[i] != ']') {
    if (p[i] == '\\') {
      i += 2;
    } else if (p[i] == '[' && i + 1 < p.size() && (p[i + 1] == ':' || p[i + 1] == '.' || p[i + 1] == '=')) {
      size_t close = p.find(std::string{p[i + 1], ']'}, i + 2);  // "[:alpha:]"
      i = close == std::string_view::npos ? i + 1 : close + 2;
    } else {
      i++;
    }
  }
  return i + 1;
}

}  // namespace

std::vector<uint32_t> regex_group_depths(std::string_view p) {
  std::vector<uint32_t> depths{0};
  std::vector<bool> open;  // one entry per open parenthesis: capturing or not
  uint32_t capturing_open = 0;
  size_t i = 0;
  while (i < p.size()) {
    char c = p[i];
    if (c == '\\') {
      if (i + 1 < p.size() && p[i + 1] == 'Q') {  // "\Q...\E" is literal
        size_t end = p.find("\\E", i + 2);
        i = end == std::string_view::npos ? p.size() : end + 2;
      } else {
        i += 2;
      }
    } else if (c == '[') {
      i = skip_class(p, i);
    } else if (c == '(') {
      if (i + 2 < p.size() && p[i + 1] == '?' && p[i + 2] == '#') {  // comment
        size_t end = p.find(')', i);
        i = end == std::string_view::npos ? p.size() : end + 1;
        continue;
      }
      bool capturing = i + 1 >= p.size() || (p[i + 1] != '?' && p[i + 1] != '*') ||
                       (p[i + 1] == '?' && opens_named_group(p, i + 1));
      open.push_back(capturing);
      if (capturing) depths.push_back(1 + capturing_open++);
      i++;
    } else if (c == ')') {
      if (!open.empty()) {
        if (open.back()) capturing_open--;
        open.pop_back();
      }
      i++;
    } else {
      i++;
    }
  }
  return depths;
}

RegexStatus regex_match(std::string_view pattern, std::string_view subject, std::vector<RegexCapture>* out) {
  out->clear();
  int error = 0;
  PCRE2_SIZE error_offset = 0;
  std::unique_ptr<pcre2_code, CodeFree> code(
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), 0, &error, &error_offset, nullptr));
  if (!code) return REGEX_FAILED;
  std::unique_ptr<pcre2_match_data, MatchDataFree> data(pcre2_match_data_create_from_pattern(code.get(), nullptr));
  std::unique_ptr<pcre2_match_context, MatchContextFree> context(pcre2_match_context_create(nullptr));
  if (!data || !context) return REGEX_FAILED;
  pcre2_set_match_limit(context.get(), kRegexMatchLimit);
  pcre2_set_depth_limit(context.get(), kRegexDepthLimit);
  pcre2_set_heap_limit(context.get(), kRegexHeapLimitKib);

  int rc = pcre2_match(code.get(), reinterpret_cast<PCRE2_SPTR>(subject.data()), subject.size(), 0, 0, data.get(),
                       context.get());
  if (rc == PCRE2_ERROR_NOMATCH) return REGEX_NO_MATCH;
  if (rc < 0) return REGEX_FAILED;

  uint32_t groups = 0;
  pcre2_pattern_info(code.get(), PCRE2_INFO_CAPTURECOUNT, &groups);
  std::vector<uint32_t> depths = regex_group_depths(pattern);
  // Branch resets, extended-mode comments and the like number groups in
  // ways the parenthesis walk does not follow: then every group is taken
  // as a direct child of the whole match.
  if (depths.size() != size_t(groups) + 1) {
    depths.assign(size_t(groups) + 1, 1);
    depths[0] = 0;
  }

  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data.get());
  uint32_t pairs = pcre2_get_ovector_count(data.get());
  for (uint32_t g = 0; g <= groups; g++) {
    RegexCapture rec;
    rec.depth = depths[g];
    // A \K in a lookahead can leave a start after the end: not a capture.
    if (g < pairs && ovector[2 * g] != PCRE2_UNSET && ovector[2 * g] <= ovector[2 * g + 1] &&
        ovector[2 * g + 1] <= subject.size()) {
      rec.capturing = true;
      rec.start = uint32_t(ovector[2 * g]);
      rec.end = uint32_t(ovector[2 * g + 1]);
    }
    out->push_back(rec);
  }
  return REGEX_MATCH;
}

ValuePtr regex_result_tree(const std::vector<RegexCapture>& captures, std::string_view subject, bool ranges) {
  ValuePtr root = value_new();
  value_set_type(*root, VT_LIST);
  // The child list of an element is its last cell.
  auto child_of_last = [](Value* list) -> Value* {
    if (list->list.empty()) return list;
    Value* element = list->list.back().get();
    return element->list.back().get();
  };
  Value* current = root.get();
  uint32_t previous = 0;
  for (const RegexCapture& rec : captures) {
    if (!rec.capturing) continue;
    if (rec.depth > previous) {
      current = child_of_last(current);
    } else if (rec.depth < previous) {
      current = root.get();
      for (uint32_t d = 0; d < rec.depth; d++) current = child_of_last(current);
    }
    previous = rec.depth;

    ValuePtr element = value_new();
    value_set_type(*element, VT_LIST);
    if (ranges) {
      element->list.push_back(value_from_integer(int32_t(rec.start)));
      element->list.push_back(value_from_integer(int32_t(rec.end)));
    } else {
      element->list.push_back(value_from_string(std::string(subject.substr(rec.start, rec.end - rec.start))));
    }
    ValuePtr children = value_new();
    value_set_type(*children, VT_LIST);
    element->list.push_back(std::move(children));
    current->list.push_back(std::move(element));
  }
  return root;
}

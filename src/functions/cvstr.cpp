// CV-STR: the function table, option checks, and the working-copy
// functions that read a variable and store their result back.
#include "functions/cvstr.h"

#include <algorithm>
#include <cctype>
#include <string>

#include "runtime/run.h"
#include "runtime/report.h"
#include "base/digests.h"
#include "base/encoders.h"
#include "base/random.h"
#include "values/regex.h"
#include "functions/string_functions.h"
#include "runtime/expression.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/level4.h"
#include "base/nocase.h"
#include "runtime/option_number.h"

namespace {

enum Function : int {
  F_ASCII = 0, F_CHR = 1, F_COMPARE = 2, F_CRC32 = 3, F_EXPLODE = 4, F_FIND = 5, F_IMPLODE = 6,
  F_LOWERCASE = 7, F_LTRIM = 8, F_MD5SUM = 9, F_PARSEPAGE = 10, F_QUERYSAFE = 11, F_REGEX = 12,
  F_REVERSE = 13, F_RTRIM = 14, F_SINGLESPACE = 15, F_SORT = 16, F_STRIPWHITESPACE = 17,
  F_UNIQUEID = 18, F_UPPERCASE = 19, F_BASE64 = 20, F_STRIPNEWLINES = 21, F_HTMLSAFE = 22, F_URL = 23,
};

struct FunctionRow {
  const char* name;
  int code;
};

// Sorted by name under the C library's case folding; searched by halving.
constexpr FunctionRow kFunctions[] = {
    {"ascii", F_ASCII},         {"base64", F_BASE64},       {"chr", F_CHR},
    {"compare", F_COMPARE},     {"crc32", F_CRC32},         {"explode", F_EXPLODE},
    {"find", F_FIND},           {"htmlsafe", F_HTMLSAFE},   {"implode", F_IMPLODE},
    {"lowercase", F_LOWERCASE}, {"ltrim", F_LTRIM},         {"md5sum", F_MD5SUM},
    {"parsepage", F_PARSEPAGE}, {"querysafe", F_QUERYSAFE}, {"regex", F_REGEX},
    {"reverse", F_REVERSE},     {"rtrim", F_RTRIM},         {"singlespace", F_SINGLESPACE},
    {"sort", F_SORT},           {"stripnewlines", F_STRIPNEWLINES}, {"stripwhitespace", F_STRIPWHITESPACE},
    {"uniqueID", F_UNIQUEID},   {"uppercase", F_UPPERCASE}, {"url", F_URL},
};

constexpr std::string_view kTag = "CV-STR";
constexpr std::string_view kNotSupported =
    "The specified CV-STR operation is not valid or not supported.  See the Corvane documentation for details.";
constexpr std::string_view kNotObtained =
    "An error occurred in obtaining the CV-STR variable.  See the diagnostic message above for details.";
constexpr std::string_view kRegexFailed = "A fatal error occurred in the RegEx engine.  An internal error occurred in Corvane.";

int compare_folded(std::string_view a, std::string_view b) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++) {
    int x = std::tolower(static_cast<unsigned char>(a[i])), y = std::tolower(static_cast<unsigned char>(b[i]));
    if (x != y) return x - y;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

ValuePtr nothing() { return value_new(); }

// The option's value, or null after reporting that it is required.
const std::string* required(Run& run, const ParsedTag& tag, OptionKey option) {
  const std::string* value = tag_option(tag, option);
  if (!value) report_error(run, tag, option_required_message(kTag, option.text));
  return value;
}

// The variable named by a required option, or null after reporting.
Value* obtain(Run& run, const ParsedTag& tag, OptionKey option) {
  const std::string* reference = required(run, tag, option);
  if (!reference) return nullptr;
  Value* v = level4_resolve(run, *reference);
  if (!v) report_error(run, tag, kNotObtained);
  return v;
}

// A two-keyword option: 0 for the first (also when absent), 1 for the
// second, -1 after reporting anything else.
int choice(Run& run, const ParsedTag& tag, OptionKey option, std::string_view first, std::string_view second) {
  const std::string* value = tag_option(tag, option);
  if (!value || keyword_is(*value, first)) return 0;
  if (keyword_is(*value, second)) return 1;
  report_error(run, tag, std::string(kTag) + " requires the '" + std::string(option.text) + "' option to be '" +
                        std::string(first) + "' or '" + std::string(second) +
                        "'.  See the Corvane documentation for details.");
  return -1;
}

int case_choice(Run& run, const ParsedTag& tag) { return choice(run, tag, "case", "sensitive", "insensitive"); }

// A numeric option evaluated as an expression; false after reporting.
bool number_option(Run& run, const ParsedTag& tag, std::string_view option, const std::string& text, int64_t* out) {
  if (evaluate_whole_option(run, text, out)) return true;
  report_error(run, tag, std::string(kTag) + " requires the '" + std::string(option) +
                        "' option to be either a blank string or a number.");
  return false;
}

void store(Value* v, const Value& result) { value_assign(v, &result); }
void store_text(Value* v, std::string text) { store(v, *value_from_string(std::move(text))); }

ValuePtr list_of(std::vector<ValuePtr> elements) {
  ValuePtr list = value_new();
  value_set_type(*list, VT_LIST);
  list->list = std::move(elements);
  return list;
}

// ---------------------------------------------------------------------------
// Functions with options of their own

ValuePtr run_chr(Run& run, const ParsedTag& tag) {
  Value* dest = obtain(run, tag, "destvar");
  if (!dest) return nothing();
  const std::string* value = required(run, tag, "value");
  int64_t code = 0;
  if (!value || !number_option(run, tag, "value", *value, &code)) return nothing();
  store_text(dest, std::string(1, char(code & 0xFF)));
  return nothing();
}

ValuePtr run_compare(Run& run, const ParsedTag& tag) {
  // Each text is read as soon as its variable is found: resolving the
  // second may rearrange the table the first lives in.
  Value* v = obtain(run, tag, "var1");
  if (!v) return nothing();
  std::string a = value_text(*v);
  if (!(v = obtain(run, tag, "var2"))) return nothing();
  std::string b = value_text(*v);
  const std::string* limit_text = tag_option(tag, "Nvalue");
  int64_t limit = 0;
  if (limit_text && !number_option(run, tag, "Nvalue", *limit_text, &limit)) return nothing();
  int fold = case_choice(run, tag);
  if (fold < 0) return nothing();
  if (limit_text) {
    // A negative count compares nothing.
    size_t n = std::min<size_t>({size_t(std::max<int64_t>(limit, 0)), a.size(), b.size()});
    a.resize(n);
    b.resize(n);
  }
  bool natural = tag_option(tag, "natural") != nullptr;
  return value_from_number(str_compare(a, b, fold == 1, natural));
}

ValuePtr run_explode(Run& run, const ParsedTag& tag, Value* v) {
  Value* sep_var = obtain(run, tag, "valuevar");
  if (!sep_var) return nothing();
  std::string separator = value_text(*sep_var);
  int fold = case_choice(run, tag);
  if (fold < 0) return nothing();
  std::vector<ValuePtr> elements;
  for (std::string& piece : str_explode(value_text(*v), separator, fold == 1))
    elements.push_back(value_from_string(std::move(piece)));
  store(v, *list_of(std::move(elements)));
  return nothing();
}

ValuePtr run_find(Run& run, const ParsedTag& tag, Value* v) {
  Value* needle_var = obtain(run, tag, "findvar");
  if (!needle_var) return nothing();
  std::string needle = value_text(*needle_var);
  int fold = case_choice(run, tag);
  if (fold < 0) return nothing();
  return value_from_number(double(str_find(value_text(*v), needle, fold == 1)));
}

ValuePtr run_implode(Run& run, const ParsedTag& tag, Value* v) {
  Value* sep_var = obtain(run, tag, "valuevar");
  if (!sep_var) return nothing();
  std::string separator = value_text(*sep_var);
  ValuePtr list = value_to_list(*v);
  std::string joined;
  for (size_t i = 0; i < list->list.size(); i++) {
    if (i) joined += separator;
    joined += value_text(*list->list[i]);
  }
  store_text(v, std::move(joined));
  return nothing();
}

// Each item becomes [0, line, text] or [1, line, name, options], the
// options a two-column table of name and value.
ValuePtr run_parsepage(Run& run, const ParsedTag& tag, Value* v) {
  int keep = choice(run, tag, "embedded", "remove", "keep");
  if (keep < 0) return nothing();
  Page page = tokenize_page(value_text(*v), 1, keep == 1);
  std::vector<ValuePtr> items;
  ParsedTag parsed;
  for (uint32_t i = 0; i < page.size(); i++) {
    node_as_tag(page, i, parsed);
    const ParsedTag* node = &parsed;
    std::vector<ValuePtr> item;
    item.push_back(value_from_integer(node->is_tag ? 1 : 0));
    item.push_back(value_from_integer(int32_t(node->line)));
    if (!node->is_tag) {
      item.push_back(value_from_string(node->text));
    } else {
      item.push_back(value_from_string(node->name));
      ValuePtr options = value_new();
      value_set_type(*options, VT_ARRAY);
      options->columns = 2;
      for (const TagOption& option : node->options) {
        ValueRow row;
        row.push_back(value_from_string(option.name));
        row.push_back(value_from_string(option.value));
        options->rows.push_back(std::move(row));
      }
      item.push_back(std::move(options));
    }
    items.push_back(list_of(std::move(item)));
  }
  store(v, *list_of(std::move(items)));
  return nothing();
}

ValuePtr run_querysafe(Run& run, const ParsedTag& tag, Value* v) {
  bool notnull = tag_option(tag, "notnull") != nullptr;
  int quote = choice(run, tag, "quote", "single", "double");
  if (quote < 0) return nothing();
  store_text(v, quote_double(value_text(*v), quote ? '"' : '\'', notnull ? QUOTE_NOTNULL : 0));
  return nothing();
}

ValuePtr run_regex(Run& run, const ParsedTag& tag) {
  Value* v = obtain(run, tag, "srcvar");
  if (!v) return nothing();
  std::string subject = value_text(*v);
  Value* dest = obtain(run, tag, "destvar");
  if (!dest) return nothing();
  const std::string* pattern = required(run, tag, "regexpr");
  if (!pattern) return nothing();
  int ranges = choice(run, tag, "return", "values", "ranges");
  if (ranges < 0) return nothing();
  std::vector<RegexCapture> captures;
  switch (regex_match(*pattern, subject, &captures)) {
    case REGEX_FAILED:
      report_error(run, tag, kRegexFailed);
      return nothing();
    case REGEX_NO_MATCH:
      store(dest, *value_new());
      return value_from_integer(0);
    case REGEX_MATCH:
      break;
  }
  store(dest, *regex_result_tree(captures, subject, ranges == 1));
  return value_from_integer(1);
}

// A list (or a scalar) becomes one row whose cells are sorted, and so is a
// one-row array (a list sorted before).  A hash, or an array of several rows,
// keeps its rows whole and is sorted by the text of each row's first cell,
// so a hash sorts by key.
ValuePtr run_sort(Run& run, const ParsedTag& tag, Value* v) {
  int fold = case_choice(run, tag);
  if (fold < 0) return nothing();
  bool natural = tag_option(tag, "natural") != nullptr;
  ValuePtr array = value_to_array(*v);
  bool by_rows = v->type == VT_HASH || (v->type == VT_ARRAY && array->rows.size() > 1);
  std::vector<std::string> texts;
  std::vector<size_t> order;
  if (by_rows) {
    for (const ValueRow& row : array->rows) texts.push_back(row.empty() ? std::string() : value_element_text(*row[0]));
    str_sort_indices(texts, fold == 1, natural, order);
    std::vector<ValueRow> sorted;
    for (size_t i : order) sorted.push_back(std::move(array->rows[i]));
    array->rows = std::move(sorted);
  } else if (!array->rows.empty()) {
    ValueRow& cells = array->rows[0];
    for (const ValuePtr& cell : cells) texts.push_back(value_element_text(*cell));
    str_sort_indices(texts, fold == 1, natural, order);
    ValueRow sorted;
    for (size_t i : order) sorted.push_back(std::move(cells[i]));
    cells = std::move(sorted);
  }
  store(v, *array);
  return nothing();
}

// base64 and url: "direction" is required and is "encode" or "decode".
// Decoding reads its text up to the first zero byte.
ValuePtr run_codec(Run& run, const ParsedTag& tag, Value* v, bool base64) {
  if (!required(run, tag, "direction")) return nothing();
  int decode = choice(run, tag, "direction", "encode", "decode");
  if (decode < 0) return nothing();
  std::string text = value_text(*v);
  if (decode) {
    text.resize(std::min(text.size(), text.find('\0')));
    store_text(v, base64 ? base64_decode(text) : url_decode(text));
  } else {
    store_text(v, base64 ? base64_encode(text) : url_encode(text));
  }
  return nothing();
}

ValuePtr unique_id(Run& run) {
  std::string bytes(99, '\0');
  for (char& c : bytes) c = char(random_byte(run.random));
  return value_from_string(base64_encode(bytes));
}

// The functions that rewrite the text of `var` in place and print nothing.
bool rewrite_text(int code, std::string& s) {
  switch (code) {
    case F_LOWERCASE: str_lowercase(s); return true;
    case F_UPPERCASE: str_uppercase(s); return true;
    case F_LTRIM: str_ltrim(s); return true;
    case F_RTRIM: str_rtrim(s); return true;
    case F_REVERSE: s.assign(s.rbegin(), s.rend()); return true;
    case F_SINGLESPACE: s = str_singlespace(s); return true;
    case F_STRIPNEWLINES: s = str_remove_bytes(s, "\r\n"); return true;
    case F_STRIPWHITESPACE: s = str_remove_bytes(s, std::string_view(" \t\0\r\n", 5)); return true;
    case F_HTMLSAFE: s = str_htmlsafe(s); return true;
    default: return false;
  }
}

// Every function that works on `var`.
ValuePtr run_on_var(Run& run, const ParsedTag& tag, int code) {
  Value* v = obtain(run, tag, "var");
  if (!v) return nothing();
  switch (code) {
    case F_ASCII: {
      std::string s = value_text(*v);
      return value_from_integer(s.empty() ? 0 : int32_t(static_cast<signed char>(s[0])));
    }
    case F_CRC32: {
      bool reflect = tag_option(tag, "noreflect") == nullptr;
      uint32_t sum = crc32_compute(crc32_table_new(kCrc32Polynomial, reflect), value_text(*v));
      // An integer value is signed 32 bits: sums from 2^31 up print negative.
      return value_from_integer(static_cast<int32_t>(sum));
    }
    case F_MD5SUM: return value_from_string(md5_hex(value_text(*v)));
    case F_EXPLODE: return run_explode(run, tag, v);
    case F_FIND: return run_find(run, tag, v);
    case F_IMPLODE: return run_implode(run, tag, v);
    case F_PARSEPAGE: return run_parsepage(run, tag, v);
    case F_QUERYSAFE: return run_querysafe(run, tag, v);
    case F_SORT: return run_sort(run, tag, v);
    case F_BASE64: return run_codec(run, tag, v, true);
    case F_URL: return run_codec(run, tag, v, false);
    default: break;
  }
  std::string text = value_text(*v);
  if (!rewrite_text(code, text)) {
    report_error(run, tag, kNotSupported);
    return nothing();
  }
  store_text(v, std::move(text));
  return nothing();
}

}  // namespace

int cvstr_function_code(std::string_view name) {
  size_t lo = 0, hi = std::size(kFunctions);
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    int c = compare_folded(name, kFunctions[mid].name);
    if (c == 0) return kFunctions[mid].code;
    if (c < 0)
      hi = mid;
    else
      lo = mid + 1;
  }
  return -1;
}

// <CV-STR function=name [var=...] [options of the function]>
ValuePtr cvstr_handler(Run& run, const ParsedTag& tag) {
  const std::string* name = required(run, tag, "function");
  if (!name) return nothing();
  int code = cvstr_function_code(without_white_space(*name));
  switch (code) {
    case F_CHR: return run_chr(run, tag);
    case F_COMPARE: return run_compare(run, tag);
    case F_REGEX: return run_regex(run, tag);
    case F_UNIQUEID: return unique_id(run);
    default: break;
  }
  if (code < 0 || code > F_URL) {
    report_error(run, tag, kNotSupported);
    return nothing();
  }
  return run_on_var(run, tag, code);
}

// Level 4 references: find or create the variable a tag names and select the
// element, hash entry, substring or property its options ask for.
#include "runtime/level4.h"

#include <algorithm>
#include <string>
#include <vector>

#include "runtime/expression.h"
#include "runtime/level4_query.h"
#include "runtime/option_number.h"
#include "runtime/report.h"
#include "runtime/run.h"
#include "values/vartable.h"

namespace {

// Indices above this fail; a list may therefore hold up to a million and one
// elements.  Arrays are held to the same number of cells, and a substring
// position may lie at most this far beyond the end of its string, so no
// reference can make the engine allocate without bound.
constexpr int64_t kMaxIndex = 1000000;
constexpr uint64_t kMaxCells = kMaxIndex + 1;

constexpr std::string_view kIllegalCharacters =
    "Corvane does not permit Level 4 tags to contain illegal characters.  More than likely a tag "
    "was supposed to be used and a value was used instead.  See the Corvane documentation for "
    "details.\nParse failed at:  ";
constexpr std::string_view kNoName = "Corvane does not allow Level 4 tags to have no name.\n";
constexpr std::string_view kBadStart =
    "Corvane does not permit Level 4 tags to start with 'CV', '/', or a number.\n";
constexpr std::string_view kTwoDimensions =
    "The element type of the embedded variable is an array and requires 2-dimensional "
    "coordinates to access the data.\n";
constexpr std::string_view kBadHashcase =
    "The 'hashcase' option for Corvane variables (Level 4 Tags) may only be either 'insensitive' "
    "or 'sensitive'.\n";
constexpr std::string_view kHandlerFailed =
    "An error occurred in obtaining the variable.  See the diagnostic message above for details.";

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && compare_bytes_nocase(text.substr(0, prefix.size()), prefix) == 0;
}

// What is being resolved: the tag, the name a new variable gets, and the
// reference text that messages quote (printed from the tag when not given).
struct Reference {
  const ParsedTag& tag;
  std::string_view create_name;
  std::string text;
};

const std::string& reference_text(Run& run, Reference& ref) {
  if (ref.text.empty()) {
    std::string printed;
    print_node(run, ref.tag, printed);
    if (printed.size() >= 2) ref.text = printed.substr(1, printed.size() - 2);
  }
  return ref.text;
}

Value* fail_quoting(Run& run, Reference& ref, std::string_view what) {
  std::string message = "<" + reference_text(run, ref) + "> ";
  message += what;
  return level4_fail(run, message);
}

// Replaces a value by a converted form of itself.  A string's range is
// widened first, so the assignment replaces the whole value, not the range.
void convert_in_place(Value* v, ValuePtr converted) {
  if (v->type == VT_STRING) {
    v->start = 0;
    v->end = static_cast<uint32_t>(v->bytes.size());
  }
  value_assign(v, converted.get());
}

// "[3]" or "[2][5]": every index evaluated before any is applied.
bool parse_indices(Run& run, Reference& ref, std::string_view text, std::vector<uint32_t>* out) {
  size_t i = 0;
  while (true) {
    while (i < text.size() && (text[i] == '[' || is_space(text[i]))) i++;
    if (i >= text.size()) return true;
    size_t close = text.find(']', i);
    std::string_view item = text.substr(i, close == std::string_view::npos ? std::string_view::npos : close - i);
    i = close == std::string_view::npos ? text.size() : close + 1;
    int64_t n;
    if (!level4_option_integer(run, item, &n)) {
      fail_quoting(run, ref, "contains an element value that is not a number.\n");
      return false;
    }
    if (n < 0 || n > kMaxIndex) {
      fail_quoting(run, ref, "contains an element value that is out of range.\n");
      return false;
    }
    out->push_back(static_cast<uint32_t>(n));
  }
}

void grow_list(Value* list, uint32_t index) {
  if (list->list.size() > index) return;
  list->list.reserve(index + 1);
  while (list->list.size() <= index) list->list.push_back(value_new());
}

Value* array_cell(Run& run, Reference& ref, Value* array, uint32_t row, uint32_t column) {
  size_t columns = std::max<size_t>(array->columns, size_t{column} + 1);
  size_t rows = std::max<size_t>(array->rows.size(), size_t{row} + 1);
  for (const ValueRow& r : array->rows) columns = std::max(columns, r.size());
  bool grows = rows > array->rows.size() || columns > array->columns;
  if (grows && uint64_t{rows} * columns > kMaxCells)
    return fail_quoting(run, ref, "contains an element value that is out of range.\n");
  array->rows.resize(rows);
  for (ValueRow& r : array->rows) {
    r.reserve(columns);
    while (r.size() < columns) r.push_back(value_new());
  }
  array->columns = static_cast<uint32_t>(columns);
  ValuePtr& cell = array->rows[row][column];
  if (!cell) cell = value_new();
  return cell.get();
}

Value* select_elements(Run& run, Reference& ref, Value* sel, const std::vector<uint32_t>& indices) {
  for (size_t k = 0; k < indices.size(); k++) {
    uint32_t index = indices[k];
    if (sel->type == VT_ARRAY || sel->type == VT_HASH) {
      sel->type = VT_ARRAY;  // a hash is read as the array of its rows
      if (k + 1 == indices.size()) return level4_fail(run, kTwoDimensions);
      sel = array_cell(run, ref, sel, index, indices[++k]);
      if (!sel) return nullptr;
      continue;
    }
    if (sel->type != VT_LIST) value_set_type(*sel, VT_LIST);
    grow_list(sel, index);
    ValuePtr& element = sel->list[index];
    if (!element) element = value_new();
    sel = element.get();
  }
  return sel;
}

// "hashcase": absent or "insensitive..." gives 0, "sensitive..." gives 1,
// anything else -1.
int hashcase_mode(const std::string* option) {
  if (!option) return 0;
  std::string word;
  for (char c : *option)
    if (!is_space(c)) word += c;
  if (starts_with_nocase(word, "insensitive")) return 0;
  if (starts_with_nocase(word, "sensitive")) return 1;
  return -1;
}

Value* find_key(Value* hash, std::string_view key, int mode) {
  return mode == 1 ? hash_find_exact(hash, key) : hash_find(hash, key);
}

// strstartpos / strendpos: a position within the string or not too far past it.
bool range_position(Run& run, const Value* sel, const std::string& text, std::string_view option, uint32_t* out) {
  int64_t n;
  bool ok = level4_option_integer(run, text, &n) && n >= 0 &&
            n <= static_cast<int64_t>(sel->bytes.size()) + kMaxIndex;
  if (!ok) {
    level4_fail(run, "Corvane requires the '" + std::string(option) +
                "' option to be either a blank string or a number.\n");
    return false;
  }
  *out = static_cast<uint32_t>(n);
  return true;
}


Value* select_range(Run& run, Value* sel, const std::string* start, const std::string* end) {
  if (start) {
    if (sel->type != VT_STRING) convert_in_place(sel, value_to_string(*sel));
    if (!range_position(run, sel, *start, "strstartpos", &sel->start)) return nullptr;
  } else if (sel->type == VT_STRING) {
    sel->start = 0;
  }
  if (end) {
    if (sel->type != VT_STRING) convert_in_place(sel, value_to_string(*sel));
    if (!range_position(run, sel, *end, "strendpos", &sel->end)) return nullptr;
    sel->end = std::max(sel->end, sel->start);
  } else if (sel->type == VT_STRING) {
    uint32_t length = static_cast<uint32_t>(sel->bytes.size());
    sel->end = sel->start > length ? sel->start : length;
  }
  return sel;
}

// Sizes and key positions of lists, arrays and hashes.
Value* select_collection_property(Run& run, Value* sel, const ParsedTag& tag) {
  if (tag_option(tag, "getsizex")) {
    size_t x = sel->type == VT_LIST ? sel->list.size() : sel->type == VT_HASH ? 2 : sel->columns;
    return keep_property(run, value_from_integer(static_cast<int32_t>(x)));
  }
  if (tag_option(tag, "getsizey")) {
    size_t y = sel->type == VT_LIST ? 1 : sel->rows.size();
    return keep_property(run, value_from_integer(static_cast<int32_t>(y)));
  }
  // The key comes from the option's own value, so the reference still
  // addresses the whole hash.
  if (const std::string* key = tag_option(tag, "hashpos")) {
    if (sel->type != VT_HASH) convert_in_place(sel, value_to_hash(*sel));
    int mode = hashcase_mode(tag_option(tag, "hashcase"));
    if (mode < 0) return level4_fail(run, kBadHashcase);
    int position = level4_hash_position(*sel, find_key(sel, *key, mode));
    return keep_property(run, value_from_integer(position));
  }
  return sel;
}

// Steps after tokenizing, in their fixed order; each works on the value the
// earlier ones selected.
// The options the resolution itself reads, the first of each name, found
// in one pass.
struct ResolveOptions {
  const std::string* element = nullptr;
  const std::string* hash = nullptr;
  const std::string* hashcase = nullptr;
  const std::string* start = nullptr;
  const std::string* end = nullptr;
  const std::string* type = nullptr;
  const std::string* getsize = nullptr;
};

ResolveOptions resolve_options(const ParsedTag& tag) {
  static constexpr uint16_t kElement = option_atom("element"), kHash = option_atom("hash"),
                            kHashcase = option_atom("hashcase"), kStart = option_atom("strstartpos"),
                            kEnd = option_atom("strendpos"), kType = option_atom("type"),
                            kGetsize = option_atom("getsize");
  ResolveOptions o;
  for (const TagOption& option : tag.options) {
    if (option.atom == kAtomUnknown) option.atom = option_atom(option.name);
    const std::string** slot = option.atom == kElement    ? &o.element
                               : option.atom == kHash     ? &o.hash
                               : option.atom == kHashcase ? &o.hashcase
                               : option.atom == kStart    ? &o.start
                               : option.atom == kEnd      ? &o.end
                               : option.atom == kType     ? &o.type
                               : option.atom == kGetsize  ? &o.getsize
                                                          : nullptr;
    if (slot && !*slot) *slot = &option_text(tag, option);
  }
  return o;
}

Value* resolve(Run& run, Reference& ref) {
  const ParsedTag& tag = ref.tag;
  const ResolveOptions options = resolve_options(tag);
  VarTable& names = names_for_write(run);
  TagHandler* entry = vartable_find(names, tag.name);
  if (!entry) {
    std::string_view name = ref.create_name;
    if (name.empty()) return level4_fail(run, kNoName);
    if (starts_with_nocase(name, "CV") || name[0] == '/' || (name[0] >= '0' && name[0] <= '9'))
      return level4_fail(run, kBadStart);
    TagHandler created = make_variable_entry();
    created.kind = KIND_VARIABLE;
    if (!created.variable) created.variable = value_new();
    vartable_set(names, name, std::move(created));
    entry = vartable_find(names, name);
  }
  if (!entry || entry->kind != KIND_VARIABLE || !entry->variable)
    return fail_quoting(run, ref, "is not a Level 4 tag.\n");
  Value* sel = entry->variable.get();

  if (const std::string* element = options.element) {
    std::vector<uint32_t> indices;
    if (!parse_indices(run, ref, *element, &indices)) return nullptr;
    sel = select_elements(run, ref, sel, indices);
    if (!sel) return nullptr;
  }

  if (const std::string* key = options.hash) {
    if (sel->type != VT_HASH) convert_in_place(sel, value_to_hash(*sel));
    int mode = hashcase_mode(options.hashcase);
    if (mode < 0) return level4_fail(run, kBadHashcase);
    Value* found = find_key(sel, *key, mode);
    sel = found ? found : hash_add_key(sel, *key);
    if (!sel) return nullptr;
  }

  if (!select_range(run, sel, options.start, options.end)) return nullptr;

  if (options.type) return keep_property(run, value_from_integer(sel->type));
  if (sel->type == VT_STRING) {
    if (options.getsize)
      return keep_property(run, value_from_integer(static_cast<int32_t>(sel->bytes.size())));
    return sel;
  }
  if (sel->type == VT_QUERY) return level4_query_select(run, *sel, tag);
  if (sel->type <= 9) return sel;
  if (sel->type == VT_LIST || sel->type == VT_ARRAY || sel->type == VT_HASH)
    return select_collection_property(run, sel, tag);
  return sel;
}

// A tag prints and cuts back into the same tag when no name or value holds
// a byte that the printed form would quote, escape or split on.
bool recuts_identically(const ParsedTag& tag) {
  auto clean = [](std::string_view text, std::string_view extra) {
    for (char c : text)
      if (c == '"' || c == '\\' || c == '\'' || c == '<' || c == '>' || c == '\r' || c == '\n' ||
          c == '\t' || c == '\0' || extra.find(c) != std::string_view::npos)
        return false;
    return true;
  };
  const std::string_view name_extra("= ", 2);
  if (tag.name.empty() || !is_tag_start(static_cast<unsigned char>(tag.name[0])) ||
      !clean(tag.name, name_extra))
    return false;
  for (const TagOption& option : tag.options)
    if (option.name.empty() || !clean(option.name, name_extra) || !clean(option_text(tag, option), ""))
      return false;
  return true;
}

}  // namespace

Value* level4_fail(Run& run, std::string_view message) {
  report_diagnostic(run, message, false);
  return nullptr;
}

bool level4_option_integer(Run& run, std::string_view text, int64_t* out) { return evaluate_whole_option(run, text, out); }

int level4_hash_position(const Value& hash, const Value* cell) {
  if (!cell) return -1;
  for (size_t r = 0; r < hash.rows.size(); r++)
    if (hash.rows[r].size() > 1 && hash.rows[r][1].get() == cell) return static_cast<int>(r);
  return -1;
}

Value* level4_resolve_cut(Run& run, const CutReference& cut) {
  Reference ref{cut.tag, cut.create_name, cut.text};
  return resolve(run, ref);
}

Value* level4_resolve(Run& run, std::string_view text) {
  size_t skip = 0;
  while (skip < text.size() && is_space(text[skip])) skip++;
  text.remove_prefix(skip);
  if (is_bare_reference(text)) {
    // "<name>" would cut into a tag with this name and no options; build
    // that tag directly instead of printing and tokenizing it.
    ParsedTag tag;
    tag.is_tag = true;
    tag.name.assign(text);
    Reference ref{tag, text, std::string(text)};
    return resolve(run, ref);
  }
  std::string wrapped = "<" + std::string(text) + ">";
  const PageContext* ctx = current_context(run);
  uint32_t line = ctx && ctx->current != kNoNode ? node_line(*ctx, ctx->current) : 1;
  Page page = tokenize_page(wrapped, line);
  if (page.size() == 0 || !page.nodes[0].is_tag) {
    std::string message(kIllegalCharacters);
    if (page.size()) print_node(run, page, 0, message);
    message += "\n";
    return level4_fail(run, message);
  }
  ParsedTag first;
  node_as_tag(page, 0, first);
  size_t word_end = text.find_first_of(std::string_view(" \r\n\t"));
  Reference ref{first, text.substr(0, word_end), std::string(text)};
  return resolve(run, ref);
}

namespace {

// A position or index written as plain digits ("3", "12"), which evaluates
// to itself; anything else is left to the evaluator.
bool plain_digits(std::string_view text, int64_t* out) {
  if (text.empty() || text.size() > 7) return false;
  int64_t n = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + (c - '0');
  }
  *out = n;
  return true;
}

// The element, hash and substring options of a reference, as the
// resolution reads them; false when it has any other option.
bool read_selectors(const ParsedTag& tag, ResolveOptions* out) {
  static constexpr uint16_t kSelectors[] = {option_atom("element"), option_atom("hash"), option_atom("strstartpos"),
                                            option_atom("strendpos")};
  for (const TagOption& option : tag.options) {
    if (option.atom == kAtomUnknown) option.atom = option_atom(option.name);
    if (option.atom == 0 || std::find(std::begin(kSelectors), std::end(kSelectors), option.atom) == std::end(kSelectors))
      return false;
  }
  *out = resolve_options(tag);
  return true;
}

// "[3]" or "[2][5]" in plain digits, each index in range; false otherwise.
bool plain_indices(std::string_view text, uint32_t* indices, size_t* count, size_t most) {
  *count = 0;
  if (text.empty()) return false;
  while (!text.empty()) {
    size_t close = text.find(']');
    int64_t index;
    if (text[0] != '[' || close == std::string_view::npos || !plain_digits(text.substr(1, close - 1), &index) ||
        index > kMaxIndex || *count == most)
      return false;
    indices[(*count)++] = static_cast<uint32_t>(index);
    text.remove_prefix(close + 1);
  }
  return true;
}

bool is_plain_scalar(uint8_t type) {
  return type == VT_EMPTY || type == VT_INTEGER || type == VT_NUMBER || type == VT_STRING;
}

}  // namespace

bool level4_direct(const ParsedTag& tag) { return recuts_identically(tag); }

const Value* level4_peek(const TagHandler& entry, const ParsedTag& tag) {
  ResolveOptions s;
  if (entry.kind != KIND_VARIABLE || !entry.variable || !read_selectors(tag, &s)) return nullptr;
  const Value* sel = entry.variable.get();
  if (s.element) {
    // Lists all the way, every element already there.
    uint32_t indices[8];
    size_t count;
    if (!plain_indices(*s.element, indices, &count, std::size(indices))) return nullptr;
    for (size_t k = 0; k < count; k++) {
      if (sel->type != VT_LIST || indices[k] >= sel->list.size() || !sel->list[indices[k]]) return nullptr;
      sel = sel->list[indices[k]].get();
    }
  }
  if (s.hash) {
    if (sel->type != VT_HASH) return nullptr;
    sel = hash_find(const_cast<Value*>(sel), *s.hash);
    if (!sel) return nullptr;
  }
  if (s.start || s.end) {
    int64_t n;
    int64_t most = static_cast<int64_t>(sel->bytes.size()) + kMaxIndex;
    if (sel->type != VT_STRING || (s.start && (!plain_digits(*s.start, &n) || n > most)) ||
        (s.end && (!plain_digits(*s.end, &n) || n > most)))
      return nullptr;
  }
  return is_plain_scalar(sel->type) ? sel : nullptr;
}

bool level4_writable(const TagHandler& entry, const ParsedTag& tag) {
  ResolveOptions s;
  if (entry.kind != KIND_VARIABLE || !entry.variable || !read_selectors(tag, &s) || s.start || s.end) return false;
  const Value* sel = entry.variable.get();  // null once the selection reaches a value still to be made
  if (s.element) {
    uint32_t indices[8];
    size_t count;
    if (!plain_indices(*s.element, indices, &count, std::size(indices))) return false;
    for (size_t k = 0; k < count && sel; k++) {
      if (sel->type == VT_EMPTY) {
        sel = nullptr;
      } else if (sel->type != VT_LIST) {
        return false;
      } else {
        sel = indices[k] < sel->list.size() ? sel->list[indices[k]].get() : nullptr;
      }
    }
  }
  if (s.hash && sel) {
    if (sel->type == VT_EMPTY) sel = nullptr;
    else if (sel->type != VT_HASH) return false;
    else sel = hash_find(const_cast<Value*>(sel), *s.hash);
  }
  return !sel || is_plain_scalar(sel->type);
}

Value* level4_resolve_tag(Run& run, const ParsedTag& tag) {
  Reference ref{tag, tag.name, {}};
  return resolve(run, ref);
}

namespace {

// The value a variable tag selects, or null after the report.
Value* select_for_tag(Run& run, const ParsedTag& tag) {
  Value* v;
  if (recuts_identically(tag)) {
    v = level4_resolve_tag(run, tag);
  } else {
    std::string printed;
    print_node(run, tag, printed);
    std::string_view inner(printed);
    if (inner.size() >= 2) inner = inner.substr(1, inner.size() - 2);
    v = level4_resolve(run, inner);
  }
  if (!v) report_error(run, tag, kHandlerFailed);
  return v;
}

}  // namespace

ValuePtr level4_handler(Run& run, const ParsedTag& tag) {
  Value* v = select_for_tag(run, tag);
  return v ? value_copy(*v) : value_new();
}

void level4_print(Run& run, const ParsedTag& tag, std::string& out) {
  Value* v = select_for_tag(run, tag);
  if (!v) return;
  // A scalar's copy prints exactly like the scalar; containers and query
  // results go through the copy the handler would return.
  bool scalar = v->type == VT_EMPTY || v->type == VT_INTEGER || v->type == VT_DECIMAL ||
                v->type == VT_STRING || v->type == VT_NUMBER;
  if (scalar) out = value_text(*v);
  else out = value_text(*value_copy(*v));
}

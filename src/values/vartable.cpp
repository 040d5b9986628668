// The name table: one sorted, case-insensitive array of tags and variables.
#include "values/vartable.h"

#include <algorithm>
#include <cctype>

#include "values/level4.h"

namespace {

// Every tag of every page is looked up here, so names are compared through
// a fold table built once instead of calling toupper per byte.
struct FoldTable {
  std::array<unsigned char, 256> upper{};
  FoldTable() {
    for (int c = 0; c < 256; c++) upper[c] = static_cast<unsigned char>(std::toupper(c));
  }
};

const FoldTable& fold() {
  static const FoldTable table;
  return table;
}

int compare_names(std::string_view a, std::string_view b) {
  const auto& up = fold().upper;
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; i++) {
    unsigned char x = up[static_cast<unsigned char>(a[i])];
    unsigned char y = up[static_cast<unsigned char>(b[i])];
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

// First entry whose name is not below `name`.
size_t lower_bound(const VarTable& table, std::string_view name) {
  size_t lo = 0, hi = table.entries.size();
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (compare_names(table.entries[mid].name, name) < 0) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

// Index of the entry named `name`, or the table size when absent.
size_t find_index(const VarTable& table, std::string_view name) {
  size_t at = lower_bound(table, name);
  if (at < table.entries.size() && compare_names(table.entries[at].name, name) == 0) return at;
  return table.entries.size();
}

}  // namespace

const CharClass& default_tag_start_class() {
  static const CharClass cls = [] {
    CharClass c{};
    c['/'] = 1;
    c['_'] = 1;
    for (int ch = 'A'; ch <= 'Z'; ch++) c[ch] = 1;
    for (int ch = 'a'; ch <= 'z'; ch++) c[ch] = 1;
    return c;
  }();
  return cls;
}

VarTablePtr vartable_new(const CharClass& tag_start) {
  auto table = std::make_shared<VarTable>();
  table->tag_start = tag_start;
  return table;
}

// Built-in entries share their handler; a variable gets its own value.
VarTablePtr vartable_copy(const VarTable& table) {
  auto out = vartable_new(table.tag_start);
  out->entries.reserve(table.entries.size());
  for (const TableEntry& e : table.entries) {
    TableEntry& copy = out->entries.emplace_back();
    copy.name = e.name;
    copy.entry.kind = e.entry.kind;
    copy.entry.tag_class = e.entry.tag_class;
    copy.entry.handler = e.entry.handler;
    if (e.entry.kind == KIND_VARIABLE && e.entry.variable)
      copy.entry.variable = value_copy(*e.entry.variable);
  }
  return out;
}

void vartable_set(VarTable& table, std::string_view name, TagHandler entry) {
  size_t at = lower_bound(table, name);
  if (at < table.entries.size() && compare_names(table.entries[at].name, name) == 0) {
    table.entries[at].entry = std::move(entry);
    return;
  }
  TableEntry fresh;
  fresh.name = std::string(name);
  fresh.entry = std::move(entry);
  table.entries.insert(table.entries.begin() + at, std::move(fresh));
}

TagHandler* vartable_find(VarTable& table, std::string_view name) {
  size_t at = find_index(table, name);
  return at < table.entries.size() ? &table.entries[at].entry : nullptr;
}

const TagHandler* vartable_find(const VarTable& table, std::string_view name) {
  size_t at = find_index(table, name);
  return at < table.entries.size() ? &table.entries[at].entry : nullptr;
}

const std::string* vartable_stored_name(const VarTable& table, std::string_view name) {
  size_t at = find_index(table, name);
  return at < table.entries.size() ? &table.entries[at].name : nullptr;
}

void vartable_remove(VarTable& table, std::string_view name) {
  size_t at = find_index(table, name);
  if (at < table.entries.size()) table.entries.erase(table.entries.begin() + at);
}

TagHandler make_variable_entry() {
  TagHandler entry;
  entry.kind = KIND_VARIABLE;
  entry.tag_class = 0;
  entry.handler = level4_handler;
  entry.variable = value_new();
  return entry;
}

// The name table: one sorted, case-insensitive array of tags and variables.
#include "values/vartable.h"

#include <algorithm>
#include <cctype>

#include "base/nocase.h"

namespace {

uint64_t next_version() {
  static uint64_t counter = 0;
  return ++counter;
}

// Names are kept with their upper-case fold, so a search folds the name it
// looks for once and then compares plain bytes.
std::string fold_name(std::string_view name) {
  std::string key(name);
  for (char& c : key) c = static_cast<char>(fold_upper(static_cast<unsigned char>(c)));
  return key;
}

// First entry whose key is not below `key`.
size_t lower_bound(const VarTable& table, std::string_view key) {
  size_t lo = 0, hi = table.entries.size();
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (std::string_view(table.entries[mid].key) < key) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

// Index of the entry named `name`, or the table size when absent.
size_t find_index(const VarTable& table, std::string_view name) {
  char small[64];
  std::string large;
  std::string_view key;
  if (name.size() <= sizeof small) {
    for (size_t i = 0; i < name.size(); ++i) small[i] = static_cast<char>(fold_upper(static_cast<unsigned char>(name[i])));
    key = std::string_view(small, name.size());
  } else {
    large = fold_name(name);
    key = large;
  }
  // Pages look the same few names up over and over (a loop's variables);
  // a small memo of recent finds, checked against the table's version and
  // the entry's key, skips the binary search for them.
  struct Memo {
    const VarTable* table = nullptr;
    uint64_t version = 0;
    size_t index = 0;
  };
  static Memo memo[16];
  size_t hash = key.size();
  for (char c : key) hash = hash * 31 + static_cast<unsigned char>(c);
  Memo& slot = memo[hash % std::size(memo)];
  if (slot.table == &table && slot.version == table.version && slot.index < table.entries.size() &&
      table.entries[slot.index].key == key)
    return slot.index;
  size_t at = lower_bound(table, key);
  if (at < table.entries.size() && table.entries[at].key == key) {
    slot = Memo{&table, table.version, at};
    return at;
  }
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
  table->version = next_version();
  return table;
}

// Built-in entries share their handler; a variable gets its own value.
VarTablePtr vartable_copy(const VarTable& table) {
  auto out = vartable_new(table.tag_start);
  out->entries.reserve(table.entries.size());
  for (const TableEntry& e : table.entries) {
    TableEntry& copy = out->entries.emplace_back();
    copy.name = e.name;
    copy.key = e.key;
    copy.entry.kind = e.entry.kind;
    copy.entry.tag_class = e.entry.tag_class;
    copy.entry.handler = e.entry.handler;
    if (e.entry.kind == KIND_VARIABLE && e.entry.variable)
      copy.entry.variable = value_copy(*e.entry.variable);
  }
  return out;
}

void vartable_set(VarTable& table, std::string_view name, TagHandler entry) {
  std::string key = fold_name(name);
  size_t at = lower_bound(table, key);
  if (at < table.entries.size() && table.entries[at].key == key) {
    table.entries[at].entry = std::move(entry);
    return;
  }
  TableEntry fresh;
  fresh.name = std::string(name);
  fresh.key = std::move(key);
  fresh.entry = std::move(entry);
  table.entries.insert(table.entries.begin() + at, std::move(fresh));
  table.version = next_version();
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
  if (at < table.entries.size()) {
    table.entries.erase(table.entries.begin() + at);
    table.version = next_version();
  }
}

TagHandler make_variable_entry() {
  TagHandler entry;
  entry.kind = KIND_VARIABLE;
  entry.tag_class = 0;
  entry.handler = nullptr;  // the engine runs the Level 4 resolution for every variable
  entry.variable = value_new();
  return entry;
}

// The name table: built-in tags and variables in one sorted, case-insensitive
// name space.  A variable is an entry of kind 4, which is why a variable is
// referenced in a page by writing its name as a tag.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "values/value.h"

struct ParsedTag;
struct Run;

// A tag handler receives the processed tag and returns the value that takes
// the tag's place in the output (an empty value when it prints nothing).
using TagHandlerFn = ValuePtr (*)(Run& run, const ParsedTag& tag);

enum EntryKind : uint8_t { KIND_BUILTIN = 1, KIND_VARIABLE = 4 };
enum TagClass : uint8_t { CLASS_STATEMENT = 1, CLASS_FUNCTION = 2 };

struct TagHandler {
  uint8_t kind = KIND_VARIABLE;
  uint8_t tag_class = 0;
  TagHandlerFn handler = nullptr;
  ValuePtr variable;  // present only for kind 4
};

struct TableEntry {
  std::string name;  // spelling of the first insertion
  std::string key;   // the name folded to upper case: the sort key
  TagHandler entry;
};

using CharClass = std::array<uint8_t, 256>;

struct VarTable {
  CharClass tag_start{};  // bytes that may begin a tag name
  std::vector<TableEntry> entries;  // sorted by name, case-insensitively
  // Changes whenever an entry is added or removed (never reused across
  // tables), so a remembered position can be checked cheaply.
  uint64_t version = 0;
};

using VarTablePtr = std::shared_ptr<VarTable>;

// "/", "A"-"Z", "_", "a"-"z".
const CharClass& default_tag_start_class();

VarTablePtr vartable_new(const CharClass& tag_start);
// A full copy: every entry copied, variables deep-copied.
VarTablePtr vartable_copy(const VarTable& table);
// Inserts, or replaces the entry of the same name (keeping the stored spelling).
void vartable_set(VarTable& table, std::string_view name, TagHandler entry);
TagHandler* vartable_find(VarTable& table, std::string_view name);
const TagHandler* vartable_find(const VarTable& table, std::string_view name);
// The stored spelling of `name`, or null when absent.
const std::string* vartable_stored_name(const VarTable& table, std::string_view name);
void vartable_remove(VarTable& table, std::string_view name);
// A new variable entry holding an empty value.
TagHandler make_variable_entry();

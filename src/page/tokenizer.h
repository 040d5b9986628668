// Page tokenizer: cuts page text into a chain of text runs and tags.
//
// Tags may stand inside option values; the tokenizer keeps such inner tags
// as text of the value, with their quotes rewritten one level down, so the
// value can itself be tokenized when it is processed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/dynstring.h"
#include "values/vartable.h"

struct Chain;

struct TagOption {
  std::string name;
  std::string value;  // empty for an option written without "="
  // The processed form of a name or value without tags is the text itself;
  // the engine remembers the parsed chain of those that have tags.
  mutable std::shared_ptr<const Chain> name_chain;
  mutable std::shared_ptr<const Chain> value_chain;
};

struct ParsedTag {
  uint32_t line = 0;
  bool is_tag = false;
  std::string text;  // a text run's bytes
  std::string name;  // a tag's name as written, without "<"
  std::vector<TagOption> options;
  ParsedTag* next = nullptr;  // owned by the chain, not by the node
  // The node that ends this tag's block, found once and remembered
  // (block handlers fill it; the chain never changes after tokenizing).
  mutable const ParsedTag* block_end = nullptr;
  mutable bool block_end_known = false;
  // -1 not yet known, 1 when no option name or value holds a tag: such a
  // tag is its own processed form.
  mutable int8_t options_plain = -1;
  // Where the name was last found in the name table (see vartable_find_for).
  mutable const VarTable* found_in = nullptr;
  mutable uint64_t found_version = 0;
  mutable size_t found_at = 0;
};

// A chain owns its nodes; `next` links them in page order.
struct Chain {
  std::vector<std::unique_ptr<ParsedTag>> nodes;
  ParsedTag* head() const { return nodes.empty() ? nullptr : nodes.front().get(); }
};

// Reads `source` from its cursor to its end.  With `keep_option_tags` an
// inner tag used as a whole option is kept as the option's name; with
// `class_only` a "<" starts a tag exactly when the next byte is in the
// table's tag-start class.
Chain tokenize(const VarTable& table, DynString& source, bool keep_option_tags, bool class_only,
               uint32_t first_line);
Chain tokenize_text(const VarTable& table, std::string_view text, uint32_t first_line);
// False when the file cannot be read.
bool tokenize_file(const VarTable& table, const std::string& path, Chain* out);

// The option's value: empty for a blank option, null when absent.
const std::string* tag_option(const ParsedTag& tag, std::string_view name);

// Writes a node back as page text; tags in normalised form ("<name opt=\"v\">"),
// with the table's stored spelling of known names.
void print_node(const VarTable* table, const ParsedTag& node, std::string& out);
std::string print_chain(const VarTable* table, const ParsedTag* first);

// True when a "<" followed by a tag-start byte occurs: text without one
// processes to itself.
bool has_tag_start(const VarTable& table, std::string_view text);

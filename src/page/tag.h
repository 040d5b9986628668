// A tag as a handler receives it: its name and its options after
// processing, as text.
//
// The compiled path may leave an option's value unprinted: a value made of
// text and references to variables keeps the numbers the references had,
// and the text is printed from them only when something reads it (a handler
// that needs the value as a number uses the numbers instead).
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <memory>
#include <vector>

#include "page/option_names.h"

struct Page;
struct PageOption;

// What a reference in an option value stood for when the option was
// processed.
struct RefValue {
  enum Kind : uint8_t { NUMBER, INTEGER, TEXT };
  Kind kind = TEXT;
  double number = 0;
  int32_t integer = 0;
  std::string text;
};

struct TagOption {
  std::string name;
  mutable uint16_t atom = kAtomUnknown;  // the name's number (option_atom), worked out on first use
  // The processed value; while `pending`, still to be printed from the
  // references (see tag_option).
  mutable std::string value;
  mutable bool pending = false;
  // The page option this was processed from, when the compiled path
  // processed it (null otherwise), and the page that holds it.
  const PageOption* source = nullptr;
  const Page* page = nullptr;
  uint32_t first_ref = 0;  // its references in ParsedTag::refs
  uint32_t ref_count = 0;
};

struct ParsedTag {
  uint32_t line = 0;
  bool is_tag = false;
  std::string text;  // a text node's bytes
  std::string name;  // a tag's name as written
  std::vector<TagOption> options;
  std::vector<RefValue> refs;  // of the options left pending
};

// The option's value: empty for a blank option, null when absent.  Options
// are matched by name without regard to case; the first one written wins.
const std::string* tag_option(const ParsedTag& tag, OptionKey name);
const TagOption* tag_option_entry(const ParsedTag& tag, OptionKey name);
// The same for a name known only when the program runs (a literal name goes
// to the forms above).
template <typename Name>
  requires std::same_as<Name, std::string_view> || std::same_as<Name, std::string> ||
           std::same_as<Name, const char*> || std::same_as<Name, char*>
const std::string* tag_option(const ParsedTag& tag, const Name& name) {
  return tag_option(tag, OptionKey::named(name));
}
template <typename Name>
  requires std::same_as<Name, std::string_view> || std::same_as<Name, std::string> ||
           std::same_as<Name, const char*> || std::same_as<Name, char*>
const TagOption* tag_option_entry(const ParsedTag& tag, const Name& name) {
  return tag_option_entry(tag, OptionKey::named(name));
}
// Prints a pending value.
const std::string& option_text(const ParsedTag& tag, const TagOption& option);

// Writes the tag back as page text: "<" and `name` (the name table's
// spelling; the tag's own when null), then each option as a space, its name
// and, unless the value is empty, ="value"; then ">".  A text node is its
// text.
void print_tag(const ParsedTag& tag, const std::string* name, std::string& out);

// A page node as a tag with its options as written (unprocessed).
void node_as_tag(const Page& page, uint32_t node, ParsedTag& out);

// A variable reference's text ("name element=[2]") cut into its tag once, for
// a text resolved again and again (a literal "var" option).
struct CutReference {
  ParsedTag tag;
  std::string create_name;  // the name a new variable gets: the first word
  std::string text;         // the text with leading white space skipped
};
// Null when the text does not begin with a tag.
std::unique_ptr<CutReference> cut_reference(std::string_view text);
// True when "<text>" cuts into one tag named `text` without options: a
// tag-start byte first, and no byte that ends a name.
bool is_bare_reference(std::string_view text);

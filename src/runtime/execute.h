// The compiled path: shortcuts that give exactly what the general path
// gives, each guarded by a check of what it assumes (the name table's
// version, a value's type), falling back to the general path otherwise.
#pragma once

#include <string>

#include "base/nocase.h"
#include "runtime/run.h"

// The name table entry for a name of `page`, remembered per page name while
// the table does not change; null when the name is not in the table.
const TagHandler* find_page_name(Run& run, const Page& page, uint32_t name);
// Forms a value made of text and bare references (FORM_REFERENCES) from the
// variables' values, leaving numbers unprinted.  False, with nothing
// changed, when a reference is not a variable holding a number, an integer,
// a string or nothing: the general path then processes the value.
bool take_references(Run& run, const Page& value, ParsedTag& tag, TagOption& option);
// The output of a variable tag without options, when its value is a scalar
// (what the Level 4 handler would print); false otherwise.
bool print_variable(Run& run, const TagHandler& entry, std::string_view name, std::string& out);
// The variable a "var"-style option names (Level 4 resolution of its
// text), through a remembered look-up when the option is a literal bare
// name; null after the resolution's diagnostic.  The option must be present.
Value* option_variable(Run& run, const ParsedTag& tag, const TagOption& option);

// ---------------------------------------------------------------------------
// Fast handlers
//
// A built-in tag may have a fast handler beside its handler.  It runs on
// the tag's options as the compiled path processes them, without printing
// them (FastArgs), and either does all the handler would do or declines
// before changing anything; the handler then runs on the same processed
// options.  Fast handlers never report: every error goes to the handler.

struct FastArgs {
  static constexpr uint32_t kMaxOptions = 8;
  static constexpr uint32_t kMaxRefs = 16;
  const Page* page = nullptr;
  uint32_t node = 0;
  uint32_t count = 0;
  uint32_t ref_first[kMaxOptions + 1];  // per option, its first reference
  const Value* refs[kMaxRefs];          // the referenced variables' values
};

// True when the fast handler did the handler's work; false when it
// declined, having changed nothing.
using FastHandlerFn = bool (*)(Run& run, FastArgs& args);
void set_fast_handler(uint8_t tag, FastHandlerFn handler);
FastHandlerFn fast_handler(uint8_t tag);

// Processes a node's options without printing them: names literal, values
// literal or references to variables holding scalars.  False, with nothing
// changed, for any other option.
bool fast_options(Run& run, const Page& page, uint32_t node, FastArgs& args);
// The index of the first option with that name, or -1.
inline int fast_option(const FastArgs& args, OptionKey name) {
  if (args.count == 0) return -1;
  const PageOption* options = &args.page->options[args.page->nodes[args.node].first_option()];
  if (name.atom) {
    for (uint32_t k = 0; k < args.count; k++)
      if (options[k].atom == name.atom) return int(k);
    return -1;
  }
  for (uint32_t k = 0; k < args.count; k++)
    if (equals_nocase(args.page->text(options[k].name), name.text)) return int(k);
  return -1;
}
// An option's value as an expression's number, when it can be computed
// from its references' numbers (floating-point mode only).
bool fast_number(Run& run, const FastArgs& args, int option, double* out);
// The variable a literal bare-name option names, when it exists.
Value* fast_variable(Run& run, const FastArgs& args, int option);
// The processed tag the handler gets, as the options were processed.
void fast_to_tag(const FastArgs& args, ParsedTag& tag);

// Fuzz target for the page tokenizer: cut, print, look up, and cut the print again.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "page/tokenizer.h"

namespace {

void exercise(const VarTable& table, std::string_view text, bool keep_option_tags) {
  DynStringPtr source = dyn_open("r+b", std::string(text));
  if (!source) return;
  Chain chain = tokenize(table, *source, keep_option_tags, true, 1);
  std::string printed = print_chain(&table, chain.head());
  for (const ParsedTag* node = chain.head(); node; node = node->next) {
    if (!node->is_tag) continue;
    for (std::string_view name : {"condition", "VAR", "value", ""}) {
      const std::string* value = tag_option(*node, name);
      if (value && value->size() > text.size() + 1) __builtin_trap();
    }
    // Processing cuts option names and values again; they must cut cleanly.
    for (const TagOption& option : node->options) {
      if (has_tag_start(table, option.value)) tokenize_text(table, option.value, node->line);
    }
  }
  // The printed form is page text too.
  Chain again = tokenize_text(table, printed, 1);
  if (printed.empty() != (again.head() == nullptr)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const VarTable table = [] {
    VarTable t;
    t.tag_start = default_tag_start_class();
    vartable_set(t, "CVIF", TagHandler{});
    vartable_set(t, "CVVAR", TagHandler{});
    return t;
  }();
  std::string_view text(reinterpret_cast<const char*>(data), size);
  exercise(table, text, true);
  exercise(table, text, false);
  return 0;
}
